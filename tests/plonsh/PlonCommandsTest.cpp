#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "platform/plon/Plon.h"
#include "tests/support/Sandbox.h"
#include "tools/plonsh/PlonCommands.h"

namespace {

namespace fs = std::filesystem;

// A 256-byte inode stats record: the inode number in its first bytes, the archive name from 36.
std::string StatsRecord(unsigned char inode, const std::string& archive) {
  std::string record(256, '\0');
  record[0] = static_cast<char>(inode);
  record[8] = '\x7f';
  record.replace(36, archive.size(), archive);
  return record;
}

class PlonCommandsTest : public cstest::SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    ASSERT_TRUE(PLON_WriteSignature());
    ASSERT_TRUE(PLON_WriteNodeFile("/system/bootCmdLine", "autoPartition=FALSE quiet\n"));
    ASSERT_TRUE(PLON_WriteNodeFile("/system/bootMAC", "00:50:56:aa:bb:cc"));
    ASSERT_TRUE(PLON_WriteNodeFile("/system/lumafs/inodes/12/stats", StatsRecord(12, "state.tgz")));
  }

  plonsh::Reply Run(const std::string& line) { return session_.Execute(line); }
  // The text of a reply that must succeed.
  std::string Ok(const std::string& line) {
    plonsh::Reply reply = session_.Execute(line);
    EXPECT_TRUE(reply.ok) << line << ": " << reply.text;
    return reply.text;
  }

  plonsh::Session session_;
};

TEST_F(PlonCommandsTest, ListsTreeDirectoriesWithKnownNodes) {
  EXPECT_EQ(Ok("ls"), "system/");  // the signature file is hidden
  // Files present plus the known nodes without files (sysAlert can only be set).
  EXPECT_EQ(Ok("ls /system"), "bootCmdLine\nbootFsUUID\nbootMAC\nbootOption\nlumafs/\nsysAlert");
  EXPECT_EQ(Ok("ls /system/lumafs"), "inodes/\nramdisks/");  // ramdisks/ has no files yet
  EXPECT_EQ(Ok("ls /system/lumafs/inodes"), "12/");
  EXPECT_EQ(Ok("ls /system/lumafs/inodes/12"), "stats");
}

TEST_F(PlonCommandsTest, CdResolvesRelativePathsPerSession) {
  EXPECT_EQ(Ok("pwd"), "/");
  Ok("cd system");
  Ok("cd ./lumafs//inodes/");
  EXPECT_EQ(Ok("pwd"), "/system/lumafs/inodes");
  EXPECT_EQ(Ok("ls 12"), "stats");
  Ok("get 12/stats");
  Ok("cd /system");
  EXPECT_EQ(Ok("get bootMAC"), "00:50:56:aa:bb:cc");

  // Another session starts at the top.
  plonsh::Session other;
  EXPECT_EQ(other.Execute("pwd").text, "/");

  // cd into a node, or a directory nobody knows, leaves the directory as it was.
  plonsh::Reply file = Run("cd bootMAC");
  EXPECT_FALSE(file.ok);
  EXPECT_EQ(file.text, "not a directory: /system/bootMAC");
  plonsh::Reply missing = Run("cd nowhere");
  EXPECT_FALSE(missing.ok);
  EXPECT_EQ(missing.text, "no such directory in the node tree: /system/nowhere");
  EXPECT_EQ(Run("pwd").text, "/system");
}

TEST_F(PlonCommandsTest, GetShowsTextOrHexDump) {
  EXPECT_EQ(Ok("get /system/bootCmdLine"), "autoPartition=FALSE quiet");

  const std::string dump = Ok("get /system/lumafs/inodes/12/stats");
  std::vector<std::string> lines;
  for (size_t start = 0; start <= dump.size();) {
    size_t end = dump.find('\n', start);
    if (end == std::string::npos) end = dump.size();
    lines.push_back(dump.substr(start, end - start));
    start = end + 1;
  }
  ASSERT_EQ(lines.size(), 16u);
  EXPECT_EQ(lines[0].substr(0, 36), "00000000  0c 00 00 00 00 00 00 00 7f");
  EXPECT_EQ(lines[2].substr(0, 9), "00000020 ");
  EXPECT_NE(lines[2].find("|....state.tgz...|"), std::string::npos) << lines[2];
  EXPECT_EQ(lines[15].substr(0, 9), "000000f0 ");

  // Instance arguments fill the instance elements.
  EXPECT_EQ(Ok("get /system/lumafs/inodes/stats 12"), dump);
  Ok("cd /system/lumafs");
  EXPECT_EQ(Ok("get inodes/stats 12"), dump);
}

