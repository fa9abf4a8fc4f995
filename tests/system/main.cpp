// The main program of the system tests, and of the client processes that they start. It runs as "mtb", a name that the
// library serves.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "chaos/chaos.h"
#include "pelmar_log.h"

int main(int argc, char** argv) {
  pelmar_hal_close_print();
  if (argc > 2 && std::strcmp(argv[1], "--chaos") == 0) return pelmar::system_test::chaos::run_client(argv + 2);
  static char name[] = "/system/mtb";
  if (std::strcmp(argv[0], name) != 0) {
    argv[0] = name;
    execv("/proc/self/exe", argv);
    return EXIT_FAILURE;
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
