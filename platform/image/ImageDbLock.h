// The lock that keeps image database readers and the package installer apart.
#pragma once

#include <string>

namespace QorImage {

// Holds an exclusive flock on the resolved lock file for its lifetime.
//
// The constructor creates the file (and its directory) when missing, tries LOCK_EX|LOCK_NB up to
// three times one second apart, logging each busy attempt at priority 1, and then writes this
// process's id ("<pid>\n") into the file. It throws QorConfigStore::ConfigStoreException (code 2000)
// naming the file when it cannot be opened or locked; a busy lock's message names the holder's
// process id when the file holds one. The destructor unlocks and closes; the file stays.
class ImageDbLock {
 public:
  static constexpr int kAttempts = 3;

  explicit ImageDbLock(const std::string& resolvedPath);
  ~ImageDbLock();
  ImageDbLock(const ImageDbLock&) = delete;
  ImageDbLock& operator=(const ImageDbLock&) = delete;

 private:
  int fd_ = -1;
};

}  // namespace QorImage
