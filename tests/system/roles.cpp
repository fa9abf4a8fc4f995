// The main program of the system tests, which the library serves as "mtb", and the roles of the client processes that
// they start.
#include <gtest/gtest.h>
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

int32_t open_client(modem_api_client_type type, modem_api_result& result) {
  int32_t client = -1;
  result = modem_api_init();
  if (result == MODEM_API_SUCCESS) result = modem_api_init_client(type, nullptr, nullptr, &client);
  return client;
}

void wait_for_end_of_input() {
  std::fflush(stdout);
  char byte;
  while (read(STDIN_FILENO, &byte, 1) > 0) {
  }
}

// Opens a client of the type, prints the result, and waits for the end of its input and then so many microseconds.
// Exits with all open.
int hold(char** arguments) {
  modem_api_result result = MODEM_API_SUCCESS;
  open_client(static_cast<uint32_t>(std::atoi(arguments[0])), result);
  std::printf("%d\n", result);
  wait_for_end_of_input();
  usleep(static_cast<useconds_t>(std::atoi(arguments[1])));
  return 0;
}

// Reads one item with all log lines on.
int talk(char**) {
  pelmar_hal_set_logcat_print_mask(0xFFFF);
  pelmar_hal_set_shell_print_mask(0xFFFF);
  modem_api_result result = MODEM_API_SUCCESS;
  const int32_t client = open_client(MODEM_API_CLIENT_VS, result);
  uint8_t data[8];
  uint32_t length = sizeof(data);
  modem_api_read_nv(client, 4711, 0, 0, data, &length);
  return modem_api_free_client(client);
}

// Votes for the modem's power until its input ends. With an heir: a child that has the connection too and outlives it.
int vote(char** arguments) {
  if (modem_api_peripheral_mng_init("modem") != 0 || modem_api_peripheral_mng_vote() != 0) return 1;
  if (std::strcmp(arguments[0], "with heir") == 0 && fork() == 0) {
    wait_for_end_of_input();
    _exit(0);
  }
  std::puts("voted");
  wait_for_end_of_input();
  modem_api_peripheral_mng_release_vote();
  modem_api_peripheral_mng_deinit();
  return 0;
}

struct Role {
  const char* name;
  int (*run)(char** arguments);
};

constexpr Role kRoles[] = {{"hold", hold}, {"talk", talk}, {"vote", vote}, {"chaos", chaos::run_client}};

}  // namespace
}  // namespace pelmar::system_test

// Stands in front of the C library's: a system log that a test can read.
extern "C" void vsyslog(int priority, const char* format, va_list arguments) {
  const char* const name = std::getenv(pelmar::system_test::kSystemLogVariable);
  std::FILE* const log = name != nullptr ? std::fopen(name, "a") : nullptr;
  if (log == nullptr) return;
  std::fprintf(log, "<%d>", priority);
  std::vfprintf(log, format, arguments);
  std::fputc('\n', log);
  std::fclose(log);
}

int main(int argc, char** argv) {
  if (argc > 2 && std::strcmp(argv[1], "--role") == 0) {
    pelmar_hal_close_print();
    for (const auto& role : pelmar::system_test::kRoles) {
      if (std::strcmp(argv[2], role.name) == 0) return role.run(argv + 3);
    }
    return 126;
  }
  static char name[] = "/system/mtb";
  if (std::strcmp(argv[0], name) != 0) {
    argv[0] = name;
    execv("/proc/self/exe", argv);
    return EXIT_FAILURE;
  }
  testing::InitGoogleTest(&argc, argv);
  pelmar_hal_close_print();
  return RUN_ALL_TESTS();
}
