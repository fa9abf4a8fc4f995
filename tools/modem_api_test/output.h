// The places that the program writes to: its own standard output, as a document for people or one line of JSON for
// scripts; remarks on standard error; and files, none of which stays open in a program that this one starts.
//
// The library's shell log goes to standard output too. So that the program's output stays clean, it keeps the real
// standard output to itself and points descriptor 1 at standard error.
#pragma once

#include <cstdio>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "failure.h"
#include "text.h"
#include "unique_fd.h"

namespace pelmar::cli {

class Output {
 public:
  // Takes standard output over; once in a process, before any other thread writes.
  explicit Output(bool json);
  ~Output();
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  bool is_json() const { return is_json_; }

  // The command that prints from now on, if not empty: its words joined by "-", which is the type of every document
  // that has no type of its own.
  void set_command(const std::string& command);
  int descriptor() const { return fd_.get(); }

  // From now on prints on standard error. Returns the descriptor of standard output, which stays open.
  int give_away();
  // Begins a line of a batch. Its documents are kept until its end, where one document is written for all of them, with
  // the number of the line.
  void begin_line(size_t line);
  void end_line(const std::optional<Failure>& failure);
  bool is_batch() const { return line_ > 0; }

  // Writes the one or the other; the text's last line end is added where it is missing, and its control characters but
  // line ends and tabs are escaped. The document gets a type, and one that has its own the command. Throws when it
  // cannot.
  void print(const Json& document, std::string_view text);

  // The bytes as they are.
  void write(std::string_view bytes);

  // Prints a failure on standard error, and as JSON here too.
  void report(const Failure& failure);

 private:
  // Returns the document with its type, its command, and the number of its line, if not 0.
  Json complete(const Json& document, size_t line = 0) const;

  UniqueFd fd_;
  bool is_json_;
  std::mutex mutex_;  // of command_ and line_, which the signal thread reads
  std::string command_ = "modem_api_test";
  size_t line_ = 0;  // of a batch; else 0
  std::vector<Json> documents_;
};

// After this call, output that is not read within 100 ms is a failure. Before it, writes wait for the reader.
void stop_waiting_for_readers();

// A line for the user, on standard error.
void remark(const std::string& text);

// --- files ---

using File = std::unique_ptr<FILE, int (*)(FILE*)>;

// From now on standard input has nothing: reading it fails.
void close_standard_input();

// All of a file, or of standard input where `path` is null. Throws where it cannot be read, and where it is longer
// than `most` bytes; `step` names it in the failure.
std::string read_file(const char* path, const std::string& step, size_t most = SIZE_MAX);

// Throws where the file cannot be written.
void write_file(const std::string& path, std::span<const uint8_t> bytes);

// A recording's file, or standard output for "-". An earlier recording is lost only where that is asked for.
class RecordingFile {
 public:
  enum class Earlier { kRefuse, kReplace, kAppend };

  // Opens or creates the file; what is in it stays until the first write. Throws where it cannot be written, and where
  // there is one and `earlier` refuses it.
  RecordingFile(Output& output, std::string path, Earlier earlier);
  // A file that was created and not written is removed.
  ~RecordingFile();
  RecordingFile(const RecordingFile&) = delete;
  RecordingFile& operator=(const RecordingFile&) = delete;

  // The text is in the file when this returns. Throws where it cannot be written.
  void write(const std::string& text);

 private:
  void require(bool is_done) const;

  Output& output_;
  const std::string path_;
  UniqueFd fd_;
  bool is_unused_ = false;  // created, and not written
  bool replaces_ = false;
};

}  // namespace pelmar::cli
