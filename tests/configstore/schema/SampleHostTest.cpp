// ProcessSchemas over the repository's sample host (examples/host): its schema files and default
// configuration belong together.
#include <gtest/gtest.h>

#include <string>

#include "configstore/schema/SchemaProcessor.h"
#include "tests/configstore/schema/SchemaHostFixture.h"

namespace {

using namespace QorConfigStore;
using cstest::Strings;

class SampleHostTest : public cstest::SchemaHostTest {
 protected:
  void SetUp() override {
    SchemaHostTest::SetUp();
    CopyExampleHost();  // the fixture emptied the package directories: put the samples back
  }

  Strings DefaultRowsOf(const std::string& cgk) const {
    return Query("SELECT Identifier || '|' || Value || '|' || VitalValue || '|' || CachedValue || '|' || Version "
                 "FROM DefaultConfig WHERE Component || '/' || ConfigGroup || '/' || Name = '" + cgk +
                 "' ORDER BY Identifier");
  }
};

TEST_F(SampleHostTest, OrdinaryHostRegistersNewestSchemasAndLoadsDefaults) {
  ASSERT_TRUE(ProcessSchemas({}));
  EXPECT_EQ(Registered(), (Strings{
                              "qor/advanced_options/user_vars qor-base-8.0.2_1.0 1.0",
                              "qor/authentication/user_accounts qor-base-8.0.2_1.0 2.1",
                              "qor/authorization/permissions qor-base-8.0.2_1.0 1.0",
                              "qor/network/dns qor-base-8.0.2_1.0 1.0",
                              "qor/network/nuknics net-core-1.2.3_4.5 1.1",
                              "qor/network_zsw/switches net-core-1.2.3_4.5 1.0",
                              "qor/system/advanced_options qor-base-8.0.2_1.0 1.2",
                          }));
  // The older net-core files are passed over by both the registration and the defaults.
  EXPECT_EQ(log_.Count("Skipping schema file 'net-core-1.1.0_2.0.json' since latest version already processed."), 2u);
  EXPECT_EQ(DefaultRows().size(), 12u);
  EXPECT_EQ(DefaultRowsOf("qor/network/nuknics"),
            Strings{R"(nuk0|{"name":"nuk0","mtu":1500,"enabled":true,"port_connection_type":"STANDARD"}|||1.1)"});
  Strings permissions = Query(
      "SELECT COUNT(*) FROM DefaultConfig WHERE Name = 'permissions' AND length(Identifier) = 36 "
      "AND instr(Value, '\"cs_generated_id\":\"' || Identifier || '\"') > 0");
  EXPECT_EQ(permissions, Strings{"3"});
  EXPECT_FALSE(Exists("/var/run/talvex/files/errors-qor-base-8.0.2_1.0.json"));
}

TEST_F(SampleHostTest, DpuRegistersSharedAndDpuKeysAndTakesItsOwnDefaults) {
  SetQorio(true);
  // Host-only keys have no schema on the DPU, so their defaults are reported as failures.
  EXPECT_FALSE(ProcessSchemas({}));
  EXPECT_TRUE(Logged("[SchemaProcessor]: This is qorio booting up.", 2));
  EXPECT_EQ(Registered(), (Strings{
                              "qor/network/dns qor-base-8.0.2_1.0 1.0",
                              "qor/network/dpu_uplinks net-core-1.2.3_4.5 1.0",
                              "qor/network/nuknics net-core-1.2.3_4.5 1.1",
                          }));
  EXPECT_EQ(DefaultRowsOf("qor/network/nuknics"),
            (Strings{R"(nuk0|{"name":"nuk0","mtu":9000,"enabled":true,"port_connection_type":"STANDARD"}|||1.1)",
                     R"(nuk1|{"name":"nuk1","mtu":9000,"enabled":false,"port_connection_type":"STANDARD"}|||1.1)"}));
  EXPECT_EQ(ReadFile("/var/run/talvex/files/errors-net-core-1.2.3_4.5.json"),
            R"([{"key":"switches","errors":[{"error":"Schema not found"}]}])");
  EXPECT_EQ(DefaultRows().size(), 3u);
}

}  // namespace
