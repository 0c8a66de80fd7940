// The boot's restore step: which backup is used, what is created, and what each failure leaves.
#include <gmock/gmock.h>

#include <signal.h>
#include <sqlite3.h>
#include <sys/resource.h>

#include <filesystem>
#include <functional>

#include "configstore/boot/StoreRestore.h"
#include "configstore/bootstate/BootState.h"
#include "configstore/frame/CallFrame.h"
#include "tests/support/Sandbox.h"

namespace fs = std::filesystem;

namespace QorConfigStore {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* kStore = "/etc/talvex/configstore/current-store-1";
constexpr const char* kDataFileStore = "/etc/talvex/configstore/datafile-store";
constexpr const char* kBackup = "/var/lib/talvex/configstore/backup/current-store-1";
constexpr const char* kFirstBootBackup = "/var/lib/talvex/configstore/firstbootBackup/current-store-1";
constexpr const char* kDataFileBackup = "/var/lib/talvex/configstore/backup/datafile-store";
constexpr const char* kCopyEvent = "zeb.user.cs.createstore.copy.backup.error";
constexpr const char* kDataFileEvent = "zeb.user.cs.dfs.restore.error";
constexpr const char* kDbEvent = "zeb.user.cs.db.operation.error";

class StoreRestoreTest : public cstest::SandboxTest {
 protected:
  // A sound store of `type` at `hostPath` whose only row carries `marker` (and, for a configuration
  // store, whose boot mode is 1, as staged before a reboot). The working stores it was built in are
  // removed again.
  void WriteBackup(DBStore::Type type, const std::string& hostPath, const std::string& marker) {
    ASSERT_EQ(DBStore::CreateDatabases(), 0);
    {
      DBStore::Connection conn = GetDBConnection(type, true);
      if (type == DBStore::CONFIG_STORE) {
        ASSERT_EQ(DBStore::Exec(conn, "INSERT INTO Config (Identifier, Name, ConfigGroup, Component, UserValue) "
                                   "VALUES ('', 'key', 'group', 'comp', ?)", marker),
                  0);
        ASSERT_EQ(DBStore::WriteKeyValue("BOOT_MODE", "1", conn), 0);
      } else {
        ASSERT_EQ(DBStore::Exec(conn, "INSERT INTO DataFileMetadata (Component, KEY, DirName, FileName) "
                                   "VALUES ('comp', 'key', 'dir', ?)", marker),
                  0);
      }
    }
    const std::string built = DBStore::StorePath(type);
    if (built != Path(hostPath)) {
      fs::create_directories(fs::path(Path(hostPath)).parent_path());
      fs::copy_file(built, Path(hostPath), fs::copy_options::overwrite_existing);
    }
    for (const char* working : {kStore, kDataFileStore}) {
      if (Path(working) != Path(hostPath)) Remove(working);
    }
  }

  // What the working store of `type` holds: the user values of Config, or the file names of
  // DataFileMetadata.
  std::vector<std::string> Rows(DBStore::Type type) {
    DBStore::Connection conn = GetDBConnection(type, true);
    const char* sql = type == DBStore::CONFIG_STORE ? "SELECT UserValue FROM Config" : "SELECT FileName FROM DataFileMetadata";
    std::vector<std::string> rows;
    auto keep = [&rows](const DBStore::Row& row) { rows.push_back(row.IsNull(0) ? "NULL" : row.String(0)); };
    EXPECT_EQ(DBStore::QueryEach(conn, sql, keep), 0);
    return rows;
  }

  std::vector<std::string> EventIds() const {
    std::vector<std::string> ids;
    for (const auto& e : RecordedEvents()) ids.push_back(e.id);
    return ids;
  }

