// What of the current configuration a desired document carries over, and what it does not.
#include <gtest/gtest.h>

#include "configstore/desired/DesiredConfig.h"
#include "tests/configstore/desired/DesiredFixture.h"
#include "tests/support/StoreDump.h"

namespace desiredtest {
namespace {

// ---- Networking: the host configuration file decides between carry-over and the switch rule.

class NetworkingTest : public DesiredTest {
 protected:
  void SetUp() override {
    DesiredTest::SetUp();
    InsertConfig("network", "nuknics", "nuk0", R"({"name":"nuk0","mtu":9000})", R"({"mac":"00:aa"})");
    InsertConfig("network_zsw", "switches", "sw1", R"({"uuid": "sw1", "name": "core"})", R"({"v":1})");
  }
  const char* kDoc = R"({"profile": {"qor": {"network": {"nuknics": [{"name": "nuk5"}]},
                                              "network_zsw": {"switches": [{"uuid": "sw1", "name": "renamed"}]},
                                              "system": {"hostname": {"name": "h"}}}}})";
};

TEST_F(NetworkingTest, HostConfigurationFileCarriesCurrentNetworkingOverWhole) {
  struct Case {
    const char* name;
    bool file;
    const char* features;
    bool carriedOver;
  } cases[] = {
      {"file present, switch on by default", true, nullptr, true},
      {"file present, switch on", true, "41=on\n", true},
      {"file present, switch off", true, "# staging\n41=off\n", false},
      {"file absent", false, nullptr, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Remove("/etc/talvex/host_configuration.json");
    Remove("/etc/talvex/features");
    if (c.file) WriteHostConfigFile();
    if (c.features) WriteFile("/etc/talvex/features", c.features);
    log_.Clear();

    Stage(kDoc);

    std::multiset<std::string> networking = StagedOf("network", "nuknics");
    for (const std::string& row : StagedOf("network_zsw", "switches")) networking.insert(row);
    if (c.carriedOver) {
      EXPECT_EQ(networking, (std::multiset<std::string>{
                                Row("SET", "network", "nuknics", "nuk0", "0.9", R"({"name":"nuk0","mtu":9000})"),
                                Row("SET", "network_zsw", "switches", "sw1", "0.9", R"({"uuid": "sw1", "name": "core"})"),
                            }));
      EXPECT_TRUE(log_.Contains("Successfully preserved network configuration."));
    } else {
      EXPECT_EQ(networking, (std::multiset<std::string>{
                                Row("SET", "network", "nuknics", "nuk5", "1.0", R"({"name":"nuk5"})"),
                                Row("SET", "network_zsw", "switches", "sw1", "3.2", R"({"uuid":"sw1","name":"renamed"})"),
                            }));
      EXPECT_FALSE(log_.Contains("Successfully preserved network configuration."));
    }
    // Without the file the switch rule runs, and the document drops no switch.
    EXPECT_EQ(log_.Contains("ZSW objects are not getting deleted, skip ZSW special-handling logic"), !c.carriedOver);
    EXPECT_FALSE(log_.Contains("zsw objects in ConfigStore will be deleted."));
    EXPECT_EQ(StagedOf("system", "hostname").size(), 1u);
    EXPECT_EQ(BootMode(), "1");
  }
}

TEST_F(NetworkingTest, SwitchesTheDocumentDropsAreStagedAgainWithTheirVitalData) {
  InsertConfig("network_zsw", "switches", "sw2", R"({ "uuid": "sw2",  "name": "edge" })");
  InsertConfig("network_zsw", "switches", "sw3", R"({"uuid":"sw3"})", R"({"v":3})");

  Stage(kDoc);

  EXPECT_EQ(StagedOf("network_zsw", "switches"),
            (std::multiset<std::string>{
                Row("SET", "network_zsw", "switches", "sw1", "3.2", R"({"uuid":"sw1","name":"renamed"})"),
                // Re-serialized compactly, with the schema's version.
                Row("SET", "network_zsw", "switches", "sw2", "3.2", R"({"uuid":"sw2","name":"edge"})"),
                Row("SET", "network_zsw", "switches", "sw3", "3.2", R"({"uuid":"sw3"})", R"({"v":3})"),
            }));
  EXPECT_TRUE(log_.Contains("2 zsw objects in ConfigStore will be deleted.", CSLogger::PRIO_INFO));
  EXPECT_TRUE(log_.Contains(R"(Preserve Zsw[sw2] user-config={ "uuid": "sw2",  "name": "edge" }, vital-data=null)"));
  EXPECT_TRUE(log_.Contains("Successfully preserved Zsw[edge] configuration"));
  EXPECT_TRUE(log_.Contains("Successfully preserved Zsw[sw3] configuration")) << "named by its id without a name";
}

TEST_F(NetworkingTest, UnreadableSwitchAbortsTheStaging) {
  InsertConfig("network_zsw", "switches", "sw2", "{not json");
  InsertStaged("ntp", "servers", "earlier", "SET");
  SetStoredBootMode("0");
  const cstest::StoreDump before = cstest::DumpStores();
  EXPECT_EQ(Thrown([&] { Stage(kDoc); }), "2000 SetDesiredUserConfig failed: Failed to preserve ZSW configruation.");
  EXPECT_EQ("", cstest::DiffStores(before, cstest::DumpStores()));
}

// ---- Mutable default configuration.

TEST_F(DesiredTest, MutableDefaultsAreCopiedWholeExceptInstancesTheDocumentStages) {
  InsertDefault("ntp", "servers", "a", R"({"server":"a"})", R"({"key":"v"})");
  InsertDefault("ntp", "servers", "b", R"({"server":"b"})", R"({"key":"v"})");
  InsertDefault("ntp", "servers", "c", R"({"server":"c"})");
  Sql("UPDATE DefaultConfig SET CachedValue = '{\"c\":1}' WHERE Identifier = 'a'");
  InsertDefault("firewall", "rules", "gen-1", R"({"cs_generated_id":"gen-1","port":1})");
  InsertDefault("system", "hostname", "", R"({"name":"default"})");
  InsertDefault("dpu", "mode", "", R"({"mode":"offload"})");  // a key the document leaves out
  InsertDefault("network_zsw", "switches", "sw0", R"({"uuid":"sw0"})");

  Stage(R"({"profile": {"qor": {"ntp": {"servers": [{"server": "b", "prefer": true}, {"server": "d"}]},
                                 "firewall": {"rules": [{"port": 2}]},
                                 "system": {"hostname": {"name": "mine"}}}}})");

  EXPECT_EQ(StagedOf("ntp", "servers"),
            (std::multiset<std::string>{
                Row(nullptr, "ntp", "servers", "a", "d1", R"({"server":"a"})", R"({"key":"v"})", R"({"c":1})"),
                Row(nullptr, "ntp", "servers", "c", "d1", R"({"server":"c"})"),
                Row("SET", "ntp", "servers", "b", "1.4", R"({"server":"b","prefer":true})"),
                Row("SET", "ntp", "servers", "d", "1.4", R"({"server":"d"})"),
            }));
  // Generated ids never match a default's: the default instance stays beside the desired one.
  std::multiset<std::string> rules = StagedOf("firewall", "rules");
  EXPECT_EQ(rules.size(), 2u);
  EXPECT_EQ(rules.count(Row(nullptr, "firewall", "rules", "gen-1", "d1", R"({"cs_generated_id":"gen-1","port":1})")), 1u);
  // A singleton named by the document replaces its default object.
  EXPECT_EQ(StagedOf("system", "hostname"),
            (std::multiset<std::string>{Row("SET", "system", "hostname", "", "2.0", R"({"name":"mine"})")}));
  EXPECT_EQ(StagedOf("dpu", "mode"),
            (std::multiset<std::string>{Row(nullptr, "dpu", "mode", "", "d1", R"({"mode":"offload"})")}));
  EXPECT_TRUE(StagedOf("network_zsw", "switches").empty()) << "switches have no mutable default configuration";
  EXPECT_TRUE(log_.Contains("Processing mutableDefaultConfig schemas id = qor/ntp/servers"));
}

