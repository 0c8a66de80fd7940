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
using DBStore::faults::Kind;

// Runs `op` and returns the ConfigStoreException it threw; fails the test when it throws nothing.
ConfigStoreException ThrownBy(const std::function<void()>& op) {
  try {
    op();
  } catch (const ConfigStoreException& e) {
    return e;
  }
  ADD_FAILURE() << "no ConfigStoreException thrown";
  return ConfigStoreException(0, "");
}

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
      {"", kNumber, 0},
      {"3abc", kNumber, 3},
      {"4", kNumber, 4},
      {" 2", kNumber, 2},
      {"-1", kNumber, -1},
      {"2147483647", kNumber, 2147483647},
      {"abc", kInvalid, 0},
      {"x3", kInvalid, 0},
      {"99999999999", kOutOfRange, 0},
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

TEST_F(BootStateTest, EndAutoConfStoresEmptyTextNotFalse) {
  StartAutoConf();
  EXPECT_EQ(Stored("IS_BOOT"), "true");
  EXPECT_TRUE(IsAutoConf());
  EXPECT_TRUE(Logged("ConfigStore autoconf start", 2));

  EndAutoConf();
  EXPECT_EQ(Stored("IS_BOOT"), "");
  EXPECT_FALSE(IsAutoConf());
  EXPECT_TRUE(Logged("ConfigStore endconf end", 2));

  Store("IS_BOOT", "TRUE");
  EXPECT_FALSE(IsAutoConf()) << "only the exact text counts";
}

TEST_F(BootStateTest, NexdNotificationStoresTrueOrFalse) {
  EnableNexdNotification(true);
  EXPECT_EQ(Stored("NOTIFY_NEXD"), "true");
  EXPECT_TRUE(Logged("ConfigStore nexd notification enabled = 1", 2));
  EnableNexdNotification(false);
  EXPECT_EQ(Stored("NOTIFY_NEXD"), "false");
  EXPECT_TRUE(Logged("ConfigStore nexd notification enabled = 0", 2));
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

TEST_F(BootStateTest, SetLiveInstallBootWithoutStatusTouchesNothing) {
  Store(POST_LIVE_INSTALL_BOOT, "true");
  EXPECT_EQ(SetLiveInstallBoot(nullptr), 1);
  EXPECT_EQ(Stored(POST_LIVE_INSTALL_BOOT), "true");
  EXPECT_TRUE(Logged("Live install marker not set, since input status was not provided.", 0));

  RemoveStore();
  EXPECT_EQ(SetLiveInstallBoot(nullptr), 1) << "no connection is even asked for";
}

TEST_F(BootStateTest, SetLiveInstallBootReturnsTheFailedWrite) {
  DBStore::faults::Arm(Kind::KvWrite, 1, false);
  int rc = SetLiveInstallBoot("true");
  EXPECT_NE(rc, 0);
  EXPECT_TRUE(Logged("POST_LIVE_INSTALL_BOOT=true completed with rc = " + std::to_string(rc), 2));
  EXPECT_EQ(Stored(POST_LIVE_INSTALL_BOOT), "");
}

TEST_F(BootStateTest, CleanupBootStateWithNothingChangedWritesAndLogsNothing) {
  Store(BOOT_FS_UUID, "5f1e2d3c-aaaa-bbbb-cccc-000000000001");
  Store(POST_LIVE_INSTALL_BOOT, "false");
  log_.Clear();
  DBStore::faults::ResetCounts();
  CleanupBootState();
  EXPECT_EQ(DBStore::faults::Calls(Kind::KvWrite), 0);
  EXPECT_TRUE(log_.Lines().empty()) << log_.Lines().front().text;
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
    log_.Clear();
    CleanupBootState();
    EXPECT_EQ(Stored(BOOT_FS_UUID), row.current);
    EXPECT_EQ(Logged(std::string("Setting BOOT_FS_UUID to ") + row.current + ".", 2), row.uuidWritten);
    EXPECT_EQ(Stored(POST_LIVE_INSTALL_BOOT), row.markerAfter);
    EXPECT_EQ(Logged("Setting POST_LIVE_INSTALL_BOOT back to false.", 2), std::string(row.marker) == "true");
  }
}