  void ExpectSoundStores() const {
    EXPECT_EQ(DBStore::Check(Path(kStore)), 0);
    EXPECT_EQ(DBStore::Check(Path(kDataFileStore)), 0);
  }
};

TEST_F(StoreRestoreTest, NoBackupCreatesNewStoreAndAsksForTheBootDocument) {
  // A store left on the ramdisk by an earlier start of the boot scripts must not survive.
  WriteBackup(DBStore::CONFIG_STORE, kStore, "stale");

  EXPECT_TRUE(RestoreOrCreateStore(true));

  ExpectSoundStores();
  EXPECT_THAT(Rows(DBStore::CONFIG_STORE), IsEmpty());
  EXPECT_THAT(Rows(DBStore::DATAFILE_STORE), IsEmpty());
  EXPECT_EQ(GetBootMode(), BOOT_MODE_NEW_STORE);
  EXPECT_TRUE(log_.Contains("ConfigStore backup not found ", CSLogger::PRIO_INFO));
  EXPECT_TRUE(log_.Contains("DataFileStore backup not found " + Path(kDataFileBackup), CSLogger::PRIO_INFO));
  EXPECT_FALSE(log_.Contains("Restore ConfigStore from"));
  EXPECT_FALSE(log_.Contains("Error removing sticky ConfigStore file"));
  EXPECT_THAT(EventIds(), IsEmpty());
}

TEST_F(StoreRestoreTest, SoundBackupIsRestoredWithItsRowsAndBootMode) {
  struct Case {
    const char* name;
    bool regular;
    bool firstBoot;
    const char* expectedSource;
    const char* expectedRow;
  };
  const Case cases[] = {
      {"regular only", true, false, kBackup, "regular"},
      {"first-boot only", false, true, kFirstBootBackup, "first-boot"},
      {"both: the regular one wins", true, true, kBackup, "regular"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Remove("/etc");
    Remove("/var");
    log_.Clear();
    if (c.regular) WriteBackup(DBStore::CONFIG_STORE, kBackup, "regular");
    if (c.firstBoot) WriteBackup(DBStore::CONFIG_STORE, kFirstBootBackup, "first-boot");
    WriteBackup(DBStore::CONFIG_STORE, kStore, "stale");

    EXPECT_FALSE(RestoreOrCreateStore(true));

    ExpectSoundStores();
    EXPECT_THAT(Rows(DBStore::CONFIG_STORE), ElementsAre(c.expectedRow));
    // Not a new store: the mode staged before the reboot is left for this boot to act on.
    EXPECT_EQ(GetBootMode(), BOOT_MODE_DESIRED_USER_CONFIG);
    EXPECT_TRUE(log_.Contains("Restore ConfigStore from " + Path(c.expectedSource), CSLogger::PRIO_INFO));
    EXPECT_TRUE(log_.Contains("ConfigStore restored successfully from backup", CSLogger::PRIO_INFO));
    EXPECT_THAT(EventIds(), IsEmpty());
  }
}

TEST_F(StoreRestoreTest, InconsistentRegularBackupIsNotReplacedByTheFirstBootOne) {
  WriteFile(kBackup, "not a database");
  WriteBackup(DBStore::CONFIG_STORE, kFirstBootBackup, "first-boot");

  EXPECT_TRUE(RestoreOrCreateStore(true));

  ExpectSoundStores();
  EXPECT_THAT(Rows(DBStore::CONFIG_STORE), IsEmpty());
  EXPECT_EQ(GetBootMode(), BOOT_MODE_NEW_STORE);
  EXPECT_TRUE(log_.Contains("ConfigStore backup [" + Path(kBackup) + "] is inconsistent, creating new ConfigStore.",
                            CSLogger::PRIO_ERROR));
  auto events = RecordedEvents();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].id, kCopyEvent);
  EXPECT_THAT(events[0].args, ElementsAre(Path(kBackup)));
  EXPECT_EQ(events[0].message, "Error copying ConfigStore from backup " + Path(kBackup) + ".");
}

