// The boot load on the sample host root: first boot, reboot, upgrade boot, and its failure paths.
#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>

#include "configstore/boot/LoadStore.h"
#include "configstore/bootstate/BootState.h"
#include "configstore/frame/CallFrame.h"
#include "configstore/packages/PackageFiles.h"
#include "tests/support/Sandbox.h"
#include "tests/support/StoreRows.h"

namespace QorConfigStore {
namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::StartsWith;

class LoadStoreTest : public cstest::SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    CopyExampleHost();
  }
  std::string Key(const std::string& key) {
    return cstest::StoredKeyValue(GetDBConnection(DBStore::CONFIG_STORE, true), key);
  }
  // The one value of a query on the store, the schema store attached as "ss".
  std::string Value(const std::string& sql) {
    auto conn = GetDBConnection(DBStore::CONFIG_STORE, true);
    EXPECT_EQ(DBStore::AttachSchemaStore(conn), 0);
    std::vector<std::string> rows = cstest::JoinedRows(conn, sql, "NULL");
    return rows.size() == 1 ? rows[0] : "(" + std::to_string(rows.size()) + " rows)";
  }
  void Sql(const std::string& sql) { ASSERT_EQ(DBStore::Exec(GetDBConnection(DBStore::CONFIG_STORE, true), sql), 0); }
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
  EXPECT_NE(Value("SELECT COUNT(*) FROM ss.ConfigSchema"), "0") << "a new boot bank registers schemas";
  EXPECT_EQ(Value("SELECT COUNT(*) > 0, COUNT(DesiredValue) FROM Config"), "1|0") << "the boot document was applied";
  EXPECT_EQ(Key("BOOT_INFO"), "{\"type\":0}");
  EXPECT_TRUE(IsAutoConf());
  EXPECT_EQ(Key("BOOT_APPLY_RESULT"), "{\"isBootComplete\":false}");
  EXPECT_TRUE(log_.Contains("Generating desired user config: BootMode = 2"));
  EXPECT_FALSE(Exists("/tmp/config-upgrade-marker")) << "a first boot is no upgrade";
  EXPECT_THAT(ReadFile("/var/log/configstore-boot.log"), HasSubstr("LoadStore End."));
  EXPECT_TRUE(RecordedAlerts().empty());
}

// A boot mode that is not a number (written by hand, or a damaged store) must not fail every boot: no
// mode step runs, the desired values are folded, the mode goes back to 0 and the operator is alerted;
// an unchanged boot bank registers no schemas.
TEST_F(LoadStoreTest, BootModeThatIsNoNumberIsAlertedAndReset) {
  PrepareOrdinaryBoot();
  for (const std::string mode : {"abc", "99999999999"}) {
    ASSERT_EQ(DBStore::WriteKeyValue("BOOT_MODE", mode, GetDBConnection(DBStore::CONFIG_STORE, true)), 0);
    Sql("UPDATE Config SET DesiredValue = '{\"x\":1}'");
    BootReport report;
    ASSERT_EQ(LoadStore(false, &report), 0);
    EXPECT_EQ(Value("SELECT COUNT(*) FROM Config WHERE UserValue IS NOT '{\"x\":1}' OR DesiredValue IS NOT NULL"), "0");
    EXPECT_EQ(Key("BOOT_MODE"), "0");
    EXPECT_EQ(Key("BOOT_INFO"), "{\"type\":0}");
    EXPECT_THAT(report.alerts, Contains(StartsWith("ConfigStore boot mode \"" + mode + "\" is not a number")));
  }
  EXPECT_FALSE(log_.Contains("[SchemaProcessor]"));
}

// Files an upgrade left behind that no package declares go; the list is anyone's to write, so a path
// that climbs out of the root names nothing of this host.
TEST_F(LoadStoreTest, UpgradeBootRunsTheModulesAndPrunesObjectsAndFilesWithoutSchema) {
  PrepareOrdinaryBoot();
  // A changed boot bank without a first-boot marker: a configuration upgrade boot.
  WriteFile("/sys/plon/system/bootFsUUID", "00000000-aaaa-bbbb-cccc-000000000001");
  std::filesystem::create_directories(Path("/usr/lib/talvex/configmanager/upgrade/lib"));
  std::filesystem::copy_file(FAILING_UPGRADE_MODULE, Path("/usr/lib/talvex/configmanager/upgrade/lib/fails.so"));
  Sql("INSERT INTO Config (Component, ConfigGroup, Name, Identifier, UserValue) VALUES ('gone', 'pkg', 'key', '', "
      "'{}')");
  const std::string kit = GetKitFiles().begin()->second.front(), victim = root_ + "-victim";
  WriteFile(kit, "declared");
  WriteFile("/etc/stale/left.conf", "left behind");
  std::filesystem::create_directories(victim);
  std::filesystem::copy_file(Path("/etc/stale/left.conf"), victim + "/file");
  WriteFile("/var/run/nonSchemaFiles", kit.substr(1) + "\netc/stale/left.conf\netc/stale/vanished.conf\n../" +
                                           std::filesystem::path(victim).filename().string() + "/file\n");
  BootReport report;
  ASSERT_EQ(LoadStore(false, &report), 0);
  EXPECT_TRUE(Exists("/tmp/config-upgrade-marker"));
  EXPECT_EQ(Value("SELECT COUNT(*) FROM Config WHERE Component = 'gone'"), "0");
  std::string details;
  for (const BootStage& stage : report.stages) details += stage.name + ": " + stage.detail + "\n";
  EXPECT_THAT(details, HasSubstr("upgrade: 1 upgrade modules, some failed; 1 objects without schema pruned"));
  EXPECT_TRUE(Exists(kit));
  EXPECT_FALSE(Exists("/etc/stale/left.conf"));
  EXPECT_TRUE(std::filesystem::exists(victim + "/file")) << "removed outside the host root";
  std::filesystem::remove_all(victim);
}

// A recorded-failure file that cannot be read is fatal: alerted, logged to the system, and the boot log
// detached (what each file becomes is tested on hostile files in tests/reliability/hostile).
TEST_F(LoadStoreTest, AnUnreadableFailureListIsFatal) {
  PrepareOrdinaryBoot();
  WriteFile("/var/run/talvex/files/loadStoreErrors.json", "{");
  EXPECT_EQ(LoadStore(false), 1);
  EXPECT_THAT(RecordedAlerts().back(), StartsWith("Generic ConfigStore Failure: "));
  const auto lines = log_.Lines();
  EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const auto& line) {
    return line.system && line.text.rfind("Generic ConfigStore Failure: ", 0) == 0;
  }));
  const std::string bootLog = ReadFile("/var/log/configstore-boot.log");
  CSLogger::Log(CSLogger::PRIO_INFO, "a line after the failed load");
  EXPECT_EQ(ReadFile("/var/log/configstore-boot.log"), bootLog) << "a failed load left the boot log attached";
}

}  // namespace
}  // namespace QorConfigStore