// ---- Advanced options of the network virtualization agent.

TEST_F(DesiredTest, AgentAdvancedOptionsAreCarriedOver) {
  InsertConfig("advanced_options", "user_vars", "ZTN_IP", R"({"name":"ZTN_IP","value":"10.0.0.1"})");
  InsertConfig("advanced_options", "user_vars", "ZTN_OptionalServices", R"({"name":"ZTN_OptionalServices"})");
  InsertConfig("advanced_options", "user_vars", "Other_Var", R"({"name":"Other_Var"})");

  Stage(R"({"profile": {"qor": {"advanced_options": {"user_vars": [{"name": "Mine", "value": "1"}]}}}})");

  EXPECT_EQ(StagedOf("advanced_options", "user_vars"),
            (std::multiset<std::string>{
                Row("SET", "advanced_options", "user_vars", "Mine", "1.0", R"({"name":"Mine","value":"1"})"),
                Row("SET", "advanced_options", "user_vars", "ZTN_IP", "0.9", R"({"name":"ZTN_IP","value":"10.0.0.1"})"),
                Row("SET", "advanced_options", "user_vars", "ZTN_OptionalServices", "0.9",
                    R"({"name":"ZTN_OptionalServices"})"),
            }));
  EXPECT_TRUE(log_.Contains("Successfully preserved ZTN user-var advanced options."));

  // The carry-over is a plain INSERT: a document naming a held agent option is refused whole.
  const cstest::StoreDump before = cstest::DumpStores();
  EXPECT_EQ(Thrown([&] {
              Stage(R"({"profile": {"qor": {"advanced_options": {"user_vars": [{"name": "ZTN_IP", "value": "2"}]}}}})");
            }),
            "2000 SetDesiredUserConfig failed: Failed to preserve ZTN user-var advanced options");
  EXPECT_EQ(cstest::DiffStores(before, cstest::DumpStores()), "");
}

