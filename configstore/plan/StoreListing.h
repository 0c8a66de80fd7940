// Read-only listings of the configuration store for operators' tools: the live objects with their
// defaults, and the default configuration.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace QorConfigStore {

// One Config row and the DefaultConfig value of the same object; nullopt stands for SQL NULL.
struct ConfigObjectListing {
  std::string component, group, key, identifier;
  std::optional<std::string> version, revision, created, user, vital, cached, defaultValue;
};

// The objects of Config, narrowed by up to four exact names (component, group, key, instance id;
// only the given ones filter, so a full name is a primary-key lookup), in key order. Reads over a
// read-only connection. ConfigStoreException 2000 "cannot open the configuration store" or "cannot
// read the configuration objects", each with the cause.
std::vector<ConfigObjectListing> ListConfigObjects(const std::vector<std::string>& filters);

// The rows of DefaultConfig in key order: component, group, key, identifier, version, value,
// vital value, cached value, NULL read as "". ConfigStoreException 2000 "Failed to read <SQL>".
std::vector<std::vector<std::string>> ListDefaultConfig();

}  // namespace QorConfigStore
