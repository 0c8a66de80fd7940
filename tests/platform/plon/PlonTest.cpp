// The kernel node tree under a sandbox root: paths, reads, alerts, usage limits, parameter lists.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <filesystem>
#include <memory>
#include <sstream>

#include "errors/Json.h"
#include "platform/plon/Plon.h"
#include "tests/support/Sandbox.h"

namespace {

struct ListDeleter {
  void operator()(PLON_ParamList* list) const { PLON_ParamListDestroy(list); }
};
using ListPtr = std::unique_ptr<PLON_ParamList, ListDeleter>;

ListPtr Strings(const std::vector<std::string>& values) {
  ListPtr list(PLON_ParamListCreate(static_cast<int>(values.size())));
  for (const auto& v : values) EXPECT_EQ(PLON_ParamListAddString(list.get(), v.c_str()), NUK_OK);
  return list;
}

ListPtr Ints(const std::vector<int64_t>& values) {
  ListPtr list(PLON_ParamListCreate(static_cast<int>(values.size())));
  for (int64_t v : values) EXPECT_EQ(PLON_ParamListAddInt(list.get(), v), NUK_OK);
  return list;
}

const PLON_NodeId kAlert = PLON_NODE_system_sysAlert, kLimits = PLON_NODE_system_lumafs_ramdisks_memUsageLimit,
                  kInode = PLON_NODE_system_lumafs_inodes_stats;

class PlonTest : public cstest::SandboxTest {
 protected:
  bool NothingUnderRoot() const {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root_)) {
      if (entry.is_regular_file()) return false;
    }
    return true;
  }
};

// Known paths form their node, record size and instance arguments; anything else is not found.
TEST_F(PlonTest, PathsFormTheirNodesOrAreNotFound) {
  const std::tuple<const char*, PLON_NodeId, size_t, std::vector<std::string>> cases[] = {
      {"/system/bootCmdLine", PLON_NODE_system_bootCmdLine, 4096, {}},
      {"/system/bootFsUUID", PLON_NODE_system_bootFsUUID, 38, {}},
      {"/system/sysAlert", kAlert, 0, {}},
      {"/system/lumafs/ramdisks/configstore/memUsageLimit", kLimits, 0, {"configstore"}},
      {"/system/lumafs/inodes/9223372036854775807/stats", kInode, 256, {"9223372036854775807"}},
  };
  for (const auto& [text, node, size, args] : cases) {
    PLONSHPath* path = nullptr;
    ASSERT_EQ(PLONSHPath_Form(text, &path), NUK_OK) << text;
    PLON_NodeId formed = PLON_NODE_INVALID;
    size_t formedSize = 1;
    PLON_ParamList* list = nullptr;
    EXPECT_EQ(PLONSHPath_GetLeafElement(path, &formed, &formedSize), NUK_OK);
    EXPECT_EQ(PLONSHPath_GetInstArgs(path, &list), NUK_OK);
    PLONSHPath_Delete(path);  // the list outlives the path
    EXPECT_EQ(formed, node);
    EXPECT_EQ(formedSize, size);
    std::vector<std::string> got;
    for (int i = 0; i < PLON_ParamListCount(list); ++i) got.push_back(PLON_ParamListGetString(list, i));
    EXPECT_EQ(got, args) << text;
    PLON_ParamListDestroy(list);
  }
  for (const char* text : {"", "system/bootCmdLine", "/system/bootCmdLine/extra", "/system/lumafs/inodes/stats",
                           "/system/lumafs/inodes/12x/stats", "/system/lumafs/inodes/99999999999999999999/stats"}) {
    PLONSHPath* path = nullptr;
    EXPECT_EQ(PLONSHPath_Form(text, &path), NUK_NOT_FOUND) << text;
  }
}

// What the persistence filter does: read an inode's record and take the archive name from byte 36.
TEST_F(PlonTest, ReadCopiesTheNodeAndNoMore) {
  char buffer[256];
  std::memset(buffer, 'x', sizeof buffer);
  EXPECT_EQ(PLON_Get(PLON_NODE_system_bootFsUUID, nullptr, buffer, 38), NUK_NOT_FOUND);
  EXPECT_EQ(std::string(buffer, 38), std::string(38, 'x')) << "a failed read leaves the buffer alone";
  std::string record(256, '\0');
  record.replace(36, 11, "corekit.v00");
  ASSERT_TRUE(PLON_WriteNodeFile("/system/lumafs/inodes/1234/stats", record));
  ASSERT_EQ(PLON_Get(kInode, Ints({1234}).get(), buffer, sizeof buffer), NUK_OK);
  EXPECT_STREQ(buffer + 36, "corekit.v00");
  // A buffer smaller than the node gets its first bytes; the bytes past `size` stay untouched.
  ASSERT_TRUE(PLON_WriteNodeFile("/system/bootMAC", "00:50:56:aa:bb:cc"));
  std::memset(buffer, '#', sizeof buffer);
  ASSERT_EQ(PLON_Get(PLON_NODE_system_bootMAC, nullptr, buffer, 8), NUK_OK);
  EXPECT_EQ(std::string(buffer, 12), "00:50:56####");
}

