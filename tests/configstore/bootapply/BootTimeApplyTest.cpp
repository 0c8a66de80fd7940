// The boot-mode routines that apply staged configuration: host API (4), SmartNIC (3) and desired
// user configuration generation (1), each on one store with rows of every key.
#include <gmock/gmock.h>

#include "configstore/boot/BootTimeApply.h"
#include "tests/configstore/bootapply/StoreFixture.h"

namespace QorConfigStore {
namespace {

using testing::ElementsAre;
using Routine = void (*)(const DBStore::Connection&);
using Strings = std::vector<std::string>;

class BootTimeApplyTest : public storetest::StoreTest {
 protected:
  // Rows of every key, in place of what the store held.
  void Base() {
    for (const char* table : {"Config", "DesiredUserConfig", "DefaultConfig"}) Sql(std::string("DELETE FROM ") + table);
    AddConfig(
        "('network','nuknics','vmk0','u0','v0','c0'), ('network','nuknics','vmk1','u1','v1','c1'), "
        "('network','nuknics','vmk2','u2',NULL,NULL), ('network','dns','a','da',NULL,NULL), "
        "('network','dns','b',NULL,NULL,NULL), ('system','hostname','','h',NULL,NULL), "
        "('logging','syslog','s1','s1',NULL,NULL), ('logging','syslog','s2','s2',NULL,NULL), "
        "('firewall','rules','r1','r1',NULL,NULL), ('authentication','user_accounts','svc-zpl-agent','sv',NULL,"
        "NULL), ('authentication','user_accounts','root','r',NULL,NULL)");
    AddDefault("('firewall','rules','d1','D1'), ('firewall','rules','d2','D2'), ('network','dns','x','X')");
  }
  void SetUp() override {
    StoreTest::SetUp();
    Register(storetest::kBootSchemas);
    Base();
  }
};

// Config rows "group/key/id user|vital|cached|version|revision|desired value" after each routine, and
// the staged rows it leaves.
TEST_F(BootTimeApplyTest, EachBootModeAppliesItsStagedRows) {
  const struct {
    Routine routine;
    const char* desired;
    Strings rows;
    const char* left;
  } cases[] = {
      {ApplyHostApiBootConfiguration,
       "('network','nuknics','vmk1','U1','SET',NULL,'C1'), ('network','nuknics','vmk3','U3','SET','V3',NULL), "
       "('network','dns',NULL,NULL,'DELETE',NULL,NULL), ('logging','syslog','s1',NULL,'DELETE_INSTANCE',NULL,NULL), "
       "('firewall','rules',NULL,NULL,'SET_DEFAULT',NULL,NULL)",
       {"authentication/user_accounts/root r|NULL|NULL|old|7|staged",
        "authentication/user_accounts/svc-zpl-agent sv|NULL|NULL|old|7|staged",
        "firewall/rules/d1 D1|dv|dc|default|NULL|NULL", "firewall/rules/d2 D2|dv|dc|default|NULL|NULL",  // SET_DEFAULT
        "logging/syslog/s2 s2|NULL|NULL|old|7|staged",    // DELETE_INSTANCE s1 only
        "network/dns/b NULL|NULL|NULL|old|7|NULL",        // DELETE: no user value, kept
        "network/nuknics/vmk1 U1|v1|C1|old|7|NULL",       // SET: updated, vital kept
        "network/nuknics/vmk3 U3|V3|NULL|new|NULL|NULL",  // SET: new; vmk0 and vmk2 go
        "system/hostname/ h|NULL|NULL|old|7|staged"},
       "5"},
      {ApplySmartnicBootConfiguration,
       "('network','nuknics','vmk1','U1','SET','VX',NULL), ('network','nuknics','vmk3','U3','SET','V3',NULL), "
       "('network','dns',NULL,NULL,'SET_DEFAULT',NULL,NULL), "
       "('authentication','user_accounts',NULL,NULL,'DELETE',NULL,NULL)",
       {"firewall/rules/r1 r1|NULL|NULL|old|7|staged",  // not shared: untouched
        "logging/syslog/s1 s1|NULL|NULL|old|7|staged", "logging/syslog/s2 s2|NULL|NULL|old|7|staged",
        "network/dns/x X|dv|dc|default|NULL|NULL",          // SET_DEFAULT refilled
        "network/nuknics/vmk1 U1|v1|c1|old|7|staged",       // user value only
        "network/nuknics/vmk3 U3|NULL|NULL|new|NULL|NULL",  // new: user value only; vmk0 and vmk2 go
        "system/hostname/ h|NULL|NULL|old|7|staged"},
       "4"},
      {GenerateDesiredUserConfiguration,
       "('network','nuknics','vmk1','U1','SET',NULL,'C1'), ('network','nuknics','vmk3','U3','SET','V3','C3'), "
       "('system','hostname','','H','SET',NULL,NULL)",
       {"authentication/user_accounts/svc-zpl-agent sv|NULL|NULL|old|7|staged",  // solution user kept
        "logging/syslog/s1 s1|NULL|NULL|old|7|staged", "logging/syslog/s2 s2|NULL|NULL|old|7|staged",  // not DSP
        "network/dns/a NULL|NULL|NULL|old|7|NULL", "network/dns/b NULL|NULL|NULL|old|7|NULL",  // PreserveNonUser
        "network/nuknics/vmk0 u0|v0|c0|old|7|staged",    // preserved instance, untouched
        "network/nuknics/vmk1 U1|v1|C1|old|7|NULL",      // merged
        "network/nuknics/vmk3 U3|V3|C3|NULL|NULL|NULL",  // inserted
        "system/hostname/ H|NULL|NULL|old|7|NULL"},
       "0"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.desired);
    Base();
    AddDesired(c.desired);
    Apply(c.routine);
    EXPECT_EQ(ConfigRows(", Version, Revision, DesiredValue"), c.rows);
    EXPECT_THAT(Query("SELECT COUNT(*) FROM DesiredUserConfig"), ElementsAre(c.left));
  }
}

TEST_F(BootTimeApplyTest, SmartnicSetOverAnExistingUnsharedObjectFails) {
  AddDesired("('logging','syslog','s1','S1','SET',NULL,NULL)");
  const cstest::StoreDump before = cstest::DumpStores();
  EXPECT_EQ(ApplyAndCancel(ApplySmartnicBootConfiguration), "Failed to process BootAction=SET for new configs");
  EXPECT_EQ("", cstest::DiffStores(before, cstest::DumpStores()));
}

TEST_F(BootTimeApplyTest, PreservedObjectsComeFromInstancedKeysWithOwnIds) {
  // Rows that registration refuses, written directly: a singleton and a generated-id key listing
  // preserved ids are ignored, and only text ids count.
  Sql("UPDATE ss.ConfigSchema SET PreservedInstanceIds = '[\"x\"]' WHERE Name IN ('hostname', 'rules')");
  Sql("INSERT INTO ss.ConfigSchema (Component, ConfigGroup, Name, InstanceIdName, PreservedInstanceIds) VALUES "
      "('qor', 'alpha', 'k', 'id', '[\"b\", 5, \"a\"]')");
  Strings ids;
  for (const ConfigStoreObjectId& id : ListPreservedUserObjects(conn_)) ids.push_back(id.toString());
  EXPECT_THAT(ids, ElementsAre("comp qor grp alpha key k id b", "comp qor grp alpha key k id a",
                               "comp qor grp network key nuknics id vmk0", "comp qor grp network key nuknics id vmk9"));
  Sql("UPDATE ss.ConfigSchema SET PreservedInstanceIds = '[' WHERE Name = 'k'");
  EXPECT_EQ(cstest::Thrown([&] { ListPreservedUserObjects(conn_); }), "2000 Failed to read preserved instance ids");
}

// A failing statement throws its message; the statements of the preserved-object mark (2 to 4, the first and last here)
// each fail the run. What the rollback leaves at every fault point is swept in tests/reliability/sweeps.
TEST_F(BootTimeApplyTest, EachFailingStatementThrowsItsMessage) {
  using K = DBStore::faults::Kind;
  const Routine host = ApplyHostApiBootConfiguration, nic = ApplySmartnicBootConfiguration,
                gen = GenerateDesiredUserConfiguration;
  const struct {
    Routine routine;
    K kind;
    int nth;
    const char* message;
  } cases[] = {
      {host, K::Step, 1, "Failed to mark configurations with BootAction=DELETE_INSTANCE for deletion"},
      {nic, K::Prepare, 1, "Failed to process BootAction=DELETE"},
      {gen, K::Prepare, 2, "Failed to mark user configuration for delete"},
      {gen, K::Prepare, 4, "Failed to mark user configuration for delete"},
      {gen, K::Prepare, 5, "Failed to insert desired configuration to config table"},
  };
  AddDesired(
      "('network','nuknics','vmk1','U1','SET',NULL,NULL), ('logging','syslog','s1',NULL,'DELETE_INSTANCE',"
      "NULL,NULL)");
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.message) + ", call " + std::to_string(c.nth));
    EXPECT_EQ(ApplyAndCancel([&](const DBStore::Connection& conn) {
                DBStore::faults::Arm(c.kind, c.nth, false);
                c.routine(conn);
              }),
              c.message);
  }
}

}  // namespace
}  // namespace QorConfigStore
