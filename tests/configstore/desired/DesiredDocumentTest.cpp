// Staging of whole desired documents: the rows written, validation, and refusal of bad documents.
#include <gtest/gtest.h>

#include <regex>

#include "configstore/desired/DesiredConfig.h"
#include "configstore/frame/CallFrame.h"
#include "platform/schemastore/SchemaStore.h"
#include "tests/configstore/desired/DesiredFixture.h"
#include "tests/support/StoreDump.h"

namespace desiredtest {
namespace {

TEST_F(DesiredTest, StagesEveryObjectAsSetWithItsSchemaVersion) {
  InsertStaged("ntp", "servers", "earlier", "SET");
  SetStoredBootMode("0");

  Stage(R"({"profile": {"qor": {
      "network": {"nuknics": [{"name": "nuk0", "mtu": 1500, "mac": "00:11"}, {"name": "nuk1"}]},
      "system": {"hostname": {"name": "h1"}},
      "firewall": {"rules": [{"port": 22}]}}}})");

  EXPECT_EQ(StagedOf("network", "nuknics"),
            (std::multiset<std::string>{
                Row("SET", "network", "nuknics", "nuk0", "1.0", R"({"name":"nuk0","mtu":1500,"mac":"00:11"})"),
                Row("SET", "network", "nuknics", "nuk1", "1.0", R"({"name":"nuk1"})")}));
  EXPECT_EQ(StagedOf("system", "hostname"),
            (std::multiset<std::string>{Row("SET", "system", "hostname", "", "2.0", R"({"name":"h1"})")}));
  // The generated id is the row's identifier and part of the staged value.
  std::multiset<std::string> rules = StagedOf("firewall", "rules");
  ASSERT_EQ(rules.size(), 1u);
  std::smatch id;
  ASSERT_TRUE(std::regex_search(*rules.begin(), id, std::regex("\\|rules\\|([^|]*)\\|")));
  const std::regex uuid("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
  EXPECT_TRUE(std::regex_match(id[1].str(), uuid)) << id[1];
  EXPECT_EQ(*rules.begin(), Row("SET", "firewall", "rules", id[1], "1.1",
                                (R"({"port":22,"cs_generated_id":")" + id[1].str() + R"("})").c_str()));
  EXPECT_EQ(Staged().size(), 4u) << "the earlier staging is gone";
  EXPECT_EQ(BootMode(), "1");
  EXPECT_TRUE(log_.Contains("Desired configuration set", CSLogger::PRIO_INFO));
}

TEST_F(DesiredTest, SkipsNoObjectsAndKeysWithoutSchemaAndKeepsTheLastInstanceOfAnId) {
  Stage(R"({"profile": {"qor": {
      "ntp": {"servers": [{"server": "a", "prefer": true}, 7, "b", null, {"server": "a"}]},
      "system": {"hostname": 5},
      "network": {"bogus": {"x": 1}, "nuknics": "something else"}}}})");

  EXPECT_EQ(Staged(), (std::multiset<std::string>{Row("SET", "ntp", "servers", "a", "1.4", R"({"server":"a"})")}));
  EXPECT_TRUE(log_.Contains("Schema not found for id='qor/network/bogus'", CSLogger::PRIO_WARNING));
  EXPECT_EQ(BootMode(), "1");
}

TEST_F(DesiredTest, DeleteDefaultStagesNothingButKeepsMutableDefaults) {
  InsertDefault("ntp", "servers", "pool", R"({"server":"pool"})");
  InsertDefault("network_zsw", "switches", "sw0", R"({"uuid":"sw0"})");  // no mutable default configuration

  Stage(R"({"profile": {"qor": {"ntp": {"servers": "DELETE_DEFAULT"}, "network_zsw": {"switches": "DELETE_DEFAULT"}}}})");

  EXPECT_EQ(Staged(), (std::multiset<std::string>{Row(nullptr, "ntp", "servers", "pool", "d1", R"({"server":"pool"})")}));
  EXPECT_TRUE(log_.Contains("Default configuration for comp:qor, group:ntp key:servers will be deleted.",
                            CSLogger::PRIO_INFO));
}

