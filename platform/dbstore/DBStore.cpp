// Store connections, transactions, statements and the key-value table; fault injection.
#include "platform/dbstore/DBStore.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <array>
#include <atomic>

#include "platform/dbstore/StatementInternal.h"
#include "platform/logging/CSLogger.h"

namespace DBStore {

// ---------------------------------------------------------------------------------------------
// Fault injection

namespace faults {
namespace {

constexpr int kKinds = static_cast<int>(Kind::Count_);
constexpr int kNone = -1;
constexpr const char* kInjected = "injected fault";

std::array<std::atomic<int>, kKinds> gCalls{};
std::atomic<int> gArmedKind{kNone};  // the one check made when nothing is armed
std::atomic<int> gNth{0};
std::atomic<bool> gPersistent{false};

bool Valid(Kind kind) { return static_cast<int>(kind) >= 0 && static_cast<int>(kind) < kKinds; }

// Counts one call of `kind`; true when that call is to fail.
bool Injected(Kind kind) {
  int call = gCalls[static_cast<int>(kind)].fetch_add(1, std::memory_order_relaxed) + 1;
  if (gArmedKind.load(std::memory_order_acquire) != static_cast<int>(kind)) return false;
  int nth = gNth.load(std::memory_order_relaxed);
  return gPersistent.load(std::memory_order_relaxed) ? call >= nth : call == nth;
}

}  // namespace

void ResetCounts() {
  for (auto& calls : gCalls) calls.store(0, std::memory_order_relaxed);
}

void Arm(Kind kind, int nth, bool persistent) {
  gArmedKind.store(kNone, std::memory_order_release);
  ResetCounts();
  if (!Valid(kind) || nth < 1) return;
  gNth.store(nth, std::memory_order_relaxed);
  gPersistent.store(persistent, std::memory_order_relaxed);
  gArmedKind.store(static_cast<int>(kind), std::memory_order_release);
}

void Disarm() {
  gArmedKind.store(kNone, std::memory_order_release);
  ResetCounts();
}

int Calls(Kind kind) { return Valid(kind) ? gCalls[static_cast<int>(kind)].load(std::memory_order_relaxed) : 0; }

}  // namespace faults

// ---------------------------------------------------------------------------------------------
// Connections

void SqliteStmtDeleter::operator()(sqlite3_stmt* stmt) const { sqlite3_finalize(stmt); }

namespace {

constexpr const char* kCacheSizePragma = "PRAGMA cache_size=-65536";  // 64 MiB: a big store stays in memory

bool Usable(const Connection& conn) { return conn && conn->db != nullptr; }

thread_local std::string gLastError;

void Keep(std::string cause) { gLastError = std::move(cause); }

void LogError(const char* what, const char* detail) {
  CSLogger::Log(CSLogger::PRIO_ERROR, "%s: %s", what, detail);
  Keep(detail);
}

// "<file>: <SQLite's error text>" for a failure on an open connection.
std::string Cause(sqlite3* db) {
  const char* file = sqlite3_db_filename(db, "main");
  return std::string(file != nullptr ? file : "") + ": " + sqlite3_errmsg(db);
}

// Runs fixed SQL that needs no parameters (transaction control, pragmas). Logs and returns 1 on failure.
int RunControl(sqlite3* db, const char* sql, const char* what, int timeoutMs) {
  sqlite3_busy_timeout(db, timeoutMs);
  if (sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK) return 0;
  LogError(what, Cause(db).c_str());
  return 1;
}

// Connection settings; also reads the file's header, so a file that is not a database fails here.
// SQLITE_OK or the extended code of the failure; `journal` gets the journal mode a read-write
// connection ends up in.
int Configure(sqlite3* db, bool readWrite, std::string* journal) {
  sqlite3_busy_timeout(db, kTimeoutMs);
  auto keepMode = [](void* out, int, char** argv, char**) {
    if (argv[0]) *static_cast<std::string*>(out) = argv[0];
    return 0;
  };
  bool ok = sqlite3_exec(db, kCacheSizePragma, nullptr, nullptr, nullptr) == SQLITE_OK &&
            sqlite3_exec(db, "PRAGMA schema_version", nullptr, nullptr, nullptr) == SQLITE_OK &&
            (!readWrite || sqlite3_exec(db, "PRAGMA journal_mode=DELETE", keepMode, journal, nullptr) == SQLITE_OK);
  return ok ? SQLITE_OK : sqlite3_extended_errcode(db);
}

// Opens and configures the file; an empty handle on failure, with *rc the extended SQLite code.
// Failures are logged and kept, except a read-only open over a hot journal
// (SQLITE_READONLY_ROLLBACK), which the caller answers.
Connection Open(const std::string& path, Type type, bool readWrite, int* rc) {
  auto conn = std::make_shared<StoreConnection>();
  conn->type = type;
  int flags = (readWrite ? SQLITE_OPEN_READWRITE : SQLITE_OPEN_READONLY) | SQLITE_OPEN_NOMUTEX;
  // The handle is owned by `conn` from here on, even when opening fails.
  *rc = sqlite3_open_v2(path.c_str(), &conn->db, flags, nullptr);
  std::string journal;
  if (*rc == SQLITE_OK) *rc = Configure(conn->db, readWrite, &journal);
  if (*rc == SQLITE_READONLY_ROLLBACK) return nullptr;
  if (*rc != SQLITE_OK) {
    std::string error = conn->db ? sqlite3_errmsg(conn->db) : sqlite3_errstr(*rc);
    CSLogger::Log(CSLogger::PRIO_ERROR, "Failed to open database %s: %s", path.c_str(), error.c_str());
    Keep(path + ": " + error);
    return nullptr;
  }
  if (readWrite && journal != "delete") {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Database %s stays in journal mode %s", path.c_str(), journal.c_str());
    Keep(path + " stays in journal mode " + journal);
    *rc = SQLITE_ERROR;
    return nullptr;
  }
  return conn;
}

}  // namespace

StoreConnection::~StoreConnection() {
  keptStatements.clear();  // finalized while the handle is still open
  if (db == nullptr) return;
  if (!sqlite3_get_autocommit(db)) RunControl(db, "ROLLBACK", "Failed to roll back on close", kTimeoutMs);
  sqlite3_close_v2(db);
}

const std::string& LastError() { return gLastError; }

Connection GetConnection(Type type, bool readWrite) {
  gLastError.clear();
  std::string path = StorePath(type);
  if (path.empty()) {
    LogError("Failed to open database", ("unknown store database type " + std::to_string(type)).c_str());
    return nullptr;
  }
  return OpenStoreFile(path, type, readWrite);
}

Connection OpenStoreFile(const std::string& path, Type type, bool readWrite) {
  gLastError.clear();
  struct stat st{};
  if (stat(path.c_str(), &st) != 0) {
    CSLogger::Log(CSLogger::PRIO_INFO, "Store database %s does not exist", path.c_str());
    Keep(path + " does not exist");
    return nullptr;
  }
  if (S_ISDIR(st.st_mode)) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Failed to open database %s: it is a directory", path.c_str());
    Keep(path + " is a directory");
    return nullptr;
  }
  int rc = SQLITE_OK;
  Connection conn = Open(path, type, readWrite, &rc);
  if (conn || rc != SQLITE_READONLY_ROLLBACK) return conn;
  // A writer died mid-transaction and left its journal; only a read-write connection may play it
  // back. Opening one does so (under SQLite's own locks), then the read-only open is tried again.
  CSLogger::Log(CSLogger::PRIO_INFO, "Rolling back %s-journal, left by an interrupted transaction", path.c_str());
  if (Open(path, type, true, &rc)) conn = Open(path, type, false, &rc);
  if (!conn) {
    std::string cause = rc == SQLITE_READONLY_ROLLBACK ? sqlite3_errstr(rc) : gLastError;
    CSLogger::Log(CSLogger::PRIO_ERROR, "Cannot roll back %s-journal: %s", path.c_str(), cause.c_str());
    Keep(path + "-journal, left by an interrupted transaction, cannot be rolled back: " + cause);
  }
  return conn;
}

