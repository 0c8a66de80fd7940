// The kind of boot: the order of the upgrade rules, the two ways of comparing boot filesystem
// UUIDs, and what each answer does when a kernel node or the store cannot be read.
#include <functional>
#include <string>
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
    const char* name;
    BootFacts facts;
    bool upgrade;
    const char* decision;  // nullptr: decided without a decision line
  } rows[] = {
      {"PXE beats every other fact",
       {.pxe = true, .installer = true, .ddImage = true, .firstBoot = true, .ferrin = true, .currentUuid = "uuid-b"},
       false, "PXE boot, not considered upgrade."},
      {"installer beats DD image, first boot and ferrin",
       {.installer = true, .ddImage = true, .firstBoot = true, .ferrin = true, .currentUuid = "uuid-b"},
       false, "Installer boot, not considered upgrade."},
      {"DD image beats first boot and ferrin",
       {.ddImage = true, .firstBoot = true, .ferrin = true, .currentUuid = "uuid-b"},
       false, "QOR DD image boot, not considered upgrade."},
      {"first boot beats ferrin and a changed uuid",
       {.firstBoot = true, .ferrin = true, .liveMarker = "true", .currentUuid = "uuid-b"},
       false, "First boot, not considerd upgrade."},
      {"ferrin beats the live-install marker and an unchanged uuid",
       {.ferrin = true, .liveMarker = "true"},
       true, "Ferrin installer upgrade: Config upgrade boot."},
      {"ferrin needs no store", {.ferrin = true, .store = false}, true,
       "Ferrin installer upgrade: Config upgrade boot."},
      {"live install beats a changed uuid",
       {.liveMarker = "true", .currentUuid = "uuid-b"},
       false, "Live install boot. No upgrade."},
      {"marker in other case does not count",
       {.liveMarker = "TRUE", .currentUuid = "uuid-b"},
       true, "Config upgrade boot"},
      {"changed uuid", {.currentUuid = "uuid-b"}, true, "Config upgrade boot"},
      {"uuid one byte longer", {.currentUuid = "uuid-ab"}, true, "Config upgrade boot"},
      {"same uuid", {}, false, nullptr},
      {"no uuid recorded yet", {.recordedUuid = ""}, true, "Config upgrade boot"},
      {"both uuids empty", {.recordedUuid = "", .currentUuid = ""}, false, nullptr},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
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
}

TEST_F(UpgradeDetectionTest, EmptyUuidsCountAsChangeOnlyForTheBootbank) {
  struct Row {
    const char* recorded;
    const char* current;
    bool upgrade;
    bool bootbankChanged;
    const char* bootbankLine;
  } rows[] = {
      {"uuid-a", "uuid-a", false, false, "Bootbank did not change from previous boot."},
      {"uuid-a", "uuid-b", true, true, "Bootbank changed uuid-b!=uuid-a"},
      {"", "uuid-a", true, true, "Bootbank changed uuid-a!="},
      {"uuid-a", "", true, true, "Bootbank changed !=uuid-a"},
      {"", "", false, true, "Bootbank changed !="},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string("recorded \"") + row.recorded + "\", current \"" + row.current + "\"");
    Boot({.recordedUuid = row.recorded, .currentUuid = row.current});
    EXPECT_EQ(IsUpgrade(), row.upgrade);
    EXPECT_TRUE(Logged(std::string("Current boot fs uuid: ") + row.current, 2));
    EXPECT_TRUE(Logged(std::string("Previous boot fs uuid: ") + row.recorded, 2));
    EXPECT_EQ(HasBootbankChanged(), row.bootbankChanged);
    EXPECT_TRUE(Logged(row.bootbankLine, 2));
  }
}

