// The system tests, which the library serves as "mtb", and the client processes that they start.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "client_process.h"
#include "pelmar_log.h"

int main(int argc, char** argv) {
  const int role_status = pelmar::system_test::run_role(argc, argv);
  if (role_status >= 0) return role_status;
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
