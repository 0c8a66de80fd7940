// Boot state and the kind of boot, on a real store and a real signed node tree.
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "configstore/bootstate/BootState.h"
#include "configstore/bootstate/UpgradeDetection.h"
#include "platform/dbstore/DBStore.h"
#include "platform/plon/Plon.h"
#include "tests/support/Sandbox.h"
#include "tests/support/StoreRows.h"

namespace {

using namespace QorConfigStore;
using cstest::Thrown;
using DBStore::faults::Kind;

struct BootFacts {
  bool pxe = false, installer = false, ddImage = false, firstBoot = false, ferrin = false;
  const char* liveMarker = "false";
  const char* recordedUuid = "uuid-a";
  const char* currentUuid = "uuid-a";
  bool store = true;
};

// A fresh configuration store and a signed node tree.
class BootStateTest : public cstest::SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    ASSERT_EQ(DBStore::CreateDatabases(), 0);
    ASSERT_TRUE(PLON_WriteSignature());
  }

  std::string Stored(const std::string& key) const {
    return cstest::StoredKeyValue(DBStore::GetConnection(DBStore::CONFIG_STORE, false), key);
  }
  void Store(const std::string& key, const std::string& value) const {
    ASSERT_EQ(DBStore::WriteKeyValue(key, value, DBStore::GetConnection(DBStore::CONFIG_STORE, true)), 0) << key;
  }
  void RemoveStore() const { Remove("/etc/talvex/configstore/current-store-1"); }
  void SetNode(const std::string& nodePath, const std::string& content) const {
    ASSERT_TRUE(PLON_WriteNodeFile(nodePath, content)) << nodePath;
  }

  void Boot(const BootFacts& f) {
    SetNode("/system/bootMAC", f.pxe ? "00:50:56:aa:bb:cc" : "");
    SetNode("/system/bootOption", std::string("\0\0\0", 3) + (f.installer ? '\x01' : '\0'));
    SetNode("/system/bootCmdLine",
            std::string("ro") + (f.ddImage ? " qorDDImage" : "") + (f.ferrin ? " ferrinInstalled" : ""));
    f.firstBoot ? WriteFile(FIRSTBOOT_FILE, "") : Remove(FIRSTBOOT_FILE);
    Store(POST_LIVE_INSTALL_BOOT, f.liveMarker);
    Store(BOOT_FS_UUID, f.recordedUuid);
    SetNode("/system/bootFsUUID", f.currentUuid);
    if (!f.store) RemoveStore();
    log_.Clear();
  }

  // The lines that announce an upgrade decision; a decided boot logs one of them.
  std::vector<std::string> DecisionsLogged() const {
    std::vector<std::string> found;
    for (const char* line : {"PXE boot, not considered upgrade.", "Installer boot, not considered upgrade.",
                             "QOR DD image boot, not considered upgrade.", "First boot, not considerd upgrade.",
                             "Ferrin installer upgrade: Config upgrade boot.", "Live install boot. No upgrade.",
                             "Config upgrade boot"}) {
      if (log_.Contains(line, CSLogger::PRIO_INFO)) found.push_back(line);
    }
    return found;
  }
};

TEST_F(BootStateTest, WritersStoreTheirExactTexts) {
  EXPECT_EQ(GetBootMode(), BOOT_MODE_DEFAULT) << "a store that never had a mode";
  // what runs, the key it writes, the text stored, a line logged
  const std::tuple<std::function<void()>, const char*, const char*, const char*> rows[] = {
      {[] { EnableNexdNotification(false); }, "NOTIFY_NEXD", "false", "ConfigStore nexd notification enabled = 0"},
      {[] { SetLiveInstallBoot("true"); }, POST_LIVE_INSTALL_BOOT, "true", "POST_LIVE_INSTALL_BOOT=true completed"},
      {[] { SetLiveInstallBoot("True"); }, POST_LIVE_INSTALL_BOOT, "false", "not valid value True"},
      {[] { EXPECT_EQ(SetLiveInstallBoot(nullptr), 1); }, POST_LIVE_INSTALL_BOOT, "false",
       "Live install marker not set, since input status was not provided."},
  };
  for (const auto& [op, key, stored, logged] : rows) {
    op();
    EXPECT_EQ(Stored(key), stored) << logged;
    EXPECT_TRUE(log_.Contains(logged)) << logged;
  }
  Store("IS_BOOT", "TRUE");
  EXPECT_FALSE(IsAutoConf()) << "only the exact text counts";
  // The flag writers ignore a missing store and create none.
  RemoveStore();
  EXPECT_NO_THROW(StartAutoConf());
  EXPECT_NO_THROW(EnableNexdNotification(true));
  EXPECT_FALSE(Exists("/etc/talvex/configstore/current-store-1"));
}

TEST_F(BootStateTest, CleanupBootStateRecordsTheBootedUuidAndResetsTheMarker) {
  // this boot's UUID (uuid-a recorded), live-install marker, key writes expected, marker afterwards
  for (const auto& [current, marker, writes, markerAfter] :
       {std::tuple{"uuid-a", "false", 0, "false"}, {"uuid-aa", "false", 1, "false"}, {"", "false", 1, "false"},
        {"uuid-a", "true", 1, "false"}, {"uuid-b", "TRUE", 1, "TRUE"}}) {
    SCOPED_TRACE(std::string(current) + " " + marker);
    Store(BOOT_FS_UUID, "uuid-a");
    Store(POST_LIVE_INSTALL_BOOT, marker);
    SetNode("/system/bootFsUUID", current);
    DBStore::faults::ResetCounts();
    CleanupBootState();
    EXPECT_EQ(DBStore::faults::Calls(Kind::KvWrite), writes);
    EXPECT_EQ(Stored(BOOT_FS_UUID), current);
    EXPECT_EQ(Stored(POST_LIVE_INSTALL_BOOT), markerAfter);
  }
}

