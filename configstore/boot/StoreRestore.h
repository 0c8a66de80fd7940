// Putting the configuration store in place at boot, and refreshing it after a live install.
#pragma once

#include <string>
#include <vector>

namespace QorConfigStore {

// The boot's restore step. With `restoreStore` false it does nothing and returns false. Otherwise
// it drops the working "current-store-1", copies the configuration store from its backup (the
// regular one, else the first-boot one) and the data-file store from the regular backup, each only
// when it passes DBStore::Check, creates whatever store is still missing, and on a new configuration
// store sets BOOT_MODE_NEW_STORE. Returns true exactly when the configuration store was created new.
// A missing, inconsistent or uncopyable backup is logged, raised as an event and answered with a new
// store; it never throws for those. SetBootMode's connection failure propagates.
bool RestoreOrCreateStore(bool restoreStore);

// Live-install refresh: registers the schemas (ProcessSchemas, with `schemaIds` expected besides
// the image's own) and runs the named live-install upgrade modules. True when both succeeded. A
// ConfigStoreException from either is logged and answered with false; other exceptions propagate.
bool RefreshConfigStore(const std::vector<std::string>& schemaIds, const std::vector<std::string>& modules);

}  // namespace QorConfigStore
