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

TEST_F(UpgradeModulesTest, BootModulesRunInTheGivenOrderWithTheCommitFlag) {
  const std::string a = BootModule("record_a");
  const std::string b = BootModule("record_b");
  for (bool commit : {true, false}) {
    SCOPED_TRACE(commit ? "commit" : "debugging run");
    WriteFile(kRuns, "");
    log_.Clear();

    EXPECT_EQ(QorConfigUpgrade::ExecuteBootTimeModules({b, a}, commit), 0);

    EXPECT_EQ(Runs(), (Strings{Run("record_b", BOOT, commit), Run("record_a", BOOT, commit)}));
    for (const auto& path : {a, b}) {
      EXPECT_TRUE(log_.Contains("Upgrade module [" + path + "] started", CSLogger::PRIO_INFO)) << path;
      EXPECT_TRUE(log_.Contains("Upgrade module [" + path + "] succeeded in ", CSLogger::PRIO_INFO)) << path;
    }
    // What a module logs through its context is tagged with its path.
    EXPECT_TRUE(log_.Contains("Upgrade module [" + a + "]: record_a " +
                                  (commit ? "changed the store" : "would change the store"),
                              CSLogger::PRIO_INFO));
    EXPECT_FALSE(log_.Contains("", CSLogger::PRIO_ERROR));
  }
}

struct BadModule {
  std::string what;
  std::string path;
  std::string reason;  // in the error line after "Upgrade module [<path>] "
  std::string ranAs;   // tag its entry point records; "" when it must not be called
};

TEST_F(UpgradeModulesTest, AFailingModuleIsLoggedByPathAndTheOthersStillRun) {
  WriteFile(kBootDir + "/text.so", std::string(200, 'x'));
  const std::vector<BadModule> cases = {
      {"returns non-zero", BootModule("returns_3"), "returned 3", "returns_3"},
      {"missing file", Path(kBootDir + "/missing.so"), "cannot be loaded: ", ""},
      {"not a shared object", Path(kBootDir + "/text.so"), "cannot be loaded: ", ""},
      {"unresolved symbol", BootModule("unresolved"),
       "cannot be loaded: " + BootModule("unresolved") + ": undefined symbol: ConfigUpgradeTestMissingFunction", ""},
      {"no entry point", BootModule("no_entry"), "has no entry point ConfigUpgradeModuleRun: ", ""},
      {"C++ exception", BootModule("throws"), "threw an exception: module exploded", ""},
      {"other ABI version", BootModule("wrong_abi"), "has ABI version 999, the host supports 1", ""},
      {"no ABI version", BootModule("no_abi"), "does not declare its ABI version: ", ""},
      {"relative path", "record_a.so", "refused: not an absolute path", ""},
      {"empty path", "", "refused: not an absolute path", ""},
  };
  const std::string a = BootModule("record_a");
  const std::string b = BootModule("record_b");
  for (const auto& bad : cases) {
    SCOPED_TRACE(bad.what);
    WriteFile(kRuns, "");
    log_.Clear();

    EXPECT_EQ(QorConfigUpgrade::ExecuteBootTimeModules({a, bad.path, b}, true), 1);

    Strings expected{Run("record_a", BOOT, true)};
    if (!bad.ranAs.empty()) expected.push_back(Run(bad.ranAs, BOOT, true));
    expected.push_back(Run("record_b", BOOT, true));
    EXPECT_EQ(Runs(), expected);
    EXPECT_TRUE(log_.Contains("Upgrade module [" + bad.path + "] " + bad.reason, CSLogger::PRIO_ERROR));
    EXPECT_TRUE(log_.Contains("Upgrade module [" + bad.path + "] failed in ", CSLogger::PRIO_INFO));
    EXPECT_EQ(log_.Count("] failed in "), 1u);
  }

  // Every failure counts once.
  Strings all{a};
  for (const auto& bad : cases) all.push_back(bad.path);
  all.push_back(b);
  WriteFile(kRuns, "");
  EXPECT_EQ(QorConfigUpgrade::ExecuteBootTimeModules(all, false), static_cast<int>(cases.size()));
  EXPECT_EQ(Runs(), (Strings{Run("record_a", BOOT, false), Run("returns_3", BOOT, false), Run("record_b", BOOT, false)}));
}

TEST_F(UpgradeModulesTest, EmptyListsSucceedWithoutRunningAnything) {
  BootModule("record_a");
  Install("record_a", kLiveDir);
  EXPECT_EQ(QorConfigUpgrade::ExecuteBootTimeModules({}, true), 0);
  EXPECT_EQ(QorConfigUpgrade::ExecuteLiveInstallModules({}), 0);
  EXPECT_TRUE(Runs().empty());
  EXPECT_FALSE(log_.Contains("started"));
}

TEST_F(UpgradeModulesTest, LiveInstallRunsNamedModulesOfTheLiveDirectoryAndCountsThem) {
  Install("record_a", kLiveDir);
  Install("record_b", kLiveDir);
  BootModule("returns_3");  // a boot-time module of the same name is not the one meant

  EXPECT_EQ(QorConfigUpgrade::ExecuteLiveInstallModules({"record_b", "record_a"}), 2);
  EXPECT_EQ(Runs(), (Strings{Run("record_b", LIVE, true), Run("record_a", LIVE, true)}));

  WriteFile(kRuns, "");
  Install("returns_3", kLiveDir);
  EXPECT_EQ(QorConfigUpgrade::ExecuteLiveInstallModules({"record_a", "returns_3", "absent", "record_b"}), -2);
  EXPECT_EQ(Runs(), (Strings{Run("record_a", LIVE, true), Run("returns_3", LIVE, true), Run("record_b", LIVE, true)}));
  EXPECT_TRUE(log_.Contains("Upgrade module [" + Path(kLiveDir + "/absent.so") + "] cannot be loaded: ",
                            CSLogger::PRIO_ERROR));
}

TEST_F(UpgradeModulesTest, LiveInstallRefusesNamesThatLeaveTheDirectory) {
  // Each name would reach a real module if it were used as given.
  BootModule("record_a");
  Install("record_a", "");
  Install("record_a", kLiveDir + "/sub");
  Install("record_a", kLiveDir);
  const Strings names = {"../lib/record_a", "../../../../../../record_a", "sub/record_a", "..", "",
                         std::string("record_a.so\0", 12)};
  for (const auto& name : names) {
    SCOPED_TRACE(name);
    log_.Clear();
    EXPECT_EQ(QorConfigUpgrade::ExecuteLiveInstallModules({name}), -1);
    EXPECT_TRUE(log_.Contains("Live-install module name [" + std::string(name.c_str()) + "] refused",
                              CSLogger::PRIO_ERROR));
    EXPECT_TRUE(Runs().empty());
  }

  // A refused name does not keep the others from running.
  EXPECT_EQ(QorConfigUpgrade::ExecuteLiveInstallModules({"../lib/record_a", "record_a"}), -1);
  EXPECT_EQ(Runs(), (Strings{Run("record_a", LIVE, true)}));
}

}  // namespace
