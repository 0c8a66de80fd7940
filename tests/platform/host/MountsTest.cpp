#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

#include "platform/host/Mounts.h"
#include "tests/support/Sandbox.h"

namespace {

using MountsTest = cstest::SandboxTest;

TEST_F(MountsTest, SandboxMountIsRecordedAndItsDirectoryCreated) {
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

TEST_F(MountsTest, NothingRecordedBeforeTheFirstMount) { EXPECT_TRUE(Host::RecordedMounts().empty()); }

TEST_F(MountsTest, TargetBlockedByAFileFails) {
  WriteFile("/var/run/talvex/configstore", "not a directory");
  EXPECT_EQ(Host::Mount("none", "/var/run/talvex/configstore", "lumafs", 0, "32,32,0,0,0,01777,configstore"), -1);
  EXPECT_TRUE(Host::RecordedMounts().empty());
}

}  // namespace
