// The boot configuration document of a newly created store, and the user-configuration write.
#include <gmock/gmock.h>

#include "configstore/boot/BootDocument.h"
#include "tests/configstore/bootapply/StoreFixture.h"

namespace QorConfigStore {
namespace {

using testing::ElementsAre;
using testing::MatchesRegex;

class BootDocumentTest : public storetest::StoreTest {
 protected:
  void SetUp() override {
    StoreTest::SetUp();
    Register(storetest::kBootSchemas);
  }
  void Run(const std::string& document) {
    if (!document.empty()) WriteFile(kBootConfigurationDocument, document);
    log_.Clear();
    Apply(ProcessBootConfigurationDocument);
  }
  bool Logged(const std::string& text, int priority = -1) { return log_.Contains(text, priority); }
};

TEST_F(BootDocumentTest, MissingDocumentDoesNothing) {
  AddConfig("('network','dns','a','da',NULL,NULL)");
  const cstest::StoreDump before = cstest::DumpStores();
  Run("");
  EXPECT_EQ("", cstest::DiffStores(before, cstest::DumpStores()));
  EXPECT_TRUE(log_.Lines().empty());
}

TEST_F(BootDocumentTest, WritesObjectsAndArraysAndSkipsBadParts) {
  const std::string components = R"({"qor": {"system": {"hostname": {"name": "esx1"}},
      "network": {"nuknics": [{"name": "vmk0", "mtu": 1500}, {"name": "vmk1", "mac": "aa:bb", "stats": "s"}],
                  "dns": {}, "routes": {"a": 1}}, "firewall": {"rules": [{"port": 22}]},
      "badgroup": 5}, "other": "x"})";
  const std::string uuid = "[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}";
  for (const std::string& document : {components, R"({"profile": )" + components + "}"}) {
    SCOPED_TRACE(document);
    Sql("DELETE FROM Config");
    Run(document);
    // Each instance whole as its user value, vital and cached members included; generated ids filled in.
    EXPECT_THAT(ConfigRows(", Version, Revision, Identifier = json_extract(UserValue, '$.cs_generated_id')"),
                ElementsAre(MatchesRegex(R"(firewall/rules/.* \{"port":22,"cs_generated_id":")" + uuid +
                                         R"("\}\|NULL\|NULL\|1.1\|1\|1)"),
                            R"(network/nuknics/vmk0 {"name":"vmk0","mtu":1500}|NULL|NULL|1.0|1|NULL)",
                            R"(network/nuknics/vmk1 {"name":"vmk1","mac":"aa:bb","stats":"s"}|NULL|NULL|1.0|1|NULL)",
                            R"(system/hostname/ {"name":"esx1"}|NULL|NULL|2.0|1|NULL)"));
    EXPECT_THAT(Query("SELECT CreationTime FROM Config WHERE Name = 'hostname'"),
                ElementsAre(MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}")));
    for (const char* line :
         {"qor/network/dns is empty, skipping", "/qor/badgroup is invalid, skipping", "/other is invalid, skipping"}) {
      EXPECT_TRUE(Logged(line, CSLogger::PRIO_ERROR)) << line;
    }
    EXPECT_TRUE(Logged("Schema not found for qor/network/routes, skipping", CSLogger::PRIO_WARNING));
    EXPECT_TRUE(Logged("Boot document processed.", CSLogger::PRIO_INFO));
  }
}

TEST_F(BootDocumentTest, EmptyInvalidAndMisshapenValuesWriteNothing) {
  const char* cases[][2] = {
      // Empty values are skipped before any schema is looked up.
      {R"({"profile":{"c":{"g":{"k":{}}}}})", "c/g/k is empty, skipping"},
      {R"({"c":{"g":{"k":null}}})", "c/g/k is empty, skipping"},
      // An invalid value skips its whole key.
      {R"({"qor": {"network": {"nuknics": [{"name": "vmk0"}, {"mtu": 1500}]}}})",
       "Validation failed for qor/network/nuknics, skipping"},
      {R"({"qor": {"system": {"hostname": [{"name": "a"}]}}})", "Validation failed for qor/system/hostname, skipping"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c[0]);
    Run(c[0]);
    EXPECT_TRUE(ConfigRows().empty());
    EXPECT_TRUE(Logged(c[1], CSLogger::PRIO_ERROR));
    EXPECT_FALSE(Logged("Schema not found"));
    EXPECT_TRUE(Logged("Boot document processed."));
  }
}

// A rewritten object keeps its creation time and stored parts and raises its revision; a new one
// takes nothing from the rows of other instances. DELETE_DEFAULT removes every instance of its key.
TEST_F(BootDocumentTest, RewriteKeepsTheObjectsOwnStoredParts) {
  AddConfig(
      "('network','nuknics','vmk0','old','v0','c0'), ('network','dns','a','da','dv','dc'), "
      "('network','dns','b',NULL,'dv','dc')");
  Sql("UPDATE Config SET AutoConfValue = 'auto' WHERE Identifier = 'vmk0'");  // every other row has parts to leak
  Run(R"({"qor": {"network": {"nuknics": [{"name": "vmk0", "mac": "cc:dd"}, {"name": "vmk5"}],
                               "dns": "DELETE_DEFAULT"}}})");
  EXPECT_THAT(ConfigRows(", Revision, AutoConfValue, CreationTime LIKE '2001-%'"),
              ElementsAre(R"(network/nuknics/vmk0 {"name":"vmk0","mac":"cc:dd"}|v0|c0|8|auto|1)",
                          R"(network/nuknics/vmk5 {"name":"vmk5"}|NULL|NULL|1|NULL|0)"));
  EXPECT_TRUE(Logged("Default configuration for qor/network/dns will be deleted.", CSLogger::PRIO_INFO));
}

}  // namespace
}  // namespace QorConfigStore
