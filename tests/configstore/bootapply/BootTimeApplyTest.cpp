// The boot-mode routines that apply staged configuration: host API (4), SmartNIC (3) and desired
// user configuration generation (1).
#include <gmock/gmock.h>
#include <sqlite3.h>

#include "configstore/boot/BootTimeApply.h"
#include "tests/configstore/bootapply/BootApplyFixture.h"

namespace QorConfigStore {
namespace {

using bootapply::kNull;
using testing::ElementsAre;
using Routine = void (*)(const DBStore::Connection&);

class BootTimeApplyTest : public bootapply::BootApplyTest {
 protected:
  // Every kind of host-API action, on keys of two instances where it matters.
  void HostApiScenario() {
    AddConfig("network", "nuknics", "vmk0", "u0", "v0", "c0");
    AddConfig("network", "nuknics", "vmk1", "u1", "v1", "c1");
    AddConfig("network", "dns", "a", "da");
    AddConfig("network", "dns", "b", kNull);
    AddConfig("system", "hostname", "", "h");
    AddConfig("logging", "syslog", "s1", "s1");
    AddConfig("logging", "syslog", "s2", "s2");
    AddConfig("firewall", "rules", "r1", "r1");
    AddConfig("firewall", "rules", "r2", "r2");
    AddDefault("firewall", "rules", "d1", "D1");
    AddDefault("firewall", "rules", "d2", "D2");
    AddDefault("network", "dns", "x", "X");  // not asked for: stays a default
    AddDesired("network", "nuknics", "vmk1", "U1", "SET", kNull, "C1");
    AddDesired("network", "nuknics", "vmk2", "U2", "SET", "V2");
    AddDesired("network", "dns", kNull, kNull, "DELETE");
    AddDesired("logging", "syslog", "s1", kNull, "DELETE_INSTANCE");
    AddDesired("firewall", "rules", kNull, kNull, "SET_DEFAULT");
  }

  // Shared keys: nuknics (instanced), hostname (singleton), dns (instanced, mutable defaults);
  // syslog and user_accounts are not shared.
  void SmartnicScenario() {
    RegisterSchemas({bootapply::kNuknics, bootapply::kHostname, bootapply::kDns, bootapply::kSyslog,
                     bootapply::kUserAccounts});
    AddConfig("network", "nuknics", "vmk0", "u0", "v0");
    AddConfig("network", "nuknics", "vmk1", "u1", "v1");
    AddConfig("system", "hostname", "", "h");
    AddConfig("network", "dns", "a", "da");
    AddConfig("logging", "syslog", "s1", "s1");
    AddConfig("authentication", "user_accounts", "root", "r");
    AddDefault("network", "dns", "d1", "D1");
    AddDesired("network", "nuknics", "vmk1", "U1", "SET", "VX");
    AddDesired("network", "nuknics", "vmk2", "U2", "SET", "V2");
    AddDesired("network", "dns", kNull, kNull, "SET_DEFAULT");
    AddDesired("authentication", "user_accounts", kNull, kNull, "DELETE");
  }

