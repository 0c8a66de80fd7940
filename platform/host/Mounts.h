// Mounts of in-memory filesystems.
//
// On a real root ("/") the mount is real: a tmpfs whose size and root mode come from the
// ramdisk specification "reserve,max(MB),0,0,0,mode(octal),name". In a sandbox root the target
// directory is created under the root and the request appended to "<root>/var/run/talvex/mounts.log"
// as one line "source target fstype flags data", so tests can see exactly what was asked.
#pragma once

#include <string>
#include <vector>

namespace Host {

// Returns 0 on success, -1 with errno set on failure; then `failure`, when given, says what could
// not be done, to which resolved path, and why ("cannot create <dir>: Not a directory").
// `target` is a host path.
[[nodiscard]] int Mount(const char* source, const char* target, const char* fstype, unsigned long flags, const char* data,
          std::string* failure = nullptr);

// The mount requests recorded in a sandbox root, oldest first.
std::vector<std::string> RecordedMounts();

}  // namespace Host