TEST_F(PlonCommandsTest, SetRecordsAlertsAndLimits) {
  Ok("set /system/sysAlert disk  \"almost full; act now\"");
  EXPECT_EQ(RecordedAlerts(), std::vector<std::string>{"disk almost full; act now"});

  Ok("set /system/lumafs/ramdisks/tmp/memUsageLimit 80 95");
  EXPECT_EQ(ReadFile("/sys/plon/system/lumafs/ramdisks/tmp/memUsageLimit"), "80 95\n");

  struct Case {
    const char* line;
    const char* error;
  };
  const Case cases[] = {
      {"set /system/lumafs/ramdisks/tmp/memUsageLimit 90 80",
       "bad arguments: limits are 0..100 per cent with the warning not above the error"},
      {"set /system/lumafs/ramdisks/tmp/memUsageLimit 80 x",
       "bad arguments: memUsageLimit takes a warning and an error per cent (integers)"},
      {"set /system/lumafs/ramdisks/tmp/memUsageLimit 80",
       "bad arguments: memUsageLimit takes a warning and an error per cent (integers)"},
      {"set /system/bootMAC 00:11", "node cannot be set: /system/bootMAC"},
      {"set /system/sysAlert", "bad arguments: set takes a path and a value"},
      {"get /system/sysAlert", "node cannot be read: /system/sysAlert (it can only be set)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    plonsh::Reply reply = Run(c.line);
    EXPECT_FALSE(reply.ok);
    EXPECT_EQ(reply.text, c.error);
  }
  // The refused limits left the recorded ones alone.
  EXPECT_EQ(ReadFile("/sys/plon/system/lumafs/ramdisks/tmp/memUsageLimit"), "80 95\n");
}

TEST_F(PlonCommandsTest, RefusesPathsOutOfTheTreeAndUnknownNodes) {
  WriteFile("/etc/secret", "password");
  fs::create_symlink(Path("/etc"), Path("/sys/plon/system/out"));
  fs::create_symlink(Path("/etc"), Path("/sys/plon/system/lumafs/ramdisks"));
  fs::create_symlink(Path("/nowhere"), Path("/sys/plon/system/dangling"));

  struct Case {
    std::string line;
    const char* error;
  };
  const Case cases[] = {
      {"ls ..", "'..' is not allowed in node paths: .."},
      {"cd /system/../..", "'..' is not allowed in node paths: /system/../.."},
      {"get /system/lumafs/inodes/../../bootMAC",
       "'..' is not allowed in node paths: /system/lumafs/inodes/../../bootMAC"},
      {"ls /system/out", "refused: /system/out leads out of the node tree"},
      {"cd /system/out", "refused: /system/out leads out of the node tree"},
      {"ls /system/dangling", "refused: /system/dangling leads out of the node tree"},
      {"set /system/lumafs/ramdisks/x/memUsageLimit 1 2",
       "refused: /system/lumafs/ramdisks/x/memUsageLimit leads out of the node tree"},
      {"ls /etc", "no such directory in the node tree: /etc"},
      {"get /etc/secret", "unknown node: /etc/secret"},
      {"get /system/nothing", "unknown node: /system/nothing"},
      {"get /system/lumafs/inodes/abc/stats", "unknown node: /system/lumafs/inodes/abc/stats"},
      {"get /system/lumafs/inodes/stats 1 2", "unknown node: /system/lumafs/inodes/stats with 2 instance argument(s)"},
      {"get /system/lumafs/inodes/stats ../12", "bad arguments: instance '../12' is not a single path element"},
      {"get /system/bootFsUUID", "node does not exist: /system/bootFsUUID"},
      {"get /system/lumafs/inodes/13/stats", "node does not exist: /system/lumafs/inodes/13/stats"},
      {"get", "bad arguments: get takes a path and its instance arguments"},
      {"cd", "bad arguments: cd takes one path"},
      {"frobnicate", "unknown command: frobnicate (try help)"},
      {"get 'bootMAC", "bad arguments: unterminated quote"},
      {std::string("get /system/boot\0MAC", 20), "bad arguments: the command holds a NUL byte"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    plonsh::Reply reply = Run(c.line);
    EXPECT_FALSE(reply.ok);
    EXPECT_EQ(reply.text, c.error);
  }
  EXPECT_EQ(Run("pwd").text, "/");
  EXPECT_FALSE(Exists("/etc/x"));
}

TEST(PlonshSplitCommands, SplitsOnSemicolonsOutsideQuotes) {
  EXPECT_EQ(plonsh::SplitCommands("cd /system; ls;pwd"), (std::vector<std::string>{"cd /system", " ls", "pwd"}));
  EXPECT_EQ(plonsh::SplitCommands("set /system/sysAlert 'a; b'; pwd"),
            (std::vector<std::string>{"set /system/sysAlert 'a; b'", " pwd"}));
}

}  // namespace