TEST_F(DesiredTest, BadDocumentIsRefusedAndNothingChanges) {
  const std::string idMissing = QorConfigStore::Format(ErrorMessageForId(1032), "name");
  struct Case {
    const char* document;
    std::string reason;
    int code = 2000;  // a ConfigStoreException from inside keeps its code
  } cases[] = {
      {"[]", R"(Desired configuration has no "profile" object)"},
      {R"({"profile": 3})", R"(Desired configuration has no "profile" object)"},
      {R"({"profile": {"qor": 5}})", "Desired configuration of component qor is not an object"},
      {R"({"profile": {"qor": {"network": []}}})", "Desired configuration of component qor group network is not an object"},
      // The first instance is written before the second is refused: both go.
      {R"({"profile": {"qor": {"network": {"nuknics": [{"name": "nuk0"}, {"mtu": 1500}]}}}})", idMissing, 1032},
      {R"({"profile": {"qor": {"network": {"nuknics": [{"name": 12}]}}}})", idMissing, 1032},
  };
  InsertStaged("ntp", "servers", "earlier", "SET");
  SetStoredBootMode("2");
  const cstest::StoreDump before = cstest::DumpStores();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.document);
    EXPECT_EQ(Thrown([&] { Stage(c.document); }), std::to_string(c.code) + " SetDesiredUserConfig failed: " + c.reason);
    EXPECT_EQ("", cstest::DiffStores(before, cstest::DumpStores()));
  }
}

TEST_F(DesiredTest, ValidationReportsAndLogsEveryErrorWithItsPath) {
  auto cache = QorSchemaStore::SchemaStore::GetCache();
  auto invalid = Doc(R"({"profile": {"qor": {
      "network": {"nuknics": [{"name": "nuk0", "mtu": 100}, {"mtu": 1500}], "bogus": {}},
      "system": {"hostname": {"name": "h", "foo": 1}},
      "firewall": {"rules": [{"port": 80}]}}}})");
  rapidjson::Document errors = QorConfigStore::DesiredDocumentErrors(*invalid->document, cache);
  std::multiset<std::string> found;
  for (const auto& e : errors.GetArray()) found.insert(std::string(e["field"].GetString()) + " " + e["error"].GetString());
  EXPECT_EQ(found, (std::multiset<std::string>{
                       "/profile/qor/network/nuknics/0/mtu must be at least 1280, got 100",
                       "/profile/qor/network/nuknics/1 missing required member \"name\"",
                       "/profile/qor/network/bogus unknown member \"bogus\"",
                       "/profile/qor/system/hostname/foo unknown member \"foo\"",
                   }));
  EXPECT_EQ(Thrown([&] { QorConfigStore::ValidateDesiredDocument(*invalid->document, cache); }),
            "2000 Failed to validate desired configuration, Check logs for specific validation errors.");
  EXPECT_EQ(log_.Count("[1083] Schema validation error at /profile/"), 4u);

  auto noProfile = Doc(R"({"qor": {}})");
  errors = QorConfigStore::DesiredDocumentErrors(*noProfile->document, cache);
  ASSERT_EQ(errors.Size(), 1u);
  EXPECT_STREQ(errors[0]["error"].GetString(), "missing required member \"profile\"");

  // Generated ids are not required and DELETE_DEFAULT is a valid value.
  log_.Clear();
  auto valid = Doc(R"({"profile": {"qor": {"firewall": {"rules": [{"port": 80}]},
                                            "ntp": {"servers": "DELETE_DEFAULT"},
                                            "system": {"hostname": {"name": "h"}}}}})");
  EXPECT_NO_THROW(QorConfigStore::ValidateDesiredDocument(*valid->document, cache));
  EXPECT_EQ(log_.Count("[1083]"), 0u);
}

}  // namespace
}  // namespace desiredtest