TEST_F(UpgradeDetectionTest, UpgradeCheckFailureAnswersFalseWithEventWhileOthersThrow) {
  struct Breakage {
    const char* name;
    std::function<void()> apply;
    std::string error;
    bool bootbankThrows;  // HasBootbankChanged needs the same fact
  } rows[] = {
      {"uuid node missing", [this] { RemoveNode("/system/bootFsUUID"); }, "Failed to get boot fs uuid.", true},
      {"signature mismatch", [this] { BreakSignature(); }, "Failed to invoke PLON_CheckSig", true},
      {"command line missing", [this] { RemoveNode("/system/bootCmdLine"); }, "Failed to get boot command line",
       false},
      {"boot MAC missing", [this] { RemoveNode("/system/bootMAC"); }, "Failed to get boot nic mac address.", false},
      {"boot option missing", [this] { RemoveNode("/system/bootOption"); }, "Failed to get PLON /system/bootOption",
       false},
      {"store missing", [this] { RemoveStore(); },
       "Failed to connect to database. " + Path("/etc/talvex/configstore/current-store-1") + " does not exist", true},
      {"marker read fails", [] { DBStore::faults::Arm(DBStore::faults::Kind::KvRead, 1, false); },
       "Failed to read value for key POST_LIVE_INSTALL_BOOT", false},
  };
  for (const Breakage& row : rows) {
    SCOPED_TRACE(row.name);
    Remove("/var/log/configstore-events.jsonl");
    Boot({.recordedUuid = "uuid-a", .currentUuid = "uuid-b"});
    row.apply();
    EXPECT_FALSE(IsUpgrade());
    EXPECT_TRUE(Logged(std::string("Failed to check if upgrade: ") + row.error, 0));
    EXPECT_TRUE(DecisionsLogged().empty());
    std::vector<Events::Event> events = RecordedEvents();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].id, "zeb.user.cs.upgrade.config.error");
    EXPECT_TRUE(events[0].args.empty());
    EXPECT_EQ(events[0].message, "Error in upgrading config .");
    // HasBootbankChanged throws where it needs the same fact.
    EXPECT_EQ(Thrown([] { EXPECT_TRUE(HasBootbankChanged()); }),
              row.bootbankThrows ? std::string("2000 ") + row.error : "no exception");
    EXPECT_EQ(RecordedEvents().size(), 1u) << "only IsUpgrade raises the event";
    DBStore::faults::Disarm();
    // Rebuild what was broken for the next row.
    ASSERT_EQ(DBStore::CreateDatabases(), 0);
    ASSERT_TRUE(PLON_WriteSignature());
    SetNode("/system/bootMAC", "");
  }
}

TEST_F(UpgradeDetectionTest, InstalledMeansNeitherNetworkNorInstallerBoot) {
  const std::string disk(4, '\0'), installer("\0\0\0\x01", 4), mac = "00:50:56:aa:bb:cc";
  struct Row {
    const char* name;
    std::string mac;
    std::string option;     // "": the option node is missing
    const char* installed;  // "true", "false" or the error thrown
  } rows[] = {
      {"disk boot", "", disk, "true"},
      {"network boot", mac, disk, "false"},
      {"installer boot", "", installer, "false"},
      {"network installer boot", mac, installer, "false"},
      {"only the fourth option byte marks the installer", "", std::string("\x01\x01\x01\x00", 4), "true"},
      {"the fourth byte must be 1", "", std::string("\x00\x00\x00\x80", 4), "false"},
      {"any text in the 21-byte MAC record", std::string(40, 'm'), disk, "false"},
      {"network boot is decided before the option is read", mac, "", "false"},
      {"option missing", "", "", "2000 Failed to get PLON /system/bootOption"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
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

TEST_F(UpgradeDetectionTest, CommandLineWordsAreMatchedExactly) {
  struct Row {
    const char* line;
    bool debug;
    bool ferrin;
  } rows[] = {
      {"ro no-configupgrade-zpan", true, false},
      {"ro ferrinInstalled", false, true},
      {"ro xferrinInstalledx no-configupgrade-zpanic", true, true},
      {"ro FerrinInstalled no-configupgrade-ZPAN", false, false},
      {"", false, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.line);
    SetCmdLine(row.line);
    log_.Clear();
    EXPECT_EQ(IsDebugUpgrade(), row.debug);
    EXPECT_EQ(IsFerrinInstalled(), row.ferrin);
    EXPECT_TRUE(Logged(std::string("BootCmdLine: ") + row.line, 2));
  }
}

TEST_F(UpgradeDetectionTest, OnlySomeAnswersCheckTheNodeSignature) {
  SetCmdLine("ro ferrinInstalled");
  BreakSignature();
  EXPECT_TRUE(IsFerrinInstalled());
  EXPECT_EQ(GetBootFsUUID(false), "5f1e2d3c-aaaa-bbbb-cccc-000000000001");
  for (auto op : {+[] { IsDebugUpgrade(); }, +[] { IsInstalled(); }, +[] { HasBootbankChanged(); },
                  +[] { GetBootFsUUID(true); }}) {
    EXPECT_EQ(Thrown(op), "2000 Failed to invoke PLON_CheckSig");
  }
}

TEST_F(UpgradeDetectionTest, NodeTextsAreCutAtTheirRecordSize) {
  // A UUID record is 38 bytes: a longer node is cut, a NUL ends the text early.
  SetBootUuid(std::string(50, 'u'));
  EXPECT_EQ(GetBootFsUUID(true), std::string(38, 'u'));
  SetBootUuid(std::string("abc\0def", 7));
  EXPECT_EQ(GetBootFsUUID(true), "abc");

  // A command line that fills its whole 4096-byte record has no NUL of its own.
  SetCmdLine(std::string(4096 - 15, 'x') + "ferrinInstalled" + "no-configupgrade-zpan");
  EXPECT_TRUE(IsFerrinInstalled());
  EXPECT_FALSE(IsDebugUpgrade()) << "the word past the record is not seen";
}

}  // namespace
