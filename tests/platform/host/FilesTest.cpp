#include <gtest/gtest.h>

#include "platform/host/Files.h"
#include "tests/support/Sandbox.h"

namespace {

using FilesTest = cstest::SandboxTest;

TEST_F(FilesTest, AppendedLinesAreReadBackWhole) {
  const std::string file = Path("/var/log/deep/dir/lines.log");
  ASSERT_TRUE(Host::AppendLine(file, "first"));
  ASSERT_TRUE(Host::AppendLine(file, ""));
  ASSERT_TRUE(Host::AppendLine(file, "third"));
  std::string content;
  ASSERT_TRUE(Host::ReadFile(file, &content));
  EXPECT_EQ(content, "first\n\nthird\n");
}

TEST_F(FilesTest, BinaryContentIsReadUnchanged) {
  const std::string bytes("a\0b\xff\n\r\0", 7);
  WriteFile("/bin.dat", bytes);
  std::string content = "stale";
  ASSERT_TRUE(Host::ReadFile(Path("/bin.dat"), &content));
  EXPECT_EQ(content, bytes);
}

TEST_F(FilesTest, UnreadableOrUnwritablePathsFail) {
  std::string content = "kept";
  EXPECT_FALSE(Host::ReadFile(Path("/missing"), &content));
  EXPECT_EQ(content, "kept");
  WriteFile("/blocker", "x");
  EXPECT_FALSE(Host::AppendLine(Path("/blocker/sub/file.log"), "line"));
  EXPECT_EQ(ReadFile("/blocker"), "x");
}

}  // namespace
