#include "platform/schemastore/SchemaStore.h"

#include <sys/stat.h>

#include <cstdlib>
#include <optional>
#include <string_view>

#include "errors/ConfigStoreException.h"
#include "platform/logging/CSLogger.h"
#include "platform/schemastore/SchemaElement.h"

namespace QorSchemaStore {
namespace {

using QorConfigStore::ConfigStoreException;
using QorConfigStore::CS_ERR_GENERIC;

[[noreturn]] void Fail(const std::string& message) { throw ConfigStoreException(CS_ERR_GENERIC, message); }

using DBStore::Row;

// Columns are read by position: each reader below goes with the SELECT it names.
int64_t Integer(const Row& row, int column) { return row.Int(column); }

std::string ToJsonArray(const std::vector<std::string>& names) {
  rapidjson::Document array(rapidjson::kArrayType);
  for (const std::string& name : names) {
    array.PushBack(rapidjson::Value(name.c_str(), static_cast<rapidjson::SizeType>(name.size()), array.GetAllocator()),
                   array.GetAllocator());
  }
  return detail::ToJsonText(array);
}

std::vector<std::string> FromJsonArray(const Row& row, int column, const SchemaObjectId& id) {
  std::string_view text = row.Text(column);
  std::vector<std::string> names;
  if (text.empty()) return names;
  rapidjson::Document array;
  bool ok = !array.Parse<rapidjson::kParseIterativeFlag>(text.data(), text.size()).HasParseError() && array.IsArray();
  for (rapidjson::SizeType i = 0; ok && i < array.Size(); ++i) {
    ok = array[i].IsString();
    if (ok) names.emplace_back(array[i].GetString(), array[i].GetStringLength());
  }
  if (!ok) Fail("Schema store holds an unreadable " + std::string(row.Name(column)) + " for " + id.toString());
  return names;
}

// Columns of kSelectConfig, in order. `parseNow`: the schema value is built with the object (a
// single lookup, whose caller reads it).
std::shared_ptr<SchemaObject> ConfigObjectOf(const Row& row, bool parseNow) {
  SchemaRecord rec;
  rec.kind = SchemaObjectKind::Config;
  rec.id = SchemaObjectId(row.String(0), row.String(1), row.String(2));
  rec.schemaId = row.String(3);
  rec.version = row.String(4);
  rec.schemaJson = row.String(5);
  rec.instanceIdName = row.String(6);
  rec.noRestore = Integer(row, 7) != 0;
  rec.preserveNonUser = Integer(row, 8) != 0;
  rec.dspIntegrated = Integer(row, 9) != 0;
  rec.singleton = Integer(row, 10) != 0;
  rec.mutableDefaultConfig = Integer(row, 11) != 0;
  rec.schemaType = static_cast<int>(Integer(row, 12));
  rec.solutionUserInstances = FromJsonArray(row, 13, rec.id);
  rec.preservedInstanceIds = FromJsonArray(row, 14, rec.id);
  rec.smartnicValueType = row.OptionalString(15);
  return std::make_shared<SchemaObject>(std::move(rec), parseNow);
}

std::shared_ptr<SchemaObject> ConfigObject(const Row& row) { return ConfigObjectOf(row, false); }

// SchemaId, Component, Category, Path.
std::shared_ptr<SchemaObject> FileObject(const Row& row) {
  SchemaRecord rec;
  rec.kind = SchemaObjectKind::File;
  rec.schemaId = row.String(0);
  rec.category = row.String(2);
  rec.path = row.String(3);
  rec.id = SchemaObjectId(row.String(1), rec.category, rec.path);
  return std::make_shared<SchemaObject>(std::move(rec));
}

// Component, KEY, DirName, Category.
std::shared_ptr<SchemaObject> DataFileObject(const Row& row) {
  SchemaRecord rec;
  rec.kind = SchemaObjectKind::DataFile;
  rec.id = SchemaObjectId(row.String(0), "", row.String(1));
  rec.dirName = row.String(2);
  rec.category = row.String(3);
  return std::make_shared<SchemaObject>(std::move(rec));
}

constexpr const char* kSelectConfig =
    "SELECT c.Component AS Component, c.ConfigGroup AS ConfigGroup, c.Name AS Name, c.SchemaId AS SchemaId, "
    "c.Version AS Version, c.SchemaJson AS SchemaJson, c.InstanceIdName AS InstanceIdName, "
    "c.NoRestore AS NoRestore, c.PreserveNonUser AS PreserveNonUser, c.DSPIntegrated AS DSPIntegrated, "
    "c.Singleton AS Singleton, c.MutableDefaultConfig AS MutableDefaultConfig, c.SchemaType AS SchemaType, "
    "c.SolutionUserInstances AS SolutionUserInstances, c.PreservedInstanceIds AS PreservedInstanceIds, "
    "s.ValueType AS ValueType "
    "FROM ConfigSchema AS c LEFT JOIN SmartnicSchema AS s "
    "ON s.Component = c.Component AND s.ConfigGroup = c.ConfigGroup AND s.Name = c.Name";

// ---------------------------------------------------------------------------------------------
// Writing records

int WriteRecord(const DBStore::Connection& conn, const SchemaRecord& rec) {
  switch (rec.kind) {
    case SchemaObjectKind::File:
      return DBStore::Exec(conn,
                           "INSERT OR REPLACE INTO SchemaFile (SchemaId, Component, Category, Path) VALUES (?, ?, ?, ?)",
                           rec.schemaId, rec.id.component, rec.category, rec.path);
    case SchemaObjectKind::DataFile:
      return DBStore::Exec(
          conn, "INSERT OR REPLACE INTO DataFileSchema (Component, KEY, DirName, Category) VALUES (?, ?, ?, ?)",
          rec.id.component, rec.id.key, rec.dirName, rec.category);
    case SchemaObjectKind::Config:
      break;
  }
  std::string solutionUsers = ToJsonArray(rec.solutionUserInstances);
  std::string preservedIds = ToJsonArray(rec.preservedInstanceIds);
  if (DBStore::Exec(conn,
          "INSERT OR REPLACE INTO ConfigSchema (Component, ConfigGroup, Name, SchemaId, Version, SchemaJson, "
          "InstanceIdName, NoRestore, PreserveNonUser, DSPIntegrated, Singleton, MutableDefaultConfig, SchemaType, "
          "SolutionUserInstances, PreservedInstanceIds) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
          rec.id.component, rec.id.group, rec.id.key, rec.schemaId, rec.version, rec.schemaJson, rec.instanceIdName,
          int64_t{rec.noRestore}, int64_t{rec.preserveNonUser}, int64_t{rec.dspIntegrated}, int64_t{rec.singleton},
          int64_t{rec.mutableDefaultConfig}, int64_t{rec.schemaType}, solutionUsers, preservedIds) != 0) {
    return 1;
  }
  // A key registered again without "smartnic" loses the SmartNIC row it had.
  if (DBStore::Exec(conn, "DELETE FROM SmartnicSchema WHERE Component = ? AND ConfigGroup = ? AND Name = ?",
                    rec.id.component, rec.id.group, rec.id.key) != 0) {
    return 1;
  }
  if (!rec.smartnicValueType) return 0;
  return DBStore::Exec(conn, "INSERT INTO SmartnicSchema (Component, ConfigGroup, Name, ValueType) VALUES (?, ?, ?, ?)",
                       rec.id.component, rec.id.group, rec.id.key, *rec.smartnicValueType);
}

DBStore::Connection OpenSchemaStore(bool readWrite) {
  std::string path = DBStore::SchemaStorePath();
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) Fail("Schema store " + path + " does not exist");
  DBStore::Connection conn = DBStore::OpenSchemaStore(readWrite);
  if (!conn) {
    // The kept cause starts with the path already ("<path>: <SQLite's message>").
    std::string cause = DBStore::LastError();
    if (cause.starts_with(path + ": ")) cause.erase(0, path.size() + 2);
    Fail("Failed to open schema store " + path + ": " + cause);
  }
  return conn;
}

constexpr const char* kTables[] = {"ConfigSchema", "SmartnicSchema", "DataFileSchema", "SchemaFile"};

}  // namespace

