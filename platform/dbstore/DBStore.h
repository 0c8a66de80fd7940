// Store database access over SQLite 3.
//
// Three databases, at host paths resolved against the host root:
//   type 0  configuration store  "/etc/talvex/configstore/current-store-1"
//           tables Config, DesiredUserConfig, DefaultConfig, KeyValue
//   type 2  data-file store      "/etc/talvex/configstore/datafile-store"   table DataFileMetadata
//   schema store                 "/var/lib/talvex/schemastore/schema-store" attached as "ss"
//           tables ConfigSchema, SmartnicSchema, DataFileSchema, SchemaFile
// Every statement waits up to its time-out on a busy database. Write transactions begin with
// BEGIN IMMEDIATE. Journal mode is the rollback journal (never WAL): the backup is a copy of the
// file, and a transaction over attached databases is atomic only outside WAL.
// Every connection, the schema store's own included, is opened by OpenStoreFile with the same
// settings: the busy time-out, the page cache sized for a big store, and (read-write) the journal
// mode checked. Connections are shared handles; nothing is cached between calls beyond the
// connection, which keeps its prepared statements for reuse.
// Statements run through Exec, Query and QueryEach only: literal SQL, values bound from their
// arguments, the statement reset with no bindings whichever way the run ends. Transactions and the
// schema store attachment are scope guards (Transaction, SchemaStoreAttachment). Preparing and
// binding are private to this folder (StatementInternal.h); nothing outside it calls SQLite.
// No function here throws (a row visitor's own exception passes through QueryEach): results are
// statuses (0 success, marked [[nodiscard]]) or empty handles. Failures are logged at error
// priority, with SQLite's message, before the status is returned (a store file that does not exist
// is the one exception: see GetConnection), and their cause is kept for LastError.
// A connection is used by one thread at a time (opened without SQLite's own mutex).
#pragma once

#include <concepts>
#include <initializer_list>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace DBStore {

enum Type : int { CONFIG_STORE = 0, DATAFILE_STORE = 2 };

// Busy time-out every caller of the library passes.
constexpr int kTimeoutMs = 3000;

struct SqliteStmtDeleter {
  void operator()(sqlite3_stmt* stmt) const;  // sqlite3_finalize
};
using Statement = std::unique_ptr<sqlite3_stmt, SqliteStmtDeleter>;

// Owns `db` (closed by the destructor) and the statements kept on it for reuse.
struct StoreConnection {
  sqlite3* db = nullptr;
  Type type = CONFIG_STORE;
  bool schemaStoreAttached = false;
  // Statements kept for reuse by SQL text (see Run); finalized before the close.
  struct TextHash {
    using is_transparent = void;
    size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
  };
  std::unordered_map<std::string, Statement, TextHash, std::equal_to<>> keptStatements;
  ~StoreConnection();  // rolls back an open transaction, then closes
};
using Connection = std::shared_ptr<StoreConnection>;

// Resolved file path of a store ("<root>/etc/talvex/configstore/current-store-1", ...); "" for an
// unknown type.
std::string StorePath(Type type);
std::string SchemaStorePath();

// Opens the store of that type. An empty handle when the file does not exist or is not a
// database that can be opened (the file is never created here: see CreateDatabases).
// `readWrite` false opens it read-only. A missing file is logged at information priority only
// (callers that tolerate a missing store ask for it routinely).
// A rollback journal left by a writer that died mid-transaction is rolled back on opening, also
// for a read-only connection (which briefly opens the file read-write for it), so readers see the
// store as it was before that transaction.
[[nodiscard]] Connection GetConnection(Type type, bool readWrite);
// The same for a store file of that type at any resolved path (a copy of a store, say).
[[nodiscard]] Connection OpenStoreFile(const std::string& path, Type type, bool readWrite);
// The schema store file itself (SchemaStorePath), for registration and look-ups.
[[nodiscard]] Connection OpenSchemaStore(bool readWrite);

// The cause of the last failure of a call here on this thread: the file and SQLite's error text
// ("<path>: database is locked", "<path> does not exist", "<path> is a directory"). Kept until the
// next failure; GetConnection, BeginTransaction and CommitTransaction clear it when they start, so
// right after one of them fails it is that failure's cause.
const std::string& LastError();

// Attach/detach the schema store under the name "ss". 0 on success. Attaching never creates the
// schema store file: a missing one is a failure. Attaching an attached connection and detaching a
// detached one succeed without doing anything. Detaching fails while a transaction uses "ss".
[[nodiscard]] int AttachSchemaStore(const Connection& conn);
[[nodiscard]] int DetachSchemaStore(const Connection& conn);

// BEGIN IMMEDIATE / COMMIT / ROLLBACK. 0 on success. BEGIN and COMMIT wait up to the time-out
// (kTimeoutMs unless given) for a lock held by another connection, then fail; a failed COMMIT
// leaves the transaction open. CancelTransaction rolls back whenever a transaction is still open
// and is a no-op (0) otherwise. All three fail (non-zero) on an empty handle.
[[nodiscard]] int BeginTransaction(const Connection& conn);
[[nodiscard]] int BeginTransaction(const Connection& conn, int timeoutMs);
[[nodiscard]] int CommitTransaction(const Connection& conn);
[[nodiscard]] int CommitTransaction(const Connection& conn, int timeoutMs);
[[nodiscard]] int CancelTransaction(const Connection& conn);

