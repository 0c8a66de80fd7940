// CleanupStore: configuration rows and data-file records without a schema, and, outside boot, the
// orphaned data directories; each half stops at its own failure only.
#include <gmock/gmock.h>

#include <tuple>

#include "configstore/maintenance/Cleanup.h"
#include "tests/configstore/maintenance/MaintenanceFixture.h"

namespace QorConfigStore {
namespace {

using ::testing::IsEmpty;
using Kind = DBStore::faults::Kind;

class StoreCleanupTest : public MaintenanceTest {
 protected:
  // Schemas for comp/net/{nics,routes} and the data-file key comp/kept; rows that match them and
  // rows that miss them by one column each; orphaned data-file rows in dirB (twice) and dirC.
  void Populate() {
    AddSchema({"comp", "net", "nics"});
    AddSchema({"comp", "net", "routes"});
    AddSchema({"comp", "kept"});
    // The last three miss a schema by key, group and component.
    for (const auto& [component, group, key, id] : {std::tuple{"comp", "net", "nics", "eth0"}, {"comp", "net", "nics", "eth1"},
                                                    {"comp", "net", "routes", ""}, {"comp", "net", "gone", ""},
                                                    {"comp", "other", "nics", ""}, {"other", "net", "nics", ""}}) {
      AddConfigRow({component, group, key, id}, {std::nullopt, "u"});
    }
    for (const auto& [component, key, dir, file] : {std::tuple{"comp", "kept", "dirA", "a1"}, {"comp", "old", "dirB", "b1"},
                                                    {"comp", "old", "dirB", "b2"}, {"other", "kept", "dirC", "c1"}}) {
      AddDataFileRow({component, key, dir, file});
    }
    for (const char* file : {"dirA/a1", "dirB/b1", "dirB/sub/b2"}) AddDataFile(file);  // dirC is already gone
  }

  const std::vector<std::string> kKeptConfigRows = {"comp|net|nics|eth0", "comp|net|nics|eth1", "comp|net|routes|"};
  const std::vector<std::string> kKeptDataFileRows = {"comp|kept|dirA|a1"};
};

TEST_F(StoreCleanupTest, RowsWithoutSchemaGoAndOutsideBootTheirDirectoriesOncePerName) {
  for (bool atBoot : {true, false}) {
    SCOPED_TRACE(atBoot ? "at boot" : "live");
    Remove("/etc");
    Remove("/var");
    ASSERT_EQ(DBStore::CreateDatabases(), 0);
    Populate();
    log_.Clear();

    CleanupStore(atBoot);

    EXPECT_EQ(Rows(DBStore::CONFIG_STORE, "SELECT Component, ConfigGroup, Name, Identifier FROM Config"), kKeptConfigRows);
    EXPECT_EQ(DataFileRows(), kKeptDataFileRows);
    EXPECT_TRUE(DataFileExists("dirA/a1"));
    EXPECT_EQ(DataFileExists("dirB"), atBoot);
    EXPECT_EQ(log_.Count("Cleanup datafile directory: dirB"), atBoot ? 0u : 1u);
    EXPECT_EQ(log_.Contains("Cleanup datafile directory: dirC"), !atBoot) << "a directory already gone is no failure";
    EXPECT_TRUE(log_.Contains("Cleanup data file store completed", CSLogger::PRIO_INFO));
    EXPECT_FALSE(log_.Contains("failed"));
  }
  // Directory names that leave the data-file root are not removed.
  WriteFile("/var/cache/sibling/keep", "x");
  for (const char* dir : {"", ".", "..", "../sibling", "dirA/.."}) AddDataFileRow({"comp", "old", dir, "f"});
  CleanupStore(false);
  EXPECT_EQ(DataFileRows(), kKeptDataFileRows);
  EXPECT_TRUE(DataFileExists("dirA/a1"));
  EXPECT_TRUE(Exists("/var/cache/sibling/keep"));
  EXPECT_EQ(log_.Count("not a plain name"), 5u);
}

// What each half leaves in the stores at a fault is swept (tests/reliability/sweeps); here, the
// line that names each failure and the work of the other half.
TEST_F(StoreCleanupTest, EachFailureIsNamedAndEndsOnlyItsOwnHalf) {
  struct Case {
    std::string removeStore;  // a store file taken away first
    Kind kind;
    int nth;  // 0: nothing armed
    bool atBoot;
    std::string errorLine;
    bool configHalfFails;  // else the data-file half fails
  } cases[] = {
      {"current-store-1", Kind::Attach, 0, false, "ConfigStore cleanup failed: could not connect", true},
      {"", Kind::Attach, 1, false, "ConfigStore cleanup failed: could not attach to SchemaStore", true},
      {"", Kind::Prepare, 1, false, "ConfigStore cleanup failed: SQL command unsuccessful", true},
      {"datafile-store", Kind::Attach, 0, false, "Datafile store cleanup failed: could not connect", false},
      {"", Kind::Attach, 2, false, "Datafile store cleanup failed: could not attach to data file schemas", false},
      {"", Kind::Prepare, 2, false, "Datafile live cleanup failed: read dir SQL command unsuccessful", false},
      {"", Kind::Prepare, 3, false, "Datafile cleanup failed: SQL command unsuccessful", false},
      {"", Kind::Prepare, 2, true, "Datafile cleanup failed: SQL command unsuccessful", false},
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

    CleanupStore(c.atBoot);
    DBStore::faults::Disarm();

    EXPECT_TRUE(log_.Contains(c.errorLine, CSLogger::PRIO_ERROR));
    // The orphaned directory goes with a data-file half that ran through.
    EXPECT_EQ(DataFileExists("dirB"), !c.configHalfFails);
    EXPECT_EQ(log_.Contains("Cleanup data file store completed"), c.configHalfFails);
  }
}

}  // namespace
}  // namespace QorConfigStore
