#include "platform/host/Files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
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

bool WriteFileAtomically(const std::string& path, std::string_view content, std::string* error) {
  auto fail = [&](const std::string& file, const char* what) {
    *error = file + ": " + what + ": " + std::strerror(errno);
    return false;
  };
  auto slash = path.find_last_of('/');
  const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  MakeDirs(dir);
  const std::string temporary = path + ".tmp";
  int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return fail(temporary, "cannot be created");
  for (size_t done = 0; done < content.size();) {
    ssize_t n = ::write(fd, content.data() + done, content.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      fail(temporary, "cannot be written");
      ::close(fd);
      ::unlink(temporary.c_str());
      return false;
    }
    done += static_cast<size_t>(n);
  }
  if (::fsync(fd) != 0) {
    fail(temporary, "cannot be flushed");
    ::close(fd);
    ::unlink(temporary.c_str());
    return false;
  }
  ::close(fd);
  if (std::rename(temporary.c_str(), path.c_str()) != 0) {
    fail(path, "cannot be replaced");
    ::unlink(temporary.c_str());
    return false;
  }
  int dirFd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dirFd >= 0) {
    ::fsync(dirFd);  // the rename itself on disk; a directory that cannot be flushed keeps it in memory
    ::close(dirFd);
  }
  return true;
}

}  // namespace Host
