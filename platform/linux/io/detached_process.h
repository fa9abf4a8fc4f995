// Starts a program that outlives this process. The platform and the tools use it.
#pragma once

#include <signal.h>
#include <spawn.h>
#include <unistd.h>

namespace pelmar {

// Starts a program in a session of its own, without this process's signal mask and handlers, and without its
// descriptors but standard input, output and error. `actions` are done before. Returns 0, or errno's value.
inline int spawn_detached(const char* program, const char* const* arguments, posix_spawn_file_actions_t& actions,
                          pid_t& process) {
  posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
  sigset_t none;
  sigset_t all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &all);
  const int error = posix_spawn(&process, program, &actions, &attributes, const_cast<char* const*>(arguments), environ);
  posix_spawnattr_destroy(&attributes);
  return error;
}

}  // namespace pelmar