TEST_F(BootStateTest, FirstMatchingRuleDecides) {
  const std::tuple<BootFacts, bool, std::vector<std::string>> rows[] = {
      {{.pxe = true, .installer = true, .ddImage = true, .firstBoot = true, .ferrin = true, .currentUuid = "uuid-b"},
       false, {"PXE boot, not considered upgrade."}},
      {{.installer = true, .ddImage = true, .firstBoot = true, .ferrin = true, .currentUuid = "uuid-b"}, false,
       {"Installer boot, not considered upgrade."}},
      {{.ddImage = true, .firstBoot = true, .ferrin = true, .currentUuid = "uuid-b"}, false,
       {"QOR DD image boot, not considered upgrade."}},
      {{.firstBoot = true, .ferrin = true, .liveMarker = "true", .currentUuid = "uuid-b"}, false,
       {"First boot, not considerd upgrade."}},
      {{.ferrin = true, .liveMarker = "true", .store = false}, true,  // its line holds the plain one
       {"Ferrin installer upgrade: Config upgrade boot.", "Config upgrade boot"}},
      {{.liveMarker = "true", .currentUuid = "uuid-b"}, false, {"Live install boot. No upgrade."}},
      {{.liveMarker = "TRUE", .currentUuid = "uuid-ab"}, true, {"Config upgrade boot"}},
      {BootFacts{}, false, {}},
      {{.recordedUuid = ""}, true, {"Config upgrade boot"}},
      {BootFacts{.recordedUuid = "", .currentUuid = ""}, false, {}},
  };
  int row = 0;
  for (const auto& [facts, upgrade, decision] : rows) {
    SCOPED_TRACE(row++);
    ASSERT_EQ(DBStore::CreateDatabases(), 0);
    Boot(facts);
    EXPECT_EQ(IsUpgrade(), upgrade);
    EXPECT_EQ(DecisionsLogged(), decision);
    EXPECT_TRUE(RecordedEvents().empty());
  }
  // For the bootbank two empty UUIDs are a change.
  for (const char* uuid : {"uuid-a", ""}) {
    Boot({.recordedUuid = uuid, .currentUuid = uuid});
    EXPECT_EQ(HasBootbankChanged(), *uuid == '\0');
  }
}

TEST_F(BootStateTest, UpgradeCheckFailureAnswersFalseWithEventWhileOthersThrow) {
  const std::tuple<std::function<void()>, std::string, bool> rows[] = {
      // what breaks, the error, whether HasBootbankChanged needs the same fact
      {[this] { Remove("/sys/plon/.signature"); }, "Failed to invoke PLON_CheckSig", true},
      {[] { DBStore::faults::Arm(Kind::KvRead, 1, false); },
       "Failed to read value for key POST_LIVE_INSTALL_BOOT", false},
  };
  for (const auto& [breakIt, error, bootbankThrows] : rows) {
    SCOPED_TRACE(error);
    Remove("/var/log/configstore-events.jsonl");
    ASSERT_EQ(DBStore::CreateDatabases(), 0);
    ASSERT_TRUE(PLON_WriteSignature());
    Boot({.currentUuid = "uuid-b"});
    breakIt();
    EXPECT_FALSE(IsUpgrade());
    EXPECT_TRUE(log_.Contains("Failed to check if upgrade: " + error, CSLogger::PRIO_ERROR));
    EXPECT_TRUE(DecisionsLogged().empty());
    EXPECT_EQ(Thrown([] { EXPECT_TRUE(HasBootbankChanged()); }), bootbankThrows ? "2000 " + error : "no exception");
    std::vector<Events::Event> events = RecordedEvents();
    ASSERT_EQ(events.size(), 1u) << "only IsUpgrade raises the event";
    EXPECT_EQ(events[0].id, "zeb.user.cs.upgrade.config.error");
    DBStore::faults::Disarm();
  }
}

TEST_F(BootStateTest, InstalledAndCommandLineWords) {
  Boot({});
  // Only the fourth option byte marks the installer.
  SetNode("/system/bootOption", std::string("\x01\x01\x01\x00", 4));
  EXPECT_TRUE(IsInstalled());
  Remove("/sys/plon/system/bootOption");
  EXPECT_EQ(Thrown([] { IsInstalled(); }), "2000 Failed to get PLON /system/bootOption");
  // Words match anywhere, in their case; a command line filling its 4096-byte record has no NUL,
  // so the word past the record is not seen.
  for (const std::string& line : {std::string("ro xferrinInstalledx FerrinInstalled no-configupgrade-ZPAN"),
                                  std::string(4096 - 15, 'x') + "ferrinInstalled" + "no-configupgrade-zpan"}) {
    SetNode("/system/bootCmdLine", line);
    EXPECT_TRUE(IsFerrinInstalled());
    EXPECT_FALSE(IsDebugUpgrade());
  }
}

}  // namespace