// ---------------------------------------------------------------------------------------------
// SchemaObjectCache

SchemaObjectCache::SchemaObjectCache(std::map<SchemaObjectId, std::shared_ptr<SchemaObject>> objects)
    : objects_(std::move(objects)) {}

std::shared_ptr<SchemaObject> SchemaObjectCache::GetSchema(const SchemaObjectId& id) const {
  auto it = objects_.find(id);
  return it == objects_.end() ? nullptr : it->second;
}

// ---------------------------------------------------------------------------------------------
// SchemaStore

SchemaStore::SchemaStore(DBStore::Connection conn, bool forUpdate) : conn_(std::move(conn)), forUpdate_(forUpdate) {}

SchemaStore::~SchemaStore() = default;  // update_ rolls back an open update

std::shared_ptr<SchemaStore> SchemaStore::GetStore(bool forUpdate) {
  return std::shared_ptr<SchemaStore>(new SchemaStore(OpenSchemaStore(forUpdate), forUpdate));
}

std::shared_ptr<SchemaObjectCache> SchemaStore::GetCache() {
  std::map<SchemaObjectId, std::shared_ptr<SchemaObject>> objects;
  for (auto& object : GetStore(false)->GetSchemaObjects(kKindConfig)) {
    SchemaObjectId id = object->GetObjectId();
    objects.emplace(std::move(id), std::move(object));
  }
  return std::make_shared<SchemaObjectCache>(std::move(objects));
}

std::shared_ptr<SchemaObject> SchemaStore::GetSchema(const SchemaObjectId& id) const {
  std::shared_ptr<SchemaObject> found;
  std::string sql = std::string(kSelectConfig) + " WHERE c.Component = ? AND c.ConfigGroup = ? AND c.Name = ?";
  auto keep = [&found](const Row& row) {
    if (!found) found = ConfigObjectOf(row, true);
  };
  if (DBStore::QueryEach(conn_, sql, keep, id.component, id.group, id.key) != 0)
    Fail("Failed to read the schema of " + id.toString());
  return found;
}

