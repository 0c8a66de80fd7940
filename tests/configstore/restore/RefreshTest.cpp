// The live-install refresh: schemas first, then the live-install modules, and what stops it.
#include <gmock/gmock.h>

#include "configstore/boot/StoreRestore.h"
#include "platform/dbstore/DBStore.h"
#include "tests/support/Sandbox.h"

namespace QorConfigStore {
namespace {

class RefreshTest : public cstest::SandboxTest {};

TEST_F(RefreshTest, SchemasThenModulesDecideTheResult) {
  CopyExampleHost();
  ASSERT_EQ(DBStore::CreateDatabases(), 0);

  EXPECT_TRUE(RefreshConfigStore({}, {}));
  EXPECT_TRUE(log_.Contains("Refresh Config Store", CSLogger::PRIO_INFO));

  // A module that is not installed fails the run; one whose name would leave the module directory
  // is refused.
  for (const char* module : {"not-installed", "../escape"}) {
    SCOPED_TRACE(module);
    EXPECT_FALSE(RefreshConfigStore({}, {module}));
  }
}

TEST_F(RefreshTest, FailedSchemaProcessingRunsNoModule) {
  CopyExampleHost();
  ASSERT_EQ(DBStore::CreateDatabases(), 0);
  WriteFile("/usr/lib/talvex/configmanager/schemas/net-core-1.2.3_4.5.json", "{ not json");
  log_.Clear();

  EXPECT_FALSE(RefreshConfigStore({}, {"not-installed"}));
  EXPECT_FALSE(log_.Contains("not-installed"));
}

TEST_F(RefreshTest, MissingStoresAnswerFalseWithoutThrowing) {
  CopyExampleHost();
  bool refreshed = true;
  EXPECT_NO_THROW(refreshed = RefreshConfigStore({}, {}));
  EXPECT_FALSE(refreshed);
}

}  // namespace
}  // namespace QorConfigStore
