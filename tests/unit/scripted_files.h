// Files as a test wants them, for what the library opens, reads and writes.
#pragma once

#include <functional>
#include <string>

namespace scripted {

// Opens of a path that ends with `suffix` go to `target`, which need not exist.
void redirect_opens(const std::string& suffix, const std::string& target);

// The path of a file in memory with this content.
std::string file_with(const std::string& content);

// One read() or write(): the number of bytes to let through, at most as many as were asked for, or -1 with errno set.
using Transfer = std::function<long(long asked)>;
extern Transfer on_read;
extern Transfer on_write;

}  // namespace scripted