// ---------------------------------------------------------------------------------------------
// Statements

// One bound value of Exec, Query or QueryEach: a string (a null `const char*` or a nullopt binds
// NULL; an empty string binds ""), an integer, or a vector of strings bound element by element.
// Values are copied at binding (SQLITE_TRANSIENT), so temporaries may be passed.
class Arg {
 public:
  Arg(std::string_view value) : kind_(Kind::Text), text_(value) {}
  Arg(const std::string& value) : kind_(Kind::Text), text_(value) {}
  Arg(const char* value) : kind_(value != nullptr ? Kind::Text : Kind::Null), text_(value != nullptr ? value : "") {}
  Arg(const std::optional<std::string_view>& value) : kind_(value ? Kind::Text : Kind::Null), text_(value.value_or("")) {}
  Arg(const std::optional<std::string>& value)
      : kind_(value ? Kind::Text : Kind::Null), text_(value ? std::string_view(*value) : std::string_view()) {}
  Arg(std::nullopt_t) : kind_(Kind::Null) {}
  template <std::integral T>
  Arg(T value) : kind_(Kind::Int), int_(static_cast<int64_t>(value)) {}
  Arg(const std::vector<std::string>& values) : kind_(Kind::Texts), texts_(&values) {}
  Arg(const std::vector<std::string_view>& values) : kind_(Kind::Views), views_(&values) {}
  Arg(const std::vector<std::optional<std::string>>& values) : kind_(Kind::Optionals), optionals_(&values) {}

  enum class Kind { Null, Text, Int, Texts, Views, Optionals };
  Kind kind() const { return kind_; }
  std::string_view text() const { return text_; }
  int64_t integer() const { return int_; }
  const std::vector<std::string>& texts() const { return *texts_; }
  const std::vector<std::string_view>& views() const { return *views_; }
  const std::vector<std::optional<std::string>>& optionals() const { return *optionals_; }

 private:
  Kind kind_;
  std::string_view text_;
  int64_t int_ = 0;
  const std::vector<std::string>* texts_ = nullptr;
  const std::vector<std::string_view>* views_ = nullptr;
  const std::vector<std::optional<std::string>>* optionals_ = nullptr;
};

// The current row of QueryEach, valid only inside the visitor. Columns count from 0.
class Row {
 public:
  explicit Row(sqlite3_stmt* stmt) : stmt_(stmt) {}
  int Columns() const;
  bool IsNull(int column) const;
  std::string_view Text(int column) const;  // "" for NULL; the view ends with the visitor's call
  std::optional<std::string_view> OptionalText(int column) const;  // nullopt for NULL
  std::string String(int column) const { return std::string(Text(column)); }
  std::optional<std::string> OptionalString(int column) const;
  int64_t Int(int column) const;  // 0 for NULL
  const char* Name(int column) const;

 private:
  sqlite3_stmt* stmt_;
};

// A row kept by Query: every column as text, nullopt for NULL.
using Values = std::vector<std::optional<std::string>>;

// How a visitor is called from the statement loop; see QueryEach.
using RowVisitor = int (*)(void* visitor, const Row& row);

// The one statement runner. Prepares `sql` (kept on the connection: the same text gets the same
// statement back, prepared once), binds `args` in order, steps it to its end and calls
// `visit(visitor, row)` (when given) for each row; a non-zero return stops it with status 1.
// Whatever way it ends (a failure, a visitor that throws), the statement is reset with no bindings
// before this returns, so the next use of the same text starts clean and holds no read lock.
// 0 on success, 1 on failure (logged, cause kept for LastError). A text still mid-step on this
// connection (run again from inside its own visitor) gets a statement of its own.
[[nodiscard]] int Run(const Connection& conn, std::string_view sql, std::initializer_list<Arg> args,
                      RowVisitor visit, void* visitor, int timeoutMs = kTimeoutMs);

// Runs a statement that returns no rows (or whose rows are not wanted). 0 on success, 1 on failure.
template <typename... Args>
[[nodiscard]] int Exec(const Connection& conn, std::string_view sql, const Args&... args) {
  return Run(conn, sql, {Arg(args)...}, nullptr, nullptr);
}

