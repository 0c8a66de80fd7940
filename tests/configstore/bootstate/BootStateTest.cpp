// Boot-state entries: what each operation stores, how stored text is read back, and what happens
// when the store or a read fails.
#include <functional>
#include <stdexcept>
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
using DBStore::faults::Kind;

TEST_F(BootStateTest, BootModeIsStoredAsPlainDecimalAndReadBack) {
  EXPECT_EQ(GetBootMode(), BOOT_MODE_DEFAULT) << "a store that never had a mode";
  for (BOOTMODE mode : {BOOT_MODE_HOSTAPI_CONFIG, BOOT_MODE_NEW_STORE, BOOT_MODE_SMARTNIC_CONFIG,
                        BOOT_MODE_DESIRED_USER_CONFIG, BOOT_MODE_DEFAULT}) {
    SCOPED_TRACE(mode);
    SetBootMode(mode);
    EXPECT_EQ(Stored("BOOT_MODE"), std::to_string(mode));
    EXPECT_EQ(GetBootMode(), mode);
    EXPECT_TRUE(Logged("Next boot mode set to " + std::to_string(mode), 2));
  }
}

TEST_F(BootStateTest, GetBootModeConvertsStoredTextLikeStoi) {
  enum Outcome { kNumber, kInvalid, kOutOfRange };
  struct Row {
    const char* stored;
    Outcome outcome;
    int mode;
  } rows[] = {
      {"", kNumber, 0},        {"3abc", kNumber, 3},          {"4", kNumber, 4},
      {" 2", kNumber, 2},      {"-1", kNumber, -1},           {"2147483647", kNumber, 2147483647},
      {"abc", kInvalid, 0},    {"x3", kInvalid, 0},           {"99999999999", kOutOfRange, 0},
      {"-2147483649", kOutOfRange, 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string("stored \"") + row.stored + "\"");
    Store("BOOT_MODE", row.stored);
    switch (row.outcome) {
      case kNumber: EXPECT_EQ(static_cast<int>(GetBootMode()), row.mode); break;
      case kInvalid: EXPECT_THROW(GetBootMode(), std::invalid_argument); break;
      case kOutOfRange: EXPECT_THROW(GetBootMode(), std::out_of_range); break;
    }
  }
}

