// Rows of a statement as text, and rows written, for tests that compare store contents.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "platform/dbstore/DBStore.h"

namespace cstest {

// Each row of `sql` (with `args` bound) as its columns joined by "|", SQL NULL shown as `null`.
// A failed statement fails the test.
template <typename... Args>
std::vector<std::string> JoinedRows(const DBStore::Connection& conn, std::string_view sql, std::string_view null,
                                    const Args&... args) {
  std::vector<std::string> rows;
  auto keep = [&](const DBStore::Row& row) {
    std::string& joined = rows.emplace_back();
    for (int i = 0; i < row.Columns(); ++i) {
      if (i > 0) joined += '|';
      joined += row.IsNull(i) ? null : row.Text(i);
    }
  };
  EXPECT_EQ(DBStore::QueryEach(conn, sql, keep, args...), 0) << sql;
  return rows;
}

// The value stored under `key` in the KeyValue table; a failed read fails the test.
inline std::string StoredKeyValue(const DBStore::Connection& conn, const std::string& key) {
  std::string value = "<unreadable>";
  EXPECT_EQ(DBStore::ReadKeyValue(key, &value, conn), 0) << key;
  return value;
}

// Inserts each of `rows` into `into` ("Table (Column, ...)"), its values bound in order.
// A failed insert fails the test.
inline void InsertRows(const DBStore::Connection& conn, const std::string& into,
                       const std::vector<DBStore::Values>& rows) {
  for (const DBStore::Values& row : rows) {
    std::string marks = "?";
    for (size_t i = 1; i < row.size(); ++i) marks += ", ?";
    EXPECT_EQ(DBStore::Exec(conn, "INSERT INTO " + into + " VALUES (" + marks + ")", row), 0) << into;
  }
}

}  // namespace cstest
