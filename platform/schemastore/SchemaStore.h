// The schema store: the registered schemas of the installed packages, kept in their own SQLite
// database "/var/lib/talvex/schemastore/schema-store" (tables ConfigSchema, SmartnicSchema,
// DataFileSchema, SchemaFile; created by DBStore::CreateDatabases).
//
// Each SchemaStore object opens the schema store file as a connection of its own (read-only unless
// it is for update): it sees every committed registration and no other connection's open update.
// Configuration-store connections read the same tables through DBStore::AttachSchemaStore as
// "ss.<table>". Flags are stored as INTEGER 0/1; SolutionUserInstances and PreservedInstanceIds as
// JSON arrays of strings. Nothing is kept between calls: a store or cache lives as long as its
// caller holds it.
//
// Failures are ConfigStoreException 2000 with a message that names what failed; CancelUpdate
// never throws.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "errors/Json.h"
#include "platform/dbstore/DBStore.h"
#include "platform/schemastore/SchemaObject.h"

namespace QorSchemaStore {

// Every registered configuration key, loaded once; lookups need no database.
class SchemaObjectCache {
 public:
  explicit SchemaObjectCache(std::map<SchemaObjectId, std::shared_ptr<SchemaObject>> objects);

  // The key's schema object, or null when no schema is registered for it.
  std::shared_ptr<SchemaObject> GetSchema(const SchemaObjectId& id) const;
  // All objects, ordered by component, group, key.
  const std::map<SchemaObjectId, std::shared_ptr<SchemaObject>>& GetAll() const { return objects_; }

 private:
  std::map<SchemaObjectId, std::shared_ptr<SchemaObject>> objects_;
};

class SchemaStore {
 public:
  // Opens the schema store: read-write when `forUpdate`, read-only otherwise.
  // Throws when the file does not exist or cannot be opened as a database.
  static std::shared_ptr<SchemaStore> GetStore(bool forUpdate);
  // Loads every registered configuration key (GetStore(false), then kind "config").
  static std::shared_ptr<SchemaObjectCache> GetCache();

  // The schema of a configuration key, or null when none is registered. Throws on a read failure
  // or an unreadable stored row.
  virtual std::shared_ptr<SchemaObject> GetSchema(const SchemaObjectId& id) const;
  // Objects of a kind: kKindConfig (by component, group, key), kKindFiles (in registration
  // order), kKindDataFiles (by component, key). Throws on an unknown kind or a read failure.
  virtual std::vector<std::shared_ptr<SchemaObject>> GetSchemaObjects(const std::string& kind) const;
  virtual bool IsForUpdate() const;

  // The update cycle: one transaction on this store's connection. BeginUpdate starts it
  // (throws on a read-only store or one already updating); ResetSchemas empties the four tables
  // inside it; CommitUpdate makes it durable (after a failed commit the update stays open, so
  // CancelUpdate still rolls it back); CancelUpdate rolls back whatever the update did and is a
  // no-op without one. Destroying a store with an open update cancels it.
  virtual void BeginUpdate();
  virtual void CommitUpdate();
  virtual void CancelUpdate();
  virtual void ResetSchemas();

  // Registers one element of a schema file's "data" array (format: docs/formats.md, "Schema
  // files") as the key `id` of the package schema `schemaId`, replacing what that key had.
  // Needs an open update. The element is checked whole before anything is written, and its rows
  // are written all or none; a refused element throws and leaves the store as it was.
  virtual void SetSchema(const std::string& schemaId, const SchemaObjectId& id, const rapidjson::Value& element,
                         bool hasSmartnic);

  virtual ~SchemaStore();
  SchemaStore(const SchemaStore&) = delete;
  SchemaStore& operator=(const SchemaStore&) = delete;

 private:
  SchemaStore(DBStore::Connection conn, bool forUpdate);
  void RequireUpdate(const char* operation) const;

  DBStore::Connection conn_;
  bool forUpdate_;
  DBStore::Transaction update_{conn_};  // the update cycle; rolled back with the object when open
  bool updating_ = false;
  bool broken_ = false;  // an element's rows could not be rolled back: the update must not commit
};

// The schema of (component, group, key) from `store`, or null when none is registered.
// Throws when `store` is null or on a read failure.
std::shared_ptr<SchemaObject> GetSchema(const std::string& component, const std::string& group, const std::string& key,
                                        const std::shared_ptr<SchemaStore>& store);

// Registers one schema-file element given as compact JSON text (see SchemaStore::SetSchema).
// Throws when `store` is null, the text is not JSON, or the element is refused.
void SetSchema(const std::string& schemaId, const std::string& component, const std::string& group,
               const std::string& key, const std::string& schemaText, const std::shared_ptr<SchemaStore>& store,
               bool hasSmartnic);

}  // namespace QorSchemaStore
