// CleanupAutoConfig: automatic values cleared, rows left without any value dropped, and how a
// failure is reported.
#include <gmock/gmock.h>

#include "configstore/maintenance/Cleanup.h"
#include "tests/configstore/maintenance/MaintenanceFixture.h"

namespace QorConfigStore {
namespace {

using ::testing::ElementsAre;
using Kind = DBStore::faults::Kind;

class AutoConfigCleanupTest : public MaintenanceTest {
 protected:
  // One row per kind of value; each but "autoOnly" and "empty" holds something besides automatic.
  void Populate() {
    AddConfigRow("c", "g", "autoOnly", "", {"a"});
    AddConfigRow("c", "g", "empty", "");
    AddConfigRow("c", "g", "user", "", {"a", "u"});
    AddConfigRow("c", "g", "vital", "", {"a", std::nullopt, "v"});
    AddConfigRow("c", "g", "cached", "", {"a", std::nullopt, std::nullopt, "c"});
    AddConfigRow("c", "g", "desired", "", {"a", std::nullopt, std::nullopt, std::nullopt, "d"});
  }
};

TEST_F(AutoConfigCleanupTest, AutomaticValuesGoAndRowsWithoutValuesWithThem) {
  Populate();

  CleanupAutoConfig();

  EXPECT_THAT(ConfigValues(),
              ElementsAre("cached|-|-|-|c|-", "desired|-|-|-|-|d", "user|-|u|-|-|-", "vital|-|-|v|-|-"));
  EXPECT_TRUE(log_.Contains("Cleanup auto configurations", CSLogger::PRIO_INFO));
}

// What each failing statement leaves behind is swept (tests/reliability/sweeps); here, how each
// failure is reported.
TEST_F(AutoConfigCleanupTest, FailuresAreLoggedOrThrownWithTheirMessage) {
  Remove("/etc/talvex/configstore/current-store-1");
  EXPECT_NO_THROW(CleanupAutoConfig());
  EXPECT_TRUE(log_.Contains("Cleanup failed: could not connect to ConfigStore", CSLogger::PRIO_ERROR));
  EXPECT_FALSE(Exists("/etc/talvex/configstore/current-store-1"));

  ASSERT_EQ(DBStore::CreateDatabases(), 0);
  Populate();
  // The update of the automatic values, then the delete of the rows left empty.
  for (const auto& [nth, message] : {std::pair{1, "Error removing auto configuration value."},
                                     std::pair{2, "Error cleaning up config."}}) {
    SCOPED_TRACE(message);
    DBStore::faults::Arm(Kind::Prepare, nth, false);
    try {
      CleanupAutoConfig();
      ADD_FAILURE() << "no throw";
    } catch (const ConfigStoreException& e) {
      EXPECT_EQ(e.code(), 2000);
      EXPECT_STREQ(e.what(), message);
    }
    DBStore::faults::Disarm();
  }
}

}  // namespace
}  // namespace QorConfigStore
