// The words of an operator's command, taken one after the other.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace pelmar::sim {

// Says what is wrong with a command and what to write instead.
class CommandError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Says why the modem cannot do now what a right command asks for.
class Refusal : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Arguments {
 public:
  explicit Arguments(std::string_view line);

  bool is_empty() const { return next_ == words_.size(); }

  // The next word, which is there.
  std::string_view peek() const { return words_[next_]; }

  // Each takes the next word; `what` names it in the error. Numbers are decimal or 0x....
  std::string word(std::string_view what);
  uint64_t number(std::string_view what, uint64_t max);
  bool flag(std::string_view what);  // 0 or 1
  std::vector<uint8_t> hex(std::string_view what, size_t max_bytes);

  // Takes the words that are left, with single spaces between them.
  std::string rest(std::string_view what);

  // Takes the next word if it is that one.
  bool accept(std::string_view keyword);

  // Takes the next words if they are those, which are separated by single spaces.
  bool accept_words(std::string_view words);

  // Nothing may be left.
  void end() const;

 private:
  std::vector<std::string> words_;
  size_t next_ = 0;
};

}  // namespace pelmar::sim
