// Key-value access shared by the boot-state and upgrade-detection code of this folder only.
#pragma once

#include <string>

#include "platform/dbstore/DBStore.h"

namespace QorConfigStore {

// The value of `key`; a key never written reads as "". Throws ConfigStoreException 2000
// "Failed to read value for key <key>" when the read fails.
std::string ReadKeyValueOrThrow(const std::string& key, const DBStore::Connection& conn);

// A read-write connection to the configuration store. Throws ConfigStoreException 2000
// "Failed to connect to database." (with the full stop) when it cannot be opened.
DBStore::Connection GetStoreConnection();

// Marks a status that is deliberately not examined (boot-state writes are best effort).
inline void IgnoreStatus(int /*status*/) {}

}  // namespace QorConfigStore
