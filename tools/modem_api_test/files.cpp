#include "files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "failure.h"
#include "unique_fd.h"

namespace pelmar::cli {

File open_file(const std::string& path, const std::string& mode) {
  return {fopen(path.c_str(), (mode + 'e').c_str()), &fclose};
}

std::string read_file(const std::string& path) {
  const std::string step = "reading the file '" + path + "'";
  const File file = open_file(path, "rb");
  if (file == nullptr) throw Failure::of_system(step);
  std::string content;
  char bytes[65536];
  while (const size_t count = fread(bytes, 1, sizeof bytes, file.get())) content.append(bytes, count);
  if (ferror(file.get()) != 0) throw Failure::of_system(step);
  return content;
}

RecordingFile::RecordingFile(Output& output, std::string path, Earlier earlier)
    : output_(output), path_(std::move(path)), file_(nullptr, &fclose) {
  if (path_ == "-") return;
  UniqueFd fd(open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
  if (!fd && errno == EEXIST) {
    is_new_ = false;
    fd.reset(open(path_.c_str(), O_WRONLY | O_CLOEXEC | (earlier == Earlier::kAppend ? O_APPEND : 0)));
    struct stat status {};
    const bool is_regular = fd && fstat(fd.get(), &status) == 0 && S_ISREG(status.st_mode);
    if (is_regular && earlier == Earlier::kRefuse) {
      throw Failure("writing the file '" + path_ + "'", "it is there already",
                    "Name another file, or add --force to replace it (--append: to go on with a CSV file).");
    }
    replaces_ = is_regular && earlier == Earlier::kReplace;
  }
  require(static_cast<bool>(fd));
  file_.reset(fdopen(fd.get(), "w"));
  require(file_ != nullptr);
  fd.release();
}

RecordingFile::~RecordingFile() {
  if (file_ != nullptr && is_new_ && !is_written_) unlink(path_.c_str());
}

void RecordingFile::write(const std::string& text) {
  if (file_ == nullptr) return output_.write({reinterpret_cast<const uint8_t*>(text.data()), text.size()});
  require(!std::exchange(replaces_, false) || ftruncate(fileno(file_.get()), 0) == 0);
  is_written_ = true;
  require(fwrite(text.data(), 1, text.size(), file_.get()) == text.size() && fflush(file_.get()) == 0);
}

void RecordingFile::require(bool is_done) const {
  if (!is_done) throw Failure::of_system("writing the file '" + path_ + "'");
}

}  // namespace pelmar::cli
