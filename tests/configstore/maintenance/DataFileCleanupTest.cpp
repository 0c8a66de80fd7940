// CleanupDataFiles: the data-file root and DataFileMetadata reconciled in both directions.
#include <gmock/gmock.h>

#include <filesystem>

#include "configstore/maintenance/Cleanup.h"
#include "tests/configstore/maintenance/MaintenanceFixture.h"

namespace fs = std::filesystem;

namespace QorConfigStore {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Kind = DBStore::faults::Kind;

constexpr const char* kEvent = "zeb.user.cs.dfs.cleanup.error";

class DataFileCleanupTest : public MaintenanceTest {
 protected:
  std::string RootPath(const std::string& relative) const { return Path(kDataFileRoot) + "/" + relative; }

  // dirA records a1, a2 and gone (deleted by hand); dirMissing is recorded but not on disk;
  // dirOrphan is on disk but not recorded; a stray file sits at the root.
  void Populate() {
    for (const char* file : {"a1", "a2", "gone"}) AddDataFileRow({"comp", "k", "dirA", file});
    AddDataFileRow({"comp", "m", "dirMissing", "x"});
    for (const char* file : {"dirA/a1", "dirA/a2", "dirA/extra", "dirA/subdir/deep", "dirOrphan/x/y", "stray"}) {
      AddDataFile(file);
    }
  }
};

TEST_F(DataFileCleanupTest, DiskAndRecordsAreReconciledBothWays) {
  Populate();
  CleanupDataFiles();
  EXPECT_THAT(DataFileRows(), ElementsAre("comp|k|dirA|a1", "comp|k|dirA|a2"));
  for (const char* file : {"dirA/a1", "dirA/a2", "dirA/extra", "dirA/subdir", "dirOrphan", "stray"}) {
    EXPECT_EQ(DataFileExists(file), std::string(file).rfind("dirA/a", 0) == 0) << file;
  }
  EXPECT_TRUE(log_.Contains("CleanupDataFiles completed", CSLogger::PRIO_INFO));
  EXPECT_FALSE(log_.Contains("", CSLogger::PRIO_ERROR));

  // A regular file in place of the root is no directory: the table is emptied, nothing touched.
  AddDataFileRow({"comp", "k", "dirB", "b1"});
  Remove(kDataFileRoot);
  WriteFile(kDataFileRoot, "not a directory");
  CleanupDataFiles();
  EXPECT_THAT(DataFileRows(), IsEmpty());
  EXPECT_EQ(ReadFile(kDataFileRoot), "not a directory");
  EXPECT_THAT(EventIds(), IsEmpty());
}

// Links are removed as links, never followed; a data-file root that is itself a link out of the
// host root has nothing that is the host's to remove.
TEST_F(DataFileCleanupTest, LinksAreRemovedAsLinksNeverFollowed) {
  WriteFile("/outside/victim", "keep me");
  AddDataFileRow({"comp", "k", "linked", "victim"});
  AddDataFileRow({"comp", "k", "dirA", "inner"});
  AddDataFile("dirA/inner");
  fs::create_directory_symlink(Path("/outside"), RootPath("linked"));
  fs::create_symlink(Path("/outside/victim"), RootPath("dirA/link"));

  CleanupDataFiles();

  EXPECT_EQ(ReadFile("/outside/victim"), "keep me");
  EXPECT_FALSE(fs::is_symlink(RootPath("linked")));
  EXPECT_FALSE(fs::is_symlink(RootPath("dirA/link")));
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

// What a fault leaves in the store is swept (tests/reliability/sweeps); here, the line and the
// event that report it, and the files on disk, which only a completed read may touch.
TEST_F(DataFileCleanupTest, StoreFailuresAreLoggedAndRaised) {
  struct Case {
    bool removeRoot, removeStore;
    Kind kind;
    int nth;  // 0: nothing armed
    const char* errorLine;
    bool diskCleaned;
  } cases[] = {
      {false, true, Kind::Prepare, 0, "Datafile store cleanup failed: could not connect", false},
      {false, false, Kind::Prepare, 1, "CleanupDataFiles read sql command failed", false},
      {false, false, Kind::Step, 2, "CleanupDataFiles read sql command failed", false},
      {true, false, Kind::Prepare, 2, "CleanupDataFiles clear sql command failed", false},
      {false, false, Kind::Prepare, 2, "CleanupDataFiles failed to clearup metadata", true},  // disk already put right
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.errorLine);
    Remove("/etc");
    Remove("/var");
    ASSERT_EQ(DBStore::CreateDatabases(), 0);
    Populate();
    if (c.removeRoot) Remove(kDataFileRoot);
    if (c.removeStore) Remove("/etc/talvex/configstore/datafile-store");
    log_.Clear();
    if (c.nth > 0) DBStore::faults::Arm(c.kind, c.nth, false);
    EXPECT_NO_THROW(CleanupDataFiles());
    DBStore::faults::Disarm();

    EXPECT_TRUE(log_.Contains(c.errorLine, CSLogger::PRIO_ERROR));
    EXPECT_FALSE(log_.Contains("CleanupDataFiles completed"));
    EXPECT_EQ(EventIds(), Strings{kEvent});
    EXPECT_EQ(DataFileExists("stray"), !c.diskCleaned && !c.removeRoot);
  }
}

}  // namespace
}  // namespace QorConfigStore
