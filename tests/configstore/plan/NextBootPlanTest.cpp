// The plan of the next boot on the sample host after its first boot: what it lists, and that the
// store is left exactly as it was.
#include <gmock/gmock.h>

#include "configstore/boot/LoadStore.h"
#include "configstore/bootstate/BootState.h"
#include "configstore/desired/DesiredConfig.h"
#include "configstore/frame/CallFrame.h"
#include "configstore/plan/NextBootPlan.h"
#include "tests/support/Sandbox.h"
#include "tests/support/StoreDump.h"

namespace QorConfigStore {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class NextBootPlanTest : public cstest::SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    CopyExampleHost();
    ASSERT_EQ(LoadStore(true), 0);  // first boot: the boot document fills a new store
    CleanupBootState();
    Remove("/var/lib/talvex/firstboot/current-store-1");
  }

  void Sql(const std::string& sql) {
    ASSERT_EQ(DBStore::Exec(GetDBConnection(DBStore::CONFIG_STORE, true), sql), 0) << sql;
  }

  // The plan, checked to leave every store as it found it.
  NextBootPlan Plan() {
    cstest::StoreDump before = cstest::DumpStores();
    NextBootPlan plan = PlanNextBoot();
    EXPECT_EQ("", cstest::DiffStores(before, cstest::DumpStores()));
    return plan;
  }

  static std::vector<std::string> Ids(const std::vector<PlannedObject>& objects) {
    std::vector<std::string> ids;
    for (const auto& o : objects) ids.push_back(o.id.key + "/" + o.id.id);
    return ids;
  }
};

TEST_F(NextBootPlanTest, DesiredConfigurationListsItsChangesAndWhatThePreservationRulesKeep) {
  // A solution-user account survives a desired configuration; the site administrator does not.
  Sql("INSERT INTO Config (Component, ConfigGroup, Name, Identifier, UserValue) VALUES ('qor', 'authentication', "
      "'user_accounts', 'svc-zpl-1', '{\"name\":\"svc-zpl-1\"}')");
  auto doc = CreateDocumentFromString(
      R"({"profile":{"qor":{"network":{"dns":{"hostname":"host02","domain":"lab.example","servers":[],"extra":1}},)"
      R"("authentication":{"user_accounts":[{"name":"ops"}]}}}})");
  SetDesiredUserConfig(*doc->document);

  NextBootPlan plan = Plan();
  ASSERT_FALSE(plan.failure) << *plan.failure;
  EXPECT_EQ(plan.bootMode, BOOT_MODE_DESIRED_USER_CONFIG);
  std::vector<std::string> added = Ids(plan.added), removed = Ids(plan.removed);
  EXPECT_THAT(added, testing::Contains("user_accounts/ops"));
  EXPECT_THAT(removed, testing::IsSupersetOf({"user_accounts/admin", "nuknics/nuk0", "nuknics/nuk1"}));
  EXPECT_THAT(Ids(plan.kept), ElementsAre("user_accounts/svc-zpl-1"));

  ASSERT_THAT(Ids(plan.changed), testing::Contains("dns/"));
  const PlannedObject& dns = *std::find_if(plan.changed.begin(), plan.changed.end(),
                                           [](const PlannedObject& o) { return o.id.key == "dns"; });
  EXPECT_THAT(dns.changedColumns, ElementsAre("UserValue"));
  EXPECT_THAT(dns.membersAdded, ElementsAre("extra"));
  EXPECT_THAT(dns.membersRemoved, ElementsAre("search_domains"));
  EXPECT_THAT(dns.membersChanged, ElementsAre("hostname", "servers"));
  EXPECT_THAT(*dns.oldUserValue, testing::HasSubstr("host01"));
  EXPECT_THAT(*dns.newUserValue, testing::HasSubstr("host02"));
}

TEST_F(NextBootPlanTest, FoldOfDesiredValuesIsPlannedInTheDefaultMode) {
  // Values that are not JSON objects get no member lists; nothing is "kept" without a boot-mode step.
  Sql("UPDATE Config SET DesiredValue = 'not json' WHERE Name = 'dns'");
  NextBootPlan plan = Plan();
  EXPECT_EQ(plan.bootMode, BOOT_MODE_DEFAULT);
  ASSERT_THAT(Ids(plan.changed), ElementsAre("dns/"));
  EXPECT_EQ(plan.changed[0].newUserValue, "not json");
  EXPECT_THAT(plan.changed[0].membersChanged, IsEmpty());
  EXPECT_THAT(plan.added, IsEmpty());
  EXPECT_THAT(plan.removed, IsEmpty());
  EXPECT_THAT(plan.kept, IsEmpty());
}

TEST_F(NextBootPlanTest, FailingStepIsReportedAndChangesNothing) {
  for (const std::string& document : {std::string("{"), std::string(100000, '[') + std::string(100000, ']')}) {
    SCOPED_TRACE(document.substr(0, 10));
    WriteFile("/etc/talvex/boot_configuration.json", document);
    SetBootMode(BOOT_MODE_NEW_STORE);
    NextBootPlan plan = Plan();
    ASSERT_TRUE(plan.failure);
    EXPECT_EQ(plan.failureCode, CS_ERR_JSON_PARSE_FILE) << *plan.failure;
    EXPECT_TRUE(plan.added.empty() && plan.removed.empty() && plan.changed.empty() && plan.kept.empty());
  }
}

}  // namespace
}  // namespace QorConfigStore
