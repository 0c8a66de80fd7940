// Shared pieces of the store database tests: a sandbox with the stores created, and row collection.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/dbstore/DBStore.h"
#include "tests/support/Sandbox.h"

namespace cstest {

using Row = std::vector<std::optional<std::string>>;

// Every row a statement gives, NULL as nullopt, with the column names of the last row.
struct Rows {
  std::vector<Row> rows;
  std::vector<std::string> names;

  static int Collect(void* context, int argc, char** argv, char** columnNames) {
    auto* self = static_cast<Rows*>(context);
    Row row;
    self->names.clear();
    for (int i = 0; i < argc; ++i) {
      row.push_back(argv[i] ? std::optional<std::string>(argv[i]) : std::nullopt);
      self->names.emplace_back(columnNames[i]);
    }
    self->rows.push_back(std::move(row));
    return 0;
  }
};

class DBStoreTest : public SandboxTest {
 protected:
  void TearDown() override {
    DBStore::faults::Disarm();
    SandboxTest::TearDown();
  }

  void CreateStores() { ASSERT_EQ(DBStore::CreateDatabases(), 0); }

  DBStore::Connection Open() {
    DBStore::Connection conn = DBStore::GetConnection(DBStore::CONFIG_STORE, true);
    EXPECT_TRUE(conn);
    return conn;
  }

  // Runs `sql` with string arguments and returns its rows; a failure fails the test.
  static std::vector<Row> Query(const DBStore::Connection& conn, const std::string& sql,
                                const std::vector<std::string>& args = {}) {
    Rows out;
    DBStore::Statement stmt = DBStore::internal::Prepare(conn, sql, DBStore::kTimeoutMs);
    int index = 1;
    EXPECT_TRUE(stmt) << sql;
    EXPECT_EQ(DBStore::internal::Bind(conn, stmt, index, args), 0);
    EXPECT_EQ(DBStore::ExecuteStmt(conn, stmt, Rows::Collect, &out, DBStore::kTimeoutMs), 0) << sql;
    return out.rows;
  }

  std::string ReadKv(const DBStore::Connection& conn, const std::string& key) {
    std::string value = "<unset>";
    EXPECT_EQ(DBStore::ReadKeyValue(key, &value, conn), 0);
    return value;
  }
};

}  // namespace cstest
