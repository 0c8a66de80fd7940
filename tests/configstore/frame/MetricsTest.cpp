// Size metrics of the Config table.
#include <gmock/gmock.h>

#include <stdexcept>

#include "configstore/frame/CallFrame.h"
#include "configstore/frame/Metrics.h"
#include "tests/support/Sandbox.h"

namespace QorConfigStore {
namespace {

class MetricsTest : public cstest::SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    ASSERT_EQ(DBStore::CreateDatabases(), 0);
    conn_ = GetDBConnection(DBStore::CONFIG_STORE, true);
  }
  void AddRow(const std::string& key, const char* user, const char* vital, const char* cached) {
    ASSERT_EQ(DBStore::Exec(conn_,
                            "INSERT INTO Config (Identifier, Name, ConfigGroup, Component, UserValue, VitalValue, "
                            "CachedValue) VALUES ('', ?, 'grp', 'comp', ?, ?, ?)",
                            key, user, vital, cached),
              0);
  }
  DBStore::Connection conn_;
};

TEST_F(MetricsTest, SumsCountNullValuesAsZero) {
  EXPECT_TRUE(GetConfigMetrics().empty());
  AddRow("k1", "{\"a\":1}", nullptr, "[]");
  AddRow("k2", nullptr, "{\"v\":true}", nullptr);
  EXPECT_EQ(GetConfigRowCount(), 2);
  EXPECT_EQ(GetUserConfigSize(), 7);
  EXPECT_EQ(GetVitalConfigSize(), 10);
  EXPECT_EQ(GetCachedConfigSize(), 2);
  EXPECT_THAT(GetConfigMetrics(), testing::UnorderedElementsAre("comp,grp,k1,0,7,2", "comp,grp,k2,10,0,0"));
  ASSERT_EQ(DBStore::Exec(conn_, "DELETE FROM Config WHERE Name = 'k2'"), 0);
  EXPECT_EQ(GetVitalConfigSize(), 0) << "only NULL values sum to zero";
}

TEST_F(MetricsTest, TotalPastInt32ThrowsAndAFailedQueryNamesTheOperation) {
  // 3 GB of real values would take minutes to write: a view with zero-filled blobs has the same lengths.
  ASSERT_EQ(DBStore::Exec(conn_, "DROP TABLE Config"), 0);
  ASSERT_EQ(DBStore::Exec(conn_, "CREATE VIEW Config AS SELECT 'c' AS Component, 'g' AS ConfigGroup, 'k' AS Name, "
                             "zeroblob(1000000000) AS UserValue, NULL AS VitalValue, 'x' AS CachedValue "
                             "FROM (SELECT 1 UNION ALL SELECT 2 UNION ALL SELECT 3)"),
            0);
  EXPECT_THROW(GetUserConfigSize(), std::out_of_range);
  EXPECT_EQ(GetCachedConfigSize(), 3);
  ASSERT_EQ(DBStore::Exec(conn_, "DROP VIEW Config"), 0);
  EXPECT_EQ(cstest::Thrown([] { GetConfigMetrics(); }), "2000 Failed to get data from GetConfigMetrics");
  EXPECT_EQ(cstest::Thrown([] { GetVitalConfigSize(); }), "2000 Failed to get data from GetVitalConfigSize");
}

}  // namespace
}  // namespace QorConfigStore
