// Files that the program reads and writes. None stays open in a program that this one starts.
#pragma once

#include <cstdio>
#include <memory>
#include <string>

#include "output.h"

namespace pelmar::cli {

using File = std::unique_ptr<FILE, int (*)(FILE*)>;

// Null where it cannot be opened; errno has the reason. `mode` as for fopen().
File open_file(const std::string& path, const std::string& mode);

// All of a file. Throws where it cannot be read.
std::string read_file(const std::string& path);

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
  bool is_new_ = true;
  bool replaces_ = false;
  bool is_written_ = false;
  File file_;
};

}  // namespace pelmar::cli
