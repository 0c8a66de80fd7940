// The plan of the next boot on the sample host after its first boot: what it says of a changed
// object, a failing step, and that the store is left exactly as it was.
#include <gmock/gmock.h>

#include <algorithm>

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

class NextBootPlanTest : public cstest::SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    CopyExampleHost();
    ASSERT_EQ(LoadStore(true), 0);  // first boot: the boot document fills a new store
    CleanupBootState();
    Remove("/var/lib/talvex/firstboot/current-store-1");
  }

  // The plan, checked to leave every store as it found it.
  NextBootPlan Plan() {
    cstest::StoreDump before = cstest::DumpStores();
    NextBootPlan plan = PlanNextBoot();
    EXPECT_EQ("", cstest::DiffStores(before, cstest::DumpStores()));
    return plan;
  }
};

// A changed object names the columns and the members that change (the lists of objects are checked
// against what the load then does by the plan tests run through configstorectl).
TEST_F(NextBootPlanTest, ChangedObjectNamesItsChangedColumnsAndMembers) {
  auto doc = CreateDocumentFromString(
      R"({"profile":{"qor":{"network":{"dns":{"hostname":"host02","domain":"lab.example","servers":[],"extra":1}}}}})");
  SetDesiredUserConfig(*doc->document);
  NextBootPlan plan = Plan();
  ASSERT_FALSE(plan.failure) << *plan.failure;
  auto dns = std::find_if(plan.changed.begin(), plan.changed.end(), [](const auto& o) { return o.id.key == "dns"; });
  ASSERT_NE(dns, plan.changed.end());
  EXPECT_THAT(dns->changedColumns, ElementsAre("UserValue"));
  EXPECT_THAT(dns->membersAdded, ElementsAre("extra"));
  EXPECT_THAT(dns->membersRemoved, ElementsAre("search_domains"));
  EXPECT_THAT(dns->membersChanged, ElementsAre("hostname", "servers"));
}

TEST_F(NextBootPlanTest, FailingStepIsReportedAndChangesNothing) {
  WriteFile("/etc/talvex/boot_configuration.json", "{");
  SetBootMode(BOOT_MODE_NEW_STORE);
  NextBootPlan plan = Plan();
  ASSERT_TRUE(plan.failure);
  EXPECT_EQ(plan.failureCode, CS_ERR_JSON_PARSE_FILE) << *plan.failure;
  EXPECT_TRUE(plan.added.empty() && plan.removed.empty() && plan.changed.empty() && plan.kept.empty());
}

}  // namespace
}  // namespace QorConfigStore
