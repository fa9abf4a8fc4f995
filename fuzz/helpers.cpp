// The exported string and file helpers, with texts and sizes of all kinds.
//
//   input: u8 helper, u8 bytes of room, then texts, each ended by a zero byte or by the input's end
//
// What holds whatever the input: nothing is read or written beyond a block, results are terminated, and a refusal
// leaves the result as its description says.
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

#include "instant_platform.h"
#include "messages.h"
#include "pelmar_log.h"
#include "pelmar_string.h"

using namespace pelmar::fuzz;

namespace {

// Takes texts off the input, each in a heap block of exactly its size.
class Texts {
 public:
  Texts(const uint8_t* data, size_t size) : next_(data), end_(data + size) {}

  Bytes take() {
    const uint8_t* const stop = std::find(next_, end_, 0);
    Bytes text(next_, stop);
    text.push_back(0);
    next_ = stop == end_ ? end_ : stop + 1;
    return text;
  }
  Bytes rest() const { return {next_, end_}; }

 private:
  const uint8_t* next_;
  const uint8_t* end_;
};

char* text_of(Bytes& bytes) {
  return reinterpret_cast<char*>(bytes.data());
}

bool is_terminated(const Bytes& bytes) {
  return std::find(bytes.begin(), bytes.end(), 0) != bytes.end();
}

void trim(Texts& texts, size_t) {
  Bytes text = texts.rest();
  const Bytes before = text;
  const int length = pelmar_str_trim(text_of(text), static_cast<uint32_t>(text.size()));
  if (text.size() < 2) {
    require(length == 0 && text == before);
  } else {
    require(is_terminated(text) && std::strlen(text_of(text)) == static_cast<size_t>(length));
  }
}

void find(Texts& texts, size_t room) {
  Bytes text = texts.take();
  const auto wanted = static_cast<char>(room);
  require(pelmar_str_find_right(text_of(text), wanted) == std::strrchr(text_of(text), wanted));
}

void compare(Texts& texts, size_t) {
  Bytes one = texts.take();
  Bytes other = texts.take();
  require((pelmar_str_cmp(text_of(one), text_of(other)) == PELMAR_STR_SAME) == (one == other));
}

void replace(Texts& texts, size_t room) {
  Bytes source = texts.take(), from = texts.take(), to = texts.take();
  Bytes out(room + 1, 'x');
  pelmar_str_rpl(text_of(out), text_of(source), static_cast<uint32_t>(out.size()), text_of(from), text_of(to));
  require(is_terminated(out));
}

void add_prefix(Texts& texts, size_t room) {
  Bytes in = texts.take(), prefix = texts.take();
  Bytes out(room + 1, 'x');
  const Bytes before = out;
  const std::string expected = std::string(text_of(prefix)) + text_of(in);
  const bool fits = pelmar_str_add_prefix(text_of(in), text_of(out), static_cast<int32_t>(out.size()), text_of(prefix));
  require(fits ? expected == text_of(out) : out == before);
}

void hex(Texts& texts, size_t room) {
  Bytes out(room, 'x');
  Bytes data = texts.rest();
  data.resize(room < 3 ? 0 : (room - 2) / 2);
  const Bytes before = out;
  const bool done = pelmar_get_hex_str(text_of(out), static_cast<int32_t>(out.size()), data.data());
  require(done ? is_terminated(out) : out == before);
}

void copy_file(Texts& texts, size_t) {
  static const std::string source = "/tmp/fuzz-helpers-" + std::to_string(getpid()), target = source + ".copy";
  static const int at_exit = std::atexit([] {
    unlink(source.c_str());
    unlink(target.c_str());
  });
  require(at_exit == 0);
  const Bytes content = texts.rest();
  std::ofstream(source, std::ios::binary)
      .write(reinterpret_cast<const char*>(content.data()), static_cast<std::streamsize>(content.size()));
  require(pelmar_copy_file(source.c_str(), target.c_str()) == PELMAR_COPY_DONE);
  std::ifstream copy(target, std::ios::binary);
  require(std::equal(content.begin(), content.end(), std::istreambuf_iterator<char>(copy), {},
                     [](uint8_t a, char b) { return a == static_cast<uint8_t>(b); }));
  Bytes path = texts.take();  // any text as a name: refused, or no such file
  pelmar_copy_file(text_of(path), nullptr);
}

constexpr void (*kHelpers[])(Texts& texts, size_t room) = {trim, find, compare, replace, add_prefix, hex, copy_file};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  pelmar::instant_platform::set_log([](const char*) {});
  pelmar_hal_get_shell_print_flag(PELMAR_LOG_LEVEL_ERROR);
  pelmar_hal_close_shell_print();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  Texts texts(data + 2, size - 2);
  kHelpers[data[0] % std::size(kHelpers)](texts, data[1]);
  return 0;
}
