// The host layer: root and paths, feature switches, files.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <optional>
#include <stdexcept>

#include "platform/host/Features.h"
#include "platform/host/Files.h"
#include "platform/host/HostRoot.h"
#include "tests/support/Sandbox.h"

namespace {

using HostTest = cstest::SandboxTest;

// A relative root (even one that starts like an option) is made absolute, so no path handed to the
// host's shell commands reads as an option; a refused root leaves the previous one.
TEST_F(HostTest, RootIsCheckedMadeAbsoluteAndJoinedToAbsolutePaths) {
  for (const std::string& bad :
       std::initializer_list<std::string>{root_ + "/bad root", root_ + "/bad$root", std::string()}) {
    EXPECT_THROW(Host::SetRoot(bad), std::invalid_argument) << bad;
  }
  EXPECT_EQ(Host::Root(), root_);
  Host::SetRoot(root_ + "/az09_.+-x//");
  const std::string root = Host::Root();
  const std::string resolved = Host::Resolve("/etc/talvex/features") + "|" + Host::Resolve("relative") + "|" + Host::Resolve("");
  Host::SetRoot("-h1/x/..");
  const std::string relative = Host::Root();
  Host::SetRoot("/");
  const std::string slash = Host::Root() + "|" + Host::Resolve("/etc") + "|" + std::to_string(Host::IsSandbox());
  Host::SetRoot(root_);
  EXPECT_EQ(root, root_ + "/az09_.+-x");
  EXPECT_EQ(resolved, root + "/etc/talvex/features|relative|");
  EXPECT_EQ(relative, (std::filesystem::current_path() / "-h1").string());
  EXPECT_EQ(slash, "|/etc|0");
}

// What the library removes must lie inside the root once the links of its directories are followed.
TEST_F(HostTest, InsideRootFollowsLinkedDirectoriesButNotTheLastElement) {
  const std::string outside = root_ + "-outside";
  std::filesystem::create_directories(outside);
  std::filesystem::create_directories(root_ + "/var/cache");
  std::filesystem::create_symlink(outside, root_ + "/var/cache/datafiles");
  std::filesystem::create_symlink(outside, root_ + "/link-out");
  const std::pair<std::string, bool> cases[] = {
      {root_ + "/etc/talvex/x", true},         {root_ + "/link-out", true},  // the link itself
      {root_ + "/var/cache/datafiles/f", false}, {root_ + "/a/../../victim", false},
      {root_, false},                            {outside + "/f", false}};
  for (const auto& [path, inside] : cases) EXPECT_EQ(Host::InsideRoot(path), inside) << path;
  std::filesystem::remove_all(outside);
}

// Each query reads the file afresh: a missing file, comments and unknown values give the defaults.
TEST_F(HostTest, FeatureSwitchesComeFromTheFileOrTheirDefaults) {
  const std::pair<std::optional<std::string>, std::vector<std::pair<int, bool>>> cases[] = {
      {std::nullopt, {{Host::FEATURE_HOST_CONFIG_FILE, true}, {Host::FEATURE_REDUCED_BACKUP_RESERVATION, false}}},
      {"# switches\n62=off\n# 45=on\n  41 = off   # set by the installer\r\n620=on\ngarbage\n45=on \t\r\n",
       {{Host::FEATURE_SCHEMA_VERSIONING, false}, {Host::FEATURE_SMARTNIC_SCHEMA_FILTER, true},
        {Host::FEATURE_REDUCED_BACKUP_RESERVATION, true}, {Host::FEATURE_HOST_CONFIG_FILE, false}, {6, true}}},
  };
  for (const auto& [file, states] : cases) {
    file ? WriteFile("/etc/talvex/features", *file) : Remove("/etc/talvex/features");
    for (auto [feature, enabled] : states) EXPECT_EQ(Host::FeatureState_IsEnabled(feature), enabled) << feature;
  }
}

TEST_F(HostTest, FilesAreReadWholeAppendedByLineAndReplacedAtomically) {
  ASSERT_TRUE(Host::AppendLine(Path("/var/log/deep/lines.log"), "first"));
  const std::string bytes("a\0b\xff\n\r\0", 7);
  std::string error;
  ASSERT_TRUE(Host::WriteFileAtomically(Path("/new/bin.dat"), bytes, &error)) << error;
  std::string content = "kept";
  EXPECT_FALSE(Host::ReadFile(Path("/missing"), &content));
  EXPECT_EQ(content, "kept");
  ASSERT_TRUE(Host::ReadFile(Path("/var/log/deep/lines.log"), &content));
  EXPECT_EQ(content, "first\n");
  ASSERT_TRUE(Host::ReadFile(Path("/new/bin.dat"), &content));
  EXPECT_EQ(content, bytes);

  WriteFile("/blocker", "x");
  EXPECT_FALSE(Host::AppendLine(Path("/blocker/sub/file.log"), "line"));
  EXPECT_FALSE(Host::MakeDirs(Path("/blocker/sub")));
  EXPECT_TRUE(Host::MakeDirs(Path("/a/b/c")));
  EXPECT_FALSE(Host::WriteFileAtomically(Path("/a/b"), "x", &error));  // a directory is not replaced
  EXPECT_EQ(error, Path("/a/b") + ": cannot be replaced: Is a directory");
  // A write that fails midway (the file size limit here) is reported and leaves nothing behind.
  rlimit saved{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
  auto handler = std::signal(SIGXFSZ, SIG_IGN);
  rlimit small = saved;
  small.rlim_cur = 4096;
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  bool written = Host::WriteFileAtomically(Path("/big"), std::string(8192, 'b'), &error);
  setrlimit(RLIMIT_FSIZE, &saved);
  std::signal(SIGXFSZ, handler);
  EXPECT_FALSE(written);
  EXPECT_EQ(error, Path("/big.tmp") + ": cannot be written: File too large");
  EXPECT_FALSE(Exists("/big.tmp"));
}

}  // namespace
