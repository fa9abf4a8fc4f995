// Directories for what a user's processes keep and share. Of the platform, the simulated modem and the tools alike.
#pragma once

#include <string>

#include "unique_fd.h"

namespace pelmar {

enum class IfMissing { kMake, kLeave };

// Opens a directory; kMake makes it and those above it. No descriptor, with errno, where that fails.
UniqueFd open_directory(const std::string& path, IfMissing if_missing);
// The same for a directory in an open one.
UniqueFd open_directory_at(int parent, const std::string& name, IfMissing if_missing);

// Opens a directory that no other user can have prepared, list or change: no link, of this user, with mode 0700. The
// directory above it may be writable for everybody. No descriptor, with errno, where there is none; EPERM where what
// stands there is another user's or open to others.
UniqueFd open_private_directory(const std::string& path, IfMissing if_missing);

// $XDG_STATE_HOME, else .local/state in $HOME, else .local/state in the home that the user database names, which must
// be a directory of this user's own. Empty for a user without a home. A relative path in the environment is ignored.
std::string user_state_directory();

// Opens pelmar/NAME in the user's state directory or, for a user without a home, NAME in the private directory
// pelmar-UID among the temporary files. No descriptor where neither can be had; the process's first such failure is
// reported to the system log. With kLeave, a directory that nobody has made yet is no failure.
UniqueFd open_state_directory(const std::string& name, IfMissing if_missing);

}  // namespace pelmar
