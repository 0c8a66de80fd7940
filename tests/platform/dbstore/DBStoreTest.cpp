// Connections, transactions, statements, the key-value table and fault injection.
#include <chrono>
#include <functional>
#include <thread>

#include <sqlite3.h>

#include "tests/platform/dbstore/DBStoreTestSupport.h"
#include "tests/support/StoreDump.h"

namespace cstest {
namespace {

using DBStore::Exec;
using DBStore::kTimeoutMs;
using DBStore::faults::Kind;

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
    ASSERT_EQ(Exec(conn, change), 0);
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
  ASSERT_EQ(Exec(reader, "BEGIN"), 0);
  ASSERT_EQ(ReadKv(reader, "BOOT_MODE"), "0");

  {
    DBStore::Transaction tx(writer);
    ASSERT_EQ(tx.Begin(200), 0);
    ASSERT_EQ(DBStore::WriteKeyValue("BOOT_MODE", "1", writer), 0);
    EXPECT_NE(tx.Commit(200), 0);
    EXPECT_TRUE(InTransaction(writer));
  }  // the guard rolls back what it could not commit
  EXPECT_FALSE(InTransaction(writer));
  EXPECT_EQ(DBStore::CancelTransaction(writer), 0);  // nothing open: no-op

  ASSERT_EQ(Exec(reader, "COMMIT"), 0);
  EXPECT_EQ(ReadKv(Open(), "BOOT_MODE"), "0");
  {
    DBStore::Transaction tx(writer);
    ASSERT_EQ(tx.Begin(), 0);
    ASSERT_EQ(DBStore::WriteKeyValue("BOOT_MODE", "2", writer), 0);
    EXPECT_EQ(tx.Commit(), 0);
  }
  EXPECT_EQ(ReadKv(Open(), "BOOT_MODE"), "2");
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
  EXPECT_NE(DBStore::BeginTransaction(none), 0);
  EXPECT_NE(DBStore::CommitTransaction(none), 0);
  EXPECT_NE(DBStore::CancelTransaction(none), 0);
  EXPECT_NE(DBStore::AttachSchemaStore(none), 0);
  EXPECT_NE(Exec(none, "SELECT 1"), 0);
  EXPECT_NE(DBStore::QueryEach(none, "SELECT 1", [](const DBStore::Row&) {}), 0);
}

TEST_F(DBStoreTest, SchemaStoreAttachQueryAndDetach) {
  CreateStores();
  auto conn = Open();
  {
    DBStore::SchemaStoreAttachment ss(conn);
    ASSERT_EQ(ss.Attach(), 0);
    EXPECT_TRUE(conn->schemaStoreAttached);
    ASSERT_EQ(Exec(conn,
                   "INSERT INTO ss.ConfigSchema (Component, ConfigGroup, Name, SchemaJson, Singleton) "
                   "VALUES (?, ?, ?, ?, ?)",
                   std::vector<std::string>{"qor", "network", "nuknics", "{}"}, 1),
              0);
  }  // the guard detaches what it attached
  EXPECT_FALSE(conn->schemaStoreAttached);
  EXPECT_NE(Exec(conn, "SELECT Name FROM ss.ConfigSchema"), 0);
  EXPECT_TRUE(log_.Contains("no such table: ss.ConfigSchema", CSLogger::PRIO_ERROR));
  EXPECT_EQ(DBStore::DetachSchemaStore(conn), 0);

  // Written to the schema store file, seen from another connection; a guard leaves an attachment
  // it did not make.
  auto other = Open();
  ASSERT_EQ(DBStore::AttachSchemaStore(other), 0);
  {
    DBStore::SchemaStoreAttachment ss(other);
    ASSERT_EQ(ss.Attach(), 0);
  }
  EXPECT_TRUE(other->schemaStoreAttached);
  EXPECT_EQ(Query(other, "SELECT Name, Singleton, NoRestore FROM ss.ConfigSchema WHERE Component = ?", "qor"),
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
  const std::string sql = "SELECT ?1, typeof(?1), ?2, ?3, typeof(?3), ?4, ?5, ?6, ?7, ?8, ?9, ?10, typeof(?10), ?11, ?12";
  std::string temporary = "copied";
  auto rows = Query(conn, sql, std::string_view(), std::optional<std::string_view>(), INT64_MAX,
                    std::vector<std::string>{"x", "y"}, std::vector<std::string_view>{"z"},
                    static_cast<const char*>(nullptr), "literal", temporary, 7,
                    std::optional<std::string_view>("opt"), DBStore::Values{std::nullopt});
  EXPECT_EQ(rows, (std::vector<Row>{{"", "text", std::nullopt, "9223372036854775807", "integer", "x", "y", "z",
                                     std::nullopt, "literal", "copied", "7", "integer", "opt", std::nullopt}}));
  EXPECT_NE(Exec(conn, "SELECT ?", "one", "too many"), 0);
  EXPECT_TRUE(log_.Contains("out of range", CSLogger::PRIO_ERROR));

  std::string big(1 << 20, 'v');
  EXPECT_EQ(Query(conn, "SELECT length(?)", big), std::vector<Row>{{"1048576"}});
}

// The statement of a text is kept on the connection: however a run ends (done, stopped by its
// visitor, a visitor that throws), the next run of the same text starts unbound and from the top.
TEST_F(DBStoreTest, VisitorSeesNamesAndNullsAndTheStatementRunsAgain) {
  CreateStores();
  auto conn = Open();
  for (const char* key : {"A", "B", "C"}) ASSERT_EQ(DBStore::WriteKeyValue(key, key, conn), 0);
  const std::string sql = "SELECT Key AS k, NULL AS missing FROM KeyValue WHERE Key >= ? ORDER BY Key";
  std::vector<std::string> names;
  auto keepNames = [&names](const DBStore::Row& row) { names = {row.Name(0), row.Name(1)}; };
  ASSERT_EQ(DBStore::QueryEach(conn, sql, keepNames, "C"), 0);
  EXPECT_EQ(names, (std::vector<std::string>{"k", "missing"}));
  EXPECT_EQ(Query(conn, sql, "A"), (std::vector<Row>{{"A", std::nullopt}, {"B", std::nullopt}, {"C", std::nullopt}}));
  EXPECT_TRUE(Query(conn, sql).empty());  // bindings were cleared: Key >= NULL matches nothing

  int calls = 0;
  EXPECT_EQ(DBStore::QueryEach(conn, sql, [&calls](const DBStore::Row&) { return ++calls == 0; }, "A"), 1);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(Query(conn, sql, "B").size(), 2u);

  auto thrower = [](const DBStore::Row&) { throw std::runtime_error("visitor failed"); };
  EXPECT_THROW((void)DBStore::QueryEach(conn, sql, thrower, "A"), std::runtime_error);
  EXPECT_EQ(Query(conn, sql, "B").size(), 2u);  // reset, rebound, from its first row
  // No read left open: another connection can write and commit at once.
  auto other = Open();
  EXPECT_EQ(DBStore::BeginTransaction(other, 0), 0);
  EXPECT_EQ(DBStore::WriteKeyValue("D", "D", other), 0);
  EXPECT_EQ(DBStore::CommitTransaction(other, 0), 0);

  // The same text run from inside its own visitor gets a statement of its own.
  std::vector<size_t> inner;
  auto nested = [&](const DBStore::Row&) { inner.push_back(Query(conn, sql, "C").size()); };
  EXPECT_EQ(DBStore::QueryEach(conn, sql, nested, "B"), 0);
  EXPECT_EQ(inner, (std::vector<size_t>{2, 2, 2}));
}

TEST_F(DBStoreTest, StatementFailuresAreReportedWithSqliteMessages) {
  CreateStores();
  auto conn = Open();
  EXPECT_NE(Exec(conn, "SELEC 1"), 0);
  EXPECT_TRUE(log_.Contains("syntax error", CSLogger::PRIO_ERROR));
  EXPECT_NE(Exec(conn, ""), 0);
  EXPECT_NE(Exec(conn, "  -- only a comment"), 0);
  EXPECT_EQ(Exec(conn, "SELECT 1; -- done"), 0);

  // A second statement would silently not run, so the text is refused as a whole.
  EXPECT_NE(Exec(conn, "INSERT INTO KeyValue VALUES ('a', '1'); INSERT INTO KeyValue VALUES ('b', '2')"), 0);
  EXPECT_EQ(Query(conn, "SELECT count(*) FROM KeyValue"), std::vector<Row>{{"0"}});

  const std::string insert = "INSERT INTO KeyValue (Key, Value) VALUES (?, ?)";
  ASSERT_EQ(Exec(conn, insert, "k", "1"), 0);
  EXPECT_EQ(Exec(conn, insert, "k", "2"), 1);
  EXPECT_TRUE(log_.Contains("UNIQUE constraint failed: KeyValue.Key", CSLogger::PRIO_ERROR));
  EXPECT_EQ(Exec(conn, insert, "k", 1, 2), 1);  // more arguments than parameters
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
       [](const DBStore::Connection& c) { return Exec(c, "SELECT 1") == 0; }},
      {Kind::Step, "Step",
       [](const DBStore::Connection& c) {
         return Exec(c, "DELETE FROM KeyValue WHERE Key = 'none'") == 0;
       }},
      {Kind::Begin, "Begin",
       [](const DBStore::Connection& c) {
         bool ok = DBStore::BeginTransaction(c) == 0;
         EXPECT_EQ(InTransaction(c), ok);
         EXPECT_EQ(DBStore::CancelTransaction(c), 0);
         return ok;
       }},
      {Kind::Commit, "Commit",
       [](const DBStore::Connection& c) {
         EXPECT_EQ(DBStore::BeginTransaction(c), 0);
         bool ok = DBStore::CommitTransaction(c) == 0;
         EXPECT_EQ(InTransaction(c), !ok);
         EXPECT_EQ(DBStore::CancelTransaction(c), 0);
         return ok;
       }},
      {Kind::Attach, "Attach",
       [](const DBStore::Connection& c) {
         bool ok = DBStore::AttachSchemaStore(c) == 0;
         EXPECT_EQ(c->schemaStoreAttached, ok);
         EXPECT_EQ(DBStore::DetachSchemaStore(c), 0);
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
  const std::string sql = "SELECT Key FROM KeyValue ORDER BY Key";
  std::vector<std::string> partial;
  DBStore::faults::Arm(Kind::Step, 2, false);
  EXPECT_EQ(DBStore::QueryEach(conn, sql, [&partial](const DBStore::Row& row) { partial.push_back(row.String(0)); }),
            1);
  EXPECT_EQ(partial, std::vector<std::string>{"A"});
  EXPECT_EQ(Query(conn, sql).size(), 3u);
  EXPECT_EQ(DBStore::faults::Calls(Kind::Step), 6);  // 2, then 3 rows and the end
}

}  // namespace
}  // namespace cstest
