// The host layer: root and paths, feature switches, files, mounts under a sandbox root, processes.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cerrno>
#include <filesystem>
#include <optional>
#include <stdexcept>

#include "platform/host/Features.h"
#include "platform/host/Files.h"
#include "platform/host/HostRoot.h"
#include "platform/host/Mounts.h"
#include "platform/host/Process.h"
#include "tests/support/Sandbox.h"

namespace {

using HostTest = cstest::SandboxTest;

TEST_F(HostTest, RootWithShellCharacterIsRefusedByName) {
  for (char c : std::string(" \"';$*`&|<>\\")) {
    std::string root = root_ + "/bad" + c + "root";
    SCOPED_TRACE(root);
    try {
      Host::SetRoot(root);
      ADD_FAILURE() << "accepted";
    } catch (const std::invalid_argument& e) {
      EXPECT_NE(std::string(e.what()).find(std::string("'") + c + "'"), std::string::npos) << e.what();
    }
    EXPECT_EQ(Host::Root(), root_);  // the previous root stays
  }
}

TEST_F(HostTest, RootIsJoinedToAbsolutePathsOnlyAndSlashMeansNone) {
  const std::string root = root_ + "/Az09_.+-x";
  Host::SetRoot(root + "//");
  EXPECT_EQ(Host::Root(), root);
  EXPECT_TRUE(Host::IsSandbox());
  EXPECT_EQ(Host::Resolve("/etc/talvex/features"), root + "/etc/talvex/features");
  EXPECT_EQ(Host::Resolve("relative/path"), "relative/path");
  EXPECT_EQ(Host::Resolve(""), "");

  Host::SetRoot("/");
  std::string slashRoot = Host::Root();
  bool sandbox = Host::IsSandbox();
  std::string resolved = Host::Resolve("/etc/talvex/features");
  Host::SetRoot(root_);
  EXPECT_EQ(slashRoot, "");
  EXPECT_FALSE(sandbox);
  EXPECT_EQ(resolved, "/etc/talvex/features");
  EXPECT_TRUE(Host::IsSandbox());
}

// A root given relative (even one that starts like an option) is made absolute, so no path handed to
// the host's shell commands can be read as an option; an explicit empty root is refused, never "/".
TEST_F(HostTest, RootIsMadeAbsoluteAndAnEmptyOneRefused) {
  const std::filesystem::path cwd = std::filesystem::current_path();
  Host::SetRoot("-h1/x/..");
  std::string relative = Host::Root();
  EXPECT_THROW(Host::SetRoot(""), std::invalid_argument);
  std::string afterEmpty = Host::Root();
  Host::SetRoot(root_);
  EXPECT_EQ(relative, (cwd / "-h1").string());
  EXPECT_EQ(afterEmpty, relative) << "a refused root changes nothing";
}

// What the library removes must lie inside the root once the links of its directories are followed.
TEST_F(HostTest, InsideRootFollowsLinkedDirectoriesButNotTheLastElement) {
  const std::string outside = root_ + "-outside";
  std::filesystem::create_directories(outside);
  std::filesystem::create_directories(root_ + "/var/cache");
  std::filesystem::create_symlink(outside, root_ + "/var/cache/datafiles");
  std::filesystem::create_symlink(outside, root_ + "/link-out");
  struct Case {
    std::string path;
    bool inside;
  } cases[] = {
      {root_ + "/etc/talvex/x", true},
      {root_ + "/link-out", true},  // the link itself, not where it points
      {root_ + "/var/cache/datafiles/f", false},
      {root_ + "/../victim/file", false},
      {root_ + "/a/../../victim", false},
      {root_, false},
      {root_ + "/..", false},
      {outside + "/f", false},
  };
  for (const Case& c : cases) EXPECT_EQ(Host::InsideRoot(c.path), c.inside) << c.path;
  std::filesystem::remove_all(outside);
}

// Each query reads the file afresh: a missing file, comments and unknown values give the defaults.
TEST_F(HostTest, FeatureSwitchesComeFromTheFileOrTheirDefaults) {
  struct Case {
    std::optional<std::string> file;
    std::vector<std::pair<int, bool>> states;
  };
  const Case cases[] = {
      {std::nullopt,
       {{Host::FEATURE_HOST_CONFIG_FILE, true}, {Host::FEATURE_REDUCED_BACKUP_RESERVATION, false},
        {Host::FEATURE_SCHEMA_VERSIONING, true}, {Host::FEATURE_SMARTNIC_SCHEMA_FILTER, true}}},
      {"# platform switches\n62=off\n70=on\n# 45=on\n  41 = off   # set by the installer\r\n620=on\ngarbage line\n",
       {{Host::FEATURE_SCHEMA_VERSIONING, false}, {Host::FEATURE_SMARTNIC_SCHEMA_FILTER, true},
        {Host::FEATURE_REDUCED_BACKUP_RESERVATION, false}, {Host::FEATURE_HOST_CONFIG_FILE, false}, {6, true}}},
      {"45=yes\n62=maybe\n", {{Host::FEATURE_REDUCED_BACKUP_RESERVATION, false}, {Host::FEATURE_SCHEMA_VERSIONING, true}}},
      {"45=on\n", {{Host::FEATURE_REDUCED_BACKUP_RESERVATION, true}}},
      {"45=off\n", {{Host::FEATURE_REDUCED_BACKUP_RESERVATION, false}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file.value_or("<no file>"));
    if (c.file) {
      WriteFile("/etc/talvex/features", *c.file);
    } else {
      Remove("/etc/talvex/features");
    }
    for (auto [feature, enabled] : c.states) EXPECT_EQ(Host::FeatureState_IsEnabled(feature), enabled) << feature;
  }
  log_.Clear();
  WriteFile("/etc/talvex/features", "62=off\n");
  FeatureState_InitSilentMode();
  EXPECT_FALSE(Host::FeatureState_IsEnabled(Host::FEATURE_SCHEMA_VERSIONING));
  EXPECT_TRUE(log_.Lines().empty());
}

TEST_F(HostTest, FilesAreReadWholeAndAppendedByLine) {
  const std::string file = Path("/var/log/deep/dir/lines.log");
  ASSERT_TRUE(Host::AppendLine(file, "first"));
  ASSERT_TRUE(Host::AppendLine(file, ""));
  ASSERT_TRUE(Host::AppendLine(file, "third"));
  std::string content;
  ASSERT_TRUE(Host::ReadFile(file, &content));
  EXPECT_EQ(content, "first\n\nthird\n");

  const std::string bytes("a\0b\xff\n\r\0", 7);
  WriteFile("/bin.dat", bytes);
  ASSERT_TRUE(Host::ReadFile(Path("/bin.dat"), &content));
  EXPECT_EQ(content, bytes);

  content = "kept";
  EXPECT_FALSE(Host::ReadFile(Path("/missing"), &content));
  EXPECT_EQ(content, "kept");
  WriteFile("/blocker", "x");
  EXPECT_FALSE(Host::AppendLine(Path("/blocker/sub/file.log"), "line"));
  EXPECT_FALSE(Host::MakeDirs(Path("/blocker")));
  EXPECT_FALSE(Host::MakeDirs(Path("/blocker/sub")));
  EXPECT_EQ(ReadFile("/blocker"), "x");
  EXPECT_TRUE(Host::MakeDirs(Path("/a/b/c")));
  EXPECT_TRUE(std::filesystem::is_directory(Path("/a/b/c")));
  EXPECT_TRUE(Host::MakeDirs(Path("/a/b/c")));  // already there
}

TEST_F(HostTest, SandboxMountsAreRecordedAndTheirDirectoriesCreated) {
  WriteFile("/var/run/talvex/blocked", "not a directory");
  EXPECT_EQ(Host::Mount("none", "/var/run/talvex/blocked", "lumafs", 0, "32,32,0,0,0,01777,configstore"), -1);
  EXPECT_TRUE(Host::RecordedMounts().empty());

  ASSERT_EQ(Host::Mount("none", "/var/run/talvex/configstore", "lumafs", 0, "32,32,0,0,0,01777,configstore"), 0);
  ASSERT_EQ(Host::Mount("none", "/var/run/talvex/configstorebkp", "lumafs", 4096, nullptr), 0);
  EXPECT_TRUE(std::filesystem::is_directory(Path("/var/run/talvex/configstore")));
  EXPECT_TRUE(std::filesystem::is_directory(Path("/var/run/talvex/configstorebkp")));
  const std::vector<std::string> expected = {
      "none /var/run/talvex/configstore lumafs 0 32,32,0,0,0,01777,configstore",
      "none /var/run/talvex/configstorebkp lumafs 4096 ",
  };
  EXPECT_EQ(Host::RecordedMounts(), expected);
  EXPECT_EQ(ReadFile("/var/run/talvex/mounts.log"), expected[0] + "\n" + expected[1] + "\n");
}

TEST_F(HostTest, SpawnedProgramsGetTheirArgumentsAndReportTheirExitStatus) {
  std::string marker = Path("/marker");
  const std::vector<std::vector<const char*>> cases = {
      {"/bin/true", nullptr},
      {"/bin/false", nullptr},
      {"/bin/sh", "-c", "echo \"$0\" > \"$1\"; exit 4", "hello", marker.c_str(), nullptr}};
  const int codes[] = {0, 1, 4};
  for (size_t i = 0; i < cases.size(); ++i) {
    SCOPED_TRACE(cases[i][0]);
    pid_t pid = -1;
    ASSERT_EQ(Host::SpawnProcess(cases[i].data(), &pid), 0);
    ASSERT_GT(pid, 0);
    int status = -1;
    ASSERT_EQ(Host::WaitProcess(pid, &status), 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), codes[i]);
    EXPECT_EQ(Host::WaitProcess(pid, &status), -1);  // already reaped
  }
  EXPECT_EQ(ReadFile("/marker"), "hello\n");

  pid_t pid = -1;
  std::string missing = Path("/no/such/program");
  const char* absent[] = {missing.c_str(), nullptr};
  EXPECT_EQ(Host::SpawnProcess(absent, &pid), ENOENT);
  const char* bare[] = {"true", nullptr};  // not searched in PATH
  EXPECT_EQ(Host::SpawnProcess(bare, &pid), ENOENT);
  const char* empty[] = {nullptr};
  EXPECT_EQ(Host::SpawnProcess(empty, &pid), EINVAL);
  EXPECT_EQ(Host::SpawnProcess(nullptr, &pid), EINVAL);
}

TEST_F(HostTest, ShellReturnsExitCodes) {
  EXPECT_EQ(Host::RunShell("true"), 0);
  EXPECT_EQ(Host::RunShell("exit 3"), 3);
  EXPECT_EQ(Host::RunShell("false || exit 7"), 7);
  EXPECT_EQ(Host::RunShell("kill -9 $$"), -1);  // killed by a signal
  EXPECT_EQ(Host::RunShell("echo written > " + Path("/shell-out")), 0);
  EXPECT_EQ(ReadFile("/shell-out"), "written\n");
}

}  // namespace
