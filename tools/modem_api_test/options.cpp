#include "options.h"

#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <iostream>
#include <iterator>

#include "failure.h"
#include "files.h"
#include "json.h"

namespace pelmar::cli {

namespace {

constexpr size_t kMostInputBytes = 65536;  // far above what any message takes: the library refuses it in its words

Bytes read_stream(FILE* stream, const std::string& step) {
  Bytes bytes(kMostInputBytes + 1);
  bytes.resize(fread(bytes.data(), 1, bytes.size(), stream));
  if (ferror(stream)) throw Failure::of_system(step);
  if (bytes.size() > kMostInputBytes) {
    throw Failure(step, "it is longer than " + std::to_string(kMostInputBytes) + " bytes", "Give less data.");
  }
  return bytes;
}

Bytes read_data(const std::string& path) {
  const std::string step = "reading the data from " + (path == "-" ? "standard input" : "the file '" + path + "'");
  if (path == "-") return read_stream(stdin, step);
  const File file = open_file(path, "rb");
  if (file == nullptr) throw Failure::of_system(step);
  return read_stream(file.get(), step);
}

void write_file(const std::string& path, const Bytes& bytes) {
  File file = open_file(path, "wb");
  const bool is_written = file != nullptr && fwrite(bytes.data(), 1, bytes.size(), file.get()) == bytes.size();
  if (!is_written || fclose(file.release()) != 0) throw Failure::of_system("writing the file '" + path + "'");
}

}  // namespace

std::optional<int64_t> parse_number(const std::string& text, int64_t min, int64_t max) {
  const bool is_negative = text.starts_with('-');
  const char* begin = text.data() + (is_negative ? 1 : 0);
  const char* const end = text.data() + text.size();
  const bool is_hex = end - begin > 2 && begin[0] == '0' && (begin[1] == 'x' || begin[1] == 'X');
  if (is_hex) begin += 2;
  uint32_t value = 0;
  const auto [stop, error] = std::from_chars(begin, end, value, is_hex ? 16 : 10);
  if (error != std::errc() || stop != end) return std::nullopt;
  const int64_t number = is_negative ? -static_cast<int64_t>(value) : value;
  if (number < min || number > max) return std::nullopt;
  return number;
}

CLI::Option* add_number(CLI::App& command, const std::string& name, const std::string& help, int64_t min, int64_t max,
                        std::function<void(int64_t)> store) {
  const std::string range = std::to_string(min) + " to " + std::to_string(max);
  const auto take = [name, range, min, max, store = std::move(store)](const std::string& text) {
    const auto number = parse_number(text, min, max);
    if (!number) throw CLI::ValidationError(name, "'" + text + "' is no number from " + range);
    store(*number);
  };
  return command.add_option_function<std::string>(name, take, help)->type_name("N");
}

CLI::Option* add_subscription(CLI::App& command, uint32_t& target) {
  return add_number(command, "--sub", target, "the subscription, 0 or 1", 1);
}

CLI::Option* add_subscription(CLI::App& command, std::optional<uint32_t>& target, const std::string& otherwise) {
  return add_number(command, "--sub", "the subscription, 0 or 1 (" + otherwise + ")", 0, 1,
                    [&target](int64_t value) { target = static_cast<uint32_t>(value); });
}

void DataInput::add_to(CLI::App& command) {
  auto* const option = command.add_option("data", words, "hexadecimal digits, or @FILE")->type_name("DATA");
  command.add_option("--text", text, "the data as text")->type_name("TEXT")->excludes(option);
}

Bytes DataInput::parse() const {
  if (text) return {text->begin(), text->end()};
  if (words.empty()) {
    throw Failure::of_usage("no data is given", "Give pairs of hexadecimal digits (\"0a 1b\"), --text TEXT or @FILE.");
  }
  if (words.size() == 1 && words[0].starts_with('@')) return read_data(words[0].substr(1));
  std::string digits;
  for (const std::string& word : words) digits.append(digits.empty() ? "" : " ").append(word);
  return parse_hex(digits);
}

Bytes DataInput::read() const {
  Bytes bytes = parse();
  bytes.reserve(1);  // the library takes no null pointer, also for no bytes
  return bytes;
}

void DataOutput::add_to(CLI::App& command) {
  auto* const option = command.add_option("-o,--output", file, "write the bytes to this file (-: standard output)");
  option->type_name("FILE");
  const auto take = [this](const std::string& word) {
    if (!word.starts_with('@') || word.size() == 1) throw CLI::ValidationError("'" + word + "' is no @FILE");
    file = word.substr(1);
  };
  command.add_option_function<std::string>("file", take, "the same as --output FILE")
      ->type_name("@FILE")
      ->excludes(option);
}

void DataOutput::report(Output& output, const Bytes& bytes, Json document, const std::string& title) const {
  if (file == "-") {
    if (output.is_json()) throw Failure::of_usage("--json and --output - both want standard output");
    return output.write(bytes);
  }
  put_bytes(document, bytes);
  const std::string heading = title + ": " + byte_count(bytes.size());
  if (file.empty()) return output.print(document, heading + "\n" + hex_dump(bytes, 2));
  write_file(file, bytes);
  document["file"] = file;
  output.print(document, heading + " written to " + file);
}

void Confirmation::add_to(CLI::App& command) {
  command.add_flag("-y,--yes", yes, "do it without asking");
}

void Confirmation::require(const std::string& effect) const {
  if (yes) return;
  const std::string advice = "Repeat the command with --yes to confirm it.";
  if (isatty(STDIN_FILENO) == 0 || isatty(STDERR_FILENO) == 0) {
    throw Failure("", effect + " This was not confirmed, and there is no terminal to ask at.", advice);
  }
  fprintf(stderr, "%s Go on? [y/N] ", effect.c_str());
  std::string answer;
  std::getline(std::cin, answer);
  if (answer != "y" && answer != "yes") throw Failure("", "Nothing was done.");
}

}  // namespace pelmar::cli
