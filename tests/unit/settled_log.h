// Tests of what an operation logs start behind the lines that only the first log line of a process brings.
#pragma once

#include <string>
#include <vector>

#include "pelmar_utils_cmn.h"
#include "scripted_platform.h"

namespace scripted {

using Lines = std::vector<std::string>;

inline void settle_log() {
  pelmar_get_current_pid_name();
  pelmar_check_sub_id(0);
  pelmar_utils_get_prop_print_flag();
  clear_log();
}

// The messages since the last call. With a function: its own alone, as "D body" and "E body".
inline Lines new_messages(const std::string& function = "") {
  Lines lines = messages();
  clear_log();
  if (function.empty()) return lines;
  std::erase_if(lines,
                [&](const std::string& line) { return line.compare(2, function.size() + 2, function + ": ") != 0; });
  for (std::string& line : lines) line.erase(2, function.size() + 2);
  return lines;
}

}  // namespace scripted
