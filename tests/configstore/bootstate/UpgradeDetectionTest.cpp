// The kind of boot: the order of the upgrade rules, the two ways of comparing boot filesystem
// UUIDs, and what each answer does when a kernel node or the store cannot be read.
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "configstore/bootstate/BootState.h"
#include "configstore/bootstate/UpgradeDetection.h"
#include "configstore/frame/ConfigStoreException.h"
#include "platform/plon/Plon.h"
#include "tests/configstore/bootstate/BootStateFixture.h"

namespace {

using namespace QorConfigStore;
using cstest::BootStateTest;
using cstest::Thrown;

// Every line that announces an upgrade decision; a decided boot logs exactly one of them.
const std::vector<std::string> kDecisionLines = {
    "PXE boot, not considered upgrade.",
    "Installer boot, not considered upgrade.",
    "QOR DD image boot, not considered upgrade.",
    "First boot, not considerd upgrade.",
    "Ferrin installer upgrade: Config upgrade boot.",
    "Live install boot. No upgrade.",
    "Config upgrade boot",
};

struct BootFacts {
  bool pxe = false;
  bool installer = false;
  bool ddImage = false;
  bool firstBoot = false;
  bool ferrin = false;
  const char* liveMarker = "false";
  const char* recordedUuid = "uuid-a";
  const char* currentUuid = "uuid-a";
  bool store = true;
};

class UpgradeDetectionTest : public BootStateTest {
 protected:
  void Boot(const BootFacts& f) {
    SetPxeBoot(f.pxe);
    SetInstallerBoot(f.installer);
    std::string line = "BOOT_IMAGE=/b.b00 ro";
    if (f.ddImage) line += " qorDDImage";
    if (f.ferrin) line += " ferrinInstalled";
    SetCmdLine(line);
    SetFirstBoot(f.firstBoot);
    Store(POST_LIVE_INSTALL_BOOT, f.liveMarker);
    Store(BOOT_FS_UUID, f.recordedUuid);
    SetBootUuid(f.currentUuid);
    if (!f.store) RemoveStore();
    log_.Clear();
  }

  std::vector<std::string> DecisionsLogged() const {
    std::vector<std::string> found;
    for (const std::string& line : kDecisionLines) {
      if (Logged(line, 2)) found.push_back(line);
    }
    return found;
  }
};

TEST_F(UpgradeDetectionTest, FirstMatchingRuleDecides) {
  struct Row {
    BootFacts facts;
    bool upgrade;
    const char* decision;  // nullptr: decided without a decision line
  } rows[] = {
      {{.pxe = true, .installer = true, .ddImage = true, .firstBoot = true, .ferrin = true, .currentUuid = "uuid-b"},
       false, "PXE boot, not considered upgrade."},
      {{.installer = true, .ddImage = true, .firstBoot = true, .ferrin = true, .currentUuid = "uuid-b"}, false,
       "Installer boot, not considered upgrade."},
      {{.ddImage = true, .firstBoot = true, .ferrin = true, .currentUuid = "uuid-b"}, false,
       "QOR DD image boot, not considered upgrade."},
      {{.firstBoot = true, .ferrin = true, .liveMarker = "true", .currentUuid = "uuid-b"}, false,
       "First boot, not considerd upgrade."},
      {{.ferrin = true, .liveMarker = "true"}, true, "Ferrin installer upgrade: Config upgrade boot."},
      {{.ferrin = true, .store = false}, true, "Ferrin installer upgrade: Config upgrade boot."},
      {{.liveMarker = "true", .currentUuid = "uuid-b"}, false, "Live install boot. No upgrade."},
      {{.liveMarker = "TRUE", .currentUuid = "uuid-b"}, true, "Config upgrade boot"},
      {{.currentUuid = "uuid-ab"}, true, "Config upgrade boot"},
      {{}, false, nullptr},
      {{.recordedUuid = ""}, true, "Config upgrade boot"},
      {{.recordedUuid = "", .currentUuid = ""}, false, nullptr},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(&row - rows);
    Boot(row.facts);
    EXPECT_EQ(IsUpgrade(), row.upgrade);
    std::vector<std::string> expected;
    if (row.decision != nullptr) expected.push_back(row.decision);
    EXPECT_EQ(DecisionsLogged(), expected);
    EXPECT_TRUE(RecordedEvents().empty());
    if (!row.facts.store) {
      ASSERT_EQ(DBStore::CreateDatabases(), 0);
    }
  }
  // For the bootbank two empty UUIDs are a change.
  for (const char* uuid : {"uuid-a", ""}) {
    Boot({.recordedUuid = uuid, .currentUuid = uuid});
    EXPECT_EQ(HasBootbankChanged(), *uuid == '\0');
  }
}

TEST_F(UpgradeDetectionTest, UpgradeCheckFailureAnswersFalseWithEventWhileOthersThrow) {
  struct Breakage {
    std::function<void()> apply;
    std::string error;
    bool bootbankThrows;  // HasBootbankChanged needs the same fact
  } rows[] = {
      {[this] { RemoveNode("/system/bootFsUUID"); }, "Failed to get boot fs uuid.", true},
      {[this] { BreakSignature(); }, "Failed to invoke PLON_CheckSig", true},
      {[this] { RemoveNode("/system/bootCmdLine"); }, "Failed to get boot command line", false},
      {[this] { RemoveNode("/system/bootMAC"); }, "Failed to get boot nic mac address.", false},
      {[this] { RemoveNode("/system/bootOption"); }, "Failed to get PLON /system/bootOption", false},
      {[this] { RemoveStore(); },
       "Failed to connect to database. " + Path("/etc/talvex/configstore/current-store-1") + " does not exist", true},
      {[] { DBStore::faults::Arm(DBStore::faults::Kind::KvRead, 1, false); },
       "Failed to read value for key POST_LIVE_INSTALL_BOOT", false},
  };
  for (const Breakage& row : rows) {
    SCOPED_TRACE(row.error);
    Remove("/var/log/configstore-events.jsonl");
    Boot({.recordedUuid = "uuid-a", .currentUuid = "uuid-b"});
    row.apply();
    EXPECT_FALSE(IsUpgrade());
    EXPECT_TRUE(Logged(std::string("Failed to check if upgrade: ") + row.error, 0));
    EXPECT_TRUE(DecisionsLogged().empty());
    std::vector<Events::Event> events = RecordedEvents();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].id, "zeb.user.cs.upgrade.config.error");
    EXPECT_EQ(Thrown([] { EXPECT_TRUE(HasBootbankChanged()); }),
              row.bootbankThrows ? std::string("2000 ") + row.error : "no exception");
    EXPECT_EQ(RecordedEvents().size(), 1u) << "only IsUpgrade raises the event";
    DBStore::faults::Disarm();
    ASSERT_EQ(DBStore::CreateDatabases(), 0);
    ASSERT_TRUE(PLON_WriteSignature());
    SetNode("/system/bootMAC", "");
  }
}

