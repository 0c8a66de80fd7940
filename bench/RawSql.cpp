#include "bench/RawSql.h"

#include <stdexcept>

namespace bench {
namespace {

[[noreturn]] void Fail(sqlite3* db, std::string_view what) {
  throw std::runtime_error(std::string(what) + ": " + sqlite3_errmsg(db));
}

}  // namespace

RawStmt::RawStmt(sqlite3* db, std::string_view sql) : db_(db) {
  if (sqlite3_prepare_v2(db, sql.data(), static_cast<int>(sql.size()), &stmt_, nullptr) != SQLITE_OK) {
    Fail(db, "prepare " + std::string(sql));
  }
}

RawStmt::~RawStmt() { sqlite3_finalize(stmt_); }

RawStmt& RawStmt::Text(int index, std::string_view value) {
  if (sqlite3_bind_text64(stmt_, index, value.data() ? value.data() : "", value.size(), SQLITE_TRANSIENT,
                          SQLITE_UTF8) != SQLITE_OK) {
    Fail(db_, "bind");
  }
  return *this;
}

RawStmt& RawStmt::Null(int index) {
  if (sqlite3_bind_null(stmt_, index) != SQLITE_OK) Fail(db_, "bind");
  return *this;
}

RawStmt& RawStmt::Int(int index, int64_t value) {
  if (sqlite3_bind_int64(stmt_, index, value) != SQLITE_OK) Fail(db_, "bind");
  return *this;
}

void RawStmt::Run(const std::function<void(sqlite3_stmt*)>& row) {
  int rc;
  while ((rc = sqlite3_step(stmt_)) == SQLITE_ROW) {
    if (row) row(stmt_);
  }
  sqlite3_reset(stmt_);
  sqlite3_clear_bindings(stmt_);
  if (rc != SQLITE_DONE) Fail(db_, std::string("step ") + sqlite3_sql(stmt_));
}

RawDb::RawDb(const std::string& path, bool readWrite, int cacheKiB) {
  int flags = (readWrite ? SQLITE_OPEN_READWRITE : SQLITE_OPEN_READONLY) | SQLITE_OPEN_NOMUTEX;
  if (sqlite3_open_v2(path.c_str(), &db_, flags, nullptr) != SQLITE_OK) Fail(db_, "open " + path);
  sqlite3_busy_timeout(db_, 3000);
  if (cacheKiB > 0) Exec("PRAGMA cache_size=-" + std::to_string(cacheKiB));
}

RawDb::~RawDb() { sqlite3_close_v2(db_); }

void RawDb::Exec(const std::string& sql) {
  char* error = nullptr;
  if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
    std::string message = error ? error : "?";
    sqlite3_free(error);
    throw std::runtime_error(sql + ": " + message);
  }
}

std::string RawDb::Scalar(const std::string& sql) {
  std::string value;
  RawStmt(db_, sql).Run([&](sqlite3_stmt* s) {
    if (value.empty() && sqlite3_column_text(s, 0)) value = reinterpret_cast<const char*>(sqlite3_column_text(s, 0));
  });
  return value;
}

}  // namespace bench
