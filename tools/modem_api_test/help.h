// Texts that are made from the command line's description: the help of a command, the manual page, and the words that
// a shell completes. What a command adds appears in all of them.
#pragma once

#include <map>
#include <span>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace pelmar::cli {

// The words that complete an argument, by the argument's type in the help.
using CompletionWords = std::map<std::string, std::vector<std::string>>;

// The program and the command: "modem_api_test nv read".
std::string path_of(const CLI::App& app);

std::string help_text(const CLI::App& app);

// In the language of man(7).
std::string manual_page(const CLI::App& root, const std::string& version, const std::string& date);

// The words that can stand in place of the last of `line`, which has the words behind the program's name. None where
// the program has no list: then a file may stand there.
std::vector<std::string> complete(const CLI::App& root, const CompletionWords& words, std::span<char* const> line);

// Returns the completion script of a shell, "bash" or "zsh".
std::string completion_script(const std::string& shell);

}  // namespace pelmar::cli
