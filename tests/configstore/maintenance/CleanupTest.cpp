// The cleanups over real stores and a real data-file root: their results and how failures are
// reported (what a failing statement leaves in the stores is swept in tests/reliability/sweeps).
#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "configstore/frame/CallFrame.h"
#include "configstore/maintenance/Cleanup.h"
#include "tests/support/Sandbox.h"
#include "tests/support/StoreRows.h"

namespace fs = std::filesystem;

namespace QorConfigStore {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Kind = DBStore::faults::Kind;

// A sandbox with all three stores created: schemas registered, rows written, rows and directories read back.
class MaintenanceTest : public cstest::SandboxTest {
 protected:
  using Strings = std::vector<std::string>;
  static constexpr const char* kDataFileRoot = "/var/cache/datafiles";
  static constexpr const char* kDataFiles = "DataFileMetadata (Component, KEY, DirName, FileName)";

  void SetUp() override {
    SandboxTest::SetUp();
    ASSERT_EQ(DBStore::CreateDatabases(), 0);
  }

  // Rows into `into` ("Table (Column, ...)") on the store of `type`, the schema store attached as "ss".
  void Insert(DBStore::Type type, const std::string& into, const std::vector<DBStore::Values>& rows) {
    DBStore::Connection conn = GetDBConnection(type, true);
    ASSERT_EQ(DBStore::AttachSchemaStore(conn), 0);
    cstest::InsertRows(conn, into, rows);
  }
  // The rows of `sql` on the store of `type`, columns "|"-joined (NULL as "-"), sorted.
  Strings Rows(DBStore::Type type, const char* sql) {
    Strings rows = cstest::JoinedRows(GetDBConnection(type, true), sql, "-");
    std::sort(rows.begin(), rows.end());
    return rows;
  }
  Strings DataFileRows() {
    return Rows(DBStore::DATAFILE_STORE, "SELECT Component, KEY, DirName, FileName FROM DataFileMetadata");
  }
  // A file (and its directories) under the data-file root, and whether something is there.
  void AddDataFile(const std::string& relative) { WriteFile(std::string(kDataFileRoot) + "/" + relative, "data"); }
  bool DataFileExists(const std::string& relative) const { return Exists(std::string(kDataFileRoot) + "/" + relative); }

