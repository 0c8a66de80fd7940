// Connections, transactions, statements, the key-value table and fault injection.
#include <chrono>
#include <functional>
#include <thread>

#include "tests/platform/dbstore/DBStoreTestSupport.h"
#include "tests/support/StoreDump.h"

namespace cstest {
namespace {

using DBStore::Execute;
using DBStore::kTimeoutMs;
using DBStore::faults::Kind;
namespace internal = DBStore::internal;

bool InTransaction(const DBStore::Connection& conn) { return sqlite3_get_autocommit(conn->db) == 0; }

TEST_F(DBStoreTest, KeyValueEntries) {
  CreateStores();
  auto conn = Open();
  EXPECT_EQ(ReadKv(conn, "NEVER_WRITTEN"), "");
  ASSERT_EQ(DBStore::WriteKeyValue("BOOT_MODE", "1", conn), 0);
  ASSERT_EQ(DBStore::WriteKeyValue("BOOT_MODE", "3", conn), 0);
  ASSERT_EQ(DBStore::WriteKeyValue("IS_BOOT", "", conn), 0);
  conn.reset();

  auto other = Open();
  EXPECT_EQ(ReadKv(other, "BOOT_MODE"), "3");
  EXPECT_EQ(ReadKv(other, "IS_BOOT"), "");
  EXPECT_EQ(Query(other, "SELECT count(*) FROM KeyValue"), std::vector<Row>{{"2"}});

  std::string value = "untouched";
  EXPECT_NE(DBStore::ReadKeyValue("BOOT_MODE", &value, nullptr), 0);
  EXPECT_EQ(value, "untouched");
  EXPECT_NE(DBStore::WriteKeyValue("BOOT_MODE", "4", nullptr), 0);
  EXPECT_NE(DBStore::ReadKeyValue("BOOT_MODE", &value, std::make_shared<DBStore::StoreConnection>()), 0);

  auto readOnly = DBStore::GetConnection(DBStore::CONFIG_STORE, false);
  ASSERT_TRUE(readOnly);
  EXPECT_EQ(ReadKv(readOnly, "BOOT_MODE"), "3");
  EXPECT_NE(DBStore::WriteKeyValue("IS_BOOT", "true", readOnly), 0);
  EXPECT_TRUE(log_.Contains("readonly", CSLogger::PRIO_ERROR));
}

// The store dump is what the "changed nothing" checks of other tests rest on: it must see a
// changed value, a changed type, a NULL and a new row.
TEST_F(DBStoreTest, StoreDumpSeesEveryKindOfChange) {
  CreateStores();
  auto conn = Open();
  ASSERT_EQ(DBStore::WriteKeyValue("BOOT_MODE", "1", conn), 0);
  StoreDump before = DumpStores();
  EXPECT_EQ(DiffStores(before, DumpStores()), "");
  EXPECT_TRUE(before.count("config.KeyValue") && before.count("datafile.DataFileMetadata") &&
              before.count("schema.ConfigSchema"));
  for (const char* change : {"UPDATE KeyValue SET Value = '2'", "UPDATE KeyValue SET Value = X'32'",
                             "UPDATE KeyValue SET Value = NULL",
                             "INSERT INTO KeyValue (Key, Value) VALUES ('IS_BOOT', '1')"}) {
    SCOPED_TRACE(change);
    ASSERT_EQ(Execute(conn, change, {}, {}, kTimeoutMs), 0);
    StoreDump after = DumpStores();
    EXPECT_NE(DiffStores(before, after), "");
    before = std::move(after);
  }
}

TEST_F(DBStoreTest, BeginWaitsForALockedStoreUpToItsTimeOut) {
  CreateStores();
  auto holder = Open();
  auto waiter = Open();
  ASSERT_EQ(DBStore::BeginTransaction(holder), 0);

  EXPECT_NE(DBStore::BeginTransaction(waiter, 200), 0);
  EXPECT_TRUE(log_.Contains("database is locked", CSLogger::PRIO_ERROR));
  EXPECT_FALSE(InTransaction(waiter));
  // Opening and reading stay possible while a writer holds its lock.
  auto late = Open();
  ASSERT_TRUE(late);
  EXPECT_EQ(ReadKv(late, "BOOT_MODE"), "");

  // A lock released while Begin waits is taken: it waited rather than failing at once.
  std::thread release([&holder] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(DBStore::CommitTransaction(holder), 0);
  });
  EXPECT_EQ(DBStore::BeginTransaction(waiter, kTimeoutMs), 0);
  release.join();
  EXPECT_EQ(DBStore::CommitTransaction(waiter), 0);
}

TEST_F(DBStoreTest, FailedCommitLeavesTheTransactionOpenAndCancelRestoresTheData) {
  CreateStores();
  auto writer = Open();
  auto reader = Open();
  ASSERT_EQ(DBStore::WriteKeyValue("BOOT_MODE", "0", writer), 0);
  // A read transaction holds its shared lock until it ends, so the writer cannot commit.
  ASSERT_EQ(Execute(reader, "BEGIN", {}, {}, kTimeoutMs), 0);
  ASSERT_EQ(ReadKv(reader, "BOOT_MODE"), "0");

  ASSERT_EQ(DBStore::BeginTransaction(writer, 200), 0);
  ASSERT_EQ(DBStore::WriteKeyValue("BOOT_MODE", "1", writer), 0);
  EXPECT_NE(DBStore::CommitTransaction(writer, 200), 0);
  EXPECT_TRUE(InTransaction(writer));
  EXPECT_EQ(DBStore::CancelTransaction(writer), 0);
  EXPECT_FALSE(InTransaction(writer));
  EXPECT_EQ(DBStore::CancelTransaction(writer), 0);  // nothing open: no-op

  ASSERT_EQ(Execute(reader, "COMMIT", {}, {}, kTimeoutMs), 0);
  EXPECT_EQ(ReadKv(Open(), "BOOT_MODE"), "0");
}

TEST_F(DBStoreTest, ClosingAConnectionRollsBackItsOpenTransaction) {
  CreateStores();
  auto conn = Open();
  ASSERT_EQ(DBStore::BeginTransaction(conn), 0);
  ASSERT_EQ(DBStore::WriteKeyValue("BOOT_MODE", "1", conn), 0);
  conn.reset();

  auto other = Open();
  EXPECT_EQ(ReadKv(other, "BOOT_MODE"), "");
  EXPECT_EQ(DBStore::BeginTransaction(other, 200), 0);  // the lock went with the connection
  EXPECT_EQ(DBStore::CommitTransaction(other), 0);
}

TEST_F(DBStoreTest, EmptyHandlesFail) {
  DBStore::Connection none;
  EXPECT_FALSE(internal::Prepare(none, "SELECT 1", kTimeoutMs));
  EXPECT_NE(DBStore::BeginTransaction(none), 0);
  EXPECT_NE(DBStore::CommitTransaction(none), 0);
  EXPECT_NE(DBStore::CancelTransaction(none), 0);
  EXPECT_NE(DBStore::AttachSchemaStore(none), 0);
  EXPECT_NE(DBStore::Execute(none, "SELECT 1", {}, {}, kTimeoutMs), 0);

  CreateStores();
  auto conn = Open();
  DBStore::Statement noStatement;
  int index = 1;
  EXPECT_EQ(DBStore::ExecuteStmt(conn, noStatement, nullptr, nullptr, kTimeoutMs), 1);
  EXPECT_NE(internal::Bind(conn, noStatement, index, "x"), 0);
  EXPECT_EQ(index, 1);
}

TEST_F(DBStoreTest, SchemaStoreAttachQueryAndDetach) {
  CreateStores();
  auto conn = Open();
  ASSERT_EQ(DBStore::AttachSchemaStore(conn), 0);
  EXPECT_TRUE(conn->schemaStoreAttached);
  EXPECT_EQ(DBStore::AttachSchemaStore(conn), 0);
  ASSERT_EQ(Execute(conn,
                    "INSERT INTO ss.ConfigSchema (Component, ConfigGroup, Name, SchemaJson, Singleton) "
                    "VALUES (?, ?, ?, ?, ?)",
                    {"qor", "network", "nuknics", "{}"}, {1}, kTimeoutMs),
            0);
  ASSERT_EQ(DBStore::DetachSchemaStore(conn), 0);
  EXPECT_FALSE(conn->schemaStoreAttached);
  EXPECT_FALSE(internal::Prepare(conn, "SELECT Name FROM ss.ConfigSchema", kTimeoutMs));
  EXPECT_TRUE(log_.Contains("no such table: ss.ConfigSchema", CSLogger::PRIO_ERROR));
  EXPECT_EQ(DBStore::DetachSchemaStore(conn), 0);

  // Written to the schema store file, seen from another connection.
  auto other = Open();
  ASSERT_EQ(DBStore::AttachSchemaStore(other), 0);
  EXPECT_EQ(Query(other, "SELECT Name, Singleton, NoRestore FROM ss.ConfigSchema WHERE Component = ?", {"qor"}),
            (std::vector<Row>{{"nuknics", "1", "0"}}));

  // A missing schema store is not created by attaching.
  Remove("/var/lib/talvex/schemastore/schema-store");
  auto late = Open();
  EXPECT_NE(DBStore::AttachSchemaStore(late), 0);
  EXPECT_FALSE(late->schemaStoreAttached);
  EXPECT_FALSE(Exists("/var/lib/talvex/schemastore/schema-store"));
}

TEST_F(DBStoreTest, BindingEveryKindOfValue) {
  CreateStores();
  auto conn = Open();
  DBStore::Statement stmt = internal::Prepare(
      conn, "SELECT ?1, typeof(?1), ?2, ?3, typeof(?3), ?4, ?5, ?6, ?7, ?8, ?9, ?10, typeof(?10), ?11", kTimeoutMs);
  ASSERT_TRUE(stmt);
  int index = 1;
  ASSERT_EQ(internal::Bind(conn, stmt, index, std::string_view()), 0);  // "" even without a data pointer
  ASSERT_EQ(internal::Bind(conn, stmt, index, std::optional<std::string_view>()), 0);
  ASSERT_EQ(internal::Bind(conn, stmt, index, INT64_MAX), 0);
  ASSERT_EQ(internal::Bind(conn, stmt, index, std::vector<std::string>{"x", "y"}), 0);
  ASSERT_EQ(internal::Bind(conn, stmt, index, std::vector<std::string_view>{"z"}), 0);
  ASSERT_EQ(internal::Bind(conn, stmt, index, static_cast<const char*>(nullptr)), 0);
  ASSERT_EQ(internal::Bind(conn, stmt, index, "literal"), 0);
  {
    std::string temporary = "copied";
    ASSERT_EQ(internal::Bind(conn, stmt, index, temporary), 0);
    temporary.assign(temporary.size(), '#');  // the bound copy must not change
  }
  ASSERT_EQ(internal::Bind(conn, stmt, index, 7), 0);
  ASSERT_EQ(internal::Bind(conn, stmt, index, std::optional<std::string_view>("opt")), 0);
  EXPECT_EQ(index, 12);
  EXPECT_NE(internal::Bind(conn, stmt, index, "one too many"), 0);
  EXPECT_EQ(index, 12);
  EXPECT_TRUE(log_.Contains("out of range", CSLogger::PRIO_ERROR));

  Rows out;
  ASSERT_EQ(DBStore::ExecuteStmt(conn, stmt, Rows::Collect, &out, kTimeoutMs), 0);
  EXPECT_EQ(out.rows, (std::vector<Row>{{"", "text", std::nullopt, "9223372036854775807", "integer", "x", "y", "z",
                                         std::nullopt, "literal", "copied", "7", "integer", "opt"}}));

  std::string big(1 << 20, 'v');
  EXPECT_EQ(Query(conn, "SELECT length(?)", {big}), std::vector<Row>{{"1048576"}});
}

TEST_F(DBStoreTest, RowCallbackSeesNamesAndNullsAndStatementsRunAgain) {
  CreateStores();
  auto conn = Open();
  for (const char* key : {"A", "B", "C"}) ASSERT_EQ(DBStore::WriteKeyValue(key, key, conn), 0);
  DBStore::Statement stmt = internal::Prepare(
      conn, "SELECT Key AS k, NULL AS missing FROM KeyValue WHERE Key >= ? ORDER BY Key", kTimeoutMs);
  ASSERT_TRUE(stmt);

  auto run = [&](std::optional<std::string> from) {
    int index = 1;
    if (from) {
      EXPECT_EQ(internal::Bind(conn, stmt, index, *from), 0);
    }
    Rows out;
    EXPECT_EQ(DBStore::ExecuteStmt(conn, stmt, Rows::Collect, &out, kTimeoutMs), 0);
    return out;
  };
  Rows all = run("A");
  EXPECT_EQ(all.rows, (std::vector<Row>{{"A", std::nullopt}, {"B", std::nullopt}, {"C", std::nullopt}}));
  EXPECT_EQ(all.names, (std::vector<std::string>{"k", "missing"}));
  EXPECT_TRUE(run(std::nullopt).rows.empty());  // bindings were cleared: Key >= NULL matches nothing
  EXPECT_EQ(run("B").rows.size(), 2u);

  int calls = 0;
  auto stopAtFirst = [](void* context, int, char**, char**) {
    ++*static_cast<int*>(context);
    return 1;
  };
  int index = 1;
  ASSERT_EQ(internal::Bind(conn, stmt, index, "A"), 0);
  EXPECT_EQ(DBStore::ExecuteStmt(conn, stmt, stopAtFirst, &calls, kTimeoutMs), 1);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(run("A").rows.size(), 3u);  // reset after the stop
}

TEST_F(DBStoreTest, StatementFailuresAreReportedWithSqliteMessages) {
  CreateStores();
  auto conn = Open();
  EXPECT_FALSE(internal::Prepare(conn, "SELEC 1", kTimeoutMs));
  EXPECT_TRUE(log_.Contains("syntax error", CSLogger::PRIO_ERROR));
  EXPECT_FALSE(internal::Prepare(conn, "", kTimeoutMs));
  EXPECT_FALSE(internal::Prepare(conn, "  -- only a comment", kTimeoutMs));
  EXPECT_TRUE(internal::Prepare(conn, "SELECT 1; -- done", kTimeoutMs));

  // A second statement would silently not run, so the text is refused as a whole.
  EXPECT_NE(Execute(conn, "INSERT INTO KeyValue VALUES ('a', '1'); INSERT INTO KeyValue VALUES ('b', '2')", {}, {},
                    kTimeoutMs),
            0);
  EXPECT_EQ(Query(conn, "SELECT count(*) FROM KeyValue"), std::vector<Row>{{"0"}});

  const std::string insert = "INSERT INTO KeyValue (Key, Value) VALUES (?, ?)";
  ASSERT_EQ(Execute(conn, insert, {"k", "1"}, {}, kTimeoutMs), 0);
  EXPECT_EQ(Execute(conn, insert, {"k", "2"}, {}, kTimeoutMs), 1);
  EXPECT_TRUE(log_.Contains("UNIQUE constraint failed: KeyValue.Key", CSLogger::PRIO_ERROR));
  EXPECT_EQ(Execute(conn, insert, {"k"}, {1, 2}, kTimeoutMs), 1);  // more arguments than parameters
  EXPECT_EQ(ReadKv(conn, "k"), "1");
}

struct FaultCase {
  Kind kind;
  const char* name;
  std::function<bool(const DBStore::Connection&)> succeeds;  // one call of the kind
};

const std::vector<FaultCase>& FaultCases() {
  static const std::vector<FaultCase> cases = {
      {Kind::Prepare, "Prepare",
       [](const DBStore::Connection& c) { return bool(internal::Prepare(c, "SELECT 1", kTimeoutMs)); }},
      {Kind::Step, "Step",
       [](const DBStore::Connection& c) {
         return Execute(c, "DELETE FROM KeyValue WHERE Key = 'none'", {}, {}, kTimeoutMs) == 0;
       }},
      {Kind::Begin, "Begin",
       [](const DBStore::Connection& c) {
         bool ok = DBStore::BeginTransaction(c) == 0;
         EXPECT_EQ(InTransaction(c), ok);
         DBStore::CancelTransaction(c);
         return ok;
       }},
      {Kind::Commit, "Commit",
       [](const DBStore::Connection& c) {
         EXPECT_EQ(DBStore::BeginTransaction(c), 0);
         bool ok = DBStore::CommitTransaction(c) == 0;
         EXPECT_EQ(InTransaction(c), !ok);
         DBStore::CancelTransaction(c);
         return ok;
       }},
      {Kind::Attach, "Attach",
       [](const DBStore::Connection& c) {
         bool ok = DBStore::AttachSchemaStore(c) == 0;
         EXPECT_EQ(c->schemaStoreAttached, ok);
         DBStore::DetachSchemaStore(c);
         return ok;
       }},
      {Kind::KvRead, "KvRead",
       [](const DBStore::Connection& c) {
         std::string value;
         return DBStore::ReadKeyValue("BOOT_MODE", &value, c) == 0;
       }},
      {Kind::KvWrite, "KvWrite",
       [](const DBStore::Connection& c) { return DBStore::WriteKeyValue("BOOT_MODE", "1", c) == 0; }},
  };
  return cases;
}

std::vector<bool> Outcomes(const FaultCase& fault, const DBStore::Connection& conn, int calls) {
  std::vector<bool> outcomes;
  for (int i = 0; i < calls; ++i) outcomes.push_back(fault.succeeds(conn));
  return outcomes;
}

// Armed once, a fault fails the nth call of its kind only; persistent, every call from the nth on
// until disarmed.
TEST_F(DBStoreTest, InjectedFaultsFailTheNthCallOfTheirKind) {
  CreateStores();
  auto conn = Open();
  for (const FaultCase& fault : FaultCases()) {
    SCOPED_TRACE(fault.name);
    log_.Clear();
    DBStore::faults::Arm(fault.kind, 2, false);
    EXPECT_EQ(Outcomes(fault, conn, 4), (std::vector<bool>{true, false, true, true}));
    EXPECT_EQ(DBStore::faults::Calls(fault.kind), 4);
    EXPECT_EQ(log_.Count("injected fault"), 1u);

    DBStore::faults::Arm(fault.kind, 2, true);
    EXPECT_EQ(Outcomes(fault, conn, 4), (std::vector<bool>{true, false, false, false}));
    DBStore::faults::Disarm();
    EXPECT_EQ(DBStore::faults::Calls(fault.kind), 0);
    EXPECT_EQ(Outcomes(fault, conn, 2), (std::vector<bool>{true, true}));
    EXPECT_EQ(DBStore::faults::Calls(fault.kind), 2);
  }
}

TEST_F(DBStoreTest, StepFaultStopsAStatementMidwayAndItRunsAgainAfterwards) {
  CreateStores();
  auto conn = Open();
  for (const char* key : {"A", "B", "C"}) ASSERT_EQ(DBStore::WriteKeyValue(key, key, conn), 0);
  DBStore::Statement stmt = internal::Prepare(conn, "SELECT Key FROM KeyValue ORDER BY Key", kTimeoutMs);
  ASSERT_TRUE(stmt);

  DBStore::faults::Arm(Kind::Step, 2, false);
  Rows partial;
  EXPECT_EQ(DBStore::ExecuteStmt(conn, stmt, Rows::Collect, &partial, kTimeoutMs), 1);
  EXPECT_EQ(partial.rows, std::vector<Row>{{"A"}});
  Rows all;
  EXPECT_EQ(DBStore::ExecuteStmt(conn, stmt, Rows::Collect, &all, kTimeoutMs), 0);
  EXPECT_EQ(all.rows.size(), 3u);
  EXPECT_EQ(DBStore::faults::Calls(Kind::Step), 6);  // 2, then 3 rows and the end
}

}  // namespace
}  // namespace cstest
