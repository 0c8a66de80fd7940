// Rows of a statement as text, for tests that compare store contents.
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

}  // namespace cstest