Connection OpenSchemaStore(bool readWrite) { return OpenStoreFile(SchemaStorePath(), CONFIG_STORE, readWrite); }

int AttachSchemaStore(const Connection& conn) {
  if (faults::Injected(faults::Kind::Attach)) {
    LogError("Failed to attach schema store", faults::kInjected);
    return 1;
  }
  if (!Usable(conn)) {
    LogError("Failed to attach schema store", "no database connection");
    return 1;
  }
  if (conn->schemaStoreAttached) return 0;
  std::string path = SchemaStorePath();
  struct stat st{};
  if (stat(path.c_str(), &st) != 0) {
    LogError("Failed to attach schema store", (path + " does not exist").c_str());
    return 1;
  }
  sqlite3_busy_timeout(conn->db, kTimeoutMs);
  sqlite3_stmt* raw = nullptr;
  int rc = sqlite3_prepare_v2(conn->db, "ATTACH DATABASE ? AS ss", -1, &raw, nullptr);
  Statement stmt(raw);
  if (rc == SQLITE_OK) rc = sqlite3_bind_text(raw, 1, path.c_str(), -1, SQLITE_TRANSIENT);
  if (rc == SQLITE_OK) rc = sqlite3_step(raw);
  if (rc != SQLITE_DONE) {
    LogError("Failed to attach schema store", (path + ": " + sqlite3_errmsg(conn->db)).c_str());
    return 1;
  }
  conn->schemaStoreAttached = true;
  return 0;
}

