// Every statement that runs in a rewritten form, run beside its reference text on generated stores:
// both must fail or succeed alike, return the same rows and leave every table the same. Every table
// is filled or left empty; few values per column make rows collide (NULL and '' identifiers,
// duplicate staged rows, keys without schema), and odd seeds drop NOT NULL and put NULL anywhere.
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
using Columns = std::map<std::string, std::vector<std::string>>;  // of each table

// The values of a column; a column not listed takes one of the last entry's.
const std::map<std::string, std::vector<const char*>> kValues = {
    {"Component", {"'qor'", "'qor'", "'x'"}},
    {"ConfigGroup", {"'g'", "'authentication'"}},
    {"Name", {"'k'", "'user_accounts'", "'m'"}},
    {"KEY", {"'k'", "'user_accounts'", "'m'"}},
    {"Identifier", {"''", "'a'", "'b'", "'svc-zpl-1'", "NULL"}},
    {"DirName", {"'d1'", "'d2'"}},
    {"BootAction", {"'SET'", "'SET'", "'DELETE'", "'SET_DEFAULT'", "'DELETE_INSTANCE'", "NULL"}},
    {"ValueType", {"'qor-shared'", "'qor-shared'", "'other'"}},
    {"FileName", {"'d1'", "'d2'"}},
    {"InstanceIdName", {"'id'", "'id'", "''", "NULL", "'cs_generated_id'"}},
    {"PreservedInstanceIds", {"NULL", "'[]'", "'[\"a\"]'", "'[\"a\",\"b\",\"a\"]'", "'[\"svc-zpl-1\",5]'", "'[\"\"]'"}},
    {"PreserveNonUser", {"0", "1"}},
    {"DSPIntegrated", {"0", "1"}},
    {"Singleton", {"0", "1"}},
    {"", {"NULL", "'v1'", "'v2'", "'mark for deletion'"}},
};

// A store file of the layout `ddl` with generated rows.
void Generate(std::mt19937& rng, bool nullable, std::string ddl, const std::string& path) {
  for (size_t at; nullable && (at = ddl.find(" NOT NULL")) != std::string::npos;) ddl.erase(at, 9);
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, ("PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF;" + ddl).c_str(), 0, 0, 0), SQLITE_OK);
  Columns tables;
  sqlite3_exec(
      db, "SELECT m.name, p.name FROM sqlite_master m, pragma_table_info(m.name) p WHERE m.type = 'table'",
      [](void* out, int, char** v, char**) { return (*static_cast<Columns*>(out))[v[0]].push_back(v[1]), 0; }, &tables,
      nullptr);
  std::string sql;
  for (const auto& [table, columns] : tables) {
    for (int r = std::uniform_int_distribution<int>(0, 3)(rng) == 0 ? 0 : 12; r > 0; --r) {
      std::string values;
      for (const std::string& column : columns) {
        const auto& pick = (kValues.count(column) ? kValues.find(column) : kValues.find(""))->second;
        const bool null = std::bernoulli_distribution(nullable ? 0.1 : 0)(rng);
        values += (values.empty() ? "" : ", ") +
                  std::string(null ? "NULL" : pick[std::uniform_int_distribution<size_t>(0, pick.size() - 1)(rng)]);
      }
      sql += "INSERT OR IGNORE INTO " + table + " VALUES (" + values + ");\n";
    }
  }
  EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
  sqlite3_close(db);
}

using EquivalentStatementsTest = cstest::SandboxTest;

TEST_F(EquivalentStatementsTest, RewrittenFormsMatchTheirReferenceOnGeneratedStores) {
  const std::string gen = root_ + "/gen.db", genSs = root_ + "/gen-ss.db", store = root_ + "/run.db",
                    schema = root_ + "/run-ss.db";
  // One statement on copies of the generated stores, committed: every table, its status and its rows.
  auto run = [&](const EquivalentStatement::Run& statement) {
    fs::copy_file(gen, store, fs::copy_options::overwrite_existing);
    fs::copy_file(genSs, schema, fs::copy_options::overwrite_existing);
    std::vector<std::string> rows;
    int rc;
    {
      auto conn = std::make_shared<DBStore::StoreConnection>();
      EXPECT_EQ(sqlite3_open(store.c_str(), &conn->db), SQLITE_OK);
      const std::string attach = "PRAGMA synchronous=OFF; ATTACH DATABASE '" + schema + "' AS ss; BEGIN";
      EXPECT_EQ(sqlite3_exec(conn->db, attach.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
      conn->schemaStoreAttached = true;
      rc = statement(conn, rows);
      EXPECT_EQ(sqlite3_exec(conn->db, "COMMIT", nullptr, nullptr, nullptr), SQLITE_OK);
    }
    cstest::StoreDump outcome = cstest::DumpStoreFile(store, "store");
    outcome.merge(cstest::DumpStoreFile(schema, "ss"));
    std::sort(rows.begin(), rows.end());
    outcome["rows"] = rows;
    outcome["status"] = {std::to_string(rc)};
    return outcome;
  };
  std::vector<EquivalentStatement> statements = BootTimeEquivalentStatements();
  for (EquivalentStatement& s : CleanupEquivalentStatements()) statements.push_back(std::move(s));
  int changed = 0;
  for (unsigned seed = 1; seed <= 60; ++seed) {
    std::mt19937 rng(seed);
    fs::remove(gen);
    fs::remove(genSs);
    Generate(rng, seed % 2 == 1,
             std::string(DBStore::SchemaSql(DBStore::CONFIG_STORE)) + DBStore::SchemaSql(DBStore::DATAFILE_STORE), gen);
    Generate(rng, seed % 2 == 1, DBStore::SchemaStoreSql(), genSs);
    const cstest::StoreDump generated = cstest::DumpStoreFile(gen, "store");
    for (const EquivalentStatement& s : statements) {
      SCOPED_TRACE(std::string(s.name) + ", seed " + std::to_string(seed));
      const cstest::StoreDump reference = run(s.reference);
      EXPECT_EQ("", cstest::DiffStores(reference, run(s.runs)));
      if (reference.at("status")[0] == "0" && reference.at("store.Config") != generated.at("store.Config")) ++changed;
    }
  }
  EXPECT_GT(changed, 50) << "the generated stores must give the statements something to do";
}

}  // namespace
}  // namespace QorConfigStore
