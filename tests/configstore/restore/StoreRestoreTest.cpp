// The boot's store ramdisks and restore step, and the live-install refresh.
#include <gmock/gmock.h>

#include <signal.h>
#include <sys/resource.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <tuple>

#include "configstore/boot/RamDisk.h"
#include "configstore/boot/StoreRestore.h"
#include "configstore/bootstate/BootState.h"
#include "configstore/frame/CallFrame.h"
#include "platform/host/Mounts.h"
#include "platform/plon/Plon.h"
#include "tests/support/Sandbox.h"
#include "tests/support/StoreRows.h"

namespace fs = std::filesystem;

namespace QorConfigStore {
namespace {

using ::testing::ElementsAre;
using Strings = std::vector<std::string>;

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
  // store, whose boot mode is 1, as staged before a reboot). The working stores it was built in go.
  void WriteBackup(DBStore::Type type, const std::string& hostPath, const std::string& marker) {
    const bool config = type == DBStore::CONFIG_STORE;
    ASSERT_EQ(DBStore::CreateDatabases(), 0);
    cstest::InsertRows(GetDBConnection(type, true),
                       config ? "Config (Identifier, Name, ConfigGroup, Component, UserValue)"
                              : "DataFileMetadata (Component, KEY, DirName, FileName)",
                       {config ? DBStore::Values{"", "k", "g", "c", marker}
                               : DBStore::Values{"c", "k", "dir", marker}});
    if (config) {
      ASSERT_EQ(DBStore::WriteKeyValue("BOOT_MODE", "1", GetDBConnection(type, true)), 0);
    }
    if (DBStore::StorePath(type) != Path(hostPath)) {
      fs::create_directories(fs::path(Path(hostPath)).parent_path());
      fs::copy_file(DBStore::StorePath(type), Path(hostPath), fs::copy_options::overwrite_existing);
    }
    for (const char* working : {kStore, kDataFileStore}) {
      if (Path(working) != Path(hostPath)) Remove(working);
    }
  }

  // The user values of Config, or the file names of DataFileMetadata, of the working store.
  Strings Rows(DBStore::Type type) {
    return cstest::JoinedRows(GetDBConnection(type, true),
                              type == DBStore::CONFIG_STORE ? "SELECT UserValue FROM Config"
                                                            : "SELECT FileName FROM DataFileMetadata",
                              "NULL");
  }

