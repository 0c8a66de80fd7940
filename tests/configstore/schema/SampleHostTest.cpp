// ProcessSchemas over the repository's sample host (examples/host): its schema files and default
// configuration belong together, on the ordinary host and on the DPU variant.
#include <gtest/gtest.h>

#include <string>

#include "configstore/schema/SchemaProcessor.h"
#include "tests/configstore/schema/SchemaHostFixture.h"

namespace {

using namespace QorConfigStore;
using cstest::Strings;

using SampleHostTest = cstest::SchemaHostTest;

TEST_F(SampleHostTest, RegistersNewestSchemasAndLoadsTheDefaultsOfEachKindOfHost) {
  struct Case {
    bool qorio;
    Strings registered;
    size_t defaults;
    Strings nics;
  } cases[] = {
      {false,
       {"qor/advanced_options/user_vars qor-base-8.0.2_1.0 1.0", "qor/authentication/user_accounts qor-base-8.0.2_1.0 2.1",
        "qor/authorization/permissions qor-base-8.0.2_1.0 1.0", "qor/network/dns qor-base-8.0.2_1.0 1.0",
        "qor/network/nuknics net-core-1.2.3_4.5 1.1", "qor/network_zsw/switches net-core-1.2.3_4.5 1.0",
        "qor/system/advanced_options qor-base-8.0.2_1.0 1.2"},
       12,
       {R"(qor/network/nuknics|nuk0|{"name":"nuk0","mtu":1500,"enabled":true,"port_connection_type":"STANDARD"}|||1.1)"}},
      // Host-only keys have no schema on the DPU, so their defaults are reported as failures.
      {true,
       {"qor/network/dns qor-base-8.0.2_1.0 1.0", "qor/network/dpu_uplinks net-core-1.2.3_4.5 1.0",
        "qor/network/nuknics net-core-1.2.3_4.5 1.1"},
       3,
       {R"(qor/network/nuknics|nuk0|{"name":"nuk0","mtu":9000,"enabled":true,"port_connection_type":"STANDARD"}|||1.1)",
        R"(qor/network/nuknics|nuk1|{"name":"nuk1","mtu":9000,"enabled":false,"port_connection_type":"STANDARD"}|||1.1)"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.qorio ? "DPU" : "host");
    CopyExampleHost();  // the fixture emptied the package directories: put the samples back
    SetQorio(c.qorio);
    EXPECT_EQ(ProcessSchemas({}), !c.qorio);
    EXPECT_EQ(Registered(), c.registered);
    Strings defaults = DefaultRows(), nics;
    EXPECT_EQ(defaults.size(), c.defaults);
    for (const auto& row : defaults) {
      if (row.rfind("qor/network/nuknics|", 0) == 0) nics.push_back(row);
    }
    EXPECT_EQ(nics, c.nics);
    EXPECT_EQ(Exists("/var/run/talvex/files/errors-net-core-1.2.3_4.5.json"), c.qorio);
    // Generated identifiers are written into the value too.
    EXPECT_EQ(Query("SELECT COUNT(*) FROM DefaultConfig WHERE Name = 'permissions' AND length(Identifier) = 36 "
                    "AND instr(Value, '\"cs_generated_id\":\"' || Identifier || '\"') > 0"),
              Strings{c.qorio ? "0" : "3"});
  }
}

}  // namespace
