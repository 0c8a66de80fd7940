#include "configstore/frame/BootLock.h"

#include <exception>

#include "configstore/frame/ConfigStoreException.h"
#include "platform/logging/CSLogger.h"
#include "platform/host/HostRoot.h"

namespace QorConfigStore {
namespace {

// The holds of this process, counted: the library starts no threads, and flock would make a second
// hold of the same process wait on the first.
int gHolds = 0;
Host::FileLock::Mode gHeldMode = Host::FileLock::Mode::Shared;
std::string gUnavailable;  // why the outermost hold has no lock

}  // namespace

BootLock::BootLock(Host::FileLock::Mode mode, int waitMs) { Take(mode, waitMs); }

void BootLock::Take(Host::FileLock::Mode mode, int waitMs) {
  if (gHolds > 0) {
    if (mode == Host::FileLock::Mode::Exclusive && gHeldMode != mode) {
      throw ConfigStoreException(CS_ERR_GENERIC, "A boot load cannot start inside a staging operation");
    }
    ++gHolds;
    unavailable_ = gUnavailable;
    return;
  }
  const bool exclusive = mode == Host::FileLock::Mode::Exclusive;
  try {
    lock_ = std::make_unique<Host::FileLock>(Host::Resolve(kBootLockFile), mode, waitMs);
  } catch (const Host::LockBusy& e) {
    throw ConfigStoreException(CS_ERR_GENERIC, std::string(exclusive
                                                               ? "Another boot load or a staging operation is running: "
                                                               : "A boot load is running: ") +
                                                   e.what());
  } catch (const std::exception& e) {
    if (!exclusive) throw ConfigStoreException(CS_ERR_GENERIC, std::string("No boot lock: ") + e.what());
    unavailable_ = e.what();
    gUnavailable = unavailable_;
    CSLogger::Log(CSLogger::PRIO_ERROR, "The boot load runs without its lock: %s", e.what());
  }
  gHeldMode = mode;
  ++gHolds;
}

BootLock::BootLock(Reader, int waitMs) {
  try {
    Take(Host::FileLock::Mode::Shared, waitMs);
  } catch (const std::exception& e) {
    counted_ = false;
    unavailable_ = e.what();
    CSLogger::Log(CSLogger::PRIO_WARNING, "Reading the store without the boot lock: %s", e.what());
  }
}

BootLock::~BootLock() {
  if (counted_ && --gHolds == 0) gUnavailable.clear();
}

}  // namespace QorConfigStore
