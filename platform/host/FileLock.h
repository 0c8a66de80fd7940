// An advisory lock on a file (flock), shared or exclusive, taken with a bounded wait.
//
// flock locks belong to the open file: two FileLocks on one path conflict even in one process, so
// a caller that may nest must count its own holds (see configstore/frame/BootLock.h). The lock goes
// with the object, or with the process however it ends (a SIGKILL included).
#pragma once

#include <stdexcept>
#include <string>

namespace Host {

// The lock is still held by another process after the wait.
struct LockBusy : std::runtime_error {
  using std::runtime_error::runtime_error;
};

class FileLock {
 public:
  enum class Mode { Shared, Exclusive };

  // Opens (creating it and its directory when missing) the resolved path `path` and locks it,
  // retrying every few milliseconds for up to `waitMs`. Throws LockBusy when another process still
  // holds it after the wait, std::runtime_error when the file cannot be opened or locked; both name
  // the path and the cause.
  FileLock(const std::string& path, Mode mode, int waitMs);
  ~FileLock();
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

 private:
  int fd_ = -1;
};

}  // namespace Host
