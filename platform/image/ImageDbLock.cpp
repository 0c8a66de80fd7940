#include "platform/image/ImageDbLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <thread>

#include "errors/ConfigStoreException.h"
#include "platform/host/HostRoot.h"
#include "platform/logging/CSLogger.h"

namespace QorImage {
namespace {

[[noreturn]] void Fail(const std::string& message) {
  throw QorConfigStore::ConfigStoreException(QorConfigStore::CS_ERR_GENERIC, message);
}

// The process id the current holder wrote into the file, or "" when there is none to read.
std::string HolderPid(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return "";
  char text[32];
  ssize_t n = ::read(fd, text, sizeof text);
  ::close(fd);
  if (n <= 0) return "";
  long pid = 0;
  auto [end, ec] = std::from_chars(text, text + n, pid);
  if (ec != std::errc() || end == text || pid <= 0) return "";
  return std::to_string(pid);
}

}  // namespace

ImageDbLock::ImageDbLock(const std::string& path) {
  (void)Host::MakeParentDirs(path);  // a missing directory makes the open below fail with its cause
  fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  if (fd_ < 0) {
    Fail("Cannot open the image database lock file " + path + ": " + std::strerror(errno));
  }

  for (int attempt = 1;; ++attempt) {
    if (::flock(fd_, LOCK_EX | LOCK_NB) == 0) break;
    int err = errno;
    if (err != EWOULDBLOCK && err != EINTR) {
      ::close(fd_);
      Fail("Cannot lock the image database lock file " + path + ": " + std::strerror(err));
    }
    std::string holder = HolderPid(path);
    std::string heldBy = holder.empty() ? "another process" : "process " + holder;
    if (attempt == kAttempts) {
      ::close(fd_);
      Fail("Cannot lock the image database: " + path + " is held by " + heldBy + " (" + std::to_string(kAttempts) +
           " attempts)");
    }
    CSLogger::Log(CSLogger::PRIO_WARNING, "Image database lock %s is held by %s, attempt %d of %d", path.c_str(),
                  heldBy.c_str(), attempt, kAttempts);
    std::this_thread::sleep_for(std::chrono::seconds(1));
  }

  // Only the holder rewrites the file, so a waiting reader never wipes the holder's id.
  std::string pid = std::to_string(::getpid()) + "\n";
  if (::ftruncate(fd_, 0) != 0 || ::pwrite(fd_, pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
    // The id only tells others who holds the lock; the lock itself is held.
    CSLogger::Log(CSLogger::PRIO_WARNING, "Cannot write the process id into %s: %s", path.c_str(),
                  std::strerror(errno));
  }
}

ImageDbLock::~ImageDbLock() {
  ::flock(fd_, LOCK_UN);
  ::close(fd_);
}

}  // namespace QorImage