TEST_F(UpgradeDetectionTest, InstalledMeansNeitherNetworkNorInstallerBoot) {
  const std::string disk(4, '\0'), mac = "00:50:56:aa:bb:cc";
  struct Row {
    std::string mac;
    std::string option;     // "": the option node is missing
    const char* installed;  // "true", "false" or the error thrown
  } rows[] = {
      {"", disk, "true"},
      {mac, disk, "false"},
      {"", std::string("\0\0\0\x01", 4), "false"},
      {"", std::string("\x01\x01\x01\x00", 4), "true"},  // only the fourth byte marks the installer
      {mac, "", "false"},                                 // decided before the option is read
      {"", "", "2000 Failed to get PLON /system/bootOption"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(&row - rows);
    SetNode("/system/bootMAC", row.mac);
    if (row.option.empty()) {
      RemoveNode("/system/bootOption");
    } else {
      SetNode("/system/bootOption", row.option);
    }
    std::string answer;
    const std::string thrown = Thrown([&] { answer = IsInstalled() ? "true" : "false"; });
    EXPECT_EQ(thrown == "no exception" ? answer : thrown, row.installed);
  }
}

TEST_F(UpgradeDetectionTest, CommandLineWordsAndNodeRecordSizes) {
  for (auto [line, debug, ferrin] : {std::tuple{"ro no-configupgrade-zpan", true, false},
                                     std::tuple{"ro xferrinInstalledx no-configupgrade-zpanic", true, true},
                                     std::tuple{"ro FerrinInstalled no-configupgrade-ZPAN", false, false}}) {
    SCOPED_TRACE(line);
    SetCmdLine(line);
    EXPECT_EQ(IsDebugUpgrade(), debug);
    EXPECT_EQ(IsFerrinInstalled(), ferrin);
  }
  // A command line that fills its whole 4096-byte record has no NUL of its own; a UUID record is 38 bytes.
  SetCmdLine(std::string(4096 - 15, 'x') + "ferrinInstalled" + "no-configupgrade-zpan");
  EXPECT_TRUE(IsFerrinInstalled());
  EXPECT_FALSE(IsDebugUpgrade()) << "the word past the record is not seen";
  SetBootUuid(std::string(50, 'u'));
  EXPECT_EQ(GetBootFsUUID(true), std::string(38, 'u'));
}

}  // namespace
