#include "tests/support/StoreDump.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <set>
#include <stdexcept>

#include "platform/dbstore/DBStore.h"

namespace cstest {
namespace {

struct Db {
  sqlite3* handle = nullptr;
  ~Db() { sqlite3_close(handle); }
};

std::vector<std::vector<std::string>> Query(sqlite3* db, const std::string& sql, const std::string& path) {
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK) {
    throw std::runtime_error(path + ": " + sqlite3_errmsg(db));
  }
  std::vector<std::vector<std::string>> rows;
  int rc;
  while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
    std::vector<std::string> row;
    for (int i = 0; i < sqlite3_column_count(stmt); ++i) {
      const unsigned char* text = sqlite3_column_text(stmt, i);
      row.emplace_back(text != nullptr ? reinterpret_cast<const char*>(text) : "");
    }
    rows.push_back(std::move(row));
  }
  sqlite3_finalize(stmt);
  if (rc != SQLITE_DONE) throw std::runtime_error(path + ": " + sqlite3_errmsg(db));
  return rows;
}

// Replaces every stretch of `text` shaped like `shape` ('x' a hex digit, '9' a decimal digit, any
// other character itself) by `mark`.
void Mask(std::string& text, const std::string& shape, const std::string& mark) {
  auto fits = [&](size_t at) {
    for (size_t i = 0; i < shape.size(); ++i) {
      auto c = static_cast<unsigned char>(text[at + i]);
      bool ok = shape[i] == 'x' ? std::isxdigit(c) != 0 : shape[i] == '9' ? std::isdigit(c) != 0 : c == shape[i];
      if (!ok) return false;
    }
    return true;
  };
  for (size_t at = 0; at + shape.size() <= text.size(); ++at) {
    if (fits(at)) text.replace(at, shape.size(), mark);
  }
}

}  // namespace

std::string MaskRunToRun(std::string row) {
  Mask(row, "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx", "<id>");
  Mask(row, "9999-99-99 99:99:99", "<time>");
  return row;
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
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return dump;
  Db db;
  if (sqlite3_open_v2(path.c_str(), &db.handle, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
    throw std::runtime_error(path + ": cannot open");
  }
  sqlite3_busy_timeout(db.handle, DBStore::kTimeoutMs);
  for (const auto& table : Query(db.handle, "SELECT name FROM sqlite_master WHERE type = 'table' ORDER BY name", path)) {
    const std::string& name = table[0];
    // One quote() per column keeps types apart: 1 and '1' and NULL dump differently.
    std::string columns;
    for (const auto& column : Query(db.handle, "SELECT name FROM pragma_table_info('" + name + "')", path)) {
      columns += (columns.empty() ? "quote(\"" : " || '|' || quote(\"") + column[0] + "\")";
    }
    std::vector<std::string>& rows = dump[storeName + "." + name];
    for (const auto& row : Query(db.handle, "SELECT " + columns + " FROM \"" + name + "\"", path)) {
      rows.push_back(row[0]);
    }
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
    auto find = [&table](const StoreDump& dump) -> const std::vector<std::string>& {
      auto it = dump.find(table);
      return it == dump.end() ? kNone : it->second;
    };
    const auto& old = find(before);
    const auto& now = find(after);
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
