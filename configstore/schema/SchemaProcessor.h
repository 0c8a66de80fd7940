// Registration of the schemas that installed packages ship.
#pragma once

#include <string>
#include <vector>

namespace QorConfigStore {

// Re-registers every element of the newest schema file of each package in the schema store, for
// the kind of host that is booting, then loads the packages' default configuration. `schemaIds`
// are expected identifiers besides the installed image's own (empty: the image's only).
// True when every schema file and the default configuration were processed without failure.
// When registration stopped as a whole (the installed image could not be read, the schema store
// could not be opened or updated), the schema store is left as it was and `failure`, when given,
// gets the cause; it stays empty otherwise (failures of single files only make the result false).
// Waits while a boot load runs (configstore/frame/BootLock.h): ConfigStoreException 2000 when the
// lock cannot be had.
bool ProcessSchemas(const std::vector<std::string>& schemaIds, std::string* failure = nullptr);

// The two halves of ProcessSchemas, each run whatever the other gave.
struct SchemaProcessingResult {
  bool schemasRegistered = false;  // every schema file was registered
  bool defaultsLoaded = false;     // the default configuration was loaded without failure
};
// ProcessSchemas, telling the halves apart.
SchemaProcessingResult ProcessSchemasAndDefaults(const std::vector<std::string>& schemaIds,
                                                 std::string* failure = nullptr);

}  // namespace QorConfigStore
