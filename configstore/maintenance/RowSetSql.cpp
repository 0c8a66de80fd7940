#include "configstore/maintenance/RowSetSql.h"

namespace QorConfigStore {

std::string NotInRowSet(std::initializer_list<RowPair> columns, std::string_view from, std::string_view where) {
  std::string exact;     // o1 = i1 AND o2 = i2 ...
  std::string possible;  // every pair equal or NULL: NOT IN yields NULL or FALSE
  std::string outerNull, innerNull, named, possibleNamed;
  int n = 0;
  for (const RowPair& c : columns) {
    const std::string o = c.outer, i = c.inner, k = "k" + std::to_string(++n);
    const char* sep = n == 1 ? "" : " AND ";
    const char* orSep = n == 1 ? "" : " OR ";
    exact += sep + o + " = " + i;
    possible += sep + ("(" + o + " = " + i + ") IS NOT FALSE");
    outerNull += orSep + o + " IS NULL";
    innerNull += orSep + i + " IS NULL";
    named += (n == 1 ? "" : ", ") + i + " AS " + k;
    possibleNamed += sep + ("(" + o + " = nullable." + k + ") IS NOT FALSE");
  }
  const std::string filter = where.empty() ? std::string() : std::string(where) + " AND ";
  const std::string source = std::string(from);
  // 1: an equal row, found by an index seek. 2: a NULL in the tested row; the term refers only to
  // the outer row, so SQLite skips the scan for rows without one. 3: set rows holding a NULL,
  // gathered once per statement (none when the columns are declared NOT NULL).
  return "(NOT EXISTS (SELECT 1 FROM " + source + " WHERE " + filter + exact + ") AND NOT EXISTS (SELECT 1 FROM " +
         source + " WHERE (" + outerNull + ") AND " + filter + possible + ") AND NOT EXISTS (WITH nullable AS " +
         "MATERIALIZED (SELECT " + named + " FROM " + source + " WHERE " + filter + "(" + innerNull +
         ")) SELECT 1 FROM nullable WHERE " + possibleNamed + "))";
}

}  // namespace QorConfigStore
