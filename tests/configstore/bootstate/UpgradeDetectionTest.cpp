// The kind of boot: the order of the upgrade rules, the two ways of comparing boot filesystem
// UUIDs, and what each answer does when a kernel node or the store cannot be read.
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "configstore/bootstate/BootState.h"
#include "configstore/bootstate/UpgradeDetection.h"
#include "platform/plon/Plon.h"
#include "tests/configstore/bootstate/BootStateFixture.h"

namespace {

using namespace QorConfigStore;
using cstest::Thrown;

struct BootFacts {
  bool pxe = false, installer = false, ddImage = false, firstBoot = false, ferrin = false;
  const char* liveMarker = "false";
  const char* recordedUuid = "uuid-a";
  const char* currentUuid = "uuid-a";
  bool store = true;
};

class UpgradeDetectionTest : public cstest::BootStateTest {
 protected:
  void Boot(const BootFacts& f) {
    SetPxeBoot(f.pxe);
    SetInstallerBoot(f.installer);
    SetCmdLine(std::string("ro") + (f.ddImage ? " qorDDImage" : "") + (f.ferrin ? " ferrinInstalled" : ""));
    SetFirstBoot(f.firstBoot);
    Store(POST_LIVE_INSTALL_BOOT, f.liveMarker);
    Store(BOOT_FS_UUID, f.recordedUuid);
    SetBootUuid(f.currentUuid);
    if (!f.store) RemoveStore();
    log_.Clear();
  }

  // The lines that announce an upgrade decision; a decided boot logs exactly one of them.
  std::vector<std::string> DecisionsLogged() const {
    std::vector<std::string> found;
    for (const char* line : {"PXE boot, not considered upgrade.", "Installer boot, not considered upgrade.",
                             "QOR DD image boot, not considered upgrade.", "First boot, not considerd upgrade.",
                             "Ferrin installer upgrade: Config upgrade boot.", "Live install boot. No upgrade.",
                             "Config upgrade boot"}) {
      if (Logged(line, CSLogger::PRIO_INFO)) found.push_back(line);
    }
    return found;
  }
};

TEST_F(UpgradeDetectionTest, FirstMatchingRuleDecides) {
  const std::tuple<BootFacts, bool, std::vector<std::string>> rows[] = {
      {{.pxe = true, .installer = true, .ddImage = true, .firstBoot = true, .ferrin = true, .currentUuid = "uuid-b"},
       false, {"PXE boot, not considered upgrade."}},
      {{.installer = true, .ddImage = true, .firstBoot = true, .ferrin = true, .currentUuid = "uuid-b"}, false,
       {"Installer boot, not considered upgrade."}},
      {{.ddImage = true, .firstBoot = true, .ferrin = true, .currentUuid = "uuid-b"}, false,
       {"QOR DD image boot, not considered upgrade."}},
      {{.firstBoot = true, .ferrin = true, .liveMarker = "true", .currentUuid = "uuid-b"}, false,
       {"First boot, not considerd upgrade."}},
      {{.ferrin = true, .liveMarker = "true", .store = false}, true, {"Ferrin installer upgrade: Config upgrade boot."}},
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

TEST_F(UpgradeDetectionTest, UpgradeCheckFailureAnswersFalseWithEventWhileOthersThrow) {
  const std::tuple<std::function<void()>, std::string, bool> rows[] = {
      // what breaks, the error, whether HasBootbankChanged needs the same fact
      {[this] { RemoveNode("/system/bootFsUUID"); }, "Failed to get boot fs uuid.", true},
      {[this] { BreakSignature(); }, "Failed to invoke PLON_CheckSig", true},
      {[this] { RemoveNode("/system/bootCmdLine"); }, "Failed to get boot command line", false},
      {[this] { RemoveNode("/system/bootMAC"); }, "Failed to get boot nic mac address.", false},
      {[this] { RemoveStore(); },
       "Failed to connect to database. " + Path("/etc/talvex/configstore/current-store-1") + " does not exist", true},
      {[] { DBStore::faults::Arm(DBStore::faults::Kind::KvRead, 1, false); },
       "Failed to read value for key POST_LIVE_INSTALL_BOOT", false},
  };
  for (const auto& [breakIt, error, bootbankThrows] : rows) {
    SCOPED_TRACE(error);
    Remove("/var/log/configstore-events.jsonl");
    ASSERT_EQ(DBStore::CreateDatabases(), 0);
    ASSERT_TRUE(PLON_WriteSignature());
    SetNode("/system/bootMAC", "");
    Boot({.currentUuid = "uuid-b"});
    breakIt();
    EXPECT_FALSE(IsUpgrade());
    EXPECT_TRUE(Logged("Failed to check if upgrade: " + error, CSLogger::PRIO_ERROR));
    EXPECT_TRUE(DecisionsLogged().empty());
    EXPECT_EQ(Thrown([] { EXPECT_TRUE(HasBootbankChanged()); }), bootbankThrows ? "2000 " + error : "no exception");
    std::vector<Events::Event> events = RecordedEvents();
    ASSERT_EQ(events.size(), 1u) << "only IsUpgrade raises the event";
    EXPECT_EQ(events[0].id, "zeb.user.cs.upgrade.config.error");
    DBStore::faults::Disarm();
  }
}

TEST_F(UpgradeDetectionTest, InstalledAndCommandLineWords) {
  // MAC, option bytes ("": node missing), answer or error: only the fourth option byte marks the
  // installer, and a network boot is decided before the option is read.
  for (const auto& [bootMac, option, installed] :
       {std::tuple<std::string, std::string, std::string>{"", std::string("\x01\x01\x01\x00", 4), "true"},
        {"00:50:56:aa:bb:cc", "", "false"}, {"", std::string("\0\0\0\x01", 4), "false"},
        {"", "", "2000 Failed to get PLON /system/bootOption"}}) {
    SetNode("/system/bootMAC", bootMac);
    option.empty() ? RemoveNode("/system/bootOption") : SetNode("/system/bootOption", option);
    std::string answer;
    const std::string thrown = Thrown([&] { answer = IsInstalled() ? "true" : "false"; });
    EXPECT_EQ(thrown == "no exception" ? answer : thrown, installed);
  }
  // Words are matched anywhere, in their case; a command line that fills its whole 4096-byte
  // record has no NUL of its own.
  SetCmdLine("ro xferrinInstalledx FerrinInstalled no-configupgrade-ZPAN");
  EXPECT_TRUE(IsFerrinInstalled());
  EXPECT_FALSE(IsDebugUpgrade());
  SetCmdLine(std::string(4096 - 15, 'x') + "ferrinInstalled" + "no-configupgrade-zpan");
  EXPECT_TRUE(IsFerrinInstalled());
  EXPECT_FALSE(IsDebugUpgrade()) << "the word past the record is not seen";
}

}  // namespace
