// The boot lock: a boot load holds it exclusively for its whole run, and the operations that stage
// for the next boot or read what it will do (desired, SmartNIC and host-API staging, the plan, the
// boot mode, schema registration) hold it shared. So a staging is wholly before or wholly after a
// load, and two loads never overlap (the second one's restore would pull the store from under the
// first). Readers of the live store (listings, export, metrics) hold it shared as well, so that they
// never open a store file a load's restore is still copying; for them it is a courtesy (Reader):
// when it cannot be had they read anyway.
//
// The lock file is "/var/run/talvex/configstore.lock" under the host root. A process that already
// holds the lock takes it again for free (the load registers schemas and sets the boot mode itself).
#pragma once

#include <memory>
#include <string>

#include "platform/host/FileLock.h"

namespace QorConfigStore {

inline constexpr const char* kBootLockFile = "/var/run/talvex/configstore.lock";
// How long a load or a staging waits for the other to finish before it gives up.
inline constexpr int kBootLockWaitMs = 30000;

class BootLock {
 public:
  // Takes the lock, waiting up to `waitMs`. Throws ConfigStoreException 2000 naming the lock file
  // and the cause when another process still holds it after the wait. When the lock file cannot be
  // opened at all (a broken run-time directory), a shared hold throws the same way, while an
  // exclusive one (the boot load, which must get through) goes on unlocked: Unavailable() says why.
  explicit BootLock(Host::FileLock::Mode mode, int waitMs = kBootLockWaitMs);
  // A shared hold that never throws: a lock still busy after the wait, or no lock file, leaves it
  // unheld (Unavailable() says why) and the reader goes on.
  struct Reader {};
  explicit BootLock(Reader, int waitMs = kBootLockWaitMs);
  ~BootLock();
  BootLock(const BootLock&) = delete;
  BootLock& operator=(const BootLock&) = delete;

  // Why the lock is not held ("" when it is).
  const std::string& Unavailable() const { return unavailable_; }

 private:
  void Take(Host::FileLock::Mode mode, int waitMs);  // counts the hold, or throws and counts nothing

  bool counted_ = true;  // false for a reader that went on without the lock
  std::string unavailable_;
  std::unique_ptr<Host::FileLock> lock_;  // null when this process held the lock already
};

}  // namespace QorConfigStore
