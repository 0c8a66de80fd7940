// Loading of the packages' default configuration into the store.
#pragma once

namespace QorConfigStore {

// Loads every selected default-configuration file into DefaultConfig, in one transaction.
// True when every file was processed and no instance failed validation.
bool ProcessDefaultConfiguration(bool isQorio);

}  // namespace QorConfigStore