// Calls `fn(const Row&)` for each row, in order, with no copy of the row. `fn` returns void, or a
// bool / int where false / non-zero stops the statement with status 1. An exception thrown by `fn`
// leaves through here, the statement reset. 0 on success, 1 on failure.
template <typename Fn, typename... Args>
[[nodiscard]] int QueryEach(const Connection& conn, std::string_view sql, Fn&& fn, const Args&... args) {
  using F = std::remove_reference_t<Fn>;
  RowVisitor visit = [](void* f, const Row& row) -> int {
    using R = std::invoke_result_t<F&, const Row&>;
    if constexpr (std::is_void_v<R>) {
      (*static_cast<F*>(f))(row);
      return 0;
    } else if constexpr (std::is_same_v<R, bool>) {
      return (*static_cast<F*>(f))(row) ? 0 : 1;
    } else {
      return (*static_cast<F*>(f))(row) != 0 ? 1 : 0;
    }
  };
  return Run(conn, sql, {Arg(args)...}, visit, const_cast<void*>(static_cast<const void*>(&fn)));
}

// Every row, each column as text (nullopt for NULL); nullopt when the statement fails. For small
// results: big ones go through QueryEach.
template <typename... Args>
[[nodiscard]] std::optional<std::vector<Values>> Query(const Connection& conn, std::string_view sql,
                                                       const Args&... args) {
  std::vector<Values> rows;
  auto keep = [&rows](const Row& row) {
    Values& values = rows.emplace_back();
    values.reserve(static_cast<size_t>(row.Columns()));
    for (int i = 0; i < row.Columns(); ++i) values.push_back(row.OptionalString(i));
  };
  if (QueryEach(conn, sql, keep, args...) != 0) return std::nullopt;
  return rows;
}

// ---------------------------------------------------------------------------------------------
// Scope guards

// A write transaction. Begin runs BEGIN IMMEDIATE; Commit runs COMMIT; the destructor rolls back
// (CancelTransaction) a begun transaction that was not committed, a failed Commit's included.
class Transaction {
 public:
  explicit Transaction(Connection conn) : conn_(std::move(conn)) {}
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  ~Transaction();
  [[nodiscard]] int Begin(int timeoutMs = kTimeoutMs);
  [[nodiscard]] int Commit(int timeoutMs = kTimeoutMs);
  // Rolls back now (the destructor then has nothing to do). 0 on success.
  [[nodiscard]] int Rollback();

 private:
  Connection conn_;
  bool open_ = false;
};

// The schema store attached as "ss" for a scope. Attach attaches it; the destructor detaches it
// when this guard attached it (a connection that had it attached already keeps it), logging a
// failure. Declare it before any Transaction on the same connection: detaching fails inside one.
class SchemaStoreAttachment {
 public:
  explicit SchemaStoreAttachment(Connection conn) : conn_(std::move(conn)) {}
  SchemaStoreAttachment(const SchemaStoreAttachment&) = delete;
  SchemaStoreAttachment& operator=(const SchemaStoreAttachment&) = delete;
  ~SchemaStoreAttachment();
  [[nodiscard]] int Attach();
  // Detaches now when this guard attached; 0 on success or when there is nothing to detach.
  [[nodiscard]] int Detach();

 private:
  Connection conn_;
  bool attached_ = false;
};

// Key-value table of the configuration store. A key never written reads as "" with status 0.
// Both fail (non-zero) on an empty handle; a failed read leaves *value untouched.
[[nodiscard]] int ReadKeyValue(const std::string& key, std::string* value, const Connection& conn);
[[nodiscard]] int WriteKeyValue(const std::string& key, const std::string& value, const Connection& conn);

// 0 when the file at `path` opens read-only as SQLite, PRAGMA quick_check answers "ok" and the tables
// of its kind are present (the kind is told by the file name: "datafile-store" is a data-file store,
// "schema-store" a schema store, anything else a configuration store). Non-zero otherwise.
[[nodiscard]] int Check(const std::string& path);

// Creates each missing store file (configuration, data-file and schema store, directories too) with
// all its tables, and adds missing tables to existing ones; rows already there are kept.
// Idempotent. 0 on success; non-zero when any store could not be made whole (for example an
// existing file that is not a database, which is left as it is).
[[nodiscard]] int CreateDatabases();

// The SQL that creates every table of a store kind (CREATE TABLE IF NOT EXISTS ...); "" for an
// unknown type.
const char* SchemaSql(Type type);
const char* SchemaStoreSql();

// Fault injection for tests: make the Nth call (1-based, counted from Arm) of a kind fail,
// only that call or that call and every later one. Off unless armed; counting is per process.
// A forced failure behaves as a real one: it is logged ("injected fault") and gives the failure
// status; a failed Prepare gives an empty handle, a failed Commit leaves the transaction open,
// Begin and Attach change nothing. Step counts each step of a statement run (Exec, Query,
// QueryEach, the key-value calls); Prepare counts each run's look-up of its statement, also when
// the statement was prepared before. One kind is armed at a time: arming replaces what was armed before.
namespace faults {

enum class Kind { Prepare, Step, Begin, Commit, Attach, KvRead, KvWrite, Count_ };

void Arm(Kind kind, int nth, bool persistent);  // also sets every count to zero; nth < 1 arms nothing
void Disarm();                 // all kinds off, counters to zero
int Calls(Kind kind);          // calls of that kind seen since the last Arm/Disarm/ResetCounts
void ResetCounts();

}  // namespace faults

}  // namespace DBStore
