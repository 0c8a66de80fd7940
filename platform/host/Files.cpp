#include "platform/host/Files.h"

#include <fcntl.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "platform/host/HostRoot.h"

namespace Host {

bool AppendLine(const std::string& path, const std::string& line) {
  auto slash = path.find_last_of('/');
  if (slash != std::string::npos && slash > 0) MakeDirs(path.substr(0, slash));
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  std::string text = line + "\n";
  // One write per line: O_APPEND keeps lines from concurrent writers whole.
  bool ok = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  ::close(fd);
  return ok;
}

bool ReadFile(const std::string& path, std::string* content) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream ss;
  ss << in.rdbuf();
  *content = ss.str();
  return true;
}

}  // namespace Host
