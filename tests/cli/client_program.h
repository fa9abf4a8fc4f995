// The client, run as its users do: from a shell, against a simulated modem that it finds by its environment; and texts
// that stand in golden/.
#pragma once

#include <gmock/gmock.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "modem_test.h"

namespace pelmar::cli {

using sim::test::comes_true;
using sim::test::Outcome;
using sim::test::Process;

inline std::string content(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

// Where the text differs, the file in the working directory has what it is now.
inline void expect_golden(const std::string& name, const std::string& text) {
  if (text == content(GOLDEN_DIRECTORY "/" + name)) return;
  std::ofstream(name) << text;
  ADD_FAILURE() << name << " differs from " GOLDEN_DIRECTORY "; it is now:\n" << text;
}

// Runs a script in which `client` is the program, in the test's directory.
inline Outcome shell(const std::string& script) {
  const std::string start = "cd \"${TEST_DIRECTORY:-.}\"; client() { " MODEM_API_TEST " \"$@\"; }\n";
  return sim::test::run_program({"/bin/sh", "-c", start + script});
}

// Starts the program in the background, where it ignores SIGINT as a shell's background process does.
inline Process start(const std::string& arguments) {
  return Process("/bin/sh", {"sh", "-c", "trap '' INT; exec " MODEM_API_TEST " " + arguments}, true);
}

// Whether a line with the text comes to be printed.
inline bool prints(Process& process, const std::string& text) {
  for (std::string line = process.line(); !line.empty(); line = process.line()) {
    if (line.find(text) != line.npos) return true;
  }
  return false;
}

// A script, its exit status, and a part of what it prints, which is all of it where it ends with a line's end.
struct Case {
  std::string script;
  int status;
  std::string text;
};

inline void expect(const std::vector<Case>& cases) {
  for (const Case& each : cases) {
    const Outcome outcome = shell(each.script);
    EXPECT_EQ(outcome.status, each.status) << each.script << "\n" << outcome.output;
    if (each.text.ends_with('\n')) {
      EXPECT_EQ(outcome.output, each.text) << each.script;
    } else {
      EXPECT_THAT(outcome.output, testing::HasSubstr(each.text)) << each.script;
    }
  }
}

class ClientTest : public system_test::ModemTest {
 protected:
  explicit ClientTest(const std::vector<std::string>& options = {}) : ModemTest(options) {
    setenv("TEST_DIRECTORY", path("").c_str(), 1);
  }

  // Whether the modem's status comes to have this in it, or not to have it.
  bool comes_to(const std::string& text, bool has = true) {
    return comes_true([&] { return (modem().respond("status").find(text) != std::string::npos) == has; });
  }
  bool comes_to_have_no_clients() { return comes_to(R"("clients":[{)", false); }

  // Whether it comes to be asked for something that it does not respond to.
  bool comes_to_wait() { return comes_to(R"("faults":0,)", false); }
};

}  // namespace pelmar::cli
