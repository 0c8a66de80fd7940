// Direct SQLite for the generator and the floors: no library frame, no logging. Every failure
// throws std::runtime_error naming the statement and SQLite's message.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace bench {

class RawStmt {
 public:
  RawStmt(sqlite3* db, std::string_view sql);
  ~RawStmt();
  RawStmt(const RawStmt&) = delete;
  RawStmt& operator=(const RawStmt&) = delete;

  RawStmt& Text(int index, std::string_view value);  // 1-based; copied
  RawStmt& Null(int index);
  RawStmt& Int(int index, int64_t value);
  // Steps to the end, calling `row` per result row; then resets and clears the bindings.
  void Run(const std::function<void(sqlite3_stmt*)>& row = nullptr);

 private:
  sqlite3* db_;
  sqlite3_stmt* stmt_ = nullptr;
};

class RawDb {
 public:
  // Opens an existing file; `cacheKiB` > 0 sets the page cache (PRAGMA cache_size=-cacheKiB).
  RawDb(const std::string& path, bool readWrite, int cacheKiB = 65536);
  ~RawDb();
  RawDb(const RawDb&) = delete;
  RawDb& operator=(const RawDb&) = delete;

  void Exec(const std::string& sql);
  // The first column of the first row as text ("" for none).
  std::string Scalar(const std::string& sql);
  sqlite3* get() const { return db_; }

 private:
  sqlite3* db_ = nullptr;
};

}  // namespace bench
