// The steps of default configuration processing below ProcessDefaultConfiguration (DefaultConfig.h).
#pragma once

#include <memory>
#include <string>

#include "errors/Json.h"
#include "platform/dbstore/DBStore.h"
#include "platform/schemastore/SchemaObject.h"
#include "platform/schemastore/SchemaStore.h"
#include "platform/validator/JsonValidator.h"

namespace QorConfigStore {

// Host path of the directory of the packages' default-configuration files (named and versioned
// like schema files).
inline constexpr const char* kDefaultConfigDir = "/etc/talvex/default-config";

// Host path of the error file of one default-configuration file: this prefix + the file's name.
inline constexpr const char* kDefaultConfigErrorFilePrefix = "/var/run/talvex/files/errors-";

// Loads one element of a default-configuration file's "data" array: looks up the schema of its
// component/group/key in `store` and writes each of its default instances ("config", or
// "qorio_config" in its place on the DPU variant when present; one object or an array of them).
// A key without a schema or with invalid instances appends {"key": key, "errors": [...]} to
// `fileErrors` and logs "Validation failed for key: %s"; valid instances are written all the same.
// Throws ConfigStoreException 1082 when "key", "component", "group" or "config" is missing or
// mistyped, and whatever the schema store throws on a read failure. Everything added to
// `fileErrors` is allocated from `allocator`, which must be `fileErrors`'s document's.
void ProcessDefaultElement(rapidjson::MemoryPoolAllocator<>& allocator, rapidjson::Value& element,
                           const DBStore::Connection& conn, const std::shared_ptr<QorSchemaStore::SchemaStore>& store,
                           rapidjson::Value& fileErrors, bool isQorio);

// Validates one default instance with `validator`, `schema` prepared with the default-configuration
// rules (JsonValidator::Prepare, once for every instance of the key). Invalid:
// the validator's entries are appended to `keyErrors` (allocated from `allocator`) and nothing is
// written. Valid: a generated id is filled in where the schema asks for one (into `instance`,
// allocated from `allocator`), and the instance is split into user, vital and cached parts and
// written to DefaultConfig under its identifier with `version`. A failed write is logged only.
// Throws 1032 when a valid instance still has no usable identifier.
void WriteDefaultInstance(rapidjson::MemoryPoolAllocator<>& allocator, const DBStore::Connection& conn,
                          const std::string& version, const std::string& component, const std::string& group,
                          const std::string& key, const std::shared_ptr<QorSchemaStore::SchemaObject>& schema,
                          const JsonValidator::PreparedSchema& validator, rapidjson::Value& instance,
                          rapidjson::Value& keyErrors);

}  // namespace QorConfigStore