int DetachSchemaStore(const Connection& conn) {
  if (!Usable(conn)) {
    LogError("Failed to detach schema store", "no database connection");
    return 1;
  }
  if (!conn->schemaStoreAttached) return 0;
  if (RunControl(conn->db, "DETACH DATABASE ss", "Failed to detach schema store", kTimeoutMs) != 0) return 1;
  conn->schemaStoreAttached = false;
  return 0;
}

// ---------------------------------------------------------------------------------------------
// Transactions

int BeginTransaction(const Connection& conn) { return BeginTransaction(conn, kTimeoutMs); }

int BeginTransaction(const Connection& conn, int timeoutMs) {
  gLastError.clear();
  if (faults::Injected(faults::Kind::Begin)) {
    LogError("Failed to begin transaction", faults::kInjected);
    return 1;
  }
  if (!Usable(conn)) {
    LogError("Failed to begin transaction", "no database connection");
    return 1;
  }
  return RunControl(conn->db, "BEGIN IMMEDIATE", "Failed to begin transaction", timeoutMs);
}

int CommitTransaction(const Connection& conn) { return CommitTransaction(conn, kTimeoutMs); }

int CommitTransaction(const Connection& conn, int timeoutMs) {
  gLastError.clear();
  if (faults::Injected(faults::Kind::Commit)) {
    LogError("Failed to commit transaction", faults::kInjected);
    return 1;
  }
  if (!Usable(conn)) {
    LogError("Failed to commit transaction", "no database connection");
    return 1;
  }
  return RunControl(conn->db, "COMMIT", "Failed to commit transaction", timeoutMs);
}

int CancelTransaction(const Connection& conn) {
  if (!Usable(conn)) {
    LogError("Failed to roll back transaction", "no database connection");
    return 1;
  }
  if (sqlite3_get_autocommit(conn->db)) return 0;
  return RunControl(conn->db, "ROLLBACK", "Failed to roll back transaction", kTimeoutMs);
}

// ---------------------------------------------------------------------------------------------
// Statements

