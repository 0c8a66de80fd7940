// Boot-state entries: what each operation stores and logs, and what happens when the store or a
// read fails.
#include <functional>
#include <string>
#include <tuple>

#include "configstore/bootstate/BootState.h"
#include "configstore/bootstate/UpgradeDetection.h"
#include "tests/configstore/bootstate/BootStateFixture.h"

namespace {

using namespace QorConfigStore;
using cstest::BootStateTest;
using cstest::Thrown;
using DBStore::faults::Kind;

TEST_F(BootStateTest, WritersStoreTheirExactTexts) {
  EXPECT_EQ(GetBootMode(), BOOT_MODE_DEFAULT) << "a store that never had a mode";
  struct Row {
    std::function<void()> op;
    const char* key;
    const char* stored;
    const char* logged;
  } rows[] = {
      {[] { SetBootMode(BOOT_MODE_SMARTNIC_CONFIG); }, "BOOT_MODE", "3", "Next boot mode set to 3"},
      {StartAutoConf, "IS_BOOT", "true", "ConfigStore autoconf start"},
      {EndAutoConf, "IS_BOOT", "", "ConfigStore endconf end"},
      {[] { EnableNexdNotification(false); }, "NOTIFY_NEXD", "false", "ConfigStore nexd notification enabled = 0"},
      {[] { SetLiveInstallBoot("true"); }, POST_LIVE_INSTALL_BOOT, "true", "POST_LIVE_INSTALL_BOOT=true completed"},
      {[] { SetLiveInstallBoot("True"); }, POST_LIVE_INSTALL_BOOT, "false", "not valid value True"},
      {[] { SetInstallInfo("{\"a\": \"%s\"}\n"); }, kInstallInfoKey, "{\"a\": \"%s\"}\n", ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.logged);
    row.op();
    EXPECT_EQ(Stored(row.key), row.stored);
    EXPECT_TRUE(log_.Contains(row.logged, CSLogger::PRIO_INFO));
  }
  EXPECT_EQ(GetBootMode(), BOOT_MODE_SMARTNIC_CONFIG);
  EXPECT_EQ(GetInstallInfo(), "{\"a\": \"%s\"}\n");
  StartAutoConf();
  EXPECT_TRUE(IsAutoConf());
  Store("IS_BOOT", "TRUE");
  EXPECT_FALSE(IsAutoConf()) << "only the exact text counts";

  EXPECT_EQ(SetLiveInstallBoot(nullptr), 1);
  EXPECT_EQ(Stored(POST_LIVE_INSTALL_BOOT), "false");
  EXPECT_TRUE(log_.Contains("Live install marker not set, since input status was not provided.", CSLogger::PRIO_ERROR));
  DBStore::faults::Arm(Kind::KvWrite, 1, false);
  EXPECT_NE(SetLiveInstallBoot("true"), 0);
}

TEST_F(BootStateTest, CleanupBootStateRecordsTheBootedUuidAndResetsTheMarker) {
  // recorded UUID, this boot's, live-install marker, key writes expected, marker afterwards
  for (const auto& [recorded, current, marker, writes, markerAfter] :
       {std::tuple{"uuid-a", "uuid-a", "false", 0, "false"}, std::tuple{"uuid-a", "uuid-aa", "false", 1, "false"},
        std::tuple{"uuid-a", "", "false", 1, "false"}, std::tuple{"uuid-a", "uuid-a", "true", 1, "false"},
        std::tuple{"uuid-a", "uuid-b", "TRUE", 1, "TRUE"}}) {
    SCOPED_TRACE(std::string(current) + " " + marker);
    Store(BOOT_FS_UUID, recorded);
    Store(POST_LIVE_INSTALL_BOOT, marker);
    SetBootUuid(current);
    DBStore::faults::ResetCounts();
    CleanupBootState();
    EXPECT_EQ(DBStore::faults::Calls(Kind::KvWrite), writes);
    EXPECT_EQ(Stored(BOOT_FS_UUID), current);
    EXPECT_EQ(Stored(POST_LIVE_INSTALL_BOOT), markerAfter);
  }
  // A failed marker read comes after the UUID is written, which stays.
  SetBootUuid("uuid-new");
  DBStore::faults::Arm(Kind::KvRead, 2, false);
  EXPECT_EQ(Thrown(CleanupBootState), "2000 Failed to read value for key POST_LIVE_INSTALL_BOOT");
  EXPECT_EQ(Stored(BOOT_FS_UUID), "uuid-new");
}

TEST_F(BootStateTest, FailedReadsAndAMissingStoreNameWhatFailed) {
  const std::string missing = Path("/etc/talvex/configstore/current-store-1") + " does not exist";
  struct Row {
    bool noStore;  // else the first key read fails
    std::function<void()> op;
    std::string thrown;
  } rows[] = {
      {false, [] { GetBootMode(); }, "2000 Failed to read value for key BOOT_MODE"},
      {false, [] { GetInstallInfo(); }, "2000 Failed to read value for key CS_INST_INFO_KEY"},
      {false, CleanupBootState, "2000 Failed to read value for key BOOT_FS_UUID"},
      {true, [] { SetLiveInstallBoot("true"); }, "2000 Failed to connect to database: " + missing},
      {true, CleanupBootState, "2000 Failed to connect to database: " + missing},
      {true, [] { SetInstallInfo("x"); }, "2000 Failed to connect to database. " + missing},
      {true, [] { IsAutoConf(); }, "2000 Failed to read value for key IS_BOOT"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.thrown);
    if (row.noStore) {
      RemoveStore();
    } else {
      DBStore::faults::Arm(Kind::KvRead, 1, false);
    }
    EXPECT_EQ(Thrown(row.op), row.thrown);
    DBStore::faults::Disarm();
  }
  // The flag writers ignore the missing store and create none.
  EXPECT_NO_THROW(StartAutoConf());
  EXPECT_NO_THROW(EnableNexdNotification(true));
  EXPECT_FALSE(Exists("/etc/talvex/configstore/current-store-1"));
}

}  // namespace
