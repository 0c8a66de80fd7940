// CleanupAutoConfig: automatic values cleared, rows left without any value dropped, and what a
// failed statement leaves behind.
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

  void ExpectThrows(const char* message) {
    try {
      CleanupAutoConfig();
      ADD_FAILURE() << "no throw";
    } catch (const ConfigStoreException& e) {
      EXPECT_EQ(e.code(), 2000);
      EXPECT_STREQ(e.what(), message);
    }
  }

  const std::vector<std::string> kUntouched = {"autoOnly|a|-|-|-|-", "cached|a|-|-|c|-", "desired|a|-|-|-|d",
                                               "empty|-|-|-|-|-",    "user|a|u|-|-|-",   "vital|a|-|v|-|-"};
  const std::vector<std::string> kCleared = {"autoOnly|-|-|-|-|-", "cached|-|-|-|c|-", "desired|-|-|-|-|d",
                                             "empty|-|-|-|-|-",    "user|-|u|-|-|-",   "vital|-|-|v|-|-"};
};

TEST_F(AutoConfigCleanupTest, AutomaticValuesGoAndRowsWithoutValuesWithThem) {
  Populate();

  CleanupAutoConfig();

  EXPECT_THAT(ConfigValues(),
              ElementsAre("cached|-|-|-|c|-", "desired|-|-|-|-|d", "user|-|u|-|-|-", "vital|-|-|v|-|-"));
  EXPECT_TRUE(log_.Contains("Cleanup auto configurations", CSLogger::PRIO_INFO));
}

TEST_F(AutoConfigCleanupTest, FailuresAreLoggedOrThrownAndLeaveWhatRanBefore) {
  Remove("/etc/talvex/configstore/current-store-1");
  EXPECT_NO_THROW(CleanupAutoConfig());
  EXPECT_TRUE(log_.Contains("Cleanup failed: could not connect to ConfigStore", CSLogger::PRIO_ERROR));
  EXPECT_FALSE(Exists("/etc/talvex/configstore/current-store-1"));

  struct Case {
    const char* name;
    Kind kind;
    int nth;
    const char* message;
    const std::vector<std::string>* rowsAfter;
  };
  const Case cases[] = {
      {"update cannot be prepared", Kind::Prepare, 1, "Error removing auto configuration value.", &kUntouched},
      {"update fails", Kind::Step, 1, "Error removing auto configuration value.", &kUntouched},
      // No transaction: the cleared automatic values stay cleared.
      {"delete cannot be prepared", Kind::Prepare, 2, "Error cleaning up config.", &kCleared},
      {"delete fails", Kind::Step, 2, "Error cleaning up config.", &kCleared},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Remove("/etc");
    ASSERT_EQ(DBStore::CreateDatabases(), 0);
    Populate();
    DBStore::faults::Arm(c.kind, c.nth, false);

    ExpectThrows(c.message);
    DBStore::faults::Disarm();

    EXPECT_EQ(ConfigValues(), *c.rowsAfter);
  }
}

}  // namespace
}  // namespace QorConfigStore
