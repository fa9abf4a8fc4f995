// Runs the tests under a name that the library serves: the process starts itself again as "mtb".
//
// SCRIPTED_PROCESS_NAME names another process, for tests of who is refused.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

int main(int argc, char** argv) {
  const char* const wanted = std::getenv("SCRIPTED_PROCESS_NAME");
  const std::string name = std::string("/scripted/") + (wanted != nullptr ? wanted : "mtb");
  if (name != argv[0]) {
    argv[0] = const_cast<char*>(name.c_str());
    execv("/proc/self/exe", argv);
    return EXIT_FAILURE;
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