TEST_F(BootStateTest, CleanupBootStateWritesNothingWhenTheNodesCannotBeTrusted) {
  Store(BOOT_FS_UUID, "uuid-old");
  Store(POST_LIVE_INSTALL_BOOT, "true");
  SetBootUuid("uuid-new");
  BreakSignature();
  ConfigStoreException e = ThrownBy(CleanupBootState);
  EXPECT_EQ(e.code(), 2000);
  EXPECT_STREQ(e.what(), "Failed to invoke PLON_CheckSig");

  ASSERT_TRUE(PLON_WriteSignature());
  RemoveNode("/system/bootFsUUID");
  e = ThrownBy(CleanupBootState);
  EXPECT_STREQ(e.what(), "Failed to get boot fs uuid.");
  EXPECT_EQ(Stored(BOOT_FS_UUID), "uuid-old");
  EXPECT_EQ(Stored(POST_LIVE_INSTALL_BOOT), "true");
}

TEST_F(BootStateTest, CleanupBootStateKeepsTheUuidWrittenBeforeAFailedMarkerRead) {
  Store(BOOT_FS_UUID, "uuid-old");
  SetBootUuid("uuid-new");
  DBStore::faults::Arm(Kind::KvRead, 2, false);
  ConfigStoreException e = ThrownBy(CleanupBootState);
  EXPECT_STREQ(e.what(), "Failed to read value for key POST_LIVE_INSTALL_BOOT");
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

TEST_F(BootStateTest, MissingStoreFailsTheCheckedOperationsOnly) {
  RemoveStore();
  struct Row {
    const char* name;
    std::function<void()> op;
    const char* message;
  } rows[] = {
      {"SetBootMode", [] { SetBootMode(BOOT_MODE_NEW_STORE); }, "Failed to connect to database"},
      {"GetBootMode", [] { GetBootMode(); }, "Failed to connect to database"},
      {"SetLiveInstallBoot", [] { SetLiveInstallBoot("true"); }, "Failed to connect to database"},
      {"CleanupBootState", [] { CleanupBootState(); }, "Failed to connect to database"},
      {"SetInstallInfo", [] { SetInstallInfo("x"); }, "Failed to connect to database."},
      {"GetInstallInfo", [] { GetInstallInfo(); }, "Failed to connect to database."},
      {"IsAutoConf", [] { IsAutoConf(); }, "Failed to read value for key IS_BOOT"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    ConfigStoreException e = ThrownBy(row.op);
    EXPECT_EQ(e.code(), 2000);
    EXPECT_STREQ(e.what(), row.message);
  }
  // The flag writers ignore the missing store.
  EXPECT_NO_THROW(StartAutoConf());
  EXPECT_NO_THROW(EndAutoConf());
  EXPECT_NO_THROW(EnableNexdNotification(true));
  EXPECT_FALSE(Exists("/etc/talvex/configstore/current-store-1")) << "no store is created on the way";
}

TEST_F(BootStateTest, FailedKeyReadNamesTheKey) {
  Store(BOOT_FS_UUID, "5f1e2d3c-aaaa-bbbb-cccc-000000000001");
  struct Row {
    const char* key;
    std::function<void()> op;
  } rows[] = {
      {"BOOT_MODE", [] { GetBootMode(); }},
      {"IS_BOOT", [] { IsAutoConf(); }},
      {"CS_INST_INFO_KEY", [] { GetInstallInfo(); }},
      {"BOOT_FS_UUID", [] { CleanupBootState(); }},
      {"BOOT_FS_UUID", [] { HasBootbankChanged(); }},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.key);
    DBStore::faults::Arm(Kind::KvRead, 1, false);
    ConfigStoreException e = ThrownBy(row.op);
    EXPECT_EQ(e.code(), 2000);
    EXPECT_EQ(std::string(e.what()), std::string("Failed to read value for key ") + row.key);
  }
}

}  // namespace