TEST_F(StoreRestoreTest, WithoutRestoreNothingIsRemovedRestoredOrCreated) {
  WriteBackup(DBStore::CONFIG_STORE, kBackup, "backup");
  WriteBackup(DBStore::CONFIG_STORE, kStore, "working");
  log_.Clear();

  EXPECT_FALSE(RestoreOrCreateStore(false));

  EXPECT_THAT(log_.Lines(), IsEmpty());
  EXPECT_THAT(Rows(DBStore::CONFIG_STORE), ElementsAre("working"));
  EXPECT_FALSE(Exists(kDataFileStore));
  EXPECT_EQ(GetBootMode(), BOOT_MODE_DESIRED_USER_CONFIG);
  EXPECT_THAT(EventIds(), IsEmpty());

  Remove(kStore);
  EXPECT_FALSE(RestoreOrCreateStore(false));
  EXPECT_FALSE(Exists(kStore));
  EXPECT_FALSE(Exists(kDataFileStore));
}

TEST_F(StoreRestoreTest, DataFileBackupOutcomeNeverTouchesTheConfigStoreRestore) {
  struct Case {
    const char* name;
    const char* backupContent;  // nullptr: no backup; "": a sound one
    std::vector<std::string> expectedRows;
    std::vector<std::string> expectedEvents;
    std::string expectedLine;
    int linePriority;
  };
  const Case cases[] = {
      {"missing", nullptr, {}, {}, "DataFileStore backup not found " + Path(kDataFileBackup), CSLogger::PRIO_INFO},
      {"inconsistent",
       "garbage",
       {},
       {kDataFileEvent},
       "DataFileStore backup [" + Path(kDataFileBackup) + "] is inconsistent, will create new DataFileStore.",
       CSLogger::PRIO_ERROR},
      {"sound", "", {"data.bin"}, {}, "DataFileStore restored successfully from backup", CSLogger::PRIO_INFO},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Remove("/etc");
    Remove("/var");
    log_.Clear();
    WriteBackup(DBStore::CONFIG_STORE, kBackup, "config");
    if (c.backupContent != nullptr && *c.backupContent == '\0') {
      WriteBackup(DBStore::DATAFILE_STORE, kDataFileBackup, "data.bin");
    } else if (c.backupContent != nullptr) {
      WriteFile(kDataFileBackup, c.backupContent);
    }

    EXPECT_FALSE(RestoreOrCreateStore(true));

    ExpectSoundStores();
    EXPECT_THAT(Rows(DBStore::CONFIG_STORE), ElementsAre("config"));
    EXPECT_EQ(Rows(DBStore::DATAFILE_STORE), c.expectedRows);
    EXPECT_EQ(EventIds(), c.expectedEvents);
    EXPECT_TRUE(log_.Contains(c.expectedLine, c.linePriority));
  }
  // The event of an inconsistent data-file backup carries no argument.
  Remove("/var/log");
  WriteFile(kDataFileBackup, "garbage");
  RestoreOrCreateStore(true);
  auto events = RecordedEvents();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_THAT(events[0].args, IsEmpty());
  EXPECT_EQ(events[0].message, "DataFile store cannot be restored.");
}

