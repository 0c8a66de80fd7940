#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <sstream>
#include <vector>

#include "configstore/frame/core/Json.h"
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

TEST_F(PlonTest, MissingNodeFailsAndLeavesBufferAlone) {
  char buffer[38];
  std::memset(buffer, 'x', sizeof buffer);
  EXPECT_EQ(PLON_Get(PLON_NODE_system_bootFsUUID, nullptr, buffer, sizeof buffer), NUK_NOT_FOUND);
  EXPECT_EQ(std::string(buffer, sizeof buffer), std::string(sizeof buffer, 'x'));

  auto inode = Ints({77});
  char record[256] = {};
  EXPECT_EQ(PLON_Get(PLON_NODE_system_lumafs_inodes_stats, inode.get(), record, sizeof record), NUK_NOT_FOUND);
}

TEST_F(PlonTest, ReadCopiesTheNodeAndNoMore) {
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
}

TEST_F(PlonTest, NodeThatIsADirectoryIsAnIoError) {
  std::filesystem::create_directories(Path("/sys/plon/system/bootCmdLine"));
  char buffer[16] = {};
  EXPECT_EQ(PLON_Get(PLON_NODE_system_bootCmdLine, nullptr, buffer, sizeof buffer), NUK_IO_ERROR);
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

TEST_F(PlonTest, InstanceArgumentsCannotLeaveTheTree) {
  // "../../../../../x" would land on "<root>/x/memUsageLimit".
  const std::string hostile[] = {"", ".", "..", "../..", "a/b", "../../../../../x", "x..y", std::string(256, 'n')};
  for (const std::string& name : hostile) {
    SCOPED_TRACE("name \"" + name + "\"");
    EXPECT_EQ(SetLimits(Strings({name}).get(), Ints({80, 90}).get()), NUK_BAD_PARAM);
  }
  EXPECT_TRUE(FilesUnderRoot().empty());
  // The longest accepted element.
  EXPECT_EQ(SetLimits(Strings({std::string(255, 'n')}).get(), Ints({80, 90}).get()), NUK_OK);
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

TEST_F(PlonTest, OutputTypesGiveRecordSizes) {
  const std::pair<PLON_NodeId, size_t> sizes[] = {
      {PLON_NODE_system_bootCmdLine, 4096}, {PLON_NODE_system_bootOption, 4},
      {PLON_NODE_system_bootMAC, 21},       {PLON_NODE_system_bootFsUUID, 38},
      {PLON_NODE_system_lumafs_inodes_stats, 256},
  };
  for (auto [node, size] : sizes) {
    SCOPED_TRACE(node);
    PLON_Type* type = nullptr;
    ASSERT_EQ(PLON_LookupOutputTypeOfGet(node, &type), NUK_OK);
    ASSERT_NE(type, nullptr);
    EXPECT_EQ(type->size, size);
    PLON_ReleaseType(type);
  }
}

TEST_F(PlonTest, AlertsAreJsonLinesWithTheExactMessage) {
  const std::string messages[] = {
      "Generic ConfigStore Failure: disk full",
      "say \"hello\" \\ and 'bye'",
      "first line\nsecond line\r\n\ttabbed",
      "control \x01\x1f bytes",
      "Ünïcödé ✓ 中文 🚀",
      "",
      std::string(2048, 'm'),
  };
  for (const std::string& m : messages) ASSERT_EQ(Alert(m), NUK_OK);

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
    EXPECT_EQ(std::string(d["message"].GetString(), d["message"].GetStringLength()), messages[i]);
  }
  // A sandbox root keeps alerts out of the host's system log.
  EXPECT_FALSE(log_.Contains("disk full"));
}

TEST_F(PlonTest, AlertBytesThatAreNotUtf8BecomeReplacementCharacters) {
  // A message cut inside a character, a stray continuation byte, an overlong '/', a surrogate.
  ASSERT_EQ(Alert("cut \xC3"), NUK_OK);
  ASSERT_EQ(Alert("a\x80z \xC0\xAF \xED\xA0\x80."), NUK_OK);
  std::vector<std::string> lines = AlertLines();
  ASSERT_EQ(lines.size(), 2u);
  const std::string expected[] = {"cut \xEF\xBF\xBD",
                                  "a\xEF\xBF\xBDz \xEF\xBF\xBD\xEF\xBF\xBD \xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD."};
  for (size_t i = 0; i < 2; ++i) {
    rapidjson::Document d;
    d.Parse<rapidjson::kParseValidateEncodingFlag>(lines[i].c_str());
    ASSERT_FALSE(d.HasParseError()) << lines[i];
    EXPECT_EQ(std::string(d["message"].GetString()), expected[i]);
  }
}

TEST_F(PlonTest, AlertWithWrongParametersIsRefused) {
  ListPtr none(PLON_ParamListCreate(0));
  struct Case {
    const char* name;
    ListPtr instance;
    ListPtr input;
  };
  Case cases[] = {
      {"no input", nullptr, nullptr},
      {"empty input", nullptr, ListPtr(PLON_ParamListCreate(1))},
      {"integer message", nullptr, Ints({5})},
      {"two messages", nullptr, Strings({"a", "b"})},
      {"instance argument", Strings({"x"}), Strings({"a"})},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(PLON_Set(PLON_NODE_system_sysAlert, c.instance.get(), c.input.get()), NUK_BAD_PARAM);
  }
  EXPECT_FALSE(Exists("/var/log/sysalerts.jsonl"));
  EXPECT_EQ(PLON_Set(PLON_NODE_system_sysAlert, none.get(), Strings({"ok"}).get()), NUK_OK);
  EXPECT_EQ(RecordedAlerts(), std::vector<std::string>{"ok"});
}

TEST_F(PlonTest, AlertThatCannotBeWrittenIsAnIoError) {
  WriteFile("/var/log", "a file where the log directory belongs");
  EXPECT_EQ(Alert("lost"), NUK_IO_ERROR);
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

TEST_F(PlonTest, UsageLimitsWithWrongParametersAreRefused) {
  ListPtr mixed(PLON_ParamListCreate(2));
  PLON_ParamListAddInt(mixed.get(), 80);
  PLON_ParamListAddString(mixed.get(), "90");
  struct Case {
    const char* name;
    ListPtr instance;
    ListPtr input;
  };
  Case cases[] = {
      {"no instance", nullptr, Ints({80, 90})},
      {"numeric instance", Ints({1}), Ints({80, 90})},
      {"no input", Strings({"configstore"}), nullptr},
      {"one limit", Strings({"configstore"}), Ints({80})},
      {"three limits", Strings({"configstore"}), Ints({80, 90, 95})},
      {"limit as text", Strings({"configstore"}), std::move(mixed)},
      {"warning above error", Strings({"configstore"}), Ints({90, 80})},
      {"negative", Strings({"configstore"}), Ints({-1, 90})},
      {"above 100", Strings({"configstore"}), Ints({80, 101})},
      {"huge", Strings({"configstore"}), Ints({80, INT64_MAX})},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(SetLimits(c.instance.get(), c.input.get()), NUK_BAD_PARAM);
  }
  EXPECT_TRUE(FilesUnderRoot().empty());
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