std::vector<std::shared_ptr<SchemaObject>> SchemaStore::GetSchemaObjects(const std::string& kind) const {
  std::string sql;
  std::shared_ptr<SchemaObject> (*make)(const Row&) = nullptr;
  if (kind == kKindConfig) {
    sql = std::string(kSelectConfig) + " ORDER BY c.Component, c.ConfigGroup, c.Name";
    make = ConfigObject;
  } else if (kind == kKindFiles) {
    sql = "SELECT SchemaId, Component, Category, Path FROM SchemaFile ORDER BY rowid";
    make = FileObject;
  } else if (kind == kKindDataFiles) {
    sql = "SELECT Component, KEY, DirName, Category FROM DataFileSchema ORDER BY Component, KEY";
    make = DataFileObject;
  } else {
    Fail("Unknown schema object kind \"" + kind + "\"");
  }
  std::vector<std::shared_ptr<SchemaObject>> objects;
  auto keep = [&objects, make](const Row& row) { objects.push_back(make(row)); };
  if (DBStore::QueryEach(conn_, sql, keep) != 0) Fail("Failed to read the schema objects of kind " + kind);
  return objects;
}

bool SchemaStore::IsForUpdate() const { return forUpdate_; }

void SchemaStore::RequireUpdate(const char* operation) const {
  if (!updating_) Fail(std::string(operation) + " needs a schema store update in progress");
}

void SchemaStore::BeginUpdate() {
  if (!forUpdate_) Fail("The schema store was opened read-only and cannot be updated");
  if (updating_) Fail("A schema store update is already in progress");
  if (update_.Begin() != 0) Fail("Failed to begin the schema store update");
  updating_ = true;
  broken_ = false;
}

void SchemaStore::CommitUpdate() {
  RequireUpdate("CommitUpdate");
  if (broken_) Fail("The schema store update holds a partly written element and cannot be committed");
  if (update_.Commit() != 0) Fail("Failed to commit the schema store update");
  updating_ = false;
}

void SchemaStore::CancelUpdate() {
  if (!updating_) return;
  if (update_.Rollback() != 0) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Failed to cancel the schema store update");
  } else {
    CSLogger::Log(CSLogger::PRIO_INFO, "Schema store update cancelled");
  }
  updating_ = false;
  broken_ = false;
}

void SchemaStore::ResetSchemas() {
  RequireUpdate("ResetSchemas");
  for (const char* table : kTables) {
    if (DBStore::Exec(conn_, "DELETE FROM " + std::string(table)) != 0)
      Fail("Failed to reset the schema store table " + std::string(table));
  }
}

void SchemaStore::SetSchema(const std::string& schemaId, const SchemaObjectId& id, const rapidjson::Value& element,
                            bool hasSmartnic) {
  RequireUpdate("SetSchema");
  std::vector<SchemaRecord> records = detail::ReadSchemaElement(schemaId, id, element, hasSmartnic);
  std::string failed = "Failed to register schema element " + id.toString() + " of " + schemaId;
  // A savepoint makes the element's rows all-or-none inside the update.
  if (DBStore::Exec(conn_, "SAVEPOINT schema_element") != 0) Fail(failed);
  bool written = true;
  for (const SchemaRecord& rec : records) {
    if (WriteRecord(conn_, rec) != 0) {
      written = false;
      break;
    }
  }
  if (written && DBStore::Exec(conn_, "RELEASE schema_element") == 0) return;
  if (DBStore::Exec(conn_, "ROLLBACK TO schema_element") != 0 || DBStore::Exec(conn_, "RELEASE schema_element") != 0) {
    broken_ = true;
  }
  Fail(failed);
}

// ---------------------------------------------------------------------------------------------
// Free functions

std::shared_ptr<SchemaObject> GetSchema(const std::string& component, const std::string& group, const std::string& key,
                                        const std::shared_ptr<SchemaStore>& store) {
  SchemaObjectId id(component, group, key);
  if (!store) Fail("No schema store to look up " + id.toString() + " in");
  return store->GetSchema(id);
}

void SetSchema(const std::string& schemaId, const std::string& component, const std::string& group,
               const std::string& key, const std::string& schemaText, const std::shared_ptr<SchemaStore>& store,
               bool hasSmartnic) {
  SchemaObjectId id(component, group, key);
  if (!store) Fail("No schema store to register " + id.toString() + " in");
  rapidjson::Document element;
  // Iterative parsing: a hostile nesting depth cannot exhaust the stack.
  if (element.Parse<rapidjson::kParseIterativeFlag>(schemaText.c_str(), schemaText.size()).HasParseError()) {
    Fail("Schema element " + id.toString() + " of " + schemaId + " is refused: it is not JSON (" +
         rapidjson::GetParseError_En(element.GetParseError()) + " at offset " +
         std::to_string(element.GetErrorOffset()) + ")");
  }
  store->SetSchema(schemaId, id, element, hasSmartnic);
}

}  // namespace QorSchemaStore