  // DSP keys nuknics (vmk0 and vmk9 preserved), dns (PreserveNonUser), user_accounts, hostname;
  // syslog is outside the desired-state process.
  void GenerationScenario() {
    RegisterSchemas({bootapply::kNuknics, bootapply::kHostname, bootapply::kDns, bootapply::kSyslog,
                     bootapply::kUserAccounts});
    AddConfig("network", "nuknics", "vmk0", "u0", "v0");
    AddConfig("network", "nuknics", "vmk1", "u1", "v1", "c1");
    AddConfig("network", "nuknics", "vmk2", "u2");
    AddConfig("network", "dns", "a", "da");
    AddConfig("network", "dns", "b", kNull);
    AddConfig("authentication", "user_accounts", "svc-zpl-agent", "sv");
    AddConfig("authentication", "user_accounts", "root", "r");
    AddConfig("logging", "syslog", "s1", "s1");
    AddConfig("system", "hostname", "", "h");
    AddDesired("network", "nuknics", "vmk1", "U1", "SET", kNull, "C1");
    AddDesired("network", "nuknics", "vmk3", "U3", "SET", "V3", "C3");
    AddDesired("system", "hostname", "", "H", "SET");
  }
};

TEST_F(BootTimeApplyTest, HostApiAppliesEachActionKind) {
  HostApiScenario();
  Apply(ApplyHostApiBootConfiguration);

  EXPECT_THAT(ConfigRows(), ElementsAre("firewall/rules/d1 D1|dv|dc",   // SET_DEFAULT: defaults replace r1, r2
                                        "firewall/rules/d2 D2|dv|dc",   //
                                        "logging/syslog/s2 s2|NULL|NULL",  // DELETE_INSTANCE s1 only
                                        "network/dns/b NULL|NULL|NULL",    // DELETE: no user value, kept
                                        "network/nuknics/vmk1 U1|v1|C1",   // SET: updated, vital kept
                                        "network/nuknics/vmk2 U2|V2|NULL",  // SET: new; vmk0 removed
                                        "system/hostname/ h|NULL|NULL"));
  // Updated rows keep their creation time and revision; new rows carry the staged version.
  EXPECT_EQ(ConfigColumn("network", "nuknics", "vmk1", "CreationTime || ' ' || Revision || ' ' || Version"),
            "2001-02-03 04:05:06 7 old");
  EXPECT_EQ(ConfigColumn("network", "nuknics", "vmk2", "Version"), "new");
  EXPECT_EQ(ConfigColumn("firewall", "rules", "d1", "Version"), "default");
  // Marked rows lose their desired value; untouched ones keep it.
  EXPECT_EQ(ConfigColumn("network", "nuknics", "vmk1", "DesiredValue"), "NULL");
  EXPECT_EQ(ConfigColumn("network", "dns", "b", "DesiredValue"), "NULL");
  EXPECT_EQ(ConfigColumn("system", "hostname", "", "DesiredValue"), "staged");
  EXPECT_EQ(Query("SELECT COUNT(*) FROM DesiredUserConfig"), std::vector<std::string>{"5"});
}

TEST_F(BootTimeApplyTest, SmartnicReplacesSharedObjectsOnly) {
  SmartnicScenario();
  Apply(ApplySmartnicBootConfiguration);

  EXPECT_THAT(ConfigRows(), ElementsAre("logging/syslog/s1 s1|NULL|NULL",  // not shared: untouched
                                        "network/dns/d1 D1|dv|dc",          // SET_DEFAULT refilled
                                        "network/nuknics/vmk1 U1|v1|NULL",  // user value only
                                        "network/nuknics/vmk2 U2|NULL|NULL",  // new: user value only
                                        "system/hostname/ h|NULL|NULL"));   // shared singleton kept
  EXPECT_EQ(ConfigColumn("network", "nuknics", "vmk1", "CreationTime || ' ' || Revision"), "2001-02-03 04:05:06 7");
  EXPECT_EQ(Query("SELECT COUNT(*) FROM DesiredUserConfig"), std::vector<std::string>{"4"});
}

TEST_F(BootTimeApplyTest, SmartnicSetOverAnExistingUnsharedObjectFails) {
  SmartnicScenario();
  AddDesired("logging", "syslog", "s1", "S1", "SET");
  const cstest::StoreDump before = cstest::DumpStores();
  EXPECT_EQ(ApplyAndCancel(ApplySmartnicBootConfiguration), "Failed to process BootAction=SET for new configs");
  EXPECT_EQ("", cstest::DiffStores(before, cstest::DumpStores()));
}

TEST_F(BootTimeApplyTest, GenerationReplacesDesiredStateUserConfiguration) {
  GenerationScenario();
  Apply(GenerateDesiredUserConfiguration);

  EXPECT_THAT(ConfigRows(),
              ElementsAre("authentication/user_accounts/svc-zpl-agent sv|NULL|NULL",  // solution user kept
                          "logging/syslog/s1 s1|NULL|NULL",                          // not DSP: untouched
                          "network/dns/a NULL|NULL|NULL",                            // PreserveNonUser
                          "network/dns/b NULL|NULL|NULL",                            //
                          "network/nuknics/vmk0 u0|v0|NULL",                         // preserved instance
                          "network/nuknics/vmk1 U1|v1|C1",                           // merged
                          "network/nuknics/vmk3 U3|V3|C3",                           // inserted
                          "system/hostname/ H|NULL|NULL"));
  EXPECT_EQ(ConfigColumn("network", "nuknics", "vmk1",
                         "CreationTime || ' ' || Revision || ' ' || COALESCE(DesiredValue, 'NULL')"),
            "2001-02-03 04:05:06 7 NULL");
  EXPECT_EQ(ConfigColumn("network", "nuknics", "vmk0", "DesiredValue"), "staged") << "preserved rows are not touched";
  EXPECT_TRUE(Query("SELECT * FROM DesiredUserConfig").empty());
}

// Four values per preserved object would pass SQLite's limit of bound values past 8,191 objects.
TEST_F(BootTimeApplyTest, GenerationKeepsTenThousandPreservedInstances) {
  sqlite3_limit(conn_->db, SQLITE_LIMIT_VARIABLE_NUMBER, 32766);  // SQLite's default, as on the host
  RegisterSchemas({bootapply::kNuknics});
  const std::string ids = "WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < 9999) ";
  Sql("UPDATE ss.ConfigSchema SET PreservedInstanceIds = (" + ids + "SELECT json_group_array('vmk' || i) FROM n)");
  Sql("INSERT INTO Config (Component, ConfigGroup, Name, Identifier, UserValue) " + ids +
      "SELECT 'qor', 'network', 'nuknics', 'vmk' || i, 'u' FROM n UNION ALL SELECT 'qor', 'network', 'nuknics', "
      "'other', 'u'");
  Apply(GenerateDesiredUserConfiguration);
  EXPECT_THAT(Query("SELECT count(*), min(UserValue) FROM Config"), ElementsAre("10000|u"));
}

TEST_F(BootTimeApplyTest, PreservedObjectsComeFromInstancedKeysWithOwnIds) {
  RegisterSchemas({bootapply::kNuknics, bootapply::kRules, bootapply::kHostname});
  // Rows that registration refuses, written directly: a singleton and a generated-id key listing
  // preserved ids are ignored, and only text ids count.
  Sql("UPDATE ss.ConfigSchema SET PreservedInstanceIds = '[\"x\"]' WHERE Name IN ('hostname', 'rules')");
  Sql("INSERT INTO ss.ConfigSchema (Component, ConfigGroup, Name, InstanceIdName, PreservedInstanceIds) VALUES "
      "('qor', 'alpha', 'k', 'id', '[\"b\", 5, \"a\"]')");
  std::vector<std::string> ids;
  for (const ConfigStoreObjectId& id : ListPreservedUserObjects(conn_)) ids.push_back(id.toString());
  EXPECT_THAT(ids, ElementsAre("comp qor grp alpha key k id b", "comp qor grp alpha key k id a",
                               "comp qor grp network key nuknics id vmk0", "comp qor grp network key nuknics id vmk9"));

  Sql("UPDATE ss.ConfigSchema SET PreservedInstanceIds = '[' WHERE Name = 'k'");
  EXPECT_EQ(cstest::Thrown([&] { ListPreservedUserObjects(conn_); }), "2000 Failed to read preserved instance ids");
}

// A failing statement throws its message; the statements of the preserved-object mark (2 to 4)
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
      {gen, K::Prepare, 1, "Failed to read preserved instance ids"},
      {gen, K::Prepare, 2, "Failed to mark user configuration for delete"},
      {gen, K::Prepare, 3, "Failed to mark user configuration for delete"},
      {gen, K::Prepare, 4, "Failed to mark user configuration for delete"},
      {gen, K::Prepare, 5, "Failed to insert desired configuration to config table"},
  };
  HostApiScenario();
  RegisterSchemas({bootapply::kNuknics, bootapply::kHostname, bootapply::kDns, bootapply::kSyslog});
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
