// CleanupAutoConfig: automatic values cleared, rows left without any value dropped, and how a
// failure is reported.
#include <gmock/gmock.h>

#include "configstore/maintenance/Cleanup.h"
#include "tests/configstore/maintenance/MaintenanceFixture.h"

namespace QorConfigStore {
namespace {

using Kind = DBStore::faults::Kind;

// What each failing statement leaves behind is swept (tests/reliability/sweeps); here, the result
// and how each failure is reported.
TEST_F(MaintenanceTest, AutomaticValuesGoAndRowsWithoutValuesWithThem) {
  Remove("/etc/talvex/configstore/current-store-1");
  EXPECT_NO_THROW(CleanupAutoConfig());
  EXPECT_TRUE(log_.Contains("Cleanup failed: could not connect to ConfigStore", CSLogger::PRIO_ERROR));
  ASSERT_EQ(DBStore::CreateDatabases(), 0);

  AddConfigRow({"c", "g", "autoOnly", ""}, {"a"});
  AddConfigRow({"c", "g", "empty", ""});
  AddConfigRow({"c", "g", "user", ""}, {"a", "u"});
  AddConfigRow({"c", "g", "vital", ""}, {"a", std::nullopt, "v"});
  AddConfigRow({"c", "g", "cached", ""}, {"a", std::nullopt, std::nullopt, "c"});
  AddConfigRow({"c", "g", "desired", ""}, {"a", std::nullopt, std::nullopt, std::nullopt, "d"});
  // The update of the automatic values, then the delete of the rows left empty.
  for (const auto& [nth, message] : {std::pair{1, "2000 Error removing auto configuration value."},
                                     std::pair{2, "2000 Error cleaning up config."}}) {
    DBStore::faults::Arm(Kind::Prepare, nth, false);
    EXPECT_EQ(cstest::Thrown(CleanupAutoConfig), message);
    DBStore::faults::Disarm();
  }
  CleanupAutoConfig();
  EXPECT_THAT(Rows(DBStore::CONFIG_STORE, "SELECT Name, AutoConfValue, UserValue, VitalValue, CachedValue, DesiredValue FROM Config"),
              testing::ElementsAre("cached|-|-|-|c|-", "desired|-|-|-|-|d", "user|-|u|-|-|-", "vital|-|-|v|-|-"));
}

}  // namespace
}  // namespace QorConfigStore
