// Staging of configuration for the next boot: whole desired documents, SmartNIC configuration and
// host-API deletions. Nothing here changes the live configuration (table Config): rows are written
// to DesiredUserConfig with a BootAction, and the boot mode tells the next boot to apply them.
//
// Every operation works on a connection of its own (or the caller's, where it takes one) and keeps
// nothing between calls. Failures are ConfigStoreException; the staging operations roll their
// transaction back, so the staging table and the boot mode keep their earlier values.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "configstore/frame/Documents.h"
#include "errors/Json.h"
#include "platform/dbstore/DBStore.h"
#include "platform/schemastore/SchemaObject.h"
#include "platform/schemastore/SchemaStore.h"

namespace QorConfigStore {

// The staging operations below wait while a boot load runs and throw ConfigStoreException 2000
// naming the boot lock when they cannot have it (configstore/frame/BootLock.h).

// Stages the desired document {"profile": {component: {group: {key: value}}}} in one transaction:
// empties DesiredUserConfig, stages every object and what the preservation rules carry over, and
// sets boot mode 1. Does not validate the document (see ValidateDesiredDocument).
// Throws ConfigStoreException 2000 "SetDesiredUserConfig failed: <reason>" after rolling back
// (a connection or transaction-start failure is thrown as it is). `doc` gains the generated
// instance ids of the objects it stages.
void SetDesiredUserConfig(rapidjson::Document& doc);

// Every validation error of a desired document against the registered schemas, as the validator's
// array of {"field", "error"} (field: JSON Pointer into `doc`); empty when valid. Keys, groups and
// components that no schema describes are errors. Throws ConfigStoreException 2000 when `cache`
// is null.
rapidjson::Document DesiredDocumentErrors(const rapidjson::Value& doc,
                                          const std::shared_ptr<QorSchemaStore::SchemaObjectCache>& cache);

// Logs every error of DesiredDocumentErrors (code 1083) and then, when there was any, throws
// ConfigStoreException 2000 "Failed to validate desired configuration, Check logs for specific
// validation errors.".
void ValidateDesiredDocument(rapidjson::Document& doc, const std::shared_ptr<QorSchemaStore::SchemaObjectCache>& cache);

// Writes every staged row of `doc` on `conn`, inside the caller's transaction (the caller empties
// the table first and rolls back on a throw). Throws ConfigStoreException on the first failure;
// rows written before it are left for the caller's rollback.
void ProcessDesiredDocument(rapidjson::Document& doc, const std::shared_ptr<DBStore::StoreConnection>& conn);

// Stages one object of key (component, group, key) as a "SET" row (INSERT OR REPLACE: a later
// object of the same instance id replaces an earlier one). Fills a generated instance id into
// `object` first (allocated from `alloc`, the object's document's allocator), and for "nuknics"
// the current switch-port binding. Returns the instance id ("" for a singleton).
// Throws ConfigStoreException 2000 "Write desired config failed" when the write fails, 1032 when
// the object has no instance id, 2000 when `schema` is null (InvalidArgumentException 2000 for a
// null name).
std::string ProcessDesiredObject(rapidjson::MemoryPoolAllocator<>& alloc,
                                 const std::shared_ptr<DBStore::StoreConnection>& conn, const char* component,
                                 const char* group, const char* key, const char* version,
                                 const std::shared_ptr<QorSchemaStore::SchemaObject>& schema, rapidjson::Value& object);

// Stages a SmartNIC's configuration {component: {group: {key: value}}} in one transaction: every
// object is validated first (all failures are logged before the call fails), "DELETE_DEFAULT"
// stages a "DELETE" row, every "qor-shared" key the document leaves out is staged as "SET_DEFAULT"
// (mutable default configuration) or "DELETE", and the boot mode becomes 3.
// Throws ConfigStoreException 2000 "SetDesiredSmartnicConfiguration failed: <reason>" after rolling
// back (connection and schema-store attach failures are thrown as they are).
void SetDesiredSmartnicConfiguration(rapidjson::Document& doc);

// Stages the removal of a whole key at the next boot (a "DELETE" row; earlier rows stay) and sets
// boot mode 4, both in one transaction. Throws ConfigStoreException 1005 when the key has no
// registered schema or the row cannot be written, 1012 when the commit fails, 2000 when the
// transaction cannot be started or the boot mode not written, InvalidArgumentException 2000 for a
// null argument. Nothing is staged and the boot mode is unchanged after a throw.
void DeleteHostAPIConfiguration(const char* component, const char* group, const char* key);

// True when DesiredUserConfig holds a row of the id's key (any instance, any BootAction).
// Throws ConfigStoreException 2000 "Check Instance failed for: <id>" when the query fails.
bool CheckDesiredObjectExists(const ConfigStoreObjectId& id, const std::shared_ptr<DBStore::StoreConnection>& conn);

// One row of DesiredUserConfig; nullopt stands for SQL NULL.
struct StagedRow {
  std::optional<std::string> identifier, name, group, component, version, value, vitalValue, cachedValue, bootAction;
};

// The staged rows ordered by component, group, key and identifier. Throws ConfigStoreException
// 2000 when the store cannot be opened or read.
std::vector<StagedRow> GetStagedRows();

}  // namespace QorConfigStore
