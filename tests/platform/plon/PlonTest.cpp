// The kernel node tree under a sandbox root: paths, reads, alerts, usage limits, parameter lists.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <sstream>
#include <vector>

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

class PlonTest : public cstest::SandboxTest {
 protected:
  // Regular files anywhere under the root.
  std::vector<std::string> FilesUnderRoot() const {
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root_)) {
      if (entry.is_regular_file()) files.push_back(entry.path().string());
    }
    return files;
  }

  std::vector<std::string> AlertLines() const {
    std::vector<std::string> lines;
    std::istringstream in(ReadFile("/var/log/sysalerts.jsonl"));
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }

  NUK_ReturnStatus Alert(const std::string& message) {
    return PLON_Set(PLON_NODE_system_sysAlert, nullptr, Strings({message}).get());
  }

  NUK_ReturnStatus SetLimits(const PLON_ParamList* instance, const PLON_ParamList* input) {
    return PLON_Set(PLON_NODE_system_lumafs_ramdisks_memUsageLimit, instance, input);
  }
};

// What the persistence filter does with a file's inode: form the node path, read the record and
// take the archive name from byte 36.
TEST_F(PlonTest, InodeStatsPathReadsTheArchiveName) {
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

// Known paths form their node, record size and instance arguments; the output type of a readable
// node gives the same size. Anything else is not found.
TEST_F(PlonTest, PathsFormTheirNodesOrAreNotFound) {
  struct Case {
    const char* text;
    PLON_NodeId node;  // PLON_NODE_INVALID: not found
    size_t size;
    std::vector<std::string> args;
  };
  const PLON_NodeId none = PLON_NODE_INVALID;
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
      {"", none, 0, {}},
      {"/", none, 0, {}},
      {"system/bootCmdLine", none, 0, {}},
      {"/system/bootCmdLine/", none, 0, {}},
      {"//system/bootCmdLine", none, 0, {}},
      {"/system/BootCmdLine", none, 0, {}},
      {"/system/bootCmdLine/extra", none, 0, {}},
      {"/system/lumafs/inodes/stats", none, 0, {}},
      {"/system/lumafs/inodes//stats", none, 0, {}},
      {"/system/lumafs/inodes/abc/stats", none, 0, {}},
      {"/system/lumafs/inodes/-1/stats", none, 0, {}},
      {"/system/lumafs/inodes/+1/stats", none, 0, {}},
      {"/system/lumafs/inodes/12x/stats", none, 0, {}},
      {"/system/lumafs/inodes/99999999999999999999/stats", none, 0, {}},
      {"/system/lumafs/ramdisks/../memUsageLimit", none, 0, {}},
      {"/system/lumafs/ramdisks/./memUsageLimit", none, 0, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    PLONSHPath* path = reinterpret_cast<PLONSHPath*>(const_cast<Case*>(&c));  // must be reset on failure
    if (c.node == none) {
      EXPECT_EQ(PLONSHPath_Form(c.text, &path), NUK_NOT_FOUND);
      EXPECT_EQ(path, nullptr);
      continue;
    }
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
    PLON_Type* type = nullptr;
    if (c.size > 0) {
      ASSERT_EQ(PLON_LookupOutputTypeOfGet(c.node, &type), NUK_OK);
      ASSERT_NE(type, nullptr);
      EXPECT_EQ(type->size, c.size);
      PLON_ReleaseType(type);
    }
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

TEST_F(PlonTest, ReadCopiesTheNodeAndNoMore) {
  char uuid[38];
  std::memset(uuid, 'x', sizeof uuid);
  EXPECT_EQ(PLON_Get(PLON_NODE_system_bootFsUUID, nullptr, uuid, sizeof uuid), NUK_NOT_FOUND);
  EXPECT_EQ(std::string(uuid, sizeof uuid), std::string(sizeof uuid, 'x')) << "a failed read leaves the buffer alone";
  char record[256] = {};
  EXPECT_EQ(PLON_Get(PLON_NODE_system_lumafs_inodes_stats, Ints({77}).get(), record, sizeof record), NUK_NOT_FOUND);

  ASSERT_TRUE(PLON_WriteNodeFile("/system/bootCmdLine", "runweasel ks=usb"));
  std::vector<char> line(4096, '\0');
  ASSERT_EQ(PLON_Get(PLON_NODE_system_bootCmdLine, nullptr, line.data(), line.size()), NUK_OK);
  EXPECT_STREQ(line.data(), "runweasel ks=usb");

  // A buffer smaller than the node gets its first bytes; the bytes past `size` stay untouched.
  ASSERT_TRUE(PLON_WriteNodeFile("/system/bootMAC", "00:50:56:aa:bb:cc"));
  char mac[12];
  std::memset(mac, '#', sizeof mac);
  ASSERT_EQ(PLON_Get(PLON_NODE_system_bootMAC, nullptr, mac, 8), NUK_OK);
  EXPECT_EQ(std::string(mac, sizeof mac), "00:50:56####");

  // The boot option record is binary: its fourth byte marks an installer boot.
  ASSERT_TRUE(PLON_WriteNodeFile("/system/bootOption", std::string("\0\0\0\1", 4)));
  unsigned char option[4] = {9, 9, 9, 9};
  ASSERT_EQ(PLON_Get(PLON_NODE_system_bootOption, nullptr, option, sizeof option), NUK_OK);
  EXPECT_EQ(option[0], 0);
  EXPECT_EQ(option[3], 1);

  std::filesystem::create_directories(Path("/sys/plon/system/bootFsUUID"));
  EXPECT_EQ(PLON_Get(PLON_NODE_system_bootFsUUID, nullptr, uuid, sizeof uuid), NUK_IO_ERROR);
}

TEST_F(PlonTest, InstanceArgumentsOfWrongNumberOrKindAreRefused) {
  ASSERT_TRUE(PLON_WriteNodeFile("/system/bootCmdLine", "x"));
  ASSERT_TRUE(PLON_WriteNodeFile("/system/lumafs/inodes/12/stats", std::string(256, 'r')));
  ListPtr empty(PLON_ParamListCreate(0));
  struct Case {
    const char* name;
    PLON_NodeId node;
    ListPtr args;
  };
  Case cases[] = {
      {"argument to a node without instances", PLON_NODE_system_bootCmdLine, Strings({"a"})},
      {"inode without argument", PLON_NODE_system_lumafs_inodes_stats, nullptr},
      {"inode with empty list", PLON_NODE_system_lumafs_inodes_stats, ListPtr(PLON_ParamListCreate(1))},
      {"inode number as text", PLON_NODE_system_lumafs_inodes_stats, Strings({"12"})},
      {"negative inode number", PLON_NODE_system_lumafs_inodes_stats, Ints({-12})},
      {"two inode numbers", PLON_NODE_system_lumafs_inodes_stats, Ints({12, 12})},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    char buffer[256] = {};
    EXPECT_EQ(PLON_Get(c.node, c.args.get(), buffer, sizeof buffer), NUK_BAD_PARAM);
    EXPECT_EQ(buffer[0], '\0');
  }
  char buffer[256] = {};
  EXPECT_EQ(PLON_Get(PLON_NODE_system_bootCmdLine, empty.get(), buffer, sizeof buffer), NUK_OK);
  EXPECT_EQ(PLON_Get(PLON_NODE_system_bootCmdLine, nullptr, nullptr, 4), NUK_BAD_PARAM);
}

TEST_F(PlonTest, NodesThatCannotBeReadOrSetSaySo) {
  char buffer[16] = {};
  EXPECT_EQ(PLON_Get(PLON_NODE_system_sysAlert, nullptr, buffer, sizeof buffer), NUK_NOT_SUPPORTED);
  EXPECT_EQ(PLON_Get(PLON_NODE_system_lumafs_ramdisks_memUsageLimit, Strings({"configstore"}).get(), buffer,
                     sizeof buffer),
            NUK_NOT_SUPPORTED);
  EXPECT_EQ(PLON_Set(PLON_NODE_system_bootCmdLine, nullptr, Strings({"quiet"}).get()), NUK_NOT_SUPPORTED);

  auto unknown = static_cast<PLON_NodeId>(99);
  EXPECT_EQ(PLON_Get(unknown, nullptr, buffer, sizeof buffer), NUK_BAD_PARAM);
  EXPECT_EQ(PLON_Get(PLON_NODE_INVALID, nullptr, buffer, sizeof buffer), NUK_BAD_PARAM);
  EXPECT_EQ(PLON_Set(unknown, nullptr, Strings({"x"}).get()), NUK_BAD_PARAM);

  PLON_Type stale{7};
  PLON_Type* type = &stale;
  EXPECT_EQ(PLON_LookupOutputTypeOfGet(PLON_NODE_system_sysAlert, &type), NUK_NOT_SUPPORTED);
  EXPECT_EQ(type, nullptr);
  EXPECT_EQ(PLON_LookupOutputTypeOfGet(unknown, &type), NUK_BAD_PARAM);
  EXPECT_EQ(type, nullptr);
}

// Bytes that are not UTF-8 (a cut character, a stray continuation byte, an overlong '/', a
// surrogate) become replacement characters.
TEST_F(PlonTest, AlertsAreJsonLinesWithTheExactMessage) {
  const std::string bad = "\xEF\xBF\xBD";
  const std::pair<std::string, std::string> messages[] = {
      {"Generic ConfigStore Failure: disk full", "Generic ConfigStore Failure: disk full"},
      {"say \"hello\" \\ and 'bye'", "say \"hello\" \\ and 'bye'"},
      {"first line\nsecond line\r\n\ttabbed", "first line\nsecond line\r\n\ttabbed"},
      {"control \x01\x1f bytes", "control \x01\x1f bytes"},
      {"Ünïcödé ✓ 中文 🚀", "Ünïcödé ✓ 中文 🚀"},
      {"", ""},
      {std::string(2048, 'm'), std::string(2048, 'm')},
      {"cut \xC3", "cut " + bad},
      {"a\x80z \xC0\xAF \xED\xA0\x80.", "a" + bad + "z " + bad + bad + " " + bad + bad + bad + "."},
  };
  for (const auto& m : messages) ASSERT_EQ(Alert(m.first), NUK_OK);

  std::vector<std::string> lines = AlertLines();
  ASSERT_EQ(lines.size(), std::size(messages));
  for (size_t i = 0; i < lines.size(); ++i) {
    SCOPED_TRACE(i);
    rapidjson::Document d;
    d.Parse<rapidjson::kParseValidateEncodingFlag>(lines[i].c_str());
    ASSERT_FALSE(d.HasParseError()) << lines[i];
    ASSERT_TRUE(d.IsObject());
    ASSERT_TRUE(d.HasMember("time") && d["time"].IsInt64());
    EXPECT_GT(d["time"].GetInt64(), 1'500'000'000'000);  // milliseconds, not seconds
    ASSERT_TRUE(d.HasMember("message") && d["message"].IsString());
    EXPECT_EQ(std::string(d["message"].GetString(), d["message"].GetStringLength()), messages[i].second);
  }
  // A sandbox root keeps alerts out of the host's system log.
  EXPECT_FALSE(log_.Contains("disk full"));
}

TEST_F(PlonTest, UsageLimitsAreRecordedPerRamdisk) {
  const std::string file = "/sys/plon/system/lumafs/ramdisks/configstore/memUsageLimit";
  ASSERT_EQ(SetLimits(Strings({"configstore"}).get(), Ints({80, 90}).get()), NUK_OK);
  EXPECT_EQ(ReadFile(file), "80 90\n");
  ASSERT_EQ(SetLimits(Strings({"configstore"}).get(), Ints({70, 95}).get()), NUK_OK);
  EXPECT_EQ(ReadFile(file), "70 95\n");
  ASSERT_EQ(SetLimits(Strings({"configstorebkp"}).get(), Ints({0, 100}).get()), NUK_OK);
  EXPECT_EQ(ReadFile("/sys/plon/system/lumafs/ramdisks/configstorebkp/memUsageLimit"), "0 100\n");
  EXPECT_EQ(ReadFile(file), "70 95\n");
}

// Wrong parameters are refused before anything is written.
TEST_F(PlonTest, SetWithWrongParametersIsRefused) {
  ListPtr mixed(PLON_ParamListCreate(2));
  ASSERT_EQ(PLON_ParamListAddInt(mixed.get(), 80), NUK_OK);
  ASSERT_EQ(PLON_ParamListAddString(mixed.get(), "90"), NUK_OK);
  const PLON_NodeId alert = PLON_NODE_system_sysAlert, limits = PLON_NODE_system_lumafs_ramdisks_memUsageLimit;
  struct Case {
    const char* name;
    PLON_NodeId node;
    ListPtr instance;
    ListPtr input;
  };
  Case cases[] = {
      {"alert without input", alert, nullptr, nullptr},
      {"alert with empty input", alert, nullptr, ListPtr(PLON_ParamListCreate(1))},
      {"integer alert", alert, nullptr, Ints({5})},
      {"two alerts", alert, nullptr, Strings({"a", "b"})},
      {"alert with instance argument", alert, Strings({"x"}), Strings({"a"})},
      {"limits without instance", limits, nullptr, Ints({80, 90})},
      {"numeric ramdisk", limits, Ints({1}), Ints({80, 90})},
      {"no limits", limits, Strings({"configstore"}), nullptr},
      {"one limit", limits, Strings({"configstore"}), Ints({80})},
      {"three limits", limits, Strings({"configstore"}), Ints({80, 90, 95})},
      {"limit as text", limits, Strings({"configstore"}), std::move(mixed)},
      {"warning above error", limits, Strings({"configstore"}), Ints({90, 80})},
      {"negative", limits, Strings({"configstore"}), Ints({-1, 90})},
      {"above 100", limits, Strings({"configstore"}), Ints({80, 101})},
      {"huge", limits, Strings({"configstore"}), Ints({80, INT64_MAX})},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(PLON_Set(c.node, c.instance.get(), c.input.get()), NUK_BAD_PARAM);
  }
  // Ramdisk names that would leave the tree ("../../../../../x" would land on "<root>/x/memUsageLimit").
  for (const std::string name : {"", ".", "..", "../..", "a/b", "../../../../../x", "x..y"}) {
    EXPECT_EQ(SetLimits(Strings({name}).get(), Ints({80, 90}).get()), NUK_BAD_PARAM) << name;
  }
  EXPECT_EQ(SetLimits(Strings({std::string(256, 'n')}).get(), Ints({80, 90}).get()), NUK_BAD_PARAM);
  EXPECT_TRUE(FilesUnderRoot().empty());

  // The longest accepted element; an empty instance list is no instance argument.
  EXPECT_EQ(SetLimits(Strings({std::string(255, 'n')}).get(), Ints({80, 90}).get()), NUK_OK);
  ListPtr none(PLON_ParamListCreate(0));
  EXPECT_EQ(PLON_Set(alert, none.get(), Strings({"ok"}).get()), NUK_OK);
  EXPECT_EQ(RecordedAlerts(), std::vector<std::string>{"ok"});
  Remove("/var/log");
  WriteFile("/var/log", "a file where the log directory belongs");
  EXPECT_EQ(Alert("lost"), NUK_IO_ERROR);
}

TEST_F(PlonTest, SignatureMustMatchThisVersion) {
  EXPECT_EQ(PLON_CheckSig(), NUK_SIGNATURE_MISMATCH);  // no file
  const std::pair<std::string, NUK_ReturnStatus> cases[] = {
      {"plon-nodes-v1", NUK_OK},
      {"plon-nodes-v1\n", NUK_OK},
      {"plon-nodes-v1\n\n", NUK_SIGNATURE_MISMATCH},
      {"plon-nodes-v2\n", NUK_SIGNATURE_MISMATCH},
      {"plon-nodes-v", NUK_SIGNATURE_MISMATCH},
      {" plon-nodes-v1", NUK_SIGNATURE_MISMATCH},
      {"", NUK_SIGNATURE_MISMATCH},
  };
  for (const auto& [content, expected] : cases) {
    SCOPED_TRACE("signature \"" + content + "\"");
    WriteFile("/sys/plon/.signature", content);
    EXPECT_EQ(PLON_CheckSig(), expected);
  }
  Remove("/sys/plon/.signature");
  ASSERT_TRUE(PLON_WriteSignature());
  EXPECT_EQ(PLON_CheckSig(), NUK_OK);
}

TEST_F(PlonTest, ParamListsHoldTheirCapacityAndNoMore) {
  ListPtr list(PLON_ParamListCreate(2));
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(PLON_ParamListAddString(list.get(), "configstore"), NUK_OK);
  EXPECT_EQ(PLON_ParamListAddInt(list.get(), -42), NUK_OK);
  EXPECT_EQ(PLON_ParamListAddInt(list.get(), 1), NUK_LIMIT_EXCEEDED);
  EXPECT_EQ(PLON_ParamListAddString(list.get(), "more"), NUK_LIMIT_EXCEEDED);
  EXPECT_EQ(PLON_ParamListCount(list.get()), 2);
  EXPECT_EQ(PLON_ParamListGetString(list.get(), 0), "configstore");
  EXPECT_EQ(PLON_ParamListGetString(list.get(), 1), "-42");
  EXPECT_EQ(PLON_ParamListGetString(list.get(), 2), "");
  EXPECT_EQ(PLON_ParamListGetString(list.get(), -1), "");

  ListPtr empty(PLON_ParamListCreate(0));
  EXPECT_EQ(PLON_ParamListAddInt(empty.get(), 1), NUK_LIMIT_EXCEEDED);
  EXPECT_EQ(PLON_ParamListCreate(-1), nullptr);
  EXPECT_EQ(PLON_ParamListAddInt(nullptr, 1), NUK_BAD_PARAM);
  EXPECT_EQ(PLON_ParamListAddString(list.get(), nullptr), NUK_BAD_PARAM);
  EXPECT_EQ(PLON_ParamListCount(nullptr), 0);
}

TEST_F(PlonTest, NodeFilesOnlyGoInsideTheTree) {
  const std::string refused[] = {"/../escape", "/system/../../escape", "/system//bootMAC", "system/bootMAC", "",
                                 "/system/bootMAC/"};
  for (const std::string& path : refused) {
    SCOPED_TRACE(path);
    EXPECT_FALSE(PLON_WriteNodeFile(path, "x"));
  }
  EXPECT_TRUE(FilesUnderRoot().empty());
  EXPECT_TRUE(PLON_WriteNodeFile("/system/bootMAC", "x"));
  EXPECT_EQ(ReadFile("/sys/plon/system/bootMAC"), "x");
}

}  // namespace
