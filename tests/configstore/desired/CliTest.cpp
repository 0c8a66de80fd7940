// The staging subcommands of configstorectl, run as a process on the sandbox root.
#include <gtest/gtest.h>

#include "tests/configstore/desired/DesiredFixture.h"
#include "tests/support/Ctl.h"

namespace desiredtest {
namespace {

class DesiredCliTest : public DesiredTest {
 protected:
  using Result = cstest::CtlResult;
  Result Run(const std::string& args) const { return cstest::RunCtl(root_, args); }
};

TEST_F(DesiredCliTest, SetDesiredPrintsEveryErrorAndStagesNothing) {
  InsertStaged("ntp", "servers", "earlier", "SET");
  SetStoredBootMode("0");
  const std::multiset<std::string> before = Staged();
  WriteFile("/tmp/bad.json", R"({"profile": {"qor": {
      "network": {"nuknics": [{"name": "nuk0", "mtu": 100}, {"mtu": 1500}]},
      "system": {"hostname": {"name": 5}}, "ntp": {"servers": 5}}}})");

  Result r = Run("set-desired " + Path("/tmp/bad.json"));

  EXPECT_EQ(r.status, 1) << r.err;
  EXPECT_NE(r.err.find("/profile/qor/network/nuknics/0/mtu: must be at least 1280, got 100"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("/profile/qor/network/nuknics/1: missing required member \"name\""), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("/profile/qor/system/hostname/name: must be of type string"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("/profile/qor/ntp/servers: must be of type object, got integer"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("4 validation errors, nothing staged"), std::string::npos) << r.err;
  EXPECT_EQ(Staged(), before);
  EXPECT_EQ(BootMode(), "0");

  WriteFile("/tmp/array.json", "[]");
  r = Run("set-desired " + Path("/tmp/array.json"));
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("(document): must be of type object, got array\n"), std::string::npos) << r.err;
}

TEST_F(DesiredCliTest, SetDesiredStagesAValidDocumentAndStagedListsIt) {
  WriteFile("/tmp/good.json", R"({"profile": {"qor": {"system": {"hostname": {"name": "h1"}}}}})");

  Result r = Run("set-desired " + Path("/tmp/good.json"));
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "desired configuration staged (1 rows); next boot mode 1\n");
  EXPECT_EQ(BootMode(), "1");

  r = Run("--json staged");
  ASSERT_EQ(r.status, 0) << r.err;
  auto listed = QorConfigStore::CreateDocumentFromString(r.out);
  const rapidjson::Value& rows = *listed->document;
  ASSERT_TRUE(rows.IsArray());
  ASSERT_EQ(rows.Size(), 1u);
  EXPECT_STREQ(rows[0]["key"].GetString(), "hostname");
  EXPECT_STREQ(rows[0]["bootAction"].GetString(), "SET");
  EXPECT_STREQ(rows[0]["value"].GetString(), R"({"name":"h1"})");
  EXPECT_TRUE(rows[0]["vitalValue"].IsNull());
}

TEST_F(DesiredCliTest, DeleteHostApiAndSmartnic) {
  Result r = Run("delete-hostapi qor ntp servers");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(BootMode(), "4");

  r = Run("delete-hostapi qor ntp nothing");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("error 1005: desired configuration for component qor group ntp key nothing"), std::string::npos)
      << r.err;

  r = Run("delete-hostapi qor ntp");
  EXPECT_EQ(r.status, 2);

  WriteFile("/tmp/nic.json", "{}");
  r = Run("set-smartnic " + Path("/tmp/nic.json"));
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(BootMode(), "3");
  EXPECT_EQ(Staged().size(), 3u);

  // The failure line names the file and the problem, not the library's function or "logs".
  WriteFile("/tmp/badnic.json", R"({"qor": {"dpu": {"mode": {"mode": "sideways"}}}})");
  r = Run("set-smartnic " + Path("/tmp/badnic.json"));
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("error 2000: " + Path("/tmp/badnic.json") +
                       ": invalid SmartNIC configuration (the errors are listed above), nothing staged\n"),
            std::string::npos)
      << r.err;
  EXPECT_EQ(r.err.find("SetDesiredSmartnicConfiguration"), std::string::npos) << r.err;

  r = Run("set-smartnic " + Path("/tmp/missing.json"));
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("error 1081"), std::string::npos) << r.err;
}

}  // namespace
}  // namespace desiredtest
