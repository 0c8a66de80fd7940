// Every statement that runs in a rewritten form, run beside its reference text on generated stores:
// both must fail or succeed alike, return the same rows and leave every table the same. The
// stores mix NULL and empty identifiers, duplicate staged rows, keys without schema, empty sets
// and, in the layout without NOT NULL, NULL key columns on either side.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <filesystem>
#include <random>

#include "configstore/maintenance/RowSetSql.h"
#include "tests/support/Sandbox.h"
#include "tests/support/StoreDump.h"

namespace QorConfigStore {
namespace {

namespace fs = std::filesystem;

class Generator {
 public:
  explicit Generator(unsigned seed) : rng_(seed), nullable_(seed % 2 == 1) {}

  // Store tables in the main file, schema tables in `schemaPath`.
  void Write(const std::string& path, const std::string& schemaPath) {
    Exec(path, "PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF;" + Ddl(std::string(DBStore::SchemaSql(DBStore::CONFIG_STORE)) +
                   DBStore::SchemaSql(DBStore::DATAFILE_STORE)) + Rows(kStoreTables));
    Exec(schemaPath, "PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF;" + Ddl(DBStore::SchemaStoreSql()) + Rows(kSchemaTables));
  }

 private:
  struct Table {
    const char* name;
    std::vector<const char*> columns;
  };
  inline static const std::vector<Table> kStoreTables = {
      {"Config", {"Component", "ConfigGroup", "Name", "Identifier", "UserValue", "VitalValue", "CachedValue",
                  "DesiredValue"}},
      {"DesiredUserConfig", {"Component", "ConfigGroup", "Name", "Identifier", "BootAction", "Value", "VitalValue",
                             "CachedValue"}},
      {"DataFileMetadata", {"Component", "KEY", "DirName", "FileName"}},
  };
  inline static const std::vector<Table> kSchemaTables = {
      {"ConfigSchema", {"Component", "ConfigGroup", "Name", "PreserveNonUser", "DSPIntegrated", "Singleton",
                        "InstanceIdName", "PreservedInstanceIds"}},
      {"SmartnicSchema", {"Component", "ConfigGroup", "Name", "ValueType"}},
      {"DataFileSchema", {"Component", "KEY"}},
  };

  std::string Ddl(std::string sql) {
    for (size_t at; nullable_ && (at = sql.find(" NOT NULL")) != std::string::npos;) sql.erase(at, 9);
    return sql;
  }

  std::string Pick(std::initializer_list<const char*> values) {
    auto it = values.begin() + std::uniform_int_distribution<size_t>(0, values.size() - 1)(rng_);
    return *it;
  }

  // A literal for one column: few distinct values so that rows collide; NULL and '' often.
  std::string Value(const std::string& column) {
    if (std::bernoulli_distribution(nullable_ ? 0.1 : 0)(rng_)) return "NULL";
    if (column == "Component") return Pick({"'qor'", "'qor'", "'x'"});
    if (column == "ConfigGroup") return Pick({"'g'", "'authentication'"});
    if (column == "Name" || column == "KEY") return Pick({"'k'", "'user_accounts'", "'m'"});
    if (column == "Identifier") return Pick({"''", "'a'", "'b'", "'svc-zpl-1'", "NULL"});
    if (column == "BootAction") return Pick({"'SET'", "'SET'", "'DELETE'", "'SET_DEFAULT'", "'DELETE_INSTANCE'", "NULL"});
    if (column == "ValueType") return Pick({"'qor-shared'", "'qor-shared'", "'other'"});
    if (column == "InstanceIdName") return Pick({"'id'", "'id'", "''", "NULL", "'cs_generated_id'"});
    if (column == "PreservedInstanceIds") {
      return Pick({"NULL", "'[]'", "'[\"a\"]'", "'[\"a\",\"b\",\"a\"]'", "'[\"svc-zpl-1\",5]'", "'[\"\"]'"});
    }
    if (column == "DirName" || column == "FileName") return Pick({"'d1'", "'d2'"});
    if (column == "PreserveNonUser" || column == "DSPIntegrated" || column == "Singleton") return Pick({"0", "1"});
    return Pick({"NULL", "'v1'", "'v2'", "'mark for deletion'"});
  }

