// Store files: where they live, the tables each holds, the consistency check and creation.
#include <sys/stat.h>

#include <set>
#include <string>
#include <vector>

#include <sqlite3.h>

#include "platform/dbstore/DBStore.h"
#include "platform/host/HostRoot.h"
#include "platform/logging/CSLogger.h"

namespace DBStore {
namespace {

constexpr const char* kConfigStorePath = "/etc/talvex/configstore/current-store-1";
constexpr const char* kDataFileStorePath = "/etc/talvex/configstore/datafile-store";
constexpr const char* kSchemaStorePath = "/var/lib/talvex/schemastore/schema-store";

struct TableDef {
  const char* name;
  const char* body;  // what goes between the parentheses of CREATE TABLE
};

// Key columns of Config and DefaultConfig are NOT NULL: their INSERT OR REPLACE relies on the key,
// and SQLite would let NULL keys repeat. DesiredUserConfig keeps NULL identifiers (DELETE rows).
const std::vector<TableDef> kConfigTables = {
    {"Config",
     "Identifier TEXT NOT NULL, Name TEXT NOT NULL, ConfigGroup TEXT NOT NULL, Component TEXT NOT NULL, "
     "Version TEXT, CreationTime TEXT, Revision INTEGER, AutoConfValue TEXT, VitalValue TEXT, CachedValue TEXT, "
     "UserValue TEXT, DesiredValue TEXT, Success INTEGER, "
     "PRIMARY KEY (Component, ConfigGroup, Name, Identifier)"},
    {"DesiredUserConfig",
     "Identifier TEXT, Name TEXT, ConfigGroup TEXT, Component TEXT, Version TEXT, Value TEXT, VitalValue TEXT, "
     "CachedValue TEXT, BootAction TEXT, "
     "UNIQUE (Component, ConfigGroup, Name, Identifier)"},
    {"DefaultConfig",
     "Component TEXT NOT NULL, ConfigGroup TEXT NOT NULL, Name TEXT NOT NULL, Identifier TEXT NOT NULL, "
     "Value TEXT, VitalValue TEXT, CachedValue TEXT, Version TEXT, "
     "PRIMARY KEY (Component, ConfigGroup, Name, Identifier)"},
    {"KeyValue", "Key TEXT PRIMARY KEY NOT NULL, Value TEXT"},
};

const std::vector<TableDef> kDataFileTables = {
    {"DataFileMetadata",
     "Component TEXT, KEY TEXT, DirName TEXT, FileName TEXT, UNIQUE (Component, KEY, DirName, FileName)"},
};

const std::vector<TableDef> kSchemaTables = {
    {"ConfigSchema",
     "Component TEXT NOT NULL, ConfigGroup TEXT NOT NULL, Name TEXT NOT NULL, SchemaId TEXT, Version TEXT, "
     "SchemaJson TEXT, InstanceIdName TEXT, NoRestore INTEGER DEFAULT 0, PreserveNonUser INTEGER DEFAULT 0, "
     "DSPIntegrated INTEGER DEFAULT 0, Singleton INTEGER DEFAULT 0, MutableDefaultConfig INTEGER DEFAULT 0, "
     "SchemaType INTEGER DEFAULT 0, SolutionUserInstances TEXT, PreservedInstanceIds TEXT, "
     "PRIMARY KEY (Component, ConfigGroup, Name)"},
    {"SmartnicSchema",
     "Component TEXT NOT NULL, ConfigGroup TEXT NOT NULL, Name TEXT NOT NULL, ValueType TEXT, "
     "PRIMARY KEY (Component, ConfigGroup, Name)"},
    {"DataFileSchema",
     "Component TEXT NOT NULL, KEY TEXT NOT NULL, DirName TEXT, Category TEXT, PRIMARY KEY (Component, KEY)"},
    {"SchemaFile",
     "SchemaId TEXT NOT NULL, Component TEXT, Category TEXT, Path TEXT NOT NULL, PRIMARY KEY (SchemaId, Path)"},
};

enum class Kind { Config, DataFile, Schema };

const std::vector<TableDef>& TablesOf(Kind kind) {
  switch (kind) {
    case Kind::DataFile: return kDataFileTables;
    case Kind::Schema: return kSchemaTables;
    default: return kConfigTables;
  }
}

std::string CreateSql(Kind kind) {
  std::string sql;
  for (const TableDef& t : TablesOf(kind)) {
    sql += "CREATE TABLE IF NOT EXISTS ";
    sql += t.name;
    sql += " (";
    sql += t.body;
    sql += ");\n";
  }
  return sql;
}

const std::string& CachedCreateSql(Kind kind) {
  static const std::string config = CreateSql(Kind::Config);
  static const std::string dataFile = CreateSql(Kind::DataFile);
  static const std::string schema = CreateSql(Kind::Schema);
  switch (kind) {
    case Kind::DataFile: return dataFile;
    case Kind::Schema: return schema;
    default: return config;
  }
}

Kind KindOfFile(const std::string& path) {
  auto slash = path.find_last_of('/');
  std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  if (name == "datafile-store") return Kind::DataFile;
  if (name == "schema-store") return Kind::Schema;
  return Kind::Config;
}

bool FileExists(const std::string& path) {
  struct stat st{};
  return stat(path.c_str(), &st) == 0;
}

// Closes the handle sqlite3_open_v2 gives, which it does even when opening fails.
struct DbCloser {
  void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
using OwnedDb = std::unique_ptr<sqlite3, DbCloser>;

// Runs one statement and collects the first column of every row. False (with `error` set) on failure.
bool FirstColumn(const Connection& conn, const char* sql, std::vector<std::string>* rows, std::string* error) {
  if (QueryEach(conn, sql, [rows](const Row& row) { rows->push_back(row.String(0)); }) == 0) return true;
  *error = sqlite3_errmsg(conn->db);
  return false;
}

// Why the store at `path` is not sound; "" when it is.
std::string Unsoundness(const std::string& path) {
  if (!FileExists(path)) return "file does not exist";
  // Opening a FIFO would wait for a writer forever, and a device is no database.
  struct stat st{};
  if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return "not a regular file";
  // Opened as it is, without OpenStoreFile's roll-back of a left journal: checking changes nothing.
  auto conn = std::make_shared<StoreConnection>();  // owns the handle, closes it
  int rc = sqlite3_open_v2(path.c_str(), &conn->db, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, nullptr);
  if (rc != SQLITE_OK) return conn->db ? sqlite3_errmsg(conn->db) : sqlite3_errstr(rc);
  sqlite3_busy_timeout(conn->db, kTimeoutMs);

  std::vector<std::string> rows;
  std::string error;
  if (!FirstColumn(conn, "PRAGMA quick_check", &rows, &error)) return error;
  if (rows.size() != 1 || rows[0] != "ok") return "quick_check: " + (rows.empty() ? std::string("no answer") : rows[0]);

  rows.clear();
  if (!FirstColumn(conn, "SELECT name FROM sqlite_schema WHERE type = 'table'", &rows, &error)) return error;
  std::set<std::string> present(rows.begin(), rows.end());
  for (const TableDef& t : TablesOf(KindOfFile(path))) {
    if (!present.count(t.name)) return std::string("table ") + t.name + " is missing";
  }
  return "";
}

// Creates the file when missing and every missing table, in one transaction. 0 on success.
int CreateStore(const std::string& path, Kind kind) {
  if (!Host::MakeParentDirs(path)) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Failed to create the directory of database %s", path.c_str());
    return 1;
  }
  sqlite3* raw = nullptr;
  int rc = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                           nullptr);
  OwnedDb db(raw);
  if (rc != SQLITE_OK) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Failed to create database %s: %s", path.c_str(),
                  raw ? sqlite3_errmsg(raw) : sqlite3_errstr(rc));
    return 1;
  }
  sqlite3_busy_timeout(raw, kTimeoutMs);
  std::string sql = "PRAGMA journal_mode=DELETE;\nBEGIN IMMEDIATE;\n" + CachedCreateSql(kind) + "COMMIT;";
  if (sqlite3_exec(raw, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Failed to create the tables of database %s: %s", path.c_str(),
                  sqlite3_errmsg(raw));
    if (!sqlite3_get_autocommit(raw)) sqlite3_exec(raw, "ROLLBACK", nullptr, nullptr, nullptr);
    return 1;
  }
  return 0;
}

}  // namespace