  // Configuration rows with a schema and rows that miss one by one column each; data-file records
  // (dirA/gone deleted by hand, dirB's key without a schema, dirC not on disk) and unrecorded files.
  void Populate() {
    Insert(DBStore::CONFIG_STORE, "ss.ConfigSchema (Component, ConfigGroup, Name)",
           {{"comp", "net", "nics"}, {"comp", "net", "routes"}});
    Insert(DBStore::CONFIG_STORE, "ss.DataFileSchema (Component, KEY)", {{"comp", "kept"}});
    Insert(DBStore::CONFIG_STORE, "Config (Component, ConfigGroup, Name, Identifier, UserValue)",
           {{"comp", "net", "nics", "e0", "u"}, {"comp", "net", "routes", "", "u"}, {"comp", "other", "nics", "", "u"},
            {"comp", "net", "nics", "e1", "u"}, {"comp", "net", "gone", "", "u"}, {"other", "net", "nics", "", "u"}});
    Insert(DBStore::DATAFILE_STORE, kDataFiles,
           {{"comp", "kept", "dirA", "a1"}, {"comp", "kept", "dirA", "gone"}, {"comp", "old", "dirB", "b1"},
            {"other", "kept", "dirC", "c1"}});
    for (const char* file : {"dirA/a1", "dirA/extra", "dirA/subdir/deep", "dirB/b1", "dirOrphan/x/y", "stray"}) {
      AddDataFile(file);
    }
  }
};

TEST_F(MaintenanceTest, AutomaticValuesGoAndRowsWithoutValuesWithThem) {
  Remove("/etc/talvex/configstore/current-store-1");
  EXPECT_NO_THROW(CleanupAutoConfig());
  EXPECT_TRUE(log_.Contains("Cleanup failed: could not connect to ConfigStore", CSLogger::PRIO_ERROR));
  ASSERT_EQ(DBStore::CreateDatabases(), 0);

  const std::nullopt_t no = std::nullopt;
  Insert(DBStore::CONFIG_STORE,
         "Config (Component, ConfigGroup, Name, Identifier, AutoConfValue, UserValue, VitalValue, CachedValue, "
         "DesiredValue)",
         {{"c", "g", "autoOnly", "", "a", no, no, no, no}, {"c", "g", "empty", "", no, no, no, no, no},
          {"c", "g", "user", "", "a", "u", no, no, no}, {"c", "g", "vital", "", "a", no, "v", no, no},
          {"c", "g", "cached", "", "a", no, no, "c", no}, {"c", "g", "desired", "", "a", no, no, no, "d"}});
  CleanupAutoConfig();
  EXPECT_THAT(Rows(DBStore::CONFIG_STORE, "SELECT Name, AutoConfValue, UserValue, VitalValue, CachedValue, DesiredValue FROM Config"),
              testing::ElementsAre("cached|-|-|-|c|-", "desired|-|-|-|-|d", "user|-|u|-|-|-", "vital|-|-|v|-|-"));
}

TEST_F(MaintenanceTest, DataFileDiskAndRecordsAreReconciledBothWays) {
  Populate();
  CleanupDataFiles();
  EXPECT_EQ(DataFileRows(), (Strings{"comp|kept|dirA|a1", "comp|old|dirB|b1"}));
  for (const char* file : {"dirA/a1", "dirB/b1"}) EXPECT_TRUE(DataFileExists(file)) << file;
  for (const char* file : {"dirA/extra", "dirA/subdir", "dirOrphan", "stray"}) EXPECT_FALSE(DataFileExists(file)) << file;
  EXPECT_FALSE(log_.Contains("", CSLogger::PRIO_ERROR));

  // A regular file in place of the root is no directory: the table is emptied, nothing touched.
  Remove(kDataFileRoot);
  WriteFile(kDataFileRoot, "not a directory");
  CleanupDataFiles();
  EXPECT_THAT(DataFileRows(), IsEmpty());
  EXPECT_EQ(ReadFile(kDataFileRoot), "not a directory");
  EXPECT_TRUE(RecordedEvents().empty());
}

// Links are removed as links, never followed, and a root linked out of the host root is left alone.
TEST_F(MaintenanceTest, DataFileLinksAreRemovedAsLinksNeverFollowed) {
  const std::string root = Path(kDataFileRoot) + "/";
  WriteFile("/outside/victim", "keep me");
  Insert(DBStore::DATAFILE_STORE, kDataFiles, {{"comp", "k", "linked", "victim"}, {"comp", "k", "dirA", "inner"}});
  AddDataFile("dirA/inner");
  fs::create_directory_symlink(Path("/outside"), root + "linked");
  fs::create_symlink(Path("/outside/victim"), root + "dirA/link");
  CleanupDataFiles();
  EXPECT_EQ(ReadFile("/outside/victim"), "keep me");
  EXPECT_FALSE(fs::is_symlink(root + "linked"));
  EXPECT_FALSE(fs::is_symlink(root + "dirA/link"));
  EXPECT_THAT(DataFileRows(), ElementsAre("comp|k|dirA|inner"));

  const fs::path outside = root_ + "-outside";
  fs::create_directories(outside / "unrecorded");
  Remove(kDataFileRoot);
  fs::create_directory_symlink(outside, Path(kDataFileRoot));
  CleanupDataFiles();
  EXPECT_TRUE(fs::exists(outside / "unrecorded"));
  EXPECT_TRUE(log_.Contains("lies outside the host root", CSLogger::PRIO_ERROR));
  fs::remove_all(outside);
}

TEST_F(MaintenanceTest, StoreRowsWithoutSchemaGoAndOutsideBootTheirDirectories) {
  for (bool atBoot : {true, false}) {
    SCOPED_TRACE(atBoot ? "at boot" : "live");
    Remove("/etc");
    Remove("/var");
    ASSERT_EQ(DBStore::CreateDatabases(), 0);
    Populate();
    log_.Clear();
    CleanupStore(atBoot);
    EXPECT_EQ(Rows(DBStore::CONFIG_STORE, "SELECT Component, ConfigGroup, Name, Identifier FROM Config"),
              (Strings{"comp|net|nics|e0", "comp|net|nics|e1", "comp|net|routes|"}));
    EXPECT_EQ(DataFileRows(), (Strings{"comp|kept|dirA|a1", "comp|kept|dirA|gone"}));
    EXPECT_TRUE(DataFileExists("dirA/a1"));
    EXPECT_EQ(DataFileExists("dirB"), atBoot);
    EXPECT_EQ(log_.Contains("Cleanup datafile directory: dirC"), !atBoot) << "a directory already gone is no failure";
    EXPECT_TRUE(log_.Contains("Cleanup data file store completed", CSLogger::PRIO_INFO));
    EXPECT_FALSE(log_.Contains("failed"));
  }
  // Directory names that leave the data-file root are not removed.
  WriteFile("/var/cache/sibling/keep", "x");
  for (const char* dir : {"", ".", "..", "../sibling", "dirA/.."}) {
    Insert(DBStore::DATAFILE_STORE, kDataFiles, {{"comp", "old", dir, "f"}});
  }
  CleanupStore(false);
  EXPECT_TRUE(DataFileExists("dirA/a1"));
  EXPECT_TRUE(Exists("/var/cache/sibling/keep"));
  EXPECT_EQ(log_.Count("not a plain name"), 5u);
}

// Each failure is named; a CleanupStore half ends at its own failure only (dirB goes with the other),
// and only a completed read of CleanupDataFiles may touch the disk (the stray file).
TEST_F(MaintenanceTest, EachFailureIsNamedAndEndsOnlyItsOwnPart) {
  const auto store = [] { CleanupStore(false); };
  struct Case {
    std::function<void()> op;
    std::string removeStore;  // a store file taken away first
    Kind kind;
    int nth;  // 0: nothing armed
    std::string errorLine;
    bool dirBLeft, strayLeft;
  } cases[] = {
      {store, "current-store-1", Kind::Attach, 0, "ConfigStore cleanup failed: could not connect", false, true},
      {store, "datafile-store", Kind::Attach, 0, "Datafile store cleanup failed: could not connect", true, true},
      {store, "", Kind::Attach, 2, "Datafile store cleanup failed: could not attach to data file schemas", true, true},
      {store, "", Kind::Prepare, 2, "Datafile live cleanup failed: read dir SQL command unsuccessful", true, true},
      {CleanupDataFiles, "", Kind::Prepare, 1, "CleanupDataFiles read sql command failed", true, true},
      {CleanupDataFiles, "", Kind::Prepare, 2, "CleanupDataFiles failed to clearup metadata", true, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.errorLine);
    Remove("/etc");
    Remove("/var");
    ASSERT_EQ(DBStore::CreateDatabases(), 0);
    Populate();
    if (!c.removeStore.empty()) Remove("/etc/talvex/configstore/" + c.removeStore);
    log_.Clear();
    if (c.nth > 0) DBStore::faults::Arm(c.kind, c.nth, false);
    EXPECT_NO_THROW(c.op());
    DBStore::faults::Disarm();
    EXPECT_TRUE(log_.Contains(c.errorLine, CSLogger::PRIO_ERROR));
    EXPECT_EQ(DataFileExists("dirB"), c.dirBLeft);
    EXPECT_EQ(DataFileExists("stray"), c.strayLeft);
  }
}

}  // namespace
}  // namespace QorConfigStore
