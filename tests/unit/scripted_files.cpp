#include "scripted_files.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>

namespace scripted {

Transfer on_read;
Transfer on_write;

namespace {

std::string g_suffix;
std::string g_target;

const char* opened_path(const std::string& path) {
  const bool redirected = !g_suffix.empty() && path.size() >= g_suffix.size() &&
                          path.compare(path.size() - g_suffix.size(), g_suffix.size(), g_suffix) == 0;
  return redirected ? g_target.c_str() : path.c_str();
}

}  // namespace

void redirect_opens(const std::string& suffix, const std::string& target) {
  g_suffix = suffix;
  g_target = target;
}

std::string file_with(const std::string& content) {
  const int file = memfd_create("scripted", 0);
  if (write(file, content.data(), content.size()) < 0) std::perror("memfd");
  return "/proc/self/fd/" + std::to_string(file);
}

}  // namespace scripted

using namespace scripted;

extern "C" {

FILE* fopen(const char* path, const char* mode) {
  static const auto real = reinterpret_cast<FILE* (*)(const char*, const char*)>(dlsym(RTLD_NEXT, "fopen"));
  return real(opened_path(path), mode);
}

int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const unsigned mode = (flags & O_CREAT) != 0 ? va_arg(arguments, unsigned) : 0;
  va_end(arguments);
  return static_cast<int>(syscall(SYS_openat, AT_FDCWD, opened_path(path), flags, mode));
}

ssize_t read(int file, void* buffer, size_t size) {
  const long allowed = on_read ? on_read(static_cast<long>(size)) : static_cast<long>(size);
  return allowed < 0 ? -1 : syscall(SYS_read, file, buffer, allowed);
}

ssize_t write(int file, const void* buffer, size_t size) {
  const long allowed = on_write ? on_write(static_cast<long>(size)) : static_cast<long>(size);
  return allowed < 0 ? -1 : syscall(SYS_write, file, buffer, allowed);
}
}
