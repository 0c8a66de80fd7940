#include "platform/host/FileLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "platform/host/HostRoot.h"

namespace Host {

FileLock::FileLock(const std::string& path, Mode mode, int waitMs) {
  (void)MakeParentDirs(path);  // a missing directory makes the open below fail with its cause
  fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
  if (fd_ < 0) throw std::runtime_error("cannot open the lock file " + path + ": " + std::strerror(errno));
  const int operation = (mode == Mode::Exclusive ? LOCK_EX : LOCK_SH) | LOCK_NB;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(waitMs);
  while (::flock(fd_, operation) != 0) {
    const int error = errno;
    if ((error != EWOULDBLOCK && error != EINTR) || std::chrono::steady_clock::now() >= deadline) {
      ::close(fd_);
      fd_ = -1;
      if (error != EWOULDBLOCK && error != EINTR) {
        throw std::runtime_error("cannot lock " + path + ": " + std::strerror(error));
      }
      throw LockBusy(path + " is still held by another process after " + std::to_string(waitMs) +
                               " ms");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

FileLock::~FileLock() {
  if (fd_ >= 0) ::close(fd_);  // closing the last descriptor releases the lock
}

}  // namespace Host
