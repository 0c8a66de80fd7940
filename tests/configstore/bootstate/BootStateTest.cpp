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
  // what runs, the key it writes, the text stored, a line logged
  const std::tuple<std::function<void()>, const char*, const char*, const char*> rows[] = {
      {[] { SetBootMode(BOOT_MODE_SMARTNIC_CONFIG); }, "BOOT_MODE", "3", "Next boot mode set to 3"},
      {StartAutoConf, "IS_BOOT", "true", "ConfigStore autoconf start"},
      {EndAutoConf, "IS_BOOT", "", "ConfigStore endconf end"},
      {[] { EnableNexdNotification(false); }, "NOTIFY_NEXD", "false", "ConfigStore nexd notification enabled = 0"},
      {[] { SetLiveInstallBoot("true"); }, POST_LIVE_INSTALL_BOOT, "true", "POST_LIVE_INSTALL_BOOT=true completed"},
      {[] { SetLiveInstallBoot("True"); }, POST_LIVE_INSTALL_BOOT, "false", "not valid value True"},
  };
  for (const auto& [op, key, stored, logged] : rows) {
    op();
    EXPECT_EQ(Stored(key), stored) << logged;
    EXPECT_TRUE(log_.Contains(logged, CSLogger::PRIO_INFO)) << logged;
  }
  EXPECT_EQ(GetBootMode(), BOOT_MODE_SMARTNIC_CONFIG);
  SetInstallInfo("{\"a\": \"%s\"}\n");
  EXPECT_EQ(GetInstallInfo(), "{\"a\": \"%s\"}\n");
  Store("IS_BOOT", "TRUE");
  EXPECT_FALSE(IsAutoConf()) << "only the exact text counts";

  EXPECT_EQ(SetLiveInstallBoot(nullptr), 1);
  EXPECT_EQ(Stored(POST_LIVE_INSTALL_BOOT), "false");
  EXPECT_TRUE(log_.Contains("Live install marker not set, since input status was not provided.", CSLogger::PRIO_ERROR));
  DBStore::faults::Arm(Kind::KvWrite, 1, false);
  EXPECT_NE(SetLiveInstallBoot("true"), 0);
}

TEST_F(BootStateTest, CleanupBootStateRecordsTheBootedUuidAndResetsTheMarker) {
  // this boot's UUID (uuid-a recorded), live-install marker, key writes expected, marker afterwards
  for (const auto& [current, marker, writes, markerAfter] :
       {std::tuple{"uuid-a", "false", 0, "false"}, {"uuid-aa", "false", 1, "false"}, {"", "false", 1, "false"},
        {"uuid-a", "true", 1, "false"}, {"uuid-b", "TRUE", 1, "TRUE"}}) {
    SCOPED_TRACE(std::string(current) + " " + marker);
    Store(BOOT_FS_UUID, "uuid-a");
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
  DBStore::faults::Arm(Kind::KvRead, 1, true);
  EXPECT_EQ(Thrown([] { GetBootMode(); }), "2000 Failed to read value for key BOOT_MODE");
  EXPECT_EQ(Thrown(CleanupBootState), "2000 Failed to read value for key BOOT_FS_UUID");
  DBStore::faults::Disarm();
  RemoveStore();
  EXPECT_EQ(Thrown([] { SetLiveInstallBoot("true"); }), "2000 Failed to connect to database: " + missing);
  EXPECT_EQ(Thrown([] { GetInstallInfo(); }), "2000 Failed to connect to database. " + missing);
  EXPECT_EQ(Thrown([] { IsAutoConf(); }), "2000 Failed to read value for key IS_BOOT");
  // The flag writers ignore the missing store and create none.
  EXPECT_NO_THROW(StartAutoConf());
  EXPECT_NO_THROW(EnableNexdNotification(true));
  EXPECT_FALSE(Exists("/etc/talvex/configstore/current-store-1"));
}

}  // namespace
