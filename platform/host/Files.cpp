#include "platform/host/Files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include "platform/host/HostRoot.h"

namespace Host {

bool AppendLine(const std::string& path, const std::string& line) {
  (void)MakeParentDirs(path);  // a missing directory makes the open below fail
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  std::string text = line + "\n";
  // One write per line: O_APPEND keeps lines from concurrent writers whole.
  bool ok = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  ::close(fd);
  return ok;
}

int OpenRegularFile(const std::string& path, int flags) {
  // O_NONBLOCK: opening a FIFO must not wait for the other end; it is refused below anyway.
  int fd = ::open(path.c_str(), flags | O_NONBLOCK | O_CLOEXEC, 0644);
  if (fd < 0) return -1;
  struct stat st {};
  int error = 0;
  if (::fstat(fd, &st) != 0) {
    error = errno;
  } else if (S_ISDIR(st.st_mode)) {
    error = EISDIR;
  } else if (!S_ISREG(st.st_mode)) {
    error = EINVAL;
  } else if (::fcntl(fd, F_SETFL, 0) != 0) {  // plain blocking reads from here on
    error = errno;
  }
  if (error == 0) return fd;
  ::close(fd);
  errno = error;
  return -1;
}

bool ReadFile(const std::string& path, std::string* content, std::string* cause, size_t maxBytes) {
  auto fail = [&](int error, std::string why) {
    if (cause != nullptr) *cause = std::move(why);
    errno = error;
    return false;
  };
  const std::string tooLarge = "larger than " + std::to_string(maxBytes) + " bytes";
  int fd = OpenRegularFile(path);
  if (fd < 0) {
    const int error = errno;
    return fail(error, error == EINVAL ? "not a regular file" : std::strerror(error));
  }
  struct stat st {};
  ::fstat(fd, &st);
  if (static_cast<unsigned long long>(st.st_size) > maxBytes) {
    ::close(fd);
    return fail(EFBIG, tooLarge);
  }
  std::string text;
  // One byte past the cap is asked for, so that a file that grew since fstat is still caught.
  const size_t limit = maxBytes + 1;
  text.resize(std::min(limit, static_cast<size_t>(st.st_size) + 1));
  size_t done = 0;
  int error = 0;
  for (;;) {
    if (done == text.size()) {
      if (text.size() >= limit) break;
      text.resize(std::min(limit, text.size() * 2));
    }
    ssize_t n = ::read(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) error = errno;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  ::close(fd);
  if (error != 0) return fail(error, std::strerror(error));
  if (done > maxBytes) return fail(EFBIG, tooLarge);
  text.resize(done);
  *content = std::move(text);
  return true;
}

bool WriteFileAtomically(const std::string& path, std::string_view content, std::string* error) {
  auto fail = [&](const std::string& file, const char* what) {
    *error = file + ": " + what + ": " + std::strerror(errno);
    return false;
  };
  auto slash = path.find_last_of('/');
  const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  (void)MakeDirs(dir);  // a missing directory makes the open below fail with its cause
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
