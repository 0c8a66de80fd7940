// Store files: creation, the consistency check, opening, and the table keys the library relies on.
#include <filesystem>

#include "tests/platform/dbstore/DBStoreTestSupport.h"

namespace cstest {
namespace {

namespace fs = std::filesystem;
using DBStore::Exec;
using DBStore::kTimeoutMs;

constexpr const char* kConfigStore = "/etc/talvex/configstore/current-store-1";
constexpr const char* kDataFileStore = "/etc/talvex/configstore/datafile-store";
constexpr const char* kSchemaStore = "/var/lib/talvex/schemastore/schema-store";

class StoreFilesTest : public DBStoreTest {
 protected:
  // Enough rows for the file to span many pages, so a cut copy loses some of them.
  void FillConfig(const DBStore::Connection& conn, int rows) {
    ASSERT_EQ(DBStore::BeginTransaction(conn), 0);
    for (int i = 0; i < rows; ++i) {
      ASSERT_EQ(Exec(conn, "INSERT INTO Config (Component, ConfigGroup, Name, Identifier, UserValue) "
                           "VALUES ('qor', 'network', 'nuknics', ?, ?)",
                     "nic" + std::to_string(i), std::string(200, 'x')),
                0);
    }
    ASSERT_EQ(DBStore::CommitTransaction(conn), 0);
  }
};

// Opening never creates a store, and creating never overwrites a file that is not a database.
TEST_F(StoreFilesTest, MissingStoresAndFilesThatAreNotDatabasesGiveEmptyHandles) {
  EXPECT_EQ(DBStore::StorePath(static_cast<DBStore::Type>(1)), "");
  for (DBStore::Type type : {DBStore::CONFIG_STORE, DBStore::DATAFILE_STORE}) {
    for (bool readWrite : {true, false}) {
      SCOPED_TRACE(std::to_string(type) + (readWrite ? " read-write" : " read-only"));
      EXPECT_FALSE(DBStore::GetConnection(type, readWrite));
    }
  }
  EXPECT_FALSE(Exists(kConfigStore));
  EXPECT_FALSE(Exists(kDataFileStore));

  WriteFile(kConfigStore, "not sqlite");
  EXPECT_FALSE(DBStore::GetConnection(DBStore::CONFIG_STORE, true));
  EXPECT_FALSE(DBStore::GetConnection(DBStore::CONFIG_STORE, false));
  EXPECT_TRUE(log_.Contains("file is not a database", CSLogger::PRIO_ERROR));
  EXPECT_NE(DBStore::CreateDatabases(), 0);
  EXPECT_EQ(ReadFile(kConfigStore), "not sqlite");
  EXPECT_EQ(DBStore::Check(Path(kDataFileStore)), 0);
  EXPECT_EQ(DBStore::Check(Path(kSchemaStore)), 0);
}

TEST_F(StoreFilesTest, CreatedStoresPassTheCheckAndUseTheRollbackJournal) {
  CreateStores();
  for (const char* store : {kConfigStore, kDataFileStore, kSchemaStore}) {
    SCOPED_TRACE(store);
    EXPECT_EQ(DBStore::Check(Path(store)), 0);
  }
  EXPECT_EQ(Query(Open(), "PRAGMA journal_mode"), std::vector<Row>{{"delete"}});
}

TEST_F(StoreFilesTest, CreateDatabasesIsIdempotentKeepsRowsAndRestoresMissingTables) {
  CreateStores();
  {
    auto conn = Open();
    ASSERT_EQ(DBStore::WriteKeyValue("BOOT_MODE", "2", conn), 0);
    ASSERT_EQ(Exec(conn, "DROP TABLE DefaultConfig"), 0);
  }
  EXPECT_NE(DBStore::Check(Path(kConfigStore)), 0);

  CreateStores();
  CreateStores();
  EXPECT_EQ(DBStore::Check(Path(kConfigStore)), 0);
  auto conn = Open();
  EXPECT_EQ(ReadKv(conn, "BOOT_MODE"), "2");
  EXPECT_EQ(Query(conn, "SELECT count(*) FROM DefaultConfig"), std::vector<Row>{{"0"}});
}

TEST_F(StoreFilesTest, CheckRefusesUnsoundStores) {
  CreateStores();
  FillConfig(Open(), 2000);
  std::string store = ReadFile(kConfigStore);
  ASSERT_GT(store.size(), 100000u);
  WriteFile("/tmp/truncated/current-store-1", store.substr(0, store.size() / 2));
  WriteFile("/tmp/text/current-store-1", "SQLite format 3 is what this file is not\n");
  WriteFile("/tmp/empty/current-store-1", "");
  // The kind is told by the file name: a configuration store is no data-file store.
  WriteFile("/tmp/misnamed/datafile-store", store);

  auto config = Open();
  ASSERT_EQ(Exec(config, "DROP TABLE KeyValue"), 0);
  auto dataFiles = DBStore::GetConnection(DBStore::DATAFILE_STORE, true);
  ASSERT_TRUE(dataFiles);
  ASSERT_EQ(Exec(dataFiles, "DROP TABLE DataFileMetadata"), 0);
  ASSERT_EQ(DBStore::AttachSchemaStore(config), 0);
  ASSERT_EQ(Exec(config, "DROP TABLE ss.SchemaFile"), 0);

  for (const char* path : {"/tmp/missing/current-store-1", "/tmp/truncated/current-store-1",
                           "/tmp/text/current-store-1", "/tmp/empty/current-store-1", "/tmp/misnamed/datafile-store",
                           kConfigStore, kDataFileStore, kSchemaStore}) {
    SCOPED_TRACE(path);
    EXPECT_NE(DBStore::Check(Path(path)), 0);
  }
  EXPECT_TRUE(log_.Contains("malformed", CSLogger::PRIO_ERROR));
  EXPECT_TRUE(log_.Contains("not a database", CSLogger::PRIO_ERROR));
  EXPECT_TRUE(log_.Contains("table KeyValue is missing", CSLogger::PRIO_ERROR));
  EXPECT_TRUE(log_.Contains("table DataFileMetadata is missing", CSLogger::PRIO_ERROR));
  EXPECT_FALSE(Exists("/tmp/missing/current-store-1"));

  WriteFile("/tmp/copy/current-store-1", store);
  EXPECT_EQ(DBStore::Check(Path("/tmp/copy/current-store-1")), 0);
}

// INSERT OR REPLACE / OR IGNORE in the library count on these keys.
TEST_F(StoreFilesTest, TableKeys) {
  CreateStores();
  auto conn = Open();
  const std::string upsertConfig =
      "INSERT OR REPLACE INTO Config (Component, ConfigGroup, Name, Identifier, UserValue) VALUES (?, ?, ?, ?, ?)";
  ASSERT_EQ(Exec(conn, upsertConfig, "qor", "network", "dns", "", "a"), 0);
  ASSERT_EQ(Exec(conn, upsertConfig, "qor", "network", "dns", "", "b"), 0);
  EXPECT_EQ(Query(conn, "SELECT Identifier, UserValue FROM Config"), (std::vector<Row>{{"", "b"}}));

  // A NULL identifier would escape the key, so the store refuses it.
  EXPECT_EQ(Exec(conn, "INSERT OR REPLACE INTO Config (Component, ConfigGroup, Name, Identifier) VALUES ('c', 'g', 'n', ?)",
                 std::nullopt),
            1);

  // Staged deletions carry no identifier and may repeat; staged sets replace one another.
  const std::string stageDelete = "INSERT INTO DesiredUserConfig (Component, ConfigGroup, Name, BootAction) "
                                  "VALUES ('qor', 'network', 'nuknics', 'DELETE')";
  ASSERT_EQ(Exec(conn, stageDelete), 0);
  ASSERT_EQ(Exec(conn, stageDelete), 0);
  const std::string stageSet = "INSERT OR REPLACE INTO DesiredUserConfig (Identifier, Name, ConfigGroup, Component, "
                               "Value, BootAction) VALUES ('nic0', 'nuknics', 'network', 'qor', ?, 'SET')";
  ASSERT_EQ(Exec(conn, stageSet, "1"), 0);
  ASSERT_EQ(Exec(conn, stageSet, "2"), 0);
  EXPECT_EQ(Query(conn, "SELECT BootAction, count(*), max(Value) FROM DesiredUserConfig GROUP BY BootAction "
                        "ORDER BY BootAction"),
            (std::vector<Row>{{"DELETE", "2", std::nullopt}, {"SET", "1", "2"}}));

  auto dataFiles = DBStore::GetConnection(DBStore::DATAFILE_STORE, true);
  const std::string addFile =
      "INSERT OR IGNORE INTO DataFileMetadata (Component, KEY, DirName, FileName) VALUES ('qor', 'certs', 'd', 'f')";
  ASSERT_EQ(Exec(dataFiles, addFile), 0);
  ASSERT_EQ(Exec(dataFiles, addFile), 0);
  EXPECT_EQ(Query(dataFiles, "SELECT count(*) FROM DataFileMetadata"), std::vector<Row>{{"1"}});
}

}  // namespace
}  // namespace cstest
