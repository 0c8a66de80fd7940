#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "platform/upgrade/QorConfigUpgrade.h"
#include "tests/support/Sandbox.h"

namespace {

namespace fs = std::filesystem;
using Strings = std::vector<std::string>;

const std::string kBootDir = "/usr/lib/talvex/configmanager/upgrade/lib";
const std::string kLiveDir = QorConfigUpgrade::kLiveInstallModuleDir;
// Where the recording test modules append one line per run.
const std::string kRuns = "/var/tmp/upgrade-module-runs";

enum Mode { BOOT = 0, LIVE = 1 };

class UpgradeModulesTest : public cstest::SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    WriteFile(kRuns, "");
  }

  // Copies the built test module `name` to "<root><hostDir>/<name>.so"; returns that path.
  std::string Install(const std::string& name, const std::string& hostDir) const {
    const std::string target = Path(hostDir + "/" + name + ".so");
    fs::create_directories(fs::path(target).parent_path());
    fs::copy_file(std::string(UPGRADE_TEST_MODULE_DIR) + "/" + name + ".so", target,
                  fs::copy_options::overwrite_existing);
    return target;
  }
  std::string BootModule(const std::string& name) const { return Install(name, kBootDir); }

  Strings Runs() const {
    Strings lines;
    std::istringstream in(ReadFile(kRuns));
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }
  // The line a recording module writes for one run.
  std::string Run(const std::string& tag, Mode mode, bool commit) const {
    return tag + " mode=" + std::to_string(mode) + " commit=" + (commit ? "1" : "0") +
           " store=" + Path("/etc/talvex/configstore/current-store-1");
  }
};

// Modules run in the order given, each once, with the commit flag; a failing one is logged by its
// path and counted, and the others still run.
TEST_F(UpgradeModulesTest, BootModulesRunInOrderAndFailuresAreLoggedByPath) {
  const std::string a = BootModule("record_a"), b = BootModule("record_b");
  const std::tuple<std::string, std::string, std::string> cases[] = {  // path, reason, tag it records
      {BootModule("returns_3"), "returned 3", "returns_3"},
      {Path(kBootDir + "/missing.so"), "cannot be loaded: ", ""},
      {BootModule("unresolved"),
       "cannot be loaded: " + BootModule("unresolved") + ": undefined symbol: ConfigUpgradeTestMissingFunction", ""},
      {BootModule("no_entry"), "has no entry point ConfigUpgradeModuleRun: ", ""},
      {BootModule("throws"), "threw an exception: module exploded", ""},
      {BootModule("wrong_abi"), "has ABI version 999, the host supports 1", ""},
      {BootModule("no_abi"), "does not declare its ABI version: ", ""},
      {"record_a.so", "refused: not an absolute path", ""},
  };
  for (const auto& [path, reason, ranAs] : cases) {
    WriteFile(kRuns, "");
    log_.Clear();
    EXPECT_EQ(QorConfigUpgrade::ExecuteBootTimeModules({a, path, b}, true), 1) << path;
    Strings expected{Run("record_a", BOOT, true)};
    if (!ranAs.empty()) expected.push_back(Run(ranAs, BOOT, true));
    expected.push_back(Run("record_b", BOOT, true));
    EXPECT_EQ(Runs(), expected);
    EXPECT_TRUE(log_.Contains("Upgrade module [" + path + "] " + reason, CSLogger::PRIO_ERROR)) << path;
    EXPECT_EQ(log_.Count("] failed in "), 1u);
  }
  EXPECT_TRUE(log_.Contains("Upgrade module [" + a + "] succeeded in ", CSLogger::PRIO_INFO));
  // What a module logs through its context is tagged with its path.
  EXPECT_TRUE(log_.Contains("Upgrade module [" + a + "]: record_a changed the store", CSLogger::PRIO_INFO));
  WriteFile(kRuns, "");
  EXPECT_EQ(QorConfigUpgrade::ExecuteBootTimeModules({b, std::get<0>(cases[0]), a, ""}, false), 2);
  EXPECT_EQ(Runs(), (Strings{Run("record_b", BOOT, false), Run("returns_3", BOOT, false), Run("record_a", BOOT, false)}));
}

// Live-install modules are named, found in the live directory only, and counted; a name that
// would leave the directory (each would reach a real module if used as given) is refused.
TEST_F(UpgradeModulesTest, LiveInstallRunsNamedModulesOfTheLiveDirectoryOnly) {
  for (const std::string& dir : {std::string(""), kLiveDir + "/sub", kLiveDir}) Install("record_a", dir);
  Install("record_b", kLiveDir);
  Install("returns_3", kLiveDir);
  BootModule("record_a");
  EXPECT_EQ(QorConfigUpgrade::ExecuteLiveInstallModules({"record_b", "record_a"}), 2);
  EXPECT_EQ(Runs(), (Strings{Run("record_b", LIVE, true), Run("record_a", LIVE, true)}));
  WriteFile(kRuns, "");
  EXPECT_EQ(QorConfigUpgrade::ExecuteLiveInstallModules({"returns_3", "absent", "record_b"}), -2);
  EXPECT_EQ(Runs(), (Strings{Run("returns_3", LIVE, true), Run("record_b", LIVE, true)}));
  EXPECT_TRUE(log_.Contains("Upgrade module [" + Path(kLiveDir + "/absent.so") + "] cannot be loaded: ", CSLogger::PRIO_ERROR));
  for (const std::string& name : Strings{"../lib/record_a", "sub/record_a", "", std::string("record_a.so\0", 12)}) {
    WriteFile(kRuns, "");
    EXPECT_EQ(QorConfigUpgrade::ExecuteLiveInstallModules({name, "record_b"}), -1) << name;
    EXPECT_TRUE(log_.Contains("Live-install module name [" + std::string(name.c_str()) + "] refused", CSLogger::PRIO_ERROR));
    EXPECT_EQ(Runs(), (Strings{Run("record_b", LIVE, true)}));
  }
}

}  // namespace