namespace internal {

// Prepare without the fault-injection count.
Statement PrepareNow(const Connection& conn, std::string_view sql, int timeoutMs) {
  if (!Usable(conn)) {
    LogError("Failed to prepare statement", "no database connection");
    return nullptr;
  }
  if (sql.size() > static_cast<size_t>(INT32_MAX)) {
    LogError("Failed to prepare statement", "statement text too long");
    return nullptr;
  }
  if (sql.empty()) {
    LogError("Failed to prepare statement", "no statement in the text");
    return nullptr;
  }
  sqlite3_busy_timeout(conn->db, timeoutMs);
  sqlite3_stmt* raw = nullptr;
  const char* tail = nullptr;
  int rc = sqlite3_prepare_v2(conn->db, sql.data(), static_cast<int>(sql.size()), &raw, &tail);
  Statement stmt(raw);
  if (rc != SQLITE_OK) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Failed to prepare statement \"%.*s\": %s", static_cast<int>(sql.size()),
                  sql.data(), sqlite3_errmsg(conn->db));
    Keep(Cause(conn->db));
    return nullptr;
  }
  if (!stmt) {
    LogError("Failed to prepare statement", "no statement in the text");
    return nullptr;
  }
  // What follows the first statement must be blank or comments, or it would silently not run.
  if (tail != nullptr) {
    const char* end = sql.data() + sql.size();
    sqlite3_stmt* next = nullptr;
    int tailRc = sqlite3_prepare_v2(conn->db, tail, static_cast<int>(end - tail), &next, nullptr);
    sqlite3_finalize(next);
    if (tailRc != SQLITE_OK || next != nullptr) {
      CSLogger::Log(CSLogger::PRIO_ERROR, "Failed to prepare statement \"%.*s\": more than one statement",
                    static_cast<int>(sql.size()), sql.data());
      return nullptr;
    }
  }
  return stmt;
}

Statement Prepare(const Connection& conn, std::string_view sql, int timeoutMs) {
  if (faults::Injected(faults::Kind::Prepare)) {
    LogError("Failed to prepare statement", faults::kInjected);
    return nullptr;
  }
  return PrepareNow(conn, sql, timeoutMs);
}

const Statement* PrepareKept(const Connection& conn, std::string_view sql, int timeoutMs) {
  if (faults::Injected(faults::Kind::Prepare)) {
    LogError("Failed to prepare statement", faults::kInjected);
    return nullptr;
  }
  if (!Usable(conn)) {
    LogError("Failed to prepare statement", "no database connection");
    return nullptr;
  }
  auto found = conn->keptStatements.find(sql);
  if (found != conn->keptStatements.end()) return &found->second;
  Statement stmt = PrepareNow(conn, sql, timeoutMs);
  if (!stmt) return nullptr;
  return &conn->keptStatements.emplace(std::string(sql), std::move(stmt)).first->second;
}

namespace {

// Checks the handles of a Bind call; logs what is missing.
bool CanBind(const Connection& conn, const Statement& stmt) {
  if (Usable(conn) && stmt) return true;
  LogError("Failed to bind parameter", Usable(conn) ? "no statement" : "no database connection");
  return false;
}

int BindResult(const Connection& conn, const Statement& stmt, int& index, int rc) {
  if (rc != SQLITE_OK) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Failed to bind parameter %d of \"%s\": %s", index, sqlite3_sql(stmt.get()),
                  rc == SQLITE_RANGE ? "parameter index out of range" : sqlite3_errmsg(conn->db));
    return 1;
  }
  ++index;
  return 0;
}

template <typename Strings>
int BindAll(const Connection& conn, const Statement& stmt, int& index, const Strings& values) {
  for (const auto& value : values) {
    if (Bind(conn, stmt, index, std::string_view(value)) != 0) return 1;
  }
  return 0;
}

}  // namespace

