// Store files, connections, transactions, statements, the key-value table and fault injection.
#include <sqlite3.h>

#include <functional>

#include "platform/dbstore/DBStore.h"
#include "tests/support/Sandbox.h"
#include "tests/support/StoreRows.h"

namespace cstest {
namespace {

using DBStore::Exec;
using DBStore::faults::Kind;
using Rows = std::vector<DBStore::Values>;

constexpr const char* kConfigStore = "/etc/talvex/configstore/current-store-1";

bool InTransaction(const DBStore::Connection& conn) { return sqlite3_get_autocommit(conn->db) == 0; }

class DBStoreTest : public SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    ASSERT_EQ(DBStore::CreateDatabases(), 0);
  }
  static DBStore::Connection Open(DBStore::Type type = DBStore::CONFIG_STORE) {
    DBStore::Connection conn = DBStore::GetConnection(type, true);
    EXPECT_TRUE(conn);
    return conn;
  }
  template <typename... Args>
  static Rows Query(const DBStore::Connection& conn, const std::string& sql, const Args&... args) {
    std::optional<Rows> rows = DBStore::Query(conn, sql, args...);
    EXPECT_TRUE(rows) << sql;
    return rows.value_or(Rows());
  }
};

// Opening never creates a store, and creating never overwrites a file that is not a database;
// creating again keeps the rows and restores a missing table.
TEST_F(DBStoreTest, StoresAreCreatedOnceAndOpenedOnlyWhenThere) {
  ASSERT_EQ(DBStore::WriteKeyValue("BOOT_MODE", "2", Open()), 0);
  ASSERT_EQ(Exec(Open(), "DROP TABLE DefaultConfig"), 0);
  ASSERT_EQ(DBStore::CreateDatabases(), 0);
  EXPECT_EQ(DBStore::Check(Path(kConfigStore)), 0);
  EXPECT_EQ(cstest::StoredKeyValue(Open(), "BOOT_MODE"), "2");

  Remove(kConfigStore);
  EXPECT_FALSE(DBStore::GetConnection(DBStore::CONFIG_STORE, false));
  EXPECT_FALSE(Exists(kConfigStore));
  EXPECT_FALSE(DBStore::GetConnection(DBStore::Type(99), false));
  EXPECT_TRUE(log_.Contains("unknown store database type 99", CSLogger::PRIO_ERROR));
  WriteFile(kConfigStore, "not sqlite");
  EXPECT_FALSE(DBStore::GetConnection(DBStore::CONFIG_STORE, true));
  EXPECT_TRUE(log_.Contains("file is not a database", CSLogger::PRIO_ERROR));
  EXPECT_NE(DBStore::CreateDatabases(), 0);
  EXPECT_EQ(ReadFile(kConfigStore), "not sqlite");
}

// A damaged database is refused by its quick check (swept with corrupt backups at boot); these are the rest.
TEST_F(DBStoreTest, CheckRefusesUnsoundStores) {
  ASSERT_EQ(Exec(Open(), "DROP TABLE KeyValue"), 0);
  ASSERT_EQ(Exec(Open(DBStore::DATAFILE_STORE), "DROP TABLE DataFileMetadata"), 0);
  for (const char* path : {"/tmp/missing/current-store-1", "/etc/talvex", kConfigStore,
                           "/etc/talvex/configstore/datafile-store"}) {
    EXPECT_NE(DBStore::Check(Path(path)), 0) << path;
  }
  for (const char* why : {"not a regular file", "table KeyValue is missing", "table DataFileMetadata is missing"}) {
    EXPECT_TRUE(log_.Contains(why, CSLogger::PRIO_ERROR)) << why;
  }
  EXPECT_FALSE(Exists("/tmp/missing/current-store-1"));
}

// A reader's lock the writer cannot commit past: the guard rolls back what it could not commit,
// and closing a connection rolls back its open transaction.
TEST_F(DBStoreTest, TransactionsRollBackAndGuard) {
  auto writer = Open(), reader = Open();
  ASSERT_EQ(Exec(reader, "BEGIN"), 0);
  ASSERT_EQ(cstest::StoredKeyValue(reader, "BOOT_MODE"), "");
  for (bool readerDone : {false, true}) {
    if (readerDone) {
      ASSERT_EQ(Exec(reader, "COMMIT"), 0);
    }
    DBStore::Transaction tx(writer);
    ASSERT_EQ(tx.Begin(200), 0);
    ASSERT_EQ(DBStore::WriteKeyValue("BOOT_MODE", readerDone ? "2" : "1", writer), 0);
    EXPECT_EQ(tx.Commit(200) == 0, readerDone);
    EXPECT_EQ(InTransaction(writer), !readerDone);
  }
  EXPECT_EQ(DBStore::CancelTransaction(writer), 0);  // nothing open: no-op
  EXPECT_EQ(cstest::StoredKeyValue(Open(), "BOOT_MODE"), "2");
  ASSERT_EQ(DBStore::BeginTransaction(writer), 0);
  ASSERT_EQ(DBStore::WriteKeyValue("BOOT_MODE", "1", writer), 0);
  writer.reset();
  EXPECT_EQ(cstest::StoredKeyValue(Open(), "BOOT_MODE"), "2");
}