TEST_F(BootStateTest, FlagWritersStoreTheirExactTexts) {
  struct Row {
    const char* name;
    std::function<void()> op;
    const char* key;
    const char* stored;  // the end of autoconf stores empty text, not "false"
    const char* logged;
    bool autoConf;
  } rows[] = {
      {"autoconf start", StartAutoConf, "IS_BOOT", "true", "ConfigStore autoconf start", true},
      {"autoconf end", EndAutoConf, "IS_BOOT", "", "ConfigStore endconf end", false},
      {"nexd on", [] { EnableNexdNotification(true); }, "NOTIFY_NEXD", "true",
       "ConfigStore nexd notification enabled = 1", false},
      {"nexd off", [] { EnableNexdNotification(false); }, "NOTIFY_NEXD", "false",
       "ConfigStore nexd notification enabled = 0", false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    row.op();
    EXPECT_EQ(Stored(row.key), row.stored);
    EXPECT_TRUE(Logged(row.logged, 2));
    EXPECT_EQ(IsAutoConf(), row.autoConf);
  }
  Store("IS_BOOT", "TRUE");
  EXPECT_FALSE(IsAutoConf()) << "only the exact text counts";
}

TEST_F(BootStateTest, SetLiveInstallBootStoresFalseForAnythingButExactTrue) {
  struct Row {
    const char* input;
    const char* stored;
    bool invalid;
  } rows[] = {
      {"true", "true", false}, {"false", "false", false}, {"True", "false", true},
      {"", "false", true},     {"true ", "false", true},  {"1", "false", true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string("input \"") + row.input + "\"");
    Store(POST_LIVE_INSTALL_BOOT, "unset");
    log_.Clear();
    EXPECT_EQ(SetLiveInstallBoot(row.input), 0);
    EXPECT_EQ(Stored(POST_LIVE_INSTALL_BOOT), row.stored);
    EXPECT_TRUE(Logged(std::string("POST_LIVE_INSTALL_BOOT=") + row.stored + " completed with rc = 0", 2));
    EXPECT_EQ(Logged(std::string("Set POST_LIVE_INSTALL_BOOT=false, since the inputvalue is not valid value ") +
                         row.input,
                     2),
              row.invalid);
  }
}

TEST_F(BootStateTest, SetLiveInstallBootReportsAFailedWriteAndIgnoresNoStatus) {
  DBStore::faults::Arm(Kind::KvWrite, 1, false);
  int rc = SetLiveInstallBoot("true");
  DBStore::faults::Disarm();
  EXPECT_NE(rc, 0);
  EXPECT_TRUE(Logged("POST_LIVE_INSTALL_BOOT=true completed with rc = " + std::to_string(rc), 2));

  Store(POST_LIVE_INSTALL_BOOT, "true");
  EXPECT_EQ(SetLiveInstallBoot(nullptr), 1);
  EXPECT_EQ(Stored(POST_LIVE_INSTALL_BOOT), "true");
  EXPECT_TRUE(Logged("Live install marker not set, since input status was not provided.", 0));
  RemoveStore();
  EXPECT_EQ(SetLiveInstallBoot(nullptr), 1) << "no connection is even asked for";
}

TEST_F(BootStateTest, CleanupBootStateRecordsTheBootedUuidAndResetsTheMarker) {
  struct Row {
    const char* name;
    const char* recorded;
    const char* current;
    const char* marker;
    bool uuidWritten;
    const char* markerAfter;
  } rows[] = {
      {"nothing changed", "uuid-a", "uuid-a", "false", false, "false"},
      {"first recording", "", "uuid-a", "", true, ""},
      {"bootbank switched", "uuid-a", "uuid-b", "false", true, "false"},
      {"uuid one byte longer", "uuid-a", "uuid-aa", "false", true, "false"},
      {"uuid gone", "uuid-a", "", "false", true, "false"},
      {"after live install", "uuid-a", "uuid-a", "true", false, "false"},
      {"marker in other case", "uuid-a", "uuid-a", "TRUE", false, "TRUE"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Store(BOOT_FS_UUID, row.recorded);
    Store(POST_LIVE_INSTALL_BOOT, row.marker);
    SetBootUuid(row.current);
    const bool markerReset = std::string(row.marker) == "true";
    log_.Clear();
    DBStore::faults::ResetCounts();
    CleanupBootState();
    EXPECT_EQ(DBStore::faults::Calls(Kind::KvWrite), int(row.uuidWritten) + int(markerReset));
    EXPECT_EQ(Stored(BOOT_FS_UUID), row.current);
    EXPECT_EQ(Logged(std::string("Setting BOOT_FS_UUID to ") + row.current + ".", 2), row.uuidWritten);
    EXPECT_EQ(Stored(POST_LIVE_INSTALL_BOOT), row.markerAfter);
    EXPECT_EQ(Logged("Setting POST_LIVE_INSTALL_BOOT back to false.", 2), markerReset);
    if (!row.uuidWritten && !markerReset) {
      EXPECT_TRUE(log_.Lines().empty());
    }
  }
}

TEST_F(BootStateTest, CleanupBootStateFailures) {
  // Untrusted nodes fail before anything is written.
  Store(BOOT_FS_UUID, "uuid-old");
  Store(POST_LIVE_INSTALL_BOOT, "true");
  SetBootUuid("uuid-new");
  BreakSignature();
  EXPECT_EQ(Thrown(CleanupBootState), "2000 Failed to invoke PLON_CheckSig");
  ASSERT_TRUE(PLON_WriteSignature());
  RemoveNode("/system/bootFsUUID");
  EXPECT_EQ(Thrown(CleanupBootState), "2000 Failed to get boot fs uuid.");
  EXPECT_EQ(Stored(BOOT_FS_UUID), "uuid-old");
  EXPECT_EQ(Stored(POST_LIVE_INSTALL_BOOT), "true");

  // A failed marker read comes after the UUID is written, which stays.
  SetBootUuid("uuid-new");
  DBStore::faults::Arm(Kind::KvRead, 2, false);
  EXPECT_EQ(Thrown(CleanupBootState), "2000 Failed to read value for key POST_LIVE_INSTALL_BOOT");
  EXPECT_EQ(Stored(BOOT_FS_UUID), "uuid-new");
}

TEST_F(BootStateTest, InstallInfoIsStoredExactlyAsGiven) {
  EXPECT_EQ(GetInstallInfo(), "");
  const std::vector<std::string> texts = {
      R"({"installer": "x", "quote": "'\"", "percent": "%s%n"})",
      "line1\nline2\ttab \xc3\xa9t\xc3\xa9",
      std::string(100000, 'i'),
      "",
  };
  for (const std::string& text : texts) {
    SCOPED_TRACE(text.substr(0, 40));
    SetInstallInfo(text);
    EXPECT_EQ(Stored(kInstallInfoKey), text);
    EXPECT_EQ(GetInstallInfo(), text);
  }
}

TEST_F(BootStateTest, FailedReadsAndAMissingStoreNameWhatFailed) {
  Store(BOOT_FS_UUID, "5f1e2d3c-aaaa-bbbb-cccc-000000000001");
  const std::string missing = Path("/etc/talvex/configstore/current-store-1") + " does not exist";
  struct Row {
    const char* name;
    bool noStore;  // else the first key read fails
    std::function<void()> op;
    std::string thrown;
  } rows[] = {
      {"GetBootMode", false, [] { GetBootMode(); }, "2000 Failed to read value for key BOOT_MODE"},
      {"IsAutoConf", false, [] { IsAutoConf(); }, "2000 Failed to read value for key IS_BOOT"},
      {"GetInstallInfo", false, [] { GetInstallInfo(); }, "2000 Failed to read value for key CS_INST_INFO_KEY"},
      {"CleanupBootState", false, CleanupBootState, "2000 Failed to read value for key BOOT_FS_UUID"},
      {"HasBootbankChanged", false, [] { HasBootbankChanged(); }, "2000 Failed to read value for key BOOT_FS_UUID"},
      {"SetBootMode", true, [] { SetBootMode(BOOT_MODE_NEW_STORE); }, "2000 Failed to connect to database: " + missing},
      {"GetBootMode", true, [] { GetBootMode(); }, "2000 Failed to connect to database: " + missing},
      {"SetLiveInstallBoot", true, [] { SetLiveInstallBoot("true"); },
       "2000 Failed to connect to database: " + missing},
      {"CleanupBootState", true, CleanupBootState, "2000 Failed to connect to database: " + missing},
      {"SetInstallInfo", true, [] { SetInstallInfo("x"); }, "2000 Failed to connect to database. " + missing},
      {"GetInstallInfo", true, [] { GetInstallInfo(); }, "2000 Failed to connect to database. " + missing},
      {"IsAutoConf", true, [] { IsAutoConf(); }, "2000 Failed to read value for key IS_BOOT"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.name) + (row.noStore ? ", no store" : ", failed read"));
    if (row.noStore) {
      RemoveStore();
    } else {
      DBStore::faults::Arm(Kind::KvRead, 1, false);
    }
    EXPECT_EQ(Thrown(row.op), row.thrown);
    DBStore::faults::Disarm();
  }
  // The flag writers ignore the missing store.
  EXPECT_NO_THROW(StartAutoConf());
  EXPECT_NO_THROW(EndAutoConf());
  EXPECT_NO_THROW(EnableNexdNotification(true));
  EXPECT_FALSE(Exists("/etc/talvex/configstore/current-store-1")) << "no store is created on the way";
}

}  // namespace