int Bind(const Connection& conn, const Statement& stmt, int& index, std::string_view value) {
  if (!CanBind(conn, stmt)) return 1;
  // A default-constructed view has no data pointer, and SQLite binds a null pointer as NULL.
  const char* text = value.data() != nullptr ? value.data() : "";
  return BindResult(conn, stmt, index,
                    sqlite3_bind_text64(stmt.get(), index, text, value.size(), SQLITE_TRANSIENT, SQLITE_UTF8));
}

int Bind(const Connection& conn, const Statement& stmt, int& index, const std::optional<std::string_view>& value) {
  if (value) return Bind(conn, stmt, index, *value);
  if (!CanBind(conn, stmt)) return 1;
  return BindResult(conn, stmt, index, sqlite3_bind_null(stmt.get(), index));
}

int Bind(const Connection& conn, const Statement& stmt, int& index, int64_t value) {
  if (!CanBind(conn, stmt)) return 1;
  return BindResult(conn, stmt, index, sqlite3_bind_int64(stmt.get(), index, value));
}

int Bind(const Connection& conn, const Statement& stmt, int& index, const std::vector<std::string>& values) {
  return BindAll(conn, stmt, index, values);
}

int Bind(const Connection& conn, const Statement& stmt, int& index, const std::vector<std::string_view>& values) {
  return BindAll(conn, stmt, index, values);
}

}  // namespace internal

namespace {

int BindArg(const Connection& conn, const Statement& stmt, int& index, const Arg& arg) {
  switch (arg.kind()) {
    case Arg::Kind::Null: return internal::Bind(conn, stmt, index, std::optional<std::string_view>());
    case Arg::Kind::Text: return internal::Bind(conn, stmt, index, arg.text());
    case Arg::Kind::Int: return internal::Bind(conn, stmt, index, arg.integer());
    case Arg::Kind::Texts: return internal::Bind(conn, stmt, index, arg.texts());
    case Arg::Kind::Views: return internal::Bind(conn, stmt, index, arg.views());
    case Arg::Kind::Optionals:
      for (const std::optional<std::string>& value : arg.optionals()) {
        std::optional<std::string_view> view;
        if (value) view = *value;
        if (internal::Bind(conn, stmt, index, view) != 0) return 1;
      }
      return 0;
  }
  return 1;
}

// Steps a bound statement to its end, calling the visitor per row. 0 on success, 1 on failure.
int Step(const Connection& conn, sqlite3_stmt* s, RowVisitor visit, void* visitor, int timeoutMs) {
  sqlite3_busy_timeout(conn->db, timeoutMs);
  Row row(s);
  for (;;) {
    if (faults::Injected(faults::Kind::Step)) {
      CSLogger::Log(CSLogger::PRIO_ERROR, "Failed to execute statement \"%s\": %s", sqlite3_sql(s), faults::kInjected);
      return 1;
    }
    int rc = sqlite3_step(s);
    if (rc == SQLITE_DONE) return 0;
    if (rc != SQLITE_ROW) {
      CSLogger::Log(CSLogger::PRIO_ERROR, "Failed to execute statement \"%s\": %s", sqlite3_sql(s),
                    sqlite3_errmsg(conn->db));
      Keep(Cause(conn->db));
      return 1;
    }
    if (visit != nullptr && visit(visitor, row) != 0) return 1;
  }
}

// Leaves a statement reset with no bindings, however its use ends.
struct ResetOnExit {
  sqlite3_stmt* stmt;
  ~ResetOnExit() {
    sqlite3_reset(stmt);
    sqlite3_clear_bindings(stmt);
  }
};

}  // namespace

int Row::Columns() const { return sqlite3_column_count(stmt_); }

bool Row::IsNull(int column) const { return sqlite3_column_type(stmt_, column) == SQLITE_NULL; }

