#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>

#include "platform/host/HostRoot.h"
#include "tests/support/Sandbox.h"

namespace {

using HostRootTest = cstest::SandboxTest;

TEST_F(HostRootTest, RootWithShellCharacterIsRefusedByName) {
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

TEST_F(HostRootTest, PortableRootIsAcceptedAndJoined) {
  const std::string root = root_ + "/Az09_.+-x";
  Host::SetRoot(root + "//");
  EXPECT_EQ(Host::Root(), root);
  EXPECT_TRUE(Host::IsSandbox());
  EXPECT_EQ(Host::Resolve("/etc/talvex/features"), root + "/etc/talvex/features");
  EXPECT_EQ(Host::Resolve("relative/path"), "relative/path");
  EXPECT_EQ(Host::Resolve(""), "");
  Host::SetRoot(root_);
}

TEST_F(HostRootTest, SlashRootLeavesPathsAsTheyAre) {
  Host::SetRoot("/");
  std::string root = Host::Root();
  bool sandbox = Host::IsSandbox();
  std::string resolved = Host::Resolve("/etc/talvex/features");
  Host::SetRoot(root_);
  EXPECT_EQ(root, "");
  EXPECT_FALSE(sandbox);
  EXPECT_EQ(resolved, "/etc/talvex/features");
  EXPECT_TRUE(Host::IsSandbox());
}

TEST_F(HostRootTest, MakeDirsCreatesParentsAndFailsOnAFile) {
  EXPECT_TRUE(Host::MakeDirs(Path("/a/b/c")));
  EXPECT_TRUE(std::filesystem::is_directory(Path("/a/b/c")));
  EXPECT_TRUE(Host::MakeDirs(Path("/a/b/c")));  // already there
  WriteFile("/file", "x");
  EXPECT_FALSE(Host::MakeDirs(Path("/file")));
  EXPECT_FALSE(Host::MakeDirs(Path("/file/sub")));
}

}  // namespace
