#include "tests/support/StoreDump.h"

#include <sqlite3.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <regex>
#include <set>
#include <stdexcept>

#include "platform/dbstore/DBStore.h"

namespace cstest {
namespace {

// The first column of every row `sql` gives.
std::vector<std::string> Query(sqlite3* db, const std::string& sql, const std::string& path) {
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK) {
    throw std::runtime_error(path + ": " + sqlite3_errmsg(db));
  }
  std::vector<std::string> rows;
  int rc;
  while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
    const unsigned char* text = sqlite3_column_text(stmt, 0);
    rows.emplace_back(text != nullptr ? reinterpret_cast<const char*>(text) : "");
  }
  sqlite3_finalize(stmt);
  if (rc != SQLITE_DONE) throw std::runtime_error(path + ": " + sqlite3_errmsg(db));
  return rows;
}

}  // namespace

std::string MaskRunToRun(std::string row) {
  static const std::regex kId("[0-9a-fA-F]{8}-[0-9a-fA-F]{4}-[0-9a-fA-F]{4}-[0-9a-fA-F]{4}-[0-9a-fA-F]{12}");
  static const std::regex kTime("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}");
  return std::regex_replace(std::regex_replace(row, kId, "<id>"), kTime, "<time>");
}

StoreDump MaskRunToRun(StoreDump dump) {
  for (auto& [table, rows] : dump) {
    for (std::string& row : rows) row = MaskRunToRun(std::move(row));
    std::sort(rows.begin(), rows.end());
  }
  return dump;
}

StoreDump DumpStoreFile(const std::string& path, const std::string& storeName) {
  StoreDump dump;
  if (!std::filesystem::exists(path)) return dump;
  sqlite3* handle = nullptr;
  const int rc = sqlite3_open_v2(path.c_str(), &handle, SQLITE_OPEN_READONLY, nullptr);
  std::unique_ptr<sqlite3, int (*)(sqlite3*)> db(handle, sqlite3_close);
  if (rc != SQLITE_OK) throw std::runtime_error(path + ": cannot open");
  sqlite3_busy_timeout(db.get(), DBStore::kTimeoutMs);
  for (const auto& name : Query(db.get(), "SELECT name FROM sqlite_master WHERE type = 'table' ORDER BY name", path)) {
    // One quote() per column keeps types apart: 1 and '1' and NULL dump differently.
    std::string columns;
    for (const auto& column : Query(db.get(), "SELECT name FROM pragma_table_info('" + name + "')", path)) {
      columns += (columns.empty() ? "quote(\"" : " || '|' || quote(\"") + column + "\")";
    }
    std::vector<std::string>& rows = dump[storeName + "." + name];
    rows = Query(db.get(), "SELECT " + columns + " FROM \"" + name + "\"", path);
    std::sort(rows.begin(), rows.end());
  }
  return dump;
}

StoreDump DumpStores() {
  StoreDump all;
  for (auto [path, name] : {std::pair{DBStore::StorePath(DBStore::CONFIG_STORE), "config"},
                            std::pair{DBStore::StorePath(DBStore::DATAFILE_STORE), "datafile"},
                            std::pair{DBStore::SchemaStorePath(), "schema"}}) {
    all.merge(DumpStoreFile(path, name));
  }
  return all;
}

std::string DiffStores(const StoreDump& before, const StoreDump& after) {
  std::set<std::string> tables;
  for (const auto& [table, rows] : before) tables.insert(table);
  for (const auto& [table, rows] : after) tables.insert(table);
  std::string out;
  for (const auto& table : tables) {
    static const std::vector<std::string> kNone;
    const auto& old = before.count(table) ? before.at(table) : kNone;
    const auto& now = after.count(table) ? after.at(table) : kNone;
    if (before.count(table) != after.count(table)) out += (after.count(table) ? "+ table " : "- table ") + table + "\n";
    std::vector<std::string> gone, added;
    std::set_difference(old.begin(), old.end(), now.begin(), now.end(), std::back_inserter(gone));
    std::set_difference(now.begin(), now.end(), old.begin(), old.end(), std::back_inserter(added));
    for (const auto& row : gone) out += "- " + table + " " + row + "\n";
    for (const auto& row : added) out += "+ " + table + " " + row + "\n";
  }
  return out;
}

}  // namespace cstest
