// The boot load on the sample host root: first boot, reboot, upgrade boot, and its failure paths.
#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>

#include "configstore/boot/LoadStore.h"
#include "configstore/bootstate/BootState.h"
#include "configstore/frame/CallFrame.h"
#include "configstore/frame/Documents.h"
#include "configstore/packages/PackageFiles.h"
#include "tests/support/Sandbox.h"

namespace QorConfigStore {
namespace {

using testing::HasSubstr;

class LoadStoreTest : public cstest::SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    CopyExampleHost();
  }

  std::string Key(const std::string& key) {
    std::string value;
    EXPECT_EQ(DBStore::ReadKeyValue(key, &value, GetDBConnection(DBStore::CONFIG_STORE, true)), 0);
    return value;
  }

  long Count(const std::string& sql, bool schemaStore = false) {
    auto conn = GetDBConnection(DBStore::CONFIG_STORE, true);
    if (schemaStore) {
      EXPECT_EQ(DBStore::AttachSchemaStore(conn), 0);
    }
    long n = -1;
    EXPECT_EQ(DBStore::QueryEach(conn, sql, [&n](const DBStore::Row& row) { n = static_cast<long>(row.Int(0)); }), 0);
    return n;
  }

  std::string AnyDeclaredFile() {
    for (const auto& [category, paths] : GetKitFiles()) {
      if (!paths.empty()) return paths.front();
    }
    return "";
  }

  // The state an ordinary reboot finds: the store in place, this boot bank recorded, no first-boot marker.
  void PrepareOrdinaryBoot() {
    ASSERT_EQ(LoadStore(true), 0);
    CleanupBootState();
    Remove("/var/lib/talvex/firstboot/current-store-1");
    log_.Clear();
  }
};

TEST_F(LoadStoreTest, FirstBootFillsANewStoreFromTheBootDocument) {
  ASSERT_EQ(LoadStore(true), 0);
  EXPECT_GT(Count("SELECT COUNT(*) FROM ss.ConfigSchema", true), 0) << "a new boot bank registers schemas";
  EXPECT_GT(Count("SELECT COUNT(*) FROM Config"), 0) << "the boot document was applied";
  EXPECT_EQ(Count("SELECT COUNT(*) FROM Config WHERE DesiredValue IS NOT NULL"), 0);
  EXPECT_EQ(Key("BOOT_INFO"), "{\"type\":0}");
  EXPECT_TRUE(IsAutoConf());
  EXPECT_EQ(Key("BOOT_APPLY_RESULT"), "{\"isBootComplete\":false}");
  EXPECT_TRUE(log_.Contains("Generating desired user config: BootMode = 2"));
  EXPECT_TRUE(log_.Contains("LoadStore End."));
  EXPECT_FALSE(Exists("/tmp/config-upgrade-marker")) << "a first boot is no upgrade";
  EXPECT_THAT(ReadFile("/var/log/configstore-boot.log"), HasSubstr("LoadStore Start."));
  EXPECT_TRUE(RecordedAlerts().empty());
}

TEST_F(LoadStoreTest, OrdinaryBootKeepsTheStoreAndRegistersNothing) {
  PrepareOrdinaryBoot();
  auto conn = GetDBConnection(DBStore::CONFIG_STORE, true);
  ASSERT_EQ(DBStore::Exec(conn, "UPDATE Config SET DesiredValue = '{\"x\":1}'"), 0);
  long rows = Count("SELECT COUNT(*) FROM Config");
  ASSERT_EQ(LoadStore(false), 0);
  EXPECT_EQ(Count("SELECT COUNT(*) FROM Config"), rows) << "the store on the ramdisk is used as it stands";
  EXPECT_EQ(Count("SELECT COUNT(*) FROM Config WHERE UserValue = '{\"x\":1}'"), rows) << "desired values folded";
  EXPECT_FALSE(log_.Contains("[SchemaProcessor]")) << "an unchanged boot bank registers no schemas";
  EXPECT_TRUE(log_.Contains("Generating desired user config: BootMode = 0"));

  SetBootMode(BOOT_MODE_DESIRED_USER_CONFIG);
  ASSERT_EQ(LoadStore(false), 0);
  EXPECT_EQ(Key("BOOT_INFO"), "{\"type\":1}");
  EXPECT_EQ(GetBootMode(), BOOT_MODE_DEFAULT);
}

TEST_F(LoadStoreTest, FailedUpgradeModuleStillCompletesTheBoot) {
  PrepareOrdinaryBoot();
  // A changed boot bank without a first-boot marker: a configuration upgrade boot.
  WriteFile("/sys/plon/system/bootFsUUID", "00000000-aaaa-bbbb-cccc-000000000001");
  std::filesystem::create_directories(Path("/usr/lib/talvex/configmanager/upgrade/lib"));
  std::filesystem::copy_file(FAILING_UPGRADE_MODULE, Path("/usr/lib/talvex/configmanager/upgrade/lib/fails.so"),
                             std::filesystem::copy_options::overwrite_existing);
  auto conn = GetDBConnection(DBStore::CONFIG_STORE, true);
  ASSERT_EQ(DBStore::Exec(conn, "INSERT INTO Config (Component, ConfigGroup, Name, Identifier, UserValue) "
                             "VALUES ('gone', 'pkg', 'key', '', '{}')"),
            0);
  BootReport report;
  ASSERT_EQ(LoadStore(false, &report), 0);
  EXPECT_TRUE(Exists("/tmp/config-upgrade-marker"));
  EXPECT_TRUE(log_.Contains("Configuration upgrade failed.", CSLogger::PRIO_ERROR));
  EXPECT_EQ(Count("SELECT COUNT(*) FROM Config WHERE Component = 'gone'"), 0);
  const auto upgrade = std::find_if(report.stages.begin(), report.stages.end(),
                                    [](const BootStage& stage) { return stage.name == "upgrade"; });
  ASSERT_NE(upgrade, report.stages.end());
  EXPECT_EQ(upgrade->detail, "1 upgrade modules, some failed; 1 objects without schema pruned");
  EXPECT_TRUE(log_.Contains("LoadStore End."));
}

