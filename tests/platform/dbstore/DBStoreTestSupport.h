// Shared pieces of the store database tests: a sandbox with the stores created, and row collection.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/dbstore/DBStore.h"
#include "tests/support/Sandbox.h"

namespace cstest {

using Row = DBStore::Values;

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

  // The rows of `sql` with `args` bound; a failure fails the test.
  template <typename... Args>
  static std::vector<Row> Query(const DBStore::Connection& conn, const std::string& sql, const Args&... args) {
    std::optional<std::vector<Row>> rows = DBStore::Query(conn, sql, args...);
    EXPECT_TRUE(rows) << sql;
    return rows.value_or(std::vector<Row>());
  }

  std::string ReadKv(const DBStore::Connection& conn, const std::string& key) {
    std::string value = "<unset>";
    EXPECT_EQ(DBStore::ReadKeyValue(key, &value, conn), 0);
    return value;
  }
};

}  // namespace cstest
