// Row-value membership written so that SQLite answers it with index seeks, and the statements
// that run in such a form beside the text they replace.
//
// SQLite 3.40 answers `(a, b, ...) NOT IN (SELECT ...)` by scanning the whole subquery for every
// row that is not in it (it must tell NULL from FALSE), so deleting or inserting n rows against a
// set of m costs n * m. The form built here gives the same answer, NULLs included, at the cost of
// one index seek per row as long as the key columns hold no NULL.
#pragma once

#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "platform/dbstore/DBStore.h"

namespace QorConfigStore {

struct RowPair {
  const char* outer;  // column of the row tested (left of NOT IN)
  const char* inner;  // the matching column of the set (the subquery's result column)
};

// A WHERE term true exactly when `(outer...) NOT IN (SELECT inner... FROM <from> [WHERE <where>])`
// is true: no row of the set equals the tested row, and none could equal it but for a NULL on
// either side (such a row makes NOT IN yield NULL). An empty set selects every row. `from` must
// name its tables with aliases that the outer statement does not use.
std::string NotInRowSet(std::initializer_list<RowPair> columns, std::string_view from, std::string_view where);

// A statement that runs in a faster form, with the text it replaces. Both return 0 on success and
// append the first column of each result row (if any) to `rows`.
struct EquivalentStatement {
  using Run = std::function<int(const DBStore::Connection&, std::vector<std::string>& rows)>;
  const char* name;
  Run reference;
  Run runs;
};

// The boot-mode routines' statements (schema store attached as "ss").
std::vector<EquivalentStatement> BootTimeEquivalentStatements();
// The store cleanup's statements (schema store attached as "ss").
std::vector<EquivalentStatement> CleanupEquivalentStatements();

}  // namespace QorConfigStore
