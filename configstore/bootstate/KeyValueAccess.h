// Key-value access of the boot state for the library's own code (boot state, upgrade detection, the
// boot load and the plan); not part of the installed headers.
#pragma once

#include <optional>
#include <string>

#include "configstore/bootstate/BootState.h"
#include "platform/dbstore/DBStore.h"

namespace QorConfigStore {

// The value of `key`; a key never written reads as "". Throws ConfigStoreException 2000
// "Failed to read value for key <key>" when the read fails.
std::string ReadKeyValueOrThrow(const std::string& key, const DBStore::Connection& conn);

// A read-write connection to the configuration store. Throws ConfigStoreException 2000
// "Failed to connect to database." (with the full stop) when it cannot be opened.
DBStore::Connection GetStoreConnection();

// The stored "BOOT_MODE" read on `conn`, inside the caller's transaction (so that it is the mode that
// transaction consumes), converted as GetBootMode converts it. nullopt when GetBootMode would throw
// for the stored text (not a number, or out of range); *text receives the stored text either way.
// Throws ConfigStoreException 2000 "Failed to read value for key BOOT_MODE" when the read fails.
std::optional<BOOTMODE> ReadBootMode(const DBStore::Connection& conn, std::string* text);

// Marks a status that is deliberately not examined (boot-state writes are best effort).
inline void IgnoreStatus(int /*status*/) {}

}  // namespace QorConfigStore