  Strings EventIds() const {
    Strings ids;
    for (const auto& e : RecordedEvents()) ids.push_back(e.id);
    return ids;
  }
};

// Which backup is used, what a missing or inconsistent one leads to, and the data-file outcome.
TEST_F(StoreRestoreTest, ABackupIsRestoredWithItsBootModeElseANewStoreIsMade) {
  const std::string dfBackup = Path(kDataFileBackup);
  struct Case {
    const char* regular;  // nullptr: none; "": a sound one whose row is "regular"; else the file's content
    bool firstBoot;       // a sound first-boot backup whose row is "first-boot"
    const char* dataFile;  // as `regular`, row "data.bin"
    Strings configRows, dataFileRows, events;
    std::string line;
  } cases[] = {
      {nullptr, false, nullptr, {}, {}, {}, "DataFileStore backup not found " + dfBackup},
      {"", true, nullptr, {"regular"}, {}, {}, "Restore ConfigStore from " + Path(kBackup)},
      {nullptr, true, nullptr, {"first-boot"}, {}, {}, "Restore ConfigStore from " + Path(kFirstBootBackup)},
      {"not a database", true, nullptr, {}, {}, {kCopyEvent},
       "ConfigStore backup [" + Path(kBackup) + "] is inconsistent, creating new ConfigStore."},
      {"", false, "garbage", {"regular"}, {}, {kDataFileEvent},
       "DataFileStore backup [" + dfBackup + "] is inconsistent, will create new DataFileStore."},
      {"", false, "", {"regular"}, {"data.bin"}, {}, "DataFileStore restored successfully from backup"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    Remove("/etc");
    Remove("/var");
    for (const auto& [content, path, row] : {std::tuple{c.regular, kBackup, "regular"},
                                             std::tuple{c.firstBoot ? "" : nullptr, kFirstBootBackup, "first-boot"},
                                             std::tuple{c.dataFile, kDataFileBackup, "data.bin"}}) {
      if (content != nullptr && *content != '\0') WriteFile(path, content);
      if (content != nullptr && *content == '\0') {
        WriteBackup(path == kDataFileBackup ? DBStore::DATAFILE_STORE : DBStore::CONFIG_STORE, path, row);
      }
    }
    // A store left on the ramdisk by an earlier start of the boot scripts must not survive.
    WriteBackup(DBStore::CONFIG_STORE, kStore, "stale");
    log_.Clear();

    EXPECT_EQ(RestoreOrCreateStore(true), c.configRows.empty());
    EXPECT_EQ(DBStore::Check(Path(kStore)), 0);
    EXPECT_EQ(DBStore::Check(Path(kDataFileStore)), 0);

    EXPECT_EQ(Rows(DBStore::CONFIG_STORE), c.configRows);
    EXPECT_EQ(Rows(DBStore::DATAFILE_STORE), c.dataFileRows);
    // Not a new store: the mode staged before the reboot is left for this boot to act on.
    EXPECT_EQ(GetBootMode(), c.configRows.empty() ? BOOT_MODE_NEW_STORE : BOOT_MODE_DESIRED_USER_CONFIG);
    EXPECT_TRUE(log_.Contains(c.line));
    EXPECT_EQ(EventIds(), c.events);
  }

  // Without a restore nothing is removed, restored or created.
  Remove("/etc");
  WriteBackup(DBStore::CONFIG_STORE, kStore, "working");
  EXPECT_FALSE(RestoreOrCreateStore(false));
  EXPECT_THAT(Rows(DBStore::CONFIG_STORE), ElementsAre("working"));
  EXPECT_FALSE(Exists(kDataFileStore));
}

// A copy that fails part way (a ramdisk too small) or is blocked leaves no store behind: a new one is
// made in its place, unless the working store itself cannot be removed, which ends in the connection failure.
TEST_F(StoreRestoreTest, FailedCopiesCreateNewStores) {
  rlimit saved{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
  auto oldHandler = signal(SIGXFSZ, SIG_IGN);  // a write past the limit gets EFBIG, as on a full ramdisk
  // what blocks, what is thrown, the configuration rows, the events, the error logged
  const std::tuple<std::function<void()>, std::string, Strings, Strings, std::string> cases[] = {
      {[&saved] {
         const rlimit limited{128 * 1024, saved.rlim_max};
         ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limited), 0);
       },
       "no exception", {}, {kCopyEvent},
       "Cannot copy ConfigStore from backup [" + Path(kBackup) + "], creating new ConfigStore."},
      // cp refuses to put a file over a directory of the same name inside the target directory;
      // nor is a store created over it.
      {[this] { fs::create_directories(Path(kDataFileStore) + "/datafile-store"); }, "no exception", {"config"},
       {kDataFileEvent, kDbEvent},
       "Cannot copy DataFileStore from backup [" + Path(kDataFileBackup) + "], will create new DataFileStore."},
      {[this] { fs::create_directories(Path(kStore) + "/current-store-1"); },
       "2000 Failed to connect to database: " + Path(kStore) + " is a directory", {}, {kCopyEvent, kDbEvent},
       "Error removing sticky ConfigStore file"},
  };
  for (const auto& [block, thrown, configRows, events, line] : cases) {
    SCOPED_TRACE(line);
    Remove("/etc");
    Remove("/var");
    ASSERT_EQ(DBStore::CreateDatabases(), 0);
    ASSERT_EQ(DBStore::WriteKeyValue("filler", std::string(400000, 'f'), GetDBConnection(DBStore::CONFIG_STORE, true)),
              0);
    WriteBackup(DBStore::CONFIG_STORE, kBackup, "config");
    WriteBackup(DBStore::DATAFILE_STORE, kDataFileBackup, "data.bin");
    block();
    bool created = false;
    EXPECT_EQ(cstest::Thrown([&created] { created = RestoreOrCreateStore(true); }), thrown);
    setrlimit(RLIMIT_FSIZE, &saved);
    EXPECT_TRUE(log_.Contains(line, CSLogger::PRIO_ERROR));
    EXPECT_EQ(EventIds(), events);
    if (thrown == "no exception") {
      EXPECT_EQ(created, configRows.empty());
      EXPECT_EQ(DBStore::Check(Path(kStore)), 0);
      EXPECT_EQ(Rows(DBStore::CONFIG_STORE), configRows);
    }
  }
  signal(SIGXFSZ, oldHandler);
}

// The live-install refresh: schemas first, then the live-install modules, and what stops it.
TEST_F(StoreRestoreTest, RefreshRunsSchemasThenModules) {
  CopyExampleHost();
  EXPECT_FALSE(RefreshConfigStore({}, {})) << "no stores";
  ASSERT_EQ(DBStore::CreateDatabases(), 0);
  EXPECT_TRUE(RefreshConfigStore({}, {}));
  EXPECT_FALSE(RefreshConfigStore({}, {"not-installed"}));
  WriteFile("/usr/lib/talvex/configmanager/schemas/net-core-1.2.3_4.5.json", "{ not json");
  log_.Clear();
  EXPECT_FALSE(RefreshConfigStore({}, {"not-installed"}));
  EXPECT_FALSE(log_.Contains("not-installed")) << "failed schema processing runs no module";
}

constexpr const char* kStoreMount = "none /etc/talvex/configstore lumafs 0 32,32,0,0,0,00644,configstore";
constexpr const char* kStoreLimits = "/sys/plon/system/lumafs/ramdisks/configstore/memUsageLimit";

using RamDiskTest = cstest::SandboxTest;

// Both ramdisks are mounted, the working one limited; a failure stops where it happens.
TEST_F(RamDiskTest, MountsBothRamdisksAndLimitsTheWorkingOne) {
  ASSERT_TRUE(PLON_WriteSignature());
  WriteFile("/etc/talvex/features", "62=on\n45=on\n");  // the reduced backup reservation
  EXPECT_EQ(SetupStoreRamDisk(), 0);
  EXPECT_THAT(Host::RecordedMounts(),
              ElementsAre(kStoreMount, "none /var/lib/talvex/configstore/backup lumafs 0 0,32,0,0,0,00644,configstorebkp"));
  EXPECT_EQ(ReadFile(kStoreLimits), "80 90\n");

  // a file where a directory belongs, "<operation>:<message>" logged (the message thrown), mounts made
  const std::tuple<const char*, std::string, size_t> cases[] = {
      {"/sys/plon/.signature", "SetupStoreRamdiskUsageLimits:PLON_CheckSig Failed", 1},
      {"/var/lib/talvex",
       "SetupStoreRamDisk:Failed to reserve memory for ConfigStore backup: cannot create " +
           Path("/var/lib/talvex/configstore/backup") + ": Not a directory",
       1},
  };
  for (const auto& [file, logged, mounts] : cases) {
    SCOPED_TRACE(file);
    for (const char* dir : {"/etc", "/var", "/sys/plon/system"}) Remove(dir);
    ASSERT_TRUE(PLON_WriteSignature());
    WriteFile(file, "x\n");
    EXPECT_EQ(cstest::Thrown([] { SetupStoreRamDisk(); }), "2000 " + logged.substr(logged.find(':') + 1));
    EXPECT_TRUE(log_.Contains("CONFIGSTORE:" + logged, CSLogger::PRIO_ERROR));
    EXPECT_EQ(Host::RecordedMounts().size(), mounts);
    EXPECT_EQ(Exists(kStoreLimits), mounts == 1 && file[1] != 's');
  }

  ASSERT_TRUE(PLON_WriteSignature());
  // A name the node tree refuses (it never leads out of the tree) is a failure of its own.
  EXPECT_EQ(cstest::Thrown([] { SetupStoreRamdiskUsageLimits("../../escape"); }),
            "2000 Failed to set warning and error usage limits");
}

}  // namespace
}  // namespace QorConfigStore
