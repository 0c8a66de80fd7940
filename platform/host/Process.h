// Process creation for the library's command runner and the shell commands the host requires.
#pragma once

#include <sys/types.h>

#include <string>

namespace Host {

// Starts argv[0] (a path, not searched in PATH) with the NULL-terminated argv as a new process:
// no shell, standard descriptors on /dev/null, same working directory. Returns 0 and the child's
// pid, or an errno value when it could not be started.
[[nodiscard]] int SpawnProcess(const char* const* argv, pid_t* pid);

// Waits for the child; returns 0 and its raw wait status, or -1 with errno set.
[[nodiscard]] int WaitProcess(pid_t pid, int* status);

// Runs a command line through /bin/sh; returns its exit status, or -1 when the shell could not
// be run or the command was killed by a signal.
[[nodiscard]] int RunShell(const std::string& command);

}  // namespace Host