TEST_F(LoadStoreTest, UpgradeLeftoversWithoutSchemaAreRemoved) {
  PrepareOrdinaryBoot();
  std::string kit = AnyDeclaredFile();
  ASSERT_FALSE(kit.empty()) << "the sample packages declare files";
  WriteFile(kit, "declared");
  WriteFile("/etc/stale/left.conf", "left behind");
  // The list is anyone's to write: a path that climbs out of the root names nothing of this host.
  const std::string victim = root_ + "-victim";
  std::filesystem::create_directories(victim);
  WriteFile("/v", "");
  std::filesystem::copy_file(Path("/v"), victim + "/file");
  WriteFile("/var/run/nonSchemaFiles", kit.substr(1) + "\netc/stale/left.conf\netc/stale/vanished.conf\n../" +
                                           std::filesystem::path(victim).filename().string() + "/file\n");
  ASSERT_EQ(LoadStore(false), 0);
  EXPECT_TRUE(Exists(kit));
  EXPECT_FALSE(Exists("/etc/stale/left.conf"));
  EXPECT_TRUE(std::filesystem::exists(victim + "/file")) << "removed outside the host root";
  std::filesystem::remove_all(victim);
  EXPECT_TRUE(log_.Contains("[" + kit.substr(1) + "] file has schema."));
  EXPECT_TRUE(log_.Contains("[etc/stale/left.conf] file does not have schema."));
}

// A boot mode that is not a number (written by hand, or a damaged store) must not fail every boot:
// no mode step runs, the mode goes back to 0, and the operator is alerted.
TEST_F(LoadStoreTest, UnknownBootModeIsAlertedAndTheBootGoesOn) {
  PrepareOrdinaryBoot();
  for (const char* text : {"abc", "99999999999"}) {
    SCOPED_TRACE(text);
    auto conn = GetDBConnection(DBStore::CONFIG_STORE, true);
    ASSERT_EQ(DBStore::WriteKeyValue("BOOT_MODE", text, conn), 0);
    ASSERT_EQ(DBStore::Exec(conn, "UPDATE Config SET DesiredValue = '{\"x\":1}'"), 0);
    BootReport report;
    ASSERT_EQ(LoadStore(false, &report), 0);
    EXPECT_EQ(Key("BOOT_MODE"), "0");
    EXPECT_EQ(Count("SELECT COUNT(*) FROM Config WHERE DesiredValue IS NOT NULL"), 0) << "the fold still ran";
    const std::string alert = std::string("ConfigStore boot mode \"") + text + "\" is not a number";
    EXPECT_THAT(report.alerts, testing::Contains(testing::StartsWith(alert)));
  }
}

TEST_F(LoadStoreTest, RecordedFailuresBecomeAlerts) {
  PrepareOrdinaryBoot();
  WriteFile("/var/run/talvex/files/loadStoreErrors.json",
            R"({"zebs":[{"zebMsg":"Error %s in %s","zebArgs":["a","b"]},{"zebMsg":"%s then %s","zebArgs":["x%s","y"]}]})");
  ASSERT_EQ(LoadStore(false), 0);
  EXPECT_THAT(RecordedAlerts(), testing::ElementsAre("Error a in b", "xy then %s"));
  EXPECT_TRUE(Exists("/var/run/talvex/files/loadStoreErrors.json")) << "the file is left in place";
}

TEST_F(LoadStoreTest, FatalFailureIsAlertedAndReturnsOne) {
  PrepareOrdinaryBoot();
  const char* bad[] = {R"([{"zebMsg":"x"}])", R"({"zebs":[{"zebMsg":"one %s","zebArgs":["a","b"]}]})", "{"};
  for (const char* text : bad) {
    SCOPED_TRACE(text);
    WriteFile("/var/run/talvex/files/loadStoreErrors.json", text);
    log_.Clear();
    EXPECT_EQ(LoadStore(false), 1);
    EXPECT_THAT(RecordedAlerts(), testing::Contains(testing::StartsWith("Generic ConfigStore Failure: ")));
    bool systemLogged = false;
    for (const auto& line : log_.Lines()) {
      systemLogged |= line.system && line.text.rfind("Generic ConfigStore Failure: ", 0) == 0;
    }
    EXPECT_TRUE(systemLogged);
  }
  const std::string bootLog = ReadFile("/var/log/configstore-boot.log");
  CSLogger::Log(CSLogger::PRIO_INFO, "a line after the failed loads");
  EXPECT_EQ(ReadFile("/var/log/configstore-boot.log"), bootLog) << "a failed load left the boot log attached";
}

TEST_F(LoadStoreTest, TrackFilesWritesOrLeavesItsList) {
  WriteFile("/var/run/talvex/files/backup-list", "old\n");
  TrackFiles({}, FILE_TYPE_BACKUP_LIST);
  EXPECT_EQ(ReadFile("/var/run/talvex/files/backup-list"), "old\n");
  TrackFiles({"/etc/a", "/etc/b"}, FILE_TYPE_BACKUP_LIST);
  EXPECT_EQ(ReadFile("/var/run/talvex/files/backup-list"), "/etc/a\n/etc/b\n");
  TrackFiles({"/etc/c"}, FILE_TYPE_NON_SCHEMA_FILES);
  EXPECT_EQ(ReadFile("/var/run/nonSchemaFiles"), "/etc/c\n");
}

}  // namespace
}  // namespace QorConfigStore