  std::string Rows(const std::vector<Table>& tables) {
    std::string sql;
    for (const Table& table : tables) {
      const int count = std::uniform_int_distribution<int>(0, 3)(rng_) == 0 ? 0 : 12;  // empty sets too
      for (int r = 0; r < count; ++r) {
        std::string names, values;
        for (const char* column : table.columns) {
          names += std::string(names.empty() ? "" : ", ") + column;
          values += (values.empty() ? "" : ", ") + Value(column);
        }
        sql += "INSERT OR IGNORE INTO " + std::string(table.name) + " (" + names + ") VALUES (" + values + ");\n";
      }
    }
    return sql;
  }

  static void Exec(const std::string& path, const std::string& sql) {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
    char* error = nullptr;
    EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error), SQLITE_OK) << (error ? error : "") << sql;
    sqlite3_free(error);
    sqlite3_close(db);
  }

  std::mt19937 rng_;
  bool nullable_;
};

struct Outcome {
  int rc;
  std::vector<std::string> rows;
  cstest::StoreDump tables;
};

class EquivalentStatementsTest : public cstest::SandboxTest {
 protected:
  Outcome Run(const EquivalentStatement::Run& run) {
    const std::string store = root_ + "/run.db", schema = root_ + "/run-ss.db";
    fs::copy_file(root_ + "/gen.db", store, fs::copy_options::overwrite_existing);
    fs::copy_file(root_ + "/gen-ss.db", schema, fs::copy_options::overwrite_existing);
    Outcome outcome;
    {
      auto conn = std::make_shared<DBStore::StoreConnection>();
      EXPECT_EQ(sqlite3_open(store.c_str(), &conn->db), SQLITE_OK);
      EXPECT_EQ(sqlite3_exec(conn->db, ("PRAGMA synchronous=OFF; ATTACH DATABASE '" + schema + "' AS ss; PRAGMA ss.synchronous=OFF; BEGIN").c_str(), nullptr, nullptr,
                             nullptr),
                SQLITE_OK);
      conn->schemaStoreAttached = true;
      outcome.rc = run(conn, outcome.rows);
      EXPECT_EQ(sqlite3_exec(conn->db, "COMMIT", nullptr, nullptr, nullptr), SQLITE_OK);
    }
    std::sort(outcome.rows.begin(), outcome.rows.end());
    outcome.tables = cstest::DumpStoreFile(store, "store");
    outcome.tables.merge(cstest::DumpStoreFile(schema, "ss"));
    return outcome;
  }
};

TEST_F(EquivalentStatementsTest, RewrittenFormsMatchTheirReferenceOnGeneratedStores) {
  std::vector<EquivalentStatement> statements = BootTimeEquivalentStatements();
  for (EquivalentStatement& s : CleanupEquivalentStatements()) statements.push_back(std::move(s));
  int changed = 0;
  for (unsigned seed = 1; seed <= 60; ++seed) {
    Generator(seed).Write(root_ + "/gen.db", root_ + "/gen-ss.db");
    const cstest::StoreDump generated = cstest::DumpStoreFile(root_ + "/gen.db", "store");
    for (const EquivalentStatement& s : statements) {
      SCOPED_TRACE(std::string(s.name) + ", seed " + std::to_string(seed));
      const Outcome reference = Run(s.reference);
      const Outcome runs = Run(s.runs);
      EXPECT_EQ(reference.rc, runs.rc);
      EXPECT_EQ(reference.rows, runs.rows);
      EXPECT_EQ("", cstest::DiffStores(reference.tables, runs.tables));
      if (reference.rc == 0 && reference.tables.at("store.Config") != generated.at("store.Config")) ++changed;
    }
    fs::remove(root_ + "/gen.db");
    fs::remove(root_ + "/gen-ss.db");
  }
  EXPECT_GT(changed, 50) << "the generated stores must give the statements something to do";
}

}  // namespace
}  // namespace QorConfigStore
