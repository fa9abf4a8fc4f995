// The main program of the system tests, which the library serves as "mtb", and the roles of the client processes that
// they start.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "chaos/chaos.h"
#include "modem_api.h"
#include "modem_api_peripheral_mng.h"
#include "pelmar_log.h"

namespace pelmar::system_test {
namespace {

void wait_for_end_of_input() {
  std::fflush(stdout);
  char byte;
  while (read(STDIN_FILENO, &byte, 1) > 0) {
  }
}

// Opens a client of the type, prints the result, and waits for the end of its input and then so many microseconds.
// Exits with all open.
int hold(char** arguments) {
  const auto type = static_cast<modem_api_client_type>(std::atoi(arguments[0]));
  int32_t client = -1;
  modem_api_result result = modem_api_init();
  if (result == MODEM_API_SUCCESS) result = modem_api_init_client(type, nullptr, nullptr, &client);
  std::printf("%d\n", result);
  wait_for_end_of_input();
  usleep(static_cast<useconds_t>(std::atoi(arguments[1])));
  return 0;
}

// Votes for the modem's power until its input ends.
int vote(char**) {
  if (modem_api_peripheral_mng_init("modem") != 0 || modem_api_peripheral_mng_vote() != 0) return 1;
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

constexpr Role kRoles[] = {{"hold", hold}, {"vote", vote}, {"chaos", chaos::run_client}};

}  // namespace
}  // namespace pelmar::system_test

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