// ---- Solution-user permissions.

class PermissionsTest : public DesiredTest {
 protected:
  void SetUp() override {
    DesiredTest::SetUp();
    InsertConfig("authorization", "permissions", "p1", R"({"id":"p1","principal":"svc-zpl-agent"})");
    InsertConfig("authorization", "permissions", "p2", R"({"id":"p2","principal":"svc-backup"})", R"({"v":2})");
    InsertConfig("authorization", "permissions", "p3", R"({"id":"p3","principal":"zcmuser"})");
    InsertConfig("authorization", "permissions", "p4", R"({"id":"p4","principal":"kcon"})");
    InsertConfig("authorization", "permissions", "p5", R"({"id":"p5","principal":"alice"})");
  }
  const char* kDoc = R"({"profile": {"qor": {"authorization": {"permissions": [
      {"id": "p2", "principal": "svc-backup", "role": "admin"}, {"id": "p5", "principal": "alice", "role": "ro"}]}}}})";
};

TEST_F(PermissionsTest, SolutionUserPermissionsSurviveAndReplaceDesiredOnes) {
  Stage(kDoc);
  EXPECT_EQ(StagedOf("authorization", "permissions"),
            (std::multiset<std::string>{
                Row("SET", "authorization", "permissions", "p1", "5.0", R"({"id":"p1","principal":"svc-zpl-agent"})"),
                Row("SET", "authorization", "permissions", "p2", "5.0", R"({"id":"p2","principal":"svc-backup"})",
                    R"({"v":2})"),
                Row("SET", "authorization", "permissions", "p5", "5.0",
                    R"({"id":"p5","principal":"alice","role":"ro"})"),
            }));
  EXPECT_TRUE(log_.Contains("Found 3 solutionInstances for id='qor/authentication/user_accounts'", CSLogger::PRIO_INFO));
  EXPECT_TRUE(log_.Contains("Found 5 permissions in ConfigStore", CSLogger::PRIO_INFO));
  EXPECT_TRUE(log_.Contains("Preserving solution-user permission for user=svc-backup", CSLogger::PRIO_INFO));
  EXPECT_FALSE(log_.Contains("Preserving solution-user permission for user=zcmuser"));
  EXPECT_FALSE(log_.Contains("Preserving solution-user permission for user=kcon"));
}