TEST_F(PlonTest, WrongNodesAndArgumentsAreRefused) {
  // Wrong parameters of a write are refused before anything is written.
  const std::tuple<PLON_NodeId, ListPtr, ListPtr> sets[] = {
      {PLON_NODE_system_bootCmdLine, nullptr, Strings({"quiet"})},
      {kAlert, nullptr, nullptr},
      {kAlert, nullptr, Strings({"a", "b"})},
      {kLimits, Strings({"configstore"}), Ints({80})},
      {kLimits, Strings({"configstore"}), Ints({90, 80})},  // warning above error
      // Ramdisk names that would leave the tree ("../../../../../x" would land on "<root>/x/memUsageLimit").
      {kLimits, Strings({"../../../../../x"}), Ints({80, 90})},
  };
  for (const auto& [node, instance, input] : sets) {
    EXPECT_EQ(PLON_Set(node, instance.get(), input.get()), node == PLON_NODE_system_bootCmdLine ? NUK_NOT_SUPPORTED
                                                                                                 : NUK_BAD_PARAM);
  }
  for (const std::string path : {"/../escape", "/system//bootMAC", "system/bootMAC"}) {
    EXPECT_FALSE(PLON_WriteNodeFile(path, "x")) << path;
  }
  EXPECT_TRUE(NothingUnderRoot());
  ASSERT_EQ(PLON_Set(kLimits, Strings({"configstore"}).get(), Ints({70, 95}).get()), NUK_OK);  // and a good one is kept
  EXPECT_EQ(ReadFile("/sys/plon/system/lumafs/ramdisks/configstore/memUsageLimit"), "70 95\n");
  ASSERT_TRUE(PLON_WriteNodeFile("/system/bootCmdLine", "x"));
  ASSERT_TRUE(PLON_WriteNodeFile("/system/lumafs/inodes/12/stats", std::string(256, 'r')));
  const auto unknown = static_cast<PLON_NodeId>(99);
  const std::tuple<PLON_NodeId, ListPtr, NUK_ReturnStatus> reads[] = {
      {PLON_NODE_system_bootCmdLine, Strings({"a"}), NUK_BAD_PARAM},  // a node without instances
      {kInode, nullptr, NUK_BAD_PARAM},
      {kInode, Ints({-12}), NUK_BAD_PARAM},
      {unknown, nullptr, NUK_BAD_PARAM},
      {kAlert, nullptr, NUK_NOT_SUPPORTED},
  };
  for (const auto& [node, args, status] : reads) {
    char buffer[256] = {};
    EXPECT_EQ(PLON_Get(node, args.get(), buffer, sizeof buffer), status) << node;
    EXPECT_EQ(buffer[0], '\0');
  }
}

// Bytes that are not UTF-8 (a stray continuation byte, an overlong '/', a surrogate) become
// replacement characters.
TEST_F(PlonTest, AlertsAreJsonLinesWithTheExactMessage) {
  const std::string bad = "\xEF\xBF\xBD";
  const std::pair<std::string, std::string> messages[] = {
      {"say \"hello\" \\ and\nsecond line\r\n\ttabbed \x01\x1f", "say \"hello\" \\ and\nsecond line\r\n\ttabbed \x01\x1f"},
      {"a\x80z \xC0\xAF \xED\xA0\x80.", "a" + bad + "z " + bad + bad + " " + bad + bad + bad + "."},
  };
  ListPtr none(PLON_ParamListCreate(0));  // an empty instance list is no instance argument
  for (const auto& m : messages) ASSERT_EQ(PLON_Set(kAlert, none.get(), Strings({m.first}).get()), NUK_OK);
  std::istringstream in(ReadFile("/var/log/sysalerts.jsonl"));
  size_t i = 0;
  for (std::string line; std::getline(in, line); ++i) {
    ASSERT_LT(i, std::size(messages));
    rapidjson::Document d;
    d.Parse<rapidjson::kParseValidateEncodingFlag>(line.c_str());
    ASSERT_TRUE(!d.HasParseError() && d.IsObject() && d["time"].IsInt64() && d["message"].IsString()) << line;
    EXPECT_GT(d["time"].GetInt64(), 1'500'000'000'000);  // milliseconds, not seconds
    EXPECT_EQ(std::string(d["message"].GetString(), d["message"].GetStringLength()), messages[i].second);
  }
  EXPECT_EQ(i, std::size(messages));
  Remove("/var/log");
  WriteFile("/var/log", "a file where the log directory belongs");
  EXPECT_EQ(PLON_Set(kAlert, nullptr, Strings({"lost"}).get()), NUK_IO_ERROR);
}

TEST_F(PlonTest, SignatureMustMatchThisVersion) {
  EXPECT_EQ(PLON_CheckSig(), NUK_SIGNATURE_MISMATCH);  // no file
  ASSERT_TRUE(PLON_WriteSignature());
  EXPECT_EQ(PLON_CheckSig(), NUK_OK);
  for (const char* content : {"plon-nodes-v", "plon-nodes-v1\n\n"}) {
    WriteFile("/sys/plon/.signature", content);
    EXPECT_EQ(PLON_CheckSig(), NUK_SIGNATURE_MISMATCH) << content;
  }
}

TEST_F(PlonTest, ParamListsHoldTheirCapacityAndNoMore) {
  ListPtr list(PLON_ParamListCreate(2));
  EXPECT_EQ(PLON_ParamListAddString(list.get(), "configstore"), NUK_OK);
  EXPECT_EQ(PLON_ParamListAddInt(list.get(), -42), NUK_OK);
  EXPECT_EQ(PLON_ParamListAddInt(list.get(), 1), NUK_LIMIT_EXCEEDED);
  EXPECT_EQ(PLON_ParamListCount(list.get()), 2);
  EXPECT_EQ(PLON_ParamListGetString(list.get(), 1), "-42");
  EXPECT_EQ(PLON_ParamListGetString(list.get(), -1), "");
  // An index far past the count reads no slot (a read there would land outside the heap).
  EXPECT_EQ(PLON_ParamListGetString(list.get(), INT_MAX), "");
  EXPECT_EQ(PLON_ParamListCreate(-1), nullptr);
  EXPECT_EQ(PLON_ParamListAddString(list.get(), nullptr), NUK_BAD_PARAM);
}

}  // namespace
