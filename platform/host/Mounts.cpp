#include "platform/host/Mounts.h"

#include <sys/mount.h>

#include <cerrno>
#include <fstream>
#include <sstream>

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

int Mount(const char* source, const char* target, const char* fstype, unsigned long flags, const char* data) {
  std::string dir = Resolve(target);
  if (!MakeDirs(dir)) return -1;
  if (!IsSandbox()) {
    std::string options = TmpfsOptions(data ? data : "");
    if (options.empty()) {
      errno = EINVAL;
      return -1;
    }
    return ::mount(source, dir.c_str(), "tmpfs", flags, options.c_str());
  }
  std::string log = Resolve(kMountLog);
  if (!MakeDirs(log.substr(0, log.find_last_of('/')))) return -1;
  std::ofstream out(log, std::ios::app);
  out << source << ' ' << target << ' ' << fstype << ' ' << flags << ' ' << (data ? data : "") << '\n';
  out.flush();
  if (!out) {
    errno = EIO;
    return -1;
  }
  return 0;
}

std::vector<std::string> RecordedMounts() {
  std::vector<std::string> lines;
  std::ifstream in(Resolve(kMountLog));
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

}  // namespace Host
