#include "platform/schemastore/SchemaStore.h"

#include <sys/stat.h>

#include <cstdlib>
#include <initializer_list>
#include <optional>
#include <string_view>
#include <variant>

#include "configstore/frame/core/ConfigStoreException.h"
#include "platform/logging/CSLogger.h"
#include "platform/schemastore/SchemaElement.h"

namespace QorSchemaStore {
namespace {

using QorConfigStore::ConfigStoreException;
using QorConfigStore::CS_ERR_GENERIC;

[[noreturn]] void Fail(const std::string& message) { throw ConfigStoreException(CS_ERR_GENERIC, message); }

// ---------------------------------------------------------------------------------------------
// Statements

using Arg = std::variant<std::string_view, int64_t>;
using Column = std::optional<std::string>;  // text or NULL

// Result rows: the column names once (a cache load reads thousands of rows of 16 columns), then
// each row's values in column order.
struct Rows {
  std::vector<std::string> names;
  std::vector<std::vector<Column>> values;
};

// One row of a Rows, read by column name; each value is read once and moved out.
struct Row {
  const std::vector<std::string>& names;
  std::vector<Column>& values;
};

int CollectRow(void* context, int argc, char** argv, char** names) {
  try {  // no exception may cross back into SQLite
    auto* rows = static_cast<Rows*>(context);
    if (rows->names.empty()) rows->names.assign(names, names + argc);
    std::vector<Column>& row = rows->values.emplace_back();
    row.reserve(static_cast<size_t>(argc));
    for (int i = 0; i < argc; ++i) row.push_back(argv[i] ? Column(argv[i]) : std::nullopt);
    return 0;
  } catch (...) {
    return 1;
  }
}

// Binds in order and runs `sql`, prepared once per connection (registration and lookups run the
// same few statements thousands of times); `rows` (when given) receives every result row.
// 0 on success, 1 on failure (DBStore logs the cause).
int Run(const DBStore::Connection& conn, std::string_view sql, std::initializer_list<Arg> args,
        Rows* rows = nullptr) {
  const DBStore::Statement* stmt = DBStore::internal::PrepareKept(conn, sql, DBStore::kTimeoutMs);
  if (stmt == nullptr) return 1;
  int index = 1;
  for (const Arg& arg : args) {
    int rc = std::visit([&](auto value) { return DBStore::internal::Bind(conn, *stmt, index, value); }, arg);
    if (rc != 0) {
      sqlite3_clear_bindings(stmt->get());  // the kept statement starts its next use unbound
      return 1;
    }
  }
  return DBStore::ExecuteStmt(conn, *stmt, rows ? CollectRow : nullptr, rows, DBStore::kTimeoutMs);
}

// ---------------------------------------------------------------------------------------------
// Rows to records

// The value of `column`, moved out of the row; nullopt for NULL or a column the row lacks.
Column Take(const Row& row, const char* column) {
  for (size_t i = 0; i < row.names.size() && i < row.values.size(); ++i) {
    if (row.names[i] == column) return std::move(row.values[i]);
  }
  return std::nullopt;
}

std::string Text(const Row& row, const char* column) { return Take(row, column).value_or(std::string()); }

int64_t Integer(const Row& row, const char* column) {
  std::string text = Text(row, column);
  return text.empty() ? 0 : std::strtoll(text.c_str(), nullptr, 10);
}

std::string ToJsonArray(const std::vector<std::string>& names) {
  rapidjson::Document array(rapidjson::kArrayType);
  for (const std::string& name : names) {
    array.PushBack(rapidjson::Value(name.c_str(), static_cast<rapidjson::SizeType>(name.size()), array.GetAllocator()),
                   array.GetAllocator());
  }
  return detail::ToJsonText(array);
}

std::vector<std::string> FromJsonArray(const Row& row, const char* column, const SchemaObjectId& id) {
  std::string text = Text(row, column);
  std::vector<std::string> names;
  if (text.empty()) return names;
  rapidjson::Document array;
  bool ok = !array.Parse<rapidjson::kParseIterativeFlag>(text.c_str(), text.size()).HasParseError() && array.IsArray();
  for (rapidjson::SizeType i = 0; ok && i < array.Size(); ++i) {
    ok = array[i].IsString();
    if (ok) names.emplace_back(array[i].GetString(), array[i].GetStringLength());
  }
  if (!ok) Fail("Schema store holds an unreadable " + std::string(column) + " for " + id.toString());
  return names;
}

// `parseNow`: the schema value is built with the object (a single lookup, whose caller reads it).
std::shared_ptr<SchemaObject> ConfigObjectOf(const Row& row, bool parseNow) {
  SchemaRecord rec;
  rec.kind = SchemaObjectKind::Config;
  rec.id = SchemaObjectId(Text(row, "Component"), Text(row, "ConfigGroup"), Text(row, "Name"));
  rec.schemaId = Text(row, "SchemaId");
  rec.version = Text(row, "Version");
  rec.schemaJson = Text(row, "SchemaJson");
  rec.instanceIdName = Text(row, "InstanceIdName");
  rec.noRestore = Integer(row, "NoRestore") != 0;
  rec.preserveNonUser = Integer(row, "PreserveNonUser") != 0;
  rec.dspIntegrated = Integer(row, "DSPIntegrated") != 0;
  rec.singleton = Integer(row, "Singleton") != 0;
  rec.mutableDefaultConfig = Integer(row, "MutableDefaultConfig") != 0;
  rec.schemaType = static_cast<int>(Integer(row, "SchemaType"));
  rec.solutionUserInstances = FromJsonArray(row, "SolutionUserInstances", rec.id);
  rec.preservedInstanceIds = FromJsonArray(row, "PreservedInstanceIds", rec.id);
  rec.smartnicValueType = Take(row, "ValueType");
  return std::make_shared<SchemaObject>(std::move(rec), parseNow);
}

std::shared_ptr<SchemaObject> ConfigObject(const Row& row) { return ConfigObjectOf(row, false); }

std::shared_ptr<SchemaObject> FileObject(const Row& row) {
  SchemaRecord rec;
  rec.kind = SchemaObjectKind::File;
  rec.schemaId = Text(row, "SchemaId");
  rec.category = Text(row, "Category");
  rec.path = Text(row, "Path");
  rec.id = SchemaObjectId(Text(row, "Component"), rec.category, rec.path);
  return std::make_shared<SchemaObject>(std::move(rec));
}

std::shared_ptr<SchemaObject> DataFileObject(const Row& row) {
  SchemaRecord rec;
  rec.kind = SchemaObjectKind::DataFile;
  rec.id = SchemaObjectId(Text(row, "Component"), "", Text(row, "KEY"));
  rec.dirName = Text(row, "DirName");
  rec.category = Text(row, "Category");
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
      return Run(conn, "INSERT OR REPLACE INTO SchemaFile (SchemaId, Component, Category, Path) VALUES (?, ?, ?, ?)",
                 {rec.schemaId, rec.id.component, rec.category, rec.path});
    case SchemaObjectKind::DataFile:
      return Run(conn, "INSERT OR REPLACE INTO DataFileSchema (Component, KEY, DirName, Category) VALUES (?, ?, ?, ?)",
                 {rec.id.component, rec.id.key, rec.dirName, rec.category});
    case SchemaObjectKind::Config:
      break;
  }
  std::string solutionUsers = ToJsonArray(rec.solutionUserInstances);
  std::string preservedIds = ToJsonArray(rec.preservedInstanceIds);
  if (Run(conn,
          "INSERT OR REPLACE INTO ConfigSchema (Component, ConfigGroup, Name, SchemaId, Version, SchemaJson, "
          "InstanceIdName, NoRestore, PreserveNonUser, DSPIntegrated, Singleton, MutableDefaultConfig, SchemaType, "
          "SolutionUserInstances, PreservedInstanceIds) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
          {rec.id.component, rec.id.group, rec.id.key, rec.schemaId, rec.version, rec.schemaJson, rec.instanceIdName,
           int64_t{rec.noRestore}, int64_t{rec.preserveNonUser}, int64_t{rec.dspIntegrated}, int64_t{rec.singleton},
           int64_t{rec.mutableDefaultConfig}, int64_t{rec.schemaType}, solutionUsers, preservedIds}) != 0) {
    return 1;
  }
  // A key registered again without "smartnic" loses the SmartNIC row it had.
  if (Run(conn, "DELETE FROM SmartnicSchema WHERE Component = ? AND ConfigGroup = ? AND Name = ?",
          {rec.id.component, rec.id.group, rec.id.key}) != 0) {
    return 1;
  }
  if (!rec.smartnicValueType) return 0;
  return Run(conn, "INSERT INTO SmartnicSchema (Component, ConfigGroup, Name, ValueType) VALUES (?, ?, ?, ?)",
             {rec.id.component, rec.id.group, rec.id.key, *rec.smartnicValueType});
}

DBStore::Connection OpenSchemaStore(bool readWrite) {
  std::string path = DBStore::SchemaStorePath();
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) Fail("Schema store " + path + " does not exist");
  auto conn = std::make_shared<DBStore::StoreConnection>();
  int flags = (readWrite ? SQLITE_OPEN_READWRITE : SQLITE_OPEN_READONLY) | SQLITE_OPEN_NOMUTEX;
  // The handle belongs to `conn` even when opening fails, and is closed with it.
  int rc = sqlite3_open_v2(path.c_str(), &conn->db, flags, nullptr);
  if (rc == SQLITE_OK) {
    sqlite3_busy_timeout(conn->db, DBStore::kTimeoutMs);
    rc = sqlite3_exec(conn->db, "PRAGMA schema_version", nullptr, nullptr, nullptr);  // reads the header
  }
  if (rc != SQLITE_OK) {
    Fail("Failed to open schema store " + path + ": " + (conn->db ? sqlite3_errmsg(conn->db) : sqlite3_errstr(rc)));
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

SchemaStore::~SchemaStore() = default;  // the connection rolls back an open update when it closes

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
  Rows rows;
  std::string sql = std::string(kSelectConfig) + " WHERE c.Component = ? AND c.ConfigGroup = ? AND c.Name = ?";
  if (Run(conn_, sql, {id.component, id.group, id.key}, &rows) != 0)
    Fail("Failed to read the schema of " + id.toString());
  return rows.values.empty() ? nullptr : ConfigObjectOf(Row{rows.names, rows.values.front()}, true);
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
  Rows rows;
  if (Run(conn_, sql, {}, &rows) != 0) Fail("Failed to read the schema objects of kind " + kind);
  std::vector<std::shared_ptr<SchemaObject>> objects;
  objects.reserve(rows.values.size());
  for (std::vector<Column>& values : rows.values) objects.push_back(make(Row{rows.names, values}));
  return objects;
}

bool SchemaStore::IsForUpdate() const { return forUpdate_; }

void SchemaStore::RequireUpdate(const char* operation) const {
  if (!updating_) Fail(std::string(operation) + " needs a schema store update in progress");
}

void SchemaStore::BeginUpdate() {
  if (!forUpdate_) Fail("The schema store was opened read-only and cannot be updated");
  if (updating_) Fail("A schema store update is already in progress");
  if (DBStore::BeginTransaction(conn_) != 0) Fail("Failed to begin the schema store update");
  updating_ = true;
  broken_ = false;
}

void SchemaStore::CommitUpdate() {
  RequireUpdate("CommitUpdate");
  if (broken_) Fail("The schema store update holds a partly written element and cannot be committed");
  if (DBStore::CommitTransaction(conn_) != 0) Fail("Failed to commit the schema store update");
  updating_ = false;
}

void SchemaStore::CancelUpdate() {
  if (!updating_) return;
  if (DBStore::CancelTransaction(conn_) != 0) {
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
    if (Run(conn_, "DELETE FROM " + std::string(table), {}) != 0)
      Fail("Failed to reset the schema store table " + std::string(table));
  }
}

void SchemaStore::SetSchema(const std::string& schemaId, const SchemaObjectId& id, const rapidjson::Value& element,
                            bool hasSmartnic) {
  RequireUpdate("SetSchema");
  std::vector<SchemaRecord> records = detail::ReadSchemaElement(schemaId, id, element, hasSmartnic);
  std::string failed = "Failed to register schema element " + id.toString() + " of " + schemaId;
  // A savepoint makes the element's rows all-or-none inside the update.
  if (Run(conn_, "SAVEPOINT schema_element", {}) != 0) Fail(failed);
  bool written = true;
  for (const SchemaRecord& rec : records) {
    if (WriteRecord(conn_, rec) != 0) {
      written = false;
      break;
    }
  }
  if (written && Run(conn_, "RELEASE schema_element", {}) == 0) return;
  if (Run(conn_, "ROLLBACK TO schema_element", {}) != 0 || Run(conn_, "RELEASE schema_element", {}) != 0) {
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
