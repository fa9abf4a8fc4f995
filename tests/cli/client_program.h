// The client as users run it, from a shell, with a simulated modem that its environment names; and comparisons with the
// files in golden/.
#pragma once

#include <gmock/gmock.h>

#include <fstream>
#include <optional>
#include <sstream>

#include "modem_test.h"

namespace pelmar::cli {

using sim::test::Outcome;
using sim::test::Process;
using sim::test::wait_until;

inline std::string content(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

// Compares a text with the golden file. If they differ, writes the text to a file in the working directory.
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

// Reads lines until one contains the text. Returns what follows it there, or nothing if the output ends before.
inline std::optional<std::string> after(Process& process, const std::string& text) {
  for (std::string line = process.line(); !line.empty(); line = process.line()) {
    if (const size_t at = line.find(text); at != line.npos) return line.substr(at + text.size());
  }
  return std::nullopt;
}

inline bool prints(Process& process, const std::string& text) {
  return after(process, text).has_value();
}

// A script, its exit status, and a part of its output. A text that ends with a line feed is the whole output.
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

  // Waits until the modem's status contains this text, or no longer contains it.
  bool wait_for_status(const std::string& text, bool has = true) {
    return wait_until([&] { return (modem().respond("status").find(text) != std::string::npos) == has; });
  }
  bool wait_for_no_clients() { return wait_for_status(R"("clients":[{)", false); }

  // Waits until the modem has received a request that a fault leaves without response.
  bool wait_for_silenced_request() { return wait_for_status(R"("faults":0,)", false); }
};

}  // namespace pelmar::cli
