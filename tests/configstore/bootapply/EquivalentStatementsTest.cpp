// Every statement that runs in a rewritten form, run beside its reference text on generated stores:
// both must fail or succeed alike, return the same rows and leave every table the same. The
// stores mix NULL and empty identifiers, duplicate staged rows, keys without schema, empty sets
// and, in the layout without NOT NULL, NULL key columns on either side.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <random>

#include "configstore/maintenance/RowSetSql.h"
#include "tests/support/Sandbox.h"
#include "tests/support/StoreDump.h"

namespace QorConfigStore {
namespace {

namespace fs = std::filesystem;

// Few distinct values per column so that rows collide; NULL and '' often. A column not listed
// takes a value of the last entry.
const std::map<std::string, std::vector<const char*>> kValues = {
    {"Component", {"'qor'", "'qor'", "'x'"}},
    {"ConfigGroup", {"'g'", "'authentication'"}},
    {"Name", {"'k'", "'user_accounts'", "'m'"}},
    {"KEY", {"'k'", "'user_accounts'", "'m'"}},
    {"Identifier", {"''", "'a'", "'b'", "'svc-zpl-1'", "NULL"}},
    {"BootAction", {"'SET'", "'SET'", "'DELETE'", "'SET_DEFAULT'", "'DELETE_INSTANCE'", "NULL"}},
    {"ValueType", {"'qor-shared'", "'qor-shared'", "'other'"}},
    {"InstanceIdName", {"'id'", "'id'", "''", "NULL", "'cs_generated_id'"}},
    {"PreservedInstanceIds", {"NULL", "'[]'", "'[\"a\"]'", "'[\"a\",\"b\",\"a\"]'", "'[\"svc-zpl-1\",5]'", "'[\"\"]'"}},
    {"DirName", {"'d1'", "'d2'"}},
    {"FileName", {"'d1'", "'d2'"}},
    {"PreserveNonUser", {"0", "1"}},
    {"DSPIntegrated", {"0", "1"}},
    {"Singleton", {"0", "1"}},
    {"", {"NULL", "'v1'", "'v2'", "'mark for deletion'"}},
};
using Tables = std::vector<std::pair<const char*, std::vector<const char*>>>;
const Tables kStoreTables = {
    {"Config", {"Component", "ConfigGroup", "Name", "Identifier", "UserValue", "VitalValue", "CachedValue",
                "DesiredValue"}},
    {"DesiredUserConfig", {"Component", "ConfigGroup", "Name", "Identifier", "BootAction", "Value", "VitalValue",
                           "CachedValue"}},
    {"DataFileMetadata", {"Component", "KEY", "DirName", "FileName"}},
};
const Tables kSchemaTables = {
    {"ConfigSchema", {"Component", "ConfigGroup", "Name", "PreserveNonUser", "DSPIntegrated", "Singleton",
                      "InstanceIdName", "PreservedInstanceIds"}},
    {"SmartnicSchema", {"Component", "ConfigGroup", "Name", "ValueType"}},
    {"DataFileSchema", {"Component", "KEY"}},
};

void Exec(const std::string& path, const std::string& sql) {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  char* error = nullptr;
  EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error), SQLITE_OK) << (error ? error : "") << sql;
  sqlite3_free(error);
  sqlite3_close(db);
}

// The tables with generated rows; odd seeds drop NOT NULL from the layout and add NULL key columns.
std::string Generate(std::mt19937& rng, bool nullable, std::string ddl, const Tables& tables) {
  for (size_t at; nullable && (at = ddl.find(" NOT NULL")) != std::string::npos;) ddl.erase(at, 9);
  std::string sql = "PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF;" + ddl;
  for (const auto& [table, columns] : tables) {
    const int count = std::uniform_int_distribution<int>(0, 3)(rng) == 0 ? 0 : 12;  // empty sets too
    for (int r = 0; r < count; ++r) {
      std::string names, values;
      for (const char* column : columns) {
        auto found = kValues.find(column);
        const auto& pick = (found != kValues.end() ? found : kValues.find(""))->second;
        const bool null = std::bernoulli_distribution(nullable ? 0.1 : 0)(rng);
        names += std::string(names.empty() ? "" : ", ") + column;
        values += std::string(values.empty() ? "" : ", ") +
                  (null ? "NULL" : pick[std::uniform_int_distribution<size_t>(0, pick.size() - 1)(rng)]);
      }
      sql += "INSERT OR IGNORE INTO " + std::string(table) + " (" + names + ") VALUES (" + values + ");\n";
    }
  }
  return sql;
}

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
      const std::string attach = "PRAGMA synchronous=OFF; ATTACH DATABASE '" + schema + "' AS ss; BEGIN";
      EXPECT_EQ(sqlite3_exec(conn->db, attach.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
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
    std::mt19937 rng(seed);
    Exec(root_ + "/gen.db", Generate(rng, seed % 2 == 1,
                                     std::string(DBStore::SchemaSql(DBStore::CONFIG_STORE)) +
                                         DBStore::SchemaSql(DBStore::DATAFILE_STORE),
                                     kStoreTables));
    Exec(root_ + "/gen-ss.db", Generate(rng, seed % 2 == 1, DBStore::SchemaStoreSql(), kSchemaTables));
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