// Whichever way the copy fails, nothing of it stays: a new store is made in its place.
TEST_F(StoreRestoreTest, FailedConfigStoreCopyCreatesNewStore) {
  struct Case {
    const char* name;
    std::function<void()> arrange;
    rlim_t fileSizeLimit;  // RLIM_INFINITY, or the bytes the copy may write: a ramdisk too small
  } cases[] = {
      // Without the working ramdisk's directory the copy has nowhere to go; creation makes it.
      {"no ramdisk directory", [&] { Remove("/etc/talvex/configstore"); }, RLIM_INFINITY},
      {"ramdisk too small",
       [&] {
         sqlite3* db = nullptr;
         ASSERT_EQ(sqlite3_open(Path(kBackup).c_str(), &db), SQLITE_OK);
         EXPECT_EQ(sqlite3_exec(db, "INSERT INTO KeyValue VALUES ('filler', randomblob(400000))", nullptr, nullptr,
                                nullptr),
                   SQLITE_OK);
         sqlite3_close(db);
       },
       128 * 1024},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Remove("/var/log");
    Remove("/var/lib/talvex/configstore");
    WriteBackup(DBStore::CONFIG_STORE, kBackup, "backup");
    c.arrange();
    log_.Clear();

    rlimit saved{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
    rlimit limited{c.fileSizeLimit, saved.rlim_max};
    auto oldHandler = signal(SIGXFSZ, SIG_IGN);  // the copy gets EFBIG, as on a full ramdisk
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limited), 0);
    const bool created = RestoreOrCreateStore(true);
    setrlimit(RLIMIT_FSIZE, &saved);
    signal(SIGXFSZ, oldHandler);

    EXPECT_TRUE(created);
    ExpectSoundStores();
    EXPECT_THAT(Rows(DBStore::CONFIG_STORE), IsEmpty());
    EXPECT_EQ(GetBootMode(), BOOT_MODE_NEW_STORE);
    EXPECT_TRUE(log_.Contains("Cannot copy ConfigStore from backup [" + Path(kBackup) +
                                  "], creating new ConfigStore.",
                              CSLogger::PRIO_ERROR));
    EXPECT_FALSE(log_.Contains("ConfigStore restored successfully"));
    auto events = RecordedEvents();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].id, kCopyEvent);
    EXPECT_THAT(events[0].args, ElementsAre(Path(kBackup)));
  }
}

TEST_F(StoreRestoreTest, FailedDataFileCopyKeepsTheConfigStoreRestore) {
  WriteBackup(DBStore::CONFIG_STORE, kBackup, "config");
  WriteBackup(DBStore::DATAFILE_STORE, kDataFileBackup, "data.bin");
  // cp refuses to put a file over a directory of the same name inside the target directory.
  fs::create_directories(Path(kDataFileStore) + "/datafile-store");
  log_.Clear();

  EXPECT_FALSE(RestoreOrCreateStore(true));

  EXPECT_THAT(Rows(DBStore::CONFIG_STORE), ElementsAre("config"));
  EXPECT_EQ(GetBootMode(), BOOT_MODE_DESIRED_USER_CONFIG);
  EXPECT_TRUE(log_.Contains("DataFileStore backup [" + Path(kDataFileBackup) + "] is valid.", CSLogger::PRIO_INFO));
  EXPECT_TRUE(log_.Contains("Cannot copy DataFileStore from backup [" + Path(kDataFileBackup) +
                                "], will create new DataFileStore.",
                            CSLogger::PRIO_ERROR));
  // The data-file store cannot be created over the directory either.
  EXPECT_THAT(EventIds(), ElementsAre(kDataFileEvent, kDbEvent));
}

TEST_F(StoreRestoreTest, UndeletableWorkingStoreEndsInTheConnectionFailure) {
  WriteBackup(DBStore::CONFIG_STORE, kBackup, "backup");
  fs::create_directories(Path(kStore) + "/current-store-1");

  try {
    RestoreOrCreateStore(true);
    ADD_FAILURE() << "no throw";
  } catch (const ConfigStoreException& e) {
    EXPECT_EQ(e.code(), 2000);
    EXPECT_EQ(e.what(), "Failed to connect to database: " + Path(kStore) + " is a directory");
  }
  EXPECT_TRUE(log_.Contains("Error removing sticky ConfigStore file", CSLogger::PRIO_ERROR));
  EXPECT_TRUE(log_.Contains("Cannot copy ConfigStore from backup [" + Path(kBackup) + "], creating new ConfigStore."));
  EXPECT_THAT(EventIds(), ElementsAre(kCopyEvent, kDbEvent));
}

}  // namespace
}  // namespace QorConfigStore