std::string_view Row::Text(int column) const {
  const unsigned char* text = sqlite3_column_text(stmt_, column);
  if (text == nullptr) return {};
  return {reinterpret_cast<const char*>(text), static_cast<size_t>(sqlite3_column_bytes(stmt_, column))};
}

std::optional<std::string_view> Row::OptionalText(int column) const {
  if (IsNull(column)) return std::nullopt;
  return Text(column);
}

std::optional<std::string> Row::OptionalString(int column) const {
  if (IsNull(column)) return std::nullopt;
  return String(column);
}

int64_t Row::Int(int column) const { return sqlite3_column_int64(stmt_, column); }

const char* Row::Name(int column) const { return sqlite3_column_name(stmt_, column); }

int Run(const Connection& conn, std::string_view sql, std::initializer_list<Arg> args, RowVisitor visit,
        void* visitor, int timeoutMs) {
  const Statement* stmt = internal::PrepareKept(conn, sql, timeoutMs);
  if (stmt == nullptr) return 1;
  Statement own;
  if (sqlite3_stmt_busy(stmt->get())) {  // its own visitor runs it again: a second statement
    own = internal::PrepareNow(conn, sql, timeoutMs);
    if (!own) return 1;
    stmt = &own;
  }
  ResetOnExit reset{stmt->get()};
  int index = 1;
  for (const Arg& arg : args) {
    if (BindArg(conn, *stmt, index, arg) != 0) return 1;
  }
  return Step(conn, stmt->get(), visit, visitor, timeoutMs);
}

// ---------------------------------------------------------------------------------------------
// Scope guards

Transaction::~Transaction() {
  if (open_) (void)CancelTransaction(conn_);  // logs its own failure; a destructor has no one to tell
}

int Transaction::Begin(int timeoutMs) {
  int rc = BeginTransaction(conn_, timeoutMs);
  open_ = rc == 0;
  return rc;
}

int Transaction::Commit(int timeoutMs) {
  int rc = CommitTransaction(conn_, timeoutMs);
  if (rc == 0) open_ = false;
  return rc;
}

int Transaction::Rollback() {
  if (!open_) return 0;
  open_ = false;
  return CancelTransaction(conn_);
}

SchemaStoreAttachment::~SchemaStoreAttachment() {
  (void)Detach();  // DetachSchemaStore logs its own failure; a destructor has no one to tell
}

int SchemaStoreAttachment::Attach() {
  bool before = conn_ && conn_->schemaStoreAttached;
  int rc = AttachSchemaStore(conn_);
  attached_ = attached_ || (rc == 0 && !before);
  return rc;
}

int SchemaStoreAttachment::Detach() {
  if (!attached_) return 0;
  attached_ = false;
  return DetachSchemaStore(conn_);
}

// ---------------------------------------------------------------------------------------------
// Key-value table

int ReadKeyValue(const std::string& key, std::string* value, const Connection& conn) {
  if (faults::Injected(faults::Kind::KvRead)) {
    LogError("Failed to read key-value entry", faults::kInjected);
    return 1;
  }
  if (!Usable(conn) || value == nullptr) {
    LogError("Failed to read key-value entry", Usable(conn) ? "no output" : "no database connection");
    return 1;
  }
  std::string found;
  auto keep = [&found](const Row& row) { found = row.String(0); };
  if (QueryEach(conn, "SELECT Value FROM KeyValue WHERE Key = ?", keep, key) != 0) return 1;
  *value = std::move(found);
  return 0;
}

int WriteKeyValue(const std::string& key, const std::string& value, const Connection& conn) {
  if (faults::Injected(faults::Kind::KvWrite)) {
    LogError("Failed to write key-value entry", faults::kInjected);
    return 1;
  }
  if (!Usable(conn)) {
    LogError("Failed to write key-value entry", "no database connection");
    return 1;
  }
  return Exec(conn, "INSERT OR REPLACE INTO KeyValue (Key, Value) VALUES (?, ?)", key, value);
}

}  // namespace DBStore