std::string StorePath(Type type) {
  switch (type) {
    case CONFIG_STORE: return Host::Resolve(kConfigStorePath);
    case DATAFILE_STORE: return Host::Resolve(kDataFileStorePath);
  }
  return "";
}

std::string SchemaStorePath() { return Host::Resolve(kSchemaStorePath); }

const char* SchemaSql(Type type) {
  switch (type) {
    case CONFIG_STORE: return CachedCreateSql(Kind::Config).c_str();
    case DATAFILE_STORE: return CachedCreateSql(Kind::DataFile).c_str();
  }
  return "";
}

const char* SchemaStoreSql() { return CachedCreateSql(Kind::Schema).c_str(); }

int Check(const std::string& path) {
  std::string problem = Unsoundness(path);
  if (problem.empty()) return 0;
  CSLogger::Log(CSLogger::PRIO_ERROR, "Database %s failed the consistency check: %s", path.c_str(), problem.c_str());
  return 1;
}

int CreateDatabases() {
  int failures = 0;
  failures += CreateStore(StorePath(CONFIG_STORE), Kind::Config);
  failures += CreateStore(StorePath(DATAFILE_STORE), Kind::DataFile);
  failures += CreateStore(SchemaStorePath(), Kind::Schema);
  return failures == 0 ? 0 : 1;
}

}  // namespace DBStore
