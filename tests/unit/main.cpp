// Runs the tests under a name that the library serves: the process executes itself again as "mtb".
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>

int main(int argc, char** argv) {
  static char name[] = "/scripted/mtb";
  if (std::string_view(argv[0]) != name) {
    argv[0] = name;
    execv("/proc/self/exe", argv);
    return EXIT_FAILURE;
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