TEST_F(PermissionsTest, ServicePrincipalsSurviveWithoutSolutionUsers) {
  std::vector<Element> elements;
  for (Element e : StandardSchemas()) {
    if (e.key == "user_accounts") {
      e.text = R"({"component": "qor", "group": "authentication", "key": "user_accounts", "version": "2.1",
                   "schema": {"type": "object", "properties": {"name": {"type": "string", "instanceId": true}}}})";
    }
    elements.push_back(e);
  }
  Register(elements);

  Stage(R"({"profile": {}})");

  EXPECT_EQ(StagedOf("authorization", "permissions"),
            (std::multiset<std::string>{
                Row("SET", "authorization", "permissions", "p1", "5.0", R"({"id":"p1","principal":"svc-zpl-agent"})")}));
  EXPECT_TRUE(log_.Contains("SolutionUserInstances not found for id='qor/authentication/user_accounts'",
                            CSLogger::PRIO_WARNING));
}

TEST_F(PermissionsTest, NothingIsPreservedWithoutBothSchemas) {
  for (const char* missing : {"authentication/user_accounts", "authorization/permissions"}) {
    SCOPED_TRACE(missing);
    RegisterStandardExcept({missing});
    log_.Clear();
    Stage(R"({"profile": {}})");
    EXPECT_TRUE(StagedOf("authorization", "permissions").empty());
    EXPECT_TRUE(log_.Contains(std::string("Schema not found for id='qor/") + missing + "'", CSLogger::PRIO_WARNING));
  }
}

TEST_F(PermissionsTest, MalformedPermissionAbortsTheStaging) {
  struct Case {
    const char* user;
    const char* logged;
    const char* reason;
  } cases[] = {
      {nullptr, "Permission[bad] does not have user-config", "Invalid permission found in ConfigStore."},
      {"{\"principal\":", "Permission[bad] user-config parsing failed.", "Failed to process permission from ConfigStore."},
      {R"({"id":"bad"})", "Permission[bad] does not contain 'principal' property, not preserving the permissions.",
       "Invalid permission without 'principal' found in ConfigStore."},
      {"[1]", "Permission[bad] does not contain 'principal' property, not preserving the permissions.",
       "Invalid permission without 'principal' found in ConfigStore."},
  };
  InsertStaged("ntp", "servers", "earlier", "SET");
  SetStoredBootMode("0");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.reason);
    Sql("DELETE FROM Config WHERE Identifier = 'bad'");
    InsertConfig("authorization", "permissions", "bad", c.user);
    const cstest::StoreDump before = cstest::DumpStores();
    log_.Clear();
    EXPECT_EQ(Thrown([&] { Stage(kDoc); }), std::string("2000 SetDesiredUserConfig failed: ") + c.reason);
    EXPECT_EQ("", cstest::DiffStores(before, cstest::DumpStores()));
    EXPECT_TRUE(log_.Contains(c.logged));
  }
}

// ---- Distributed-switch port binding of nuknics.

