// What a client process of a system test does.
#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "chaos/chaos.h"
#include "client_process.h"
#include "modem_api.h"
#include "modem_api_peripheral_mng.h"
#include "pelmar_log.h"

namespace pelmar::system_test {
namespace {

int32_t g_client = -1;

bool open_client() {
  if (modem_api_init() != MODEM_API_SUCCESS) return false;
  return modem_api_init_client(MODEM_API_CLIENT_VS, nullptr, nullptr, &g_client) == MODEM_API_SUCCESS;
}

void say(const char* text) {
  std::printf("%s\n", text);
  std::fflush(stdout);
}

void wait_for_end_of_input() {
  char byte;
  while (read(STDIN_FILENO, &byte, 1) > 0) {
  }
}

// Says whether the process may use the library.
int init(char**) {
  std::printf("%d\n", modem_api_init());
  return 0;
}

// Holds an open client until its input ends.
int hold(char**) {
  if (!open_client()) {
    say("refused");
    return 1;
  }
  say("open");
  wait_for_end_of_input();
  return modem_api_free_client(g_client);
}

// Writes and reads back NV items from `first` on, `count` times.
int items(char** arguments) {
  const auto first = static_cast<uint32_t>(std::atoi(arguments[0]));
  const int count = std::atoi(arguments[1]);
  if (!open_client()) return 1;
  say("open");
  for (int i = 0; i < count; ++i) {
    const uint32_t item = first + static_cast<uint32_t>(i) % 4;
    uint8_t written[200];
    std::memset(written, static_cast<int>(first + static_cast<uint32_t>(i)), sizeof(written));
    uint8_t found[MODEM_API_MAX_ITEM_BYTES] = {};
    uint32_t length = sizeof(found);
    if (modem_api_write_nv(g_client, item, 0, 0, written, sizeof(written)) != MODEM_API_SUCCESS) return 2;
    if (modem_api_read_nv(g_client, item, 0, 0, found, &length) != MODEM_API_SUCCESS) return 3;
    if (length != sizeof(written) || std::memcmp(written, found, length) != 0) return 4;
  }
  say("done");
  return modem_api_free_client(g_client);
}

// Reads one item with all log lines on.
int talk(char**) {
  pelmar_hal_set_logcat_print_mask(0xFFFF);
  pelmar_hal_set_shell_print_mask(0xFFFF);
  if (!open_client()) return 1;
  uint8_t data[8];
  uint32_t length = sizeof(data);
  modem_api_read_nv(g_client, 4711, 0, 0, data, &length);
  return modem_api_free_client(g_client);
}

// Opens a SAR client, waits for the end of its input and then some microseconds, and exits with all open.
int leave(char** arguments) {
  if (modem_api_init() != MODEM_API_SUCCESS) return 1;
  if (modem_api_init_client(MODEM_API_CLIENT_SAR, nullptr, nullptr, &g_client) != MODEM_API_SUCCESS) return 1;
  say("open");
  wait_for_end_of_input();
  usleep(static_cast<useconds_t>(std::atoi(arguments[0])));
  return 0;
}

bool cast_vote() {
  return modem_api_peripheral_mng_init("modem") == 0 && modem_api_peripheral_mng_vote() == 0;
}

int keep_vote() {
  say("voted");
  wait_for_end_of_input();
  modem_api_peripheral_mng_release_vote();
  modem_api_peripheral_mng_deinit();
  return 0;
}

// Votes for the modem's power until its input ends.
int vote(char**) {
  return cast_vote() ? keep_vote() : 1;
}

// The same, with a child that has the connection too and outlives its parent.
int vote_with_heir(char**) {
  if (!cast_vote()) return 1;
  if (fork() == 0) {
    wait_for_end_of_input();
    _exit(0);
  }
  return keep_vote();
}

struct Role {
  const char* name;
  int (*run)(char** arguments);
};

constexpr Role kRoles[] = {{"init", init},   {"hold", hold},
                           {"items", items}, {"talk", talk},
                           {"leave", leave}, {"chaos", chaos::run_client},
                           {"vote", vote},   {"vote_with_heir", vote_with_heir}};

}  // namespace

int run_role(int argc, char** argv) {
  if (argc < 3 || std::strcmp(argv[1], "--role") != 0) return -1;
  pelmar_hal_close_print();
  for (const Role& role : kRoles) {
    if (std::strcmp(argv[2], role.name) == 0) return role.run(argv + 3);
  }
  return 126;
}

}  // namespace pelmar::system_test

// Stands in front of the C library's: a system log that a test can read.
extern "C" void vsyslog(int priority, const char* format, va_list arguments) {
  const char* const name = std::getenv(pelmar::system_test::kSystemLogVariable);
  if (name == nullptr) return;
  std::FILE* const log = std::fopen(name, "a");
  if (log == nullptr) return;
  std::fprintf(log, "<%d>", priority);
  std::vfprintf(log, format, arguments);
  std::fputc('\n', log);
  std::fclose(log);
}
