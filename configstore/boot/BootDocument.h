// The boot configuration document: the user configuration that the installer or the image supplies
// for the first boot of a newly created store, and the write of one user value into Config.
#pragma once

#include <string>

#include "configstore/frame/Documents.h"
#include "platform/dbstore/DBStore.h"

namespace QorConfigStore {

// Host path of the boot configuration document (resolved against the host root).
inline constexpr const char* kBootConfigurationDocument = "/etc/talvex/boot_configuration.json";

// Writes the document's objects into Config as user values on the caller's connection, inside the
// caller's transaction (nothing is begun or committed here). The document is
// {["profile":] {component: {group: {key: object | [object, ...] | "DELETE_DEFAULT"}}}};
// "DELETE_DEFAULT" removes every instance of the key instead. A missing document does nothing.
// Bad parts (a non-object root, "profile", component or group, an empty value, a key without
// schema, a value that fails validation or lacks its instance id) are logged and skipped; a key is
// written whole or not at all. Throws InvalidArgumentException 1081 when the document cannot be
// read or parsed, and ConfigStoreException 2000 when the schema store cannot be read or a delete
// or write fails; the caller then rolls back.
void ProcessBootConfigurationDocument(const DBStore::Connection& conn);

// Stores `userValue` as the user value of the object `id` with the schema version `version`
// (INSERT OR REPLACE). An existing row keeps its creation time and its auto-configuration, vital
// and cached values, and its revision goes up by one; a new row starts at revision 1 with the
// current time. Throws ConfigStoreException 2000 "Write user config failed".
void WriteUserConfig(const DBStore::Connection& conn, const ConfigStoreObjectId& id, const std::string& version,
                     const std::string& userValue);

}  // namespace QorConfigStore
