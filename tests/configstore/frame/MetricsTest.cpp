// Size metrics of the Config table.
#include <gmock/gmock.h>

#include <stdexcept>

#include "configstore/frame/CallFrame.h"
#include "configstore/frame/Metrics.h"
#include "tests/support/Sandbox.h"

namespace QorConfigStore {
namespace {

using MetricsTest = cstest::SandboxTest;

// NULL values sum to zero, a total past int32 throws, a failed query names the operation.
TEST_F(MetricsTest, SumsCountNullValuesAsZero) {
  ASSERT_EQ(DBStore::CreateDatabases(), 0);
  DBStore::Connection conn = GetDBConnection(DBStore::CONFIG_STORE, true);
  EXPECT_TRUE(GetConfigMetrics().empty());
  ASSERT_EQ(DBStore::Exec(conn, "INSERT INTO Config (Identifier, Name, ConfigGroup, Component, UserValue, VitalValue, "
                                "CachedValue) VALUES ('', 'k1', 'grp', 'comp', '{}', NULL, '[]'), "
                                "('', 'k2', 'grp', 'comp', NULL, '{\"v\":1}', NULL)"),
            0);
  EXPECT_EQ(GetConfigRowCount(), 2);
  EXPECT_EQ(GetUserConfigSize(), 2);
  EXPECT_EQ(GetVitalConfigSize(), 7);
  EXPECT_EQ(GetCachedConfigSize(), 2);
  EXPECT_THAT(GetConfigMetrics(), testing::UnorderedElementsAre("comp,grp,k1,0,2,2", "comp,grp,k2,7,0,0"));

  // 3 GB of real values would take minutes to write: a view with zero-filled blobs has the same lengths.
  ASSERT_EQ(DBStore::Exec(conn, "DROP TABLE Config"), 0);
  ASSERT_EQ(DBStore::Exec(conn, "CREATE VIEW Config AS SELECT 'c' AS Component, 'g' AS ConfigGroup, 'k' AS Name, "
                                "zeroblob(1000000000) AS UserValue, NULL AS VitalValue, 'x' AS CachedValue "
                                "FROM (SELECT 1 UNION ALL SELECT 2 UNION ALL SELECT 3)"),
            0);
  EXPECT_THROW(GetUserConfigSize(), std::out_of_range);
  EXPECT_EQ(GetVitalConfigSize(), 0);
  ASSERT_EQ(DBStore::Exec(conn, "DROP VIEW Config"), 0);
  EXPECT_EQ(cstest::Thrown([] { GetConfigMetrics(); }), "2000 Failed to get data from GetConfigMetrics");
}

}  // namespace
}  // namespace QorConfigStore
