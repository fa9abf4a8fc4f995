// Environment variables, the user's directories, and the id of the boot. The platform, the simulated modem and the
// tools use them.
#pragma once

#include <sys/types.h>

#include <string>

#include "unique_fd.h"

namespace pelmar {

// The modem that a program uses: see modem_address.h.
inline constexpr const char* kModemVariable = "PELMAR_MODEM";
inline constexpr const char* kDefaultModem = "@qmi-proxy";

// getenv(); an empty variable counts as unset.
std::string environment(const char* name, const char* otherwise = "");

// An absolute path; a relative one counts as unset.
std::string environment_path(const char* name);

// The first KiB of a file, such as one of /proc; empty for a file that cannot be read.
std::string read_small_file(const std::string& path);

// Empty for a process that is not there.
std::string process_name(pid_t process);

// "NAME[PID]"; empty for an unknown process, whose id is 0.
std::string describe_process(pid_t process);

// The kernel's id of this boot; empty where there is none.
std::string boot_id();

enum class IfMissing { kMake, kLeave };

// Opens a directory; kMake creates it and its parents. On failure there is no descriptor, and errno is set.
UniqueFd open_directory(const std::string& path, IfMissing if_missing);
// The same for a directory in an open one.
UniqueFd open_directory_at(int parent, const std::string& name, IfMissing if_missing);

// $XDG_STATE_HOME, else .local/state in $HOME, else .local/state in the home that the user database names, if that is a
// directory of this user. Empty for a user without a home. A relative path in the environment is ignored.
std::string user_state_directory();

// Opens pelmar/NAME in the user's state directory or, for a user without a home, NAME in the private directory
// pelmar-UID among the temporary files. No descriptor if both fail; the first such failure of a process is reported to
// the system log. With kLeave, a directory that does not exist is no failure.
UniqueFd open_state_directory(const std::string& name, IfMissing if_missing);

}  // namespace pelmar