TEST_F(DBStoreTest, BindingAndStatementFailures) {
  auto conn = Open();
  std::string temporary = "copied";
  EXPECT_EQ(Query(conn, "SELECT ?1, typeof(?1), ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, typeof(?9), ?10, ?11",
                  std::string_view(), std::optional<std::string_view>(), INT64_MAX, std::vector<std::string>{"x", "y"},
                  static_cast<const char*>(nullptr), "literal", temporary, 7, std::optional<std::string_view>("opt"),
                  DBStore::Values{std::nullopt}),
            (Rows{{"", "text", std::nullopt, "9223372036854775807", "x", "y", std::nullopt, "literal", "copied", "7",
                   "integer", "opt", std::nullopt}}));
  // A second statement would silently not run, so the text is refused as a whole.
  for (const char* sql : {"SELEC 1", "", "INSERT INTO KeyValue VALUES ('a', '1'); INSERT INTO KeyValue VALUES ('b', '2')"}) {
    EXPECT_NE(Exec(conn, sql), 0) << sql;
  }
  EXPECT_TRUE(log_.Contains("syntax error", CSLogger::PRIO_ERROR));
  EXPECT_EQ(Exec(conn, "SELECT 1; -- done"), 0);
  const std::string insert = "INSERT INTO KeyValue (Key, Value) VALUES (?, ?)";
  ASSERT_EQ(Exec(conn, insert, "k", "1"), 0);
  EXPECT_EQ(Exec(conn, insert, "k", "2"), 1);
  EXPECT_TRUE(log_.Contains("UNIQUE constraint failed: KeyValue.Key", CSLogger::PRIO_ERROR));
  EXPECT_EQ(Exec(conn, "SELECT ?", "one", "too many"), 1);
  EXPECT_TRUE(log_.Contains("out of range", CSLogger::PRIO_ERROR));
  EXPECT_EQ(Query(conn, "SELECT Key, Value FROM KeyValue"), (Rows{{"k", "1"}}));
}

// The statement of a text is kept on the connection: however a run ends (done, stopped by its
// visitor, a visitor that throws), the next run of the same text starts unbound and from the top.
TEST_F(DBStoreTest, VisitorSeesNamesAndNullsAndTheStatementRunsAgain) {
  auto conn = Open();
  for (const char* key : {"A", "B", "C"}) ASSERT_EQ(DBStore::WriteKeyValue(key, key, conn), 0);
  const std::string sql = "SELECT Key AS k, NULL AS missing FROM KeyValue WHERE Key >= ? ORDER BY Key";
  std::vector<std::string> names;
  ASSERT_EQ(DBStore::QueryEach(conn, sql, [&](const DBStore::Row& row) { names = {row.Name(0), row.Name(1)}; }, "C"), 0);
  EXPECT_EQ(names, (std::vector<std::string>{"k", "missing"}));
  EXPECT_EQ(Query(conn, sql, "A"), (Rows{{"A", std::nullopt}, {"B", std::nullopt}, {"C", std::nullopt}}));
  EXPECT_TRUE(Query(conn, sql).empty());  // bindings were cleared: Key >= NULL matches nothing

  // A visitor that stops the run, or throws, leaves the statement to start afresh.
  EXPECT_EQ(DBStore::QueryEach(conn, sql, [](const DBStore::Row&) { return 2; }, "A"), 1);
  EXPECT_THROW((void)DBStore::QueryEach(conn, sql, [](const DBStore::Row&) -> int { throw std::runtime_error("x"); }, "A"),
               std::runtime_error);
  EXPECT_EQ(Query(conn, sql, "B").size(), 2u);
  // The same text run from inside its own visitor gets a statement of its own.
  std::vector<size_t> inner;
  EXPECT_EQ(DBStore::QueryEach(conn, sql, [&](const DBStore::Row&) { inner.push_back(Query(conn, sql, "C").size()); }, "B"), 0);
  EXPECT_EQ(inner, (std::vector<size_t>{1, 1}));
}

// Armed once, a fault fails the nth call of its kind only; persistent, every call from the nth on.
TEST_F(DBStoreTest, InjectedFaultsFailTheNthCallOfTheirKind) {
  auto c = Open();
  const std::pair<Kind, std::function<bool()>> cases[] = {
      {Kind::Prepare, [&] { return Exec(c, "SELECT 1") == 0; }},
      {Kind::Step, [&] { return Exec(c, "DELETE FROM KeyValue WHERE Key = 'none'") == 0; }},
      // A failed begin or attach that left its transaction or attachment would fail the next call.
      {Kind::Begin, [&] { return DBStore::BeginTransaction(c) == 0 && DBStore::CancelTransaction(c) == 0; }},
      {Kind::Commit, [&] {
         EXPECT_EQ(DBStore::BeginTransaction(c), 0);
         bool ok = DBStore::CommitTransaction(c) == 0;
         EXPECT_EQ(InTransaction(c), !ok);
         return DBStore::CancelTransaction(c) == 0 && ok;
       }},
      {Kind::Attach, [&] { return DBStore::AttachSchemaStore(c) == 0 && DBStore::DetachSchemaStore(c) == 0; }},
      {Kind::KvRead, [&] { std::string v; return DBStore::ReadKeyValue("BOOT_MODE", &v, c) == 0; }},
      {Kind::KvWrite, [&] { return DBStore::WriteKeyValue("BOOT_MODE", "1", c) == 0; }},
  };
  for (const auto& [kind, succeeds] : cases) {
    for (auto [nth, persistent, expected] : {std::tuple{1, false, std::vector<bool>{false, true, true}},
                                             std::tuple{2, false, std::vector<bool>{true, false, true}},
                                             std::tuple{2, true, std::vector<bool>{true, false, false}}}) {
      DBStore::faults::Arm(kind, nth, persistent);
      std::vector<bool> outcomes;
      for (int i = 0; i < 3; ++i) outcomes.push_back(succeeds());
      EXPECT_EQ(outcomes, expected) << static_cast<int>(kind) << " nth " << nth;
      EXPECT_EQ(DBStore::faults::Calls(kind), 3);
      DBStore::faults::Disarm();
    }
    EXPECT_EQ(DBStore::faults::Calls(kind), 0);
    EXPECT_TRUE(succeeds());
  }
}

}  // namespace
}  // namespace cstest
