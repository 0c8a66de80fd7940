// Loading of the packages' default configuration into the store.
#pragma once

namespace QorConfigStore {

// Loads every selected default-configuration file into DefaultConfig, in one transaction.
// True when every file was processed and no instance failed validation. Waits while a boot load
// runs (configstore/frame/BootLock.h): ConfigStoreException 2000 when the lock cannot be had.
bool ProcessDefaultConfiguration(bool isQorio);

}  // namespace QorConfigStore