class NuknicBindingTest : public DesiredTest {
 protected:
  void SetUp() override {
    DesiredTest::SetUp();
    InsertConfig("network", "nuknics", "nuk0",
                 R"({"name":"nuk0","port_connection_type":"ZSW",
                     "zsw_port":{"switch_uuid":"U-1","port_key":"K-7","connection_cookie":42}})");
    InsertConfig("network", "nuknics", "nuk1",
                 R"({"name":"nuk1","port_connection_type":"ZSW","zsw_port":{"port_key":"K-1"}})");
    InsertConfig("network", "nuknics", "nuk3",
                 R"({"name":"nuk3","port_connection_type":"VSS","zsw_port":{"port_key":"K-3"}})");
    InsertConfig("network", "nuknics", "nuk4", R"({"name":"nuk4","port_connection_type":"ZSW"})");
    InsertConfig("network", "nuknics", "nuk5",
                 R"({"name":"nuk5","port_connection_type":"ZSW","zsw_port":{"port_key":"K-5"}})");
  }
  std::string StagedValue(const std::string& id) const {
    for (const std::string& row : StagedOf("network", "nuknics")) {
      std::string prefix = "SET|qor|network|nuknics|" + id + "|1.0|";
      if (row.rfind(prefix, 0) == 0) return row.substr(prefix.size(), row.size() - prefix.size() - 4);
    }
    return "(not staged)";
  }
};

TEST_F(NuknicBindingTest, CurrentPortIdentityOverridesTheDesiredOne) {
  Stage(R"({"profile": {"qor": {"network": {"nuknics": [
      {"name": "nuk0", "port_connection_type": "ZSW", "zsw_port": {"port_key": "mine"}},
      {"name": "nuk1", "port_connection_type": "VSS"},
      {"name": "nuk2", "port_connection_type": "ZSW", "zsw_port": {"port_key": "new"}},
      {"name": "nuk3", "port_connection_type": "ZSW"},
      {"name": "nuk4", "port_connection_type": "ZSW"},
      {"name": "nuk5", "port_connection_type": "ZSW"}]}}}})");

  EXPECT_EQ(StagedValue("nuk0"),
            R"({"name":"nuk0","port_connection_type":"ZSW","zsw_port":{"port_key":"K-7","switch_uuid":"U-1","connection_cookie":42}})");
  EXPECT_EQ(StagedValue("nuk1"), R"({"name":"nuk1","port_connection_type":"VSS"})") << "not connected to a switch";
  EXPECT_EQ(StagedValue("nuk2"), R"({"name":"nuk2","port_connection_type":"ZSW","zsw_port":{"port_key":"new"}})");
  EXPECT_EQ(StagedValue("nuk3"), R"({"name":"nuk3","port_connection_type":"ZSW"})") << "current one not on a switch";
  EXPECT_EQ(StagedValue("nuk4"), R"({"name":"nuk4","port_connection_type":"ZSW"})") << "current one has no port";
  EXPECT_EQ(StagedValue("nuk5"), R"({"name":"nuk5","port_connection_type":"ZSW","zsw_port":{"port_key":"K-5"}})")
      << "a port is created where the desired object has none";
  for (const char* member : {"switch_uuid", "port_key", "connection_cookie"}) {
    EXPECT_TRUE(log_.Contains(std::string("Nuknic {nuk0} ZSW ") + member + " perserved.", CSLogger::PRIO_INFO));
  }
  EXPECT_TRUE(log_.Contains("Desired Nuknic {nuk2} is connected to ZSW"));
  EXPECT_TRUE(log_.Contains("Nuknic {nuk2} not found on Qori host, no ZSW configuration to preserve."));
  EXPECT_FALSE(log_.Contains("Desired Nuknic {nuk1} is connected to ZSW"));
}

TEST_F(NuknicBindingTest, UnreadableCurrentNuknicAbortsTheStaging) {
  InsertConfig("network", "nuknics", "nuk9", "not json");
  SetStoredBootMode("0");
  const cstest::StoreDump before = cstest::DumpStores();
  const char* doc = R"({"profile": {"qor": {"network": {"nuknics": [{"name": "nuk9", "port_connection_type": "ZSW"}]}}}})";
  EXPECT_EQ(Thrown([&] { Stage(doc); }),
            "2000 SetDesiredUserConfig failed: Nuknic configuration is invalid.");
  EXPECT_EQ("", cstest::DiffStores(before, cstest::DumpStores()));
}

}  // namespace
}  // namespace desiredtest
