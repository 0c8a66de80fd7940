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
// Connections are shared handles, statements unique handles; nothing is cached between calls.
// No function here throws: results are statuses (0 success) or empty handles. Failures are logged
// at error priority, with SQLite's message, before the status is returned (a store file that does
// not exist is the one exception: see GetConnection), and their cause is kept for LastError.
// A connection is used by one thread at a time (opened without SQLite's own mutex).
#pragma once

#include <sqlite3.h>

#include <concepts>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace DBStore {

enum Type : int { CONFIG_STORE = 0, DATAFILE_STORE = 2 };

// Busy time-out every caller of the library passes.
constexpr int kTimeoutMs = 3000;

struct SqliteStmtDeleter {
  void operator()(sqlite3_stmt* stmt) const { sqlite3_finalize(stmt); }
};
using Statement = std::unique_ptr<sqlite3_stmt, SqliteStmtDeleter>;

// Owns `db` (closed by the destructor) and the statements kept on it for reuse.
struct StoreConnection {
  sqlite3* db = nullptr;
  Type type = CONFIG_STORE;
  bool schemaStoreAttached = false;
  // Statements of internal::PrepareKept and Execute, by SQL text; finalized before the close.
  std::unordered_map<std::string, Statement> keptStatements;
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
Connection GetConnection(Type type, bool readWrite);
// The same for a store file of that type at any resolved path (a copy of a store, say).
Connection OpenStoreFile(const std::string& path, Type type, bool readWrite);

// The cause of the last failure of a call here on this thread: the file and SQLite's error text
// ("<path>: database is locked", "<path> does not exist", "<path> is a directory"). Kept until the
// next failure; GetConnection, BeginTransaction and CommitTransaction clear it when they start, so
// right after one of them fails it is that failure's cause.
const std::string& LastError();

// Attach/detach the schema store under the name "ss". 0 on success. Attaching never creates the
// schema store file: a missing one is a failure. Attaching an attached connection and detaching a
// detached one succeed without doing anything. Detaching fails while a transaction uses "ss".
int AttachSchemaStore(const Connection& conn);
int DetachSchemaStore(const Connection& conn);

// BEGIN IMMEDIATE / COMMIT / ROLLBACK. 0 on success. BEGIN and COMMIT wait up to the time-out
// (kTimeoutMs unless given) for a lock held by another connection, then fail; a failed COMMIT
// leaves the transaction open. CancelTransaction rolls back whenever a transaction is still open
// and is a no-op (0) otherwise. All three fail (non-zero) on an empty handle.
int BeginTransaction(const Connection& conn);
int BeginTransaction(const Connection& conn, int timeoutMs);
int CommitTransaction(const Connection& conn);
int CommitTransaction(const Connection& conn, int timeoutMs);
int CancelTransaction(const Connection& conn);

// Row callback, as sqlite3_exec's: context, column count, column texts (NULL for SQL NULL),
// column names. A non-zero return stops the statement and makes ExecuteStmt fail.
using RowCallback = int (*)(void* context, int argc, char** argv, char** columnNames);

namespace internal {

// Prepares one statement; an empty handle on failure (the error is logged). Text holding more than
// one statement is refused rather than cut short. The statement belongs to `conn`: release it
// before the connection's last handle goes.
Statement Prepare(const Connection& conn, std::string_view sql, int timeoutMs);

// As Prepare, but the statement stays with `conn` and the same text gets the same statement back
// (preparing costs more than running a small statement, and loops run the same few). The pointer is
// borrowed: valid while `conn` lives. ExecuteStmt leaves it reset with no bindings for the next
// use; do not hold it across another use of the same text. Each call counts as a Prepare for fault
// injection and fails like one: null, logged.
const Statement* PrepareKept(const Connection& conn, std::string_view sql, int timeoutMs);

// Binds the next parameter at `index` (1-based, advanced past what was bound). 0 on success;
// non-zero on an empty handle or an index out of range. Values are always copied
// (SQLITE_TRANSIENT). A nullopt (or a null `const char*`) binds NULL; an empty string binds "".
// A vector binds its elements in order and stops at the first failure.
int Bind(const Connection& conn, const Statement& stmt, int& index, std::string_view value);
int Bind(const Connection& conn, const Statement& stmt, int& index, const std::optional<std::string_view>& value);
int Bind(const Connection& conn, const Statement& stmt, int& index, int64_t value);
int Bind(const Connection& conn, const Statement& stmt, int& index, const std::vector<std::string>& values);
int Bind(const Connection& conn, const Statement& stmt, int& index, const std::vector<std::string_view>& values);
// These make strings, literals and any integer type pick one overload above unambiguously
// (a std::string or a literal converts equally well to string_view and optional<string_view>).
int Bind(const Connection& conn, const Statement& stmt, int& index, const std::string& value);
int Bind(const Connection& conn, const Statement& stmt, int& index, const char* value);
template <std::integral T>
int Bind(const Connection& conn, const Statement& stmt, int& index, T value) {
  return Bind(conn, stmt, index, static_cast<int64_t>(value));
}

}  // namespace internal

// Runs a prepared statement to its end, calling `callback` (when given) once per row.
// Waits up to timeoutMs while the database is busy. 0 on success, 1 on failure (also for an empty
// connection or statement handle). The statement is reset and its bindings cleared afterwards, so
// it may be bound and run again. The texts passed to the callback live until it returns.
int ExecuteStmt(const Connection& conn, const Statement& stmt, RowCallback callback, void* context, int timeoutMs);

// Prepares `sql` (kept on the connection: see PrepareKept), binds the string arguments then the
// integer arguments, runs it. 0 on success, 1 on failure.
int Execute(const Connection& conn, std::string_view sql, const std::vector<std::string>& stringArgs,
            const std::vector<int64_t>& intArgs, int timeoutMs);

// Key-value table of the configuration store. A key never written reads as "" with status 0.
// Both fail (non-zero) on an empty handle; a failed read leaves *value untouched.
int ReadKeyValue(const std::string& key, std::string* value, const Connection& conn);
int WriteKeyValue(const std::string& key, const std::string& value, const Connection& conn);

// 0 when the file at `path` opens read-only as SQLite, PRAGMA quick_check answers "ok" and the tables
// of its kind are present (the kind is told by the file name: "datafile-store" is a data-file store,
// "schema-store" a schema store, anything else a configuration store). Non-zero otherwise.
int Check(const std::string& path);

// Creates each missing store file (configuration, data-file and schema store, directories too) with
// all its tables, and adds missing tables to existing ones; rows already there are kept.
// Idempotent. 0 on success; non-zero when any store could not be made whole (for example an
// existing file that is not a database, which is left as it is).
int CreateDatabases();

// The SQL that creates every table of a store kind (CREATE TABLE IF NOT EXISTS ...); "" for an
// unknown type.
const char* SchemaSql(Type type);
const char* SchemaStoreSql();

// Fault injection for tests: make the Nth call (1-based, counted from Arm) of a kind fail,
// only that call or that call and every later one. Off unless armed; counting is per process.
// A forced failure behaves as a real one: it is logged ("injected fault") and gives the failure
// status; a failed Prepare gives an empty handle, a failed Commit leaves the transaction open,
// Begin and Attach change nothing. Step counts each sqlite3_step of ExecuteStmt, Execute and the
// key-value calls; Prepare counts internal::Prepare, also when called by Execute and the
// key-value calls. One kind is armed at a time: arming replaces what was armed before.
namespace faults {

enum class Kind { Prepare, Step, Begin, Commit, Attach, KvRead, KvWrite, Count_ };

void Arm(Kind kind, int nth, bool persistent);  // also sets every count to zero; nth < 1 arms nothing
void Disarm();                 // all kinds off, counters to zero
int Calls(Kind kind);          // calls of that kind seen since the last Arm/Disarm/ResetCounts
void ResetCounts();

}  // namespace faults

}  // namespace DBStore
