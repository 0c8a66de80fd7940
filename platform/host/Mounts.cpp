#include "platform/host/Mounts.h"

#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "platform/host/Files.h"
#include "platform/host/HostRoot.h"

namespace Host {
namespace {

const char* kMountLog = "/var/run/talvex/mounts.log";

// "32,32,0,0,0,00644,configstore" -> "size=32m,mode=0644"; empty when the text is malformed.
std::string TmpfsOptions(const std::string& spec) {
  std::vector<std::string> fields;
  std::stringstream in(spec);
  for (std::string f; std::getline(in, f, ',');) fields.push_back(f);
  if (fields.size() != 7 || fields[1].empty() || fields[5].empty()) return "";
  return "size=" + fields[1] + "m,mode=" + fields[5];
}

}  // namespace

int Mount(const char* source, const char* target, const char* fstype, unsigned long flags, const char* data,
          std::string* failure) {
  // errno is cleared before each step, and the step's own errno wins over `fallback`: MakeDirs
  // sets none when a file stands where a directory belongs.
  auto fail = [failure](const std::string& what, int fallback) {
    if (errno == 0) errno = fallback;
    if (failure != nullptr) *failure = what + ": " + std::strerror(errno);
    return -1;
  };
  std::string dir = Resolve(target);
  errno = 0;
  if (!MakeDirs(dir)) return fail("cannot create " + dir, ENOTDIR);
  if (!IsSandbox()) {
    std::string options = TmpfsOptions(data ? data : "");
    errno = 0;
    if (options.empty()) return fail("cannot mount " + dir + " with \"" + (data ? data : "") + "\"", EINVAL);
    if (::mount(source, dir.c_str(), "tmpfs", flags, options.c_str()) != 0) return fail("cannot mount " + dir, EIO);
    return 0;
  }
  std::string log = Resolve(kMountLog);
  std::string logDir = log.substr(0, log.find_last_of('/'));
  errno = 0;
  if (!MakeDirs(logDir)) return fail("cannot create " + logDir, ENOTDIR);
  errno = 0;
  std::string line = std::string(source) + ' ' + target + ' ' + fstype + ' ' + std::to_string(flags) + ' ' + (data ? data : "");
  if (!AppendLine(log, line)) return fail("cannot write " + log, EIO);
  return 0;
}

std::vector<std::string> RecordedMounts() {
  std::vector<std::string> lines;
  std::ifstream in(Resolve(kMountLog));
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

}  // namespace Host
