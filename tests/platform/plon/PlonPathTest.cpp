#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "platform/plon/Plon.h"
#include "tests/support/Sandbox.h"

namespace {

using PlonPathTest = cstest::SandboxTest;

// What the persistence filter does with a file's inode: form the node path, read the record and
// take the archive name from byte 36.
TEST_F(PlonPathTest, InodeStatsPathReadsTheArchiveName) {
  std::string record(256, '\0');
  record.replace(0, 8, "inodehdr");
  record.replace(36, 11, "corekit.v00");
  ASSERT_TRUE(PLON_WriteNodeFile("/system/lumafs/inodes/1234/stats", record));
  ASSERT_EQ(PLON_CheckSig(), NUK_SIGNATURE_MISMATCH);  // forming does not depend on the signature

  PLONSHPath* path = nullptr;
  ASSERT_EQ(PLONSHPath_Form("/system/lumafs/inodes/1234/stats", &path), NUK_OK);
  ASSERT_NE(path, nullptr);
  PLON_NodeId node = PLON_NODE_INVALID;
  size_t size = 0;
  ASSERT_EQ(PLONSHPath_GetLeafElement(path, &node, &size), NUK_OK);
  EXPECT_EQ(node, PLON_NODE_system_lumafs_inodes_stats);
  EXPECT_EQ(size, 256u);
  PLON_ParamList* args = nullptr;
  ASSERT_EQ(PLONSHPath_GetInstArgs(path, &args), NUK_OK);
  PLONSHPath_Delete(path);  // the list outlives the path

  ASSERT_EQ(PLON_ParamListCount(args), 1);
  EXPECT_EQ(PLON_ParamListGetString(args, 0), "1234");
  EXPECT_EQ(PLON_ParamListAddInt(args, 5), NUK_LIMIT_EXCEEDED);
  std::vector<char> buffer(size, 'x');
  ASSERT_EQ(PLON_Get(node, args, buffer.data(), buffer.size()), NUK_OK);
  EXPECT_STREQ(buffer.data() + 36, "corekit.v00");
  PLON_ParamListDestroy(args);
}

TEST_F(PlonPathTest, KnownPathsFormTheirNodes) {
  struct Case {
    const char* text;
    PLON_NodeId node;
    size_t size;
    std::vector<std::string> args;
  };
  const Case cases[] = {
      {"/system/bootCmdLine", PLON_NODE_system_bootCmdLine, 4096, {}},
      {"/system/bootOption", PLON_NODE_system_bootOption, 4, {}},
      {"/system/bootMAC", PLON_NODE_system_bootMAC, 21, {}},
      {"/system/bootFsUUID", PLON_NODE_system_bootFsUUID, 38, {}},
      {"/system/sysAlert", PLON_NODE_system_sysAlert, 0, {}},
      {"/system/lumafs/ramdisks/configstore/memUsageLimit", PLON_NODE_system_lumafs_ramdisks_memUsageLimit, 0,
       {"configstore"}},
      {"/system/lumafs/inodes/0/stats", PLON_NODE_system_lumafs_inodes_stats, 256, {"0"}},
      {"/system/lumafs/inodes/9223372036854775807/stats", PLON_NODE_system_lumafs_inodes_stats, 256,
       {"9223372036854775807"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    PLONSHPath* path = nullptr;
    ASSERT_EQ(PLONSHPath_Form(c.text, &path), NUK_OK);
    PLON_NodeId node = PLON_NODE_INVALID;
    size_t size = 1;
    PLON_ParamList* args = nullptr;
    EXPECT_EQ(PLONSHPath_GetLeafElement(path, &node, &size), NUK_OK);
    EXPECT_EQ(PLONSHPath_GetInstArgs(path, &args), NUK_OK);
    PLONSHPath_Delete(path);
    EXPECT_EQ(node, c.node);
    EXPECT_EQ(size, c.size);
    std::vector<std::string> got;
    for (int i = 0; i < PLON_ParamListCount(args); ++i) got.push_back(PLON_ParamListGetString(args, i));
    EXPECT_EQ(got, c.args);
    PLON_ParamListDestroy(args);
  }
}

TEST_F(PlonPathTest, UnknownOrMalformedPathsAreNotFound) {
  const char* texts[] = {
      "",
      "/",
      "system/bootCmdLine",
      "/system/bootCmdLine/",
      "//system/bootCmdLine",
      "/system/BootCmdLine",
      "/system/bootCmdLine/extra",
      "/system/lumafs/inodes/stats",
      "/system/lumafs/inodes//stats",
      "/system/lumafs/inodes/abc/stats",
      "/system/lumafs/inodes/-1/stats",
      "/system/lumafs/inodes/+1/stats",
      "/system/lumafs/inodes/12x/stats",
      "/system/lumafs/inodes/99999999999999999999/stats",
      "/system/lumafs/ramdisks/../memUsageLimit",
      "/system/lumafs/ramdisks/./memUsageLimit",
  };
  for (const char* text : texts) {
    SCOPED_TRACE(text);
    PLONSHPath* path = reinterpret_cast<PLONSHPath*>(&texts);
    EXPECT_EQ(PLONSHPath_Form(text, &path), NUK_NOT_FOUND);
    EXPECT_EQ(path, nullptr);
  }
  PLONSHPath* path = nullptr;
  EXPECT_EQ(PLONSHPath_Form(nullptr, &path), NUK_BAD_PARAM);
  EXPECT_EQ(PLONSHPath_Form("/system/bootMAC", nullptr), NUK_BAD_PARAM);
  PLON_ParamList* args = nullptr;
  EXPECT_EQ(PLONSHPath_GetInstArgs(nullptr, &args), NUK_BAD_PARAM);
  PLON_NodeId node;
  size_t size;
  EXPECT_EQ(PLONSHPath_GetLeafElement(nullptr, &node, &size), NUK_BAD_PARAM);
}

}  // namespace
