// The files of the system properties: what another process may have left there, and names and values of all kinds.
//
//   input: u8 what (a file's content, or a name and a value), then the bytes
//
// What holds whatever the bytes: a read gives a terminated value within its limit, or the default; a value that was
// taken is read back; no name leaves the directory.
#include <stdlib.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "cutils/properties.h"
#include "messages.h"

using namespace pelmar::fuzz;

namespace {

namespace fs = std::filesystem;

fs::path g_outside;    // a directory that holds nothing but the properties' one
fs::path g_directory;  // of the properties

size_t entries(const fs::path& directory) {
  return static_cast<size_t>(std::distance(fs::directory_iterator(directory), {}));
}

void require_value(const std::string& name) {
  Bytes value(PROPERTY_VALUE_MAX, 'x');
  const int length = property_get(name.c_str(), reinterpret_cast<char*>(value.data()), "default");
  require(length >= 0 && length < PROPERTY_VALUE_MAX);
  require(std::strlen(reinterpret_cast<char*>(value.data())) == static_cast<size_t>(length));
}

void read_file(const std::string& content) {
  std::ofstream(g_directory / "persist" / "persist.file", std::ios::binary) << content;
  require_value("persist.file");
}

void set_and_get(const std::string& name, const std::string& value) {
  require_value(name);
  const bool is_set = property_set(name.c_str(), value.c_str()) == 0;
  char read[PROPERTY_VALUE_MAX];
  if (is_set) {
    property_get(name.c_str(), read, "");
    require(read == value);
    for (const auto& entry : fs::recursive_directory_iterator(g_directory)) {
      if (entry.is_regular_file() && entry.path().filename() != "persist.file") fs::remove(entry.path());
    }
  }
  require(entries(g_outside) == 1);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  char pattern[] = "/tmp/fuzz-properties.XXXXXX";
  g_outside = mkdtemp(pattern);
  g_directory = g_outside / "properties";
  setenv("PELMAR_PROPERTY_DIR", g_directory.c_str(), 1);
  require(property_set("persist.file", "") == 0);  // makes the directories
  std::atexit([] { fs::remove_all(g_outside); });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
  if (data[0] % 2 == 0) {
    read_file(text);
  } else {
    const size_t end = std::min(text.find('\0'), text.size());
    set_and_get(text.substr(0, end), end == text.size() ? "" : text.substr(end + 1).c_str());
  }
  return 0;
}
