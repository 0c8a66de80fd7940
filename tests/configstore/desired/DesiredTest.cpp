// Staging of desired, SmartNIC and host-API configuration: the rows written, what of the current
// configuration is carried over, refusal of bad documents, and the staging subcommands of
// configstorectl run as a process.
#include <gmock/gmock.h>

#include "configstore/frame/CallFrame.h"
#include "tests/configstore/desired/DesiredFixture.h"
#include "tests/support/Ctl.h"

namespace desiredtest {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;

// The earlier staging goes; DELETE_DEFAULT stages nothing but keeps the mutable defaults, which are
// copied whole except the instances the document stages (generated ids never match a default's);
// the last instance of an id wins.
TEST_F(DesiredTest, StagesEveryObjectAsSetWithItsSchemaVersion) {
  StageEarlier("0");
  InsertDefault("ntp", "servers", "pool", R"({"server":"pool"})", R"({"key":"v"})");
  Sql("UPDATE DefaultConfig SET CachedValue = '{\"c\":1}'");
  InsertDefault("network_zsw", "switches", "sw0", R"({"uuid":"sw0"})");  // no mutable default configuration
  InsertDefault("firewall", "rules", "gen-1", R"({"cs_generated_id":"gen-1"})");
  InsertDefault("system", "hostname", "", R"({"name":"default"})");
  InsertDefault("dpu", "mode", "", R"({"mode":"offload"})");  // a key the document leaves out
  Stage(R"({"profile": {"qor": {
      "network": {"nuknics": [{"name": "nuk0", "mtu": 1500, "mac": "00:11"}, {"name": "nuk1"}], "bogus": {"x": 1}},
      "system": {"hostname": {"name": "h1"}}, "firewall": {"rules": [{"port": 22}]},
      "authentication": {"user_accounts": [{"name": "a"}, 7, "b", null, {"name": "a", "x": 1}]},
      "ntp": {"servers": "DELETE_DEFAULT"}, "network_zsw": {"switches": "DELETE_DEFAULT"}}}})");
  const std::string uuid = "[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}";
  EXPECT_THAT(Staged(),
              testing::UnorderedElementsAre(
                  Row("SET", "network", "nuknics", "nuk0", "1.0", R"({"name":"nuk0","mtu":1500,"mac":"00:11"})"),
                  Row("SET", "network", "nuknics", "nuk1", "1.0", R"({"name":"nuk1"})"),
                  Row("SET", "system", "hostname", "", "2.0", R"({"name":"h1"})"),
                  Row("SET", "authentication", "user_accounts", "a", "2.1", R"({"name":"a","x":1})"),
                  Row(nullptr, "ntp", "servers", "pool", "d1", R"({"server":"pool"})", R"({"key":"v"})", R"({"c":1})"),
                  Row(nullptr, "firewall", "rules", "gen-1", "d1", R"({"cs_generated_id":"gen-1"})"),
                  Row(nullptr, "dpu", "mode", "", "d1", R"({"mode":"offload"})"),
                  MatchesRegex("SET\\|qor\\|firewall\\|rules\\|" + uuid +
                               "\\|1.1\\|\\{\"port\":22,\"cs_generated_id\":\"" + uuid + "\"\\}\\|-\\|-")));
  EXPECT_EQ(cstest::JoinedRows(conn_,
                               "SELECT COUNT(*) FROM DesiredUserConfig WHERE Name = 'rules' AND Identifier = "
                               "json_extract(Value, '$.cs_generated_id')",
                               "-"),
            std::vector<std::string>{"2"});
  EXPECT_EQ(BootMode(), "1");
  EXPECT_TRUE(log_.Contains("Schema not found for id='qor/network/bogus'", CSLogger::PRIO_WARNING));
}

// Every refusal leaves the stores as they were, the earlier staging and boot mode included.
TEST_F(DesiredTest, BadDocumentOrUnreadableCurrentObjectIsRefusedWhole) {
  const std::string idMissing =
      "1032 SetDesiredUserConfig failed: " + QorConfigStore::Format(ErrorMessageForId(1032), "name");
  const std::string failed = "2000 SetDesiredUserConfig failed: ";
  const std::string empty = R"({"profile": {}})";
  struct Case {
    const char* current[4];  // group, key, id and user value of a current object, unless null
    std::string document;
    std::string thrown;
  } cases[] = {
      {{}, "[]", failed + R"(Desired configuration has no "profile" object)"},
      {{},
       R"({"profile": {"qor": {"network": []}}})",
       failed + "Desired configuration of component qor group network is not an object"},
      // The first instance is written before the second is refused: both go.
      {{}, R"({"profile": {"qor": {"network": {"nuknics": [{"name": "nuk0"}, {"mtu": 1500}]}}}})", idMissing},
      {{"network_zsw", "switches", "sw", "{not json"}, empty, failed + "Failed to preserve ZSW configruation."},
      {{"network", "nuknics", "nuk9", "not json"},
       R"({"profile": {"qor": {"network": {"nuknics": [{"name": "nuk9", "port_connection_type": "ZSW"}]}}}})",
       failed + "Nuknic configuration is invalid."},
      {{"authorization", "permissions", "p", nullptr}, empty, failed + "Invalid permission found in ConfigStore."},
      {{"authorization", "permissions", "p", R"({"principal":)"},
       empty,
       failed + "Failed to process permission from ConfigStore."},
      {{"authorization", "permissions", "p", "[1]"},
       empty,
       failed + "Invalid permission without 'principal' found in ConfigStore."},
      // The carry-over of held agent options is a plain INSERT: a document naming one fails.
      {{"advanced_options", "user_vars", "ZTN_IP", R"({"name":"ZTN_IP"})"},
       R"({"profile": {"qor": {"advanced_options": {"user_vars": [{"name": "ZTN_IP", "value": "2"}]}}}})",
       failed + "Failed to preserve ZTN user-var advanced options"},
  };
  StageEarlier("2");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.document);
    Sql("DELETE FROM Config");
    if (c.current[0] != nullptr) InsertConfig(c.current[0], c.current[1], c.current[2], c.current[3]);
    const cstest::StoreDump before = cstest::DumpStores();
    EXPECT_EQ(Thrown([&] { Stage(c.document); }), c.thrown);
    EXPECT_EQ("", cstest::DiffStores(before, cstest::DumpStores()));
  }
}

// ---- What a desired document carries over.

// The host configuration file decides between carrying current networking over whole and the
// switch rule, which stages again (compact, with the schema's version) every switch the document drops
// and keeps the current switch port of a nuknic on a switch.
TEST_F(DesiredTest, HostConfigurationFileDecidesHowNetworkingIsCarriedOver) {
  const char* nuk0 =
      R"({"name":"nuk0","port_connection_type":"ZSW","zsw_port":{"port_key":"K-7","connection_cookie":4}})";
  InsertConfig("network", "nuknics", "nuk0", nuk0, R"({"mac":"00:aa"})");
  InsertConfig("network_zsw", "switches", "sw1", R"({"uuid": "sw1", "name": "core"})", R"({"v":1})");
  InsertConfig("network_zsw", "switches", "sw2", R"({ "uuid": "sw2" })", R"({"v":2})");
  const std::string doc = R"({"profile": {"qor": {"network": {"nuknics": [{"name": "nuk5"},
      {"name": "nuk0", "port_connection_type": "ZSW", "zsw_port": {"port_key": "mine", "switch_uuid": "U"}}]},
      "network_zsw": {"switches": [{"uuid": "sw1", "name": "renamed"}]}, "system": {"hostname": {"name": "h"}}}}})";
  const Rows carried = {Row("SET", "network", "nuknics", "nuk0", "0.9", nuk0),
                        Row("SET", "network_zsw", "switches", "sw1", "0.9", R"({"uuid": "sw1", "name": "core"})"),
                        Row("SET", "network_zsw", "switches", "sw2", "0.9", R"({ "uuid": "sw2" })")};
  const Rows staged = {
      Row("SET", "network", "nuknics", "nuk0", "1.0",
          R"({"name":"nuk0","port_connection_type":"ZSW","zsw_port":{"port_key":"K-7","switch_uuid":"U","connection_cookie":4}})"),
      Row("SET", "network", "nuknics", "nuk5", "1.0", R"({"name":"nuk5"})"),
      Row("SET", "network_zsw", "switches", "sw1", "3.2", R"({"uuid":"sw1","name":"renamed"})"),
      Row("SET", "network_zsw", "switches", "sw2", "3.2", R"({"uuid":"sw2"})", R"({"v":2})")};
  struct Case {
    bool file;
    const char* features;
    const Rows& rows;
  } cases[] = {{true, nullptr, carried},
               {true, "41=on\n", carried},
               {true, "# staging\n41=off\n", staged},
               {false, nullptr, staged}};
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.file ? "file" : "no file") + (c.features ? c.features : ""));
    Remove("/etc/talvex/host_configuration.json");
    Remove("/etc/talvex/features");
    if (c.file) WriteFile("/etc/talvex/host_configuration.json", "{}");
    if (c.features) WriteFile("/etc/talvex/features", c.features);
    Stage(doc);
    Rows networking = Staged("network|nuknics");
    networking.merge(Staged("network_zsw|switches"));
    EXPECT_EQ(networking, c.rows);
    EXPECT_EQ(Staged("system|hostname").size(), 1u);
  }
}

TEST_F(DesiredTest, AgentOptionsAndSolutionUserPermissionsAreCarriedOver) {
  InsertConfig("advanced_options", "user_vars", "ZTN_IP", R"({"name":"ZTN_IP","value":"10.0.0.1"})");
  InsertConfig("advanced_options", "user_vars", "ZTN_OptionalServices", R"({"name":"ZTN_OptionalServices"})");
  InsertConfig("advanced_options", "user_vars", "Other_Var", R"({"name":"Other_Var"})");
  const char* principals[] = {"svc-zpl-agent", "svc-backup", "zcmuser", "kcon", "alice"};
  for (int i = 0; i < 5; ++i) {
    const std::string id = "p" + std::to_string(i + 1);
    InsertConfig("authorization", "permissions", id,
                 (R"({"id":")" + id + R"(","principal":")" + principals[i] + "\"}").c_str());
  }
  Stage(R"({"profile": {"qor": {"advanced_options": {"user_vars": [{"name": "Mine"}]},
      "authorization": {"permissions": [{"id": "p2", "principal": "svc-backup", "role": "admin"},
                                        {"id": "p5", "principal": "alice", "role": "ro"}]}}}})");
  EXPECT_EQ(
      Staged("advanced_options|user_vars"),
      (Rows{Row("SET", "advanced_options", "user_vars", "Mine", "1.0", R"({"name":"Mine"})"),
            Row("SET", "advanced_options", "user_vars", "ZTN_IP", "0.9", R"({"name":"ZTN_IP","value":"10.0.0.1"})"),
            Row("SET", "advanced_options", "user_vars", "ZTN_OptionalServices", "0.9",
                R"({"name":"ZTN_OptionalServices"})")}));
  // A service principal's and a solution user's permissions survive, the latter in place of the
  // document's; the other solution users had none in the document.
  EXPECT_EQ(Staged("authorization|permissions"),
            (Rows{Row("SET", "authorization", "permissions", "p1", "5.0", R"({"id":"p1","principal":"svc-zpl-agent"})"),
                  Row("SET", "authorization", "permissions", "p2", "5.0", R"({"id":"p2","principal":"svc-backup"})"),
                  Row("SET", "authorization", "permissions", "p5", "5.0",
                      R"({"id":"p5","principal":"alice","role":"ro"})")}));
  // Without the accounts key no permission is a solution user's.
  std::vector<Element> withoutAccounts;
  for (const Element& e : kSchemas) {
    if (std::string(e.key) != "user_accounts") withoutAccounts.push_back(e);
  }
  Register(withoutAccounts);
  Stage(R"({"profile": {}})");
  EXPECT_TRUE(Staged("authorization|permissions").empty());
}

// ---- SmartNIC staging and host-API deletion.

// Shared keys the document leaves out start from their default; an invalid document is refused whole.
TEST_F(DesiredTest, SmartnicStagingStartsLeftOutSharedKeysFromTheirDefault) {
  const std::string failed = "2000 SetDesiredSmartnicConfiguration failed: ";
  const std::string invalid =
      failed + "Failed to validate smartnic configuration, Check logs for specific validation errors.";
  const struct {
    const char* document;
    Rows staged;
    std::string thrown;
  } cases[] = {
      {"{}",
       {Row("SET_DEFAULT", "dpu", "mode", "-", nullptr, nullptr), Row("DELETE", "dpu", "flags", "-", nullptr, nullptr),
        Row("DELETE", "network", "nuknics", "-", nullptr, nullptr)}},
      {R"({"qor": {"network": {"nuknics": [{"name": "n0"}]},
                   "dpu": {"mode": "DELETE_DEFAULT", "flags": {"flag": true}, "local": {"flag": false}}}})",
       {Row("SET", "network", "nuknics", "n0", "1.0", R"({"name":"n0"})"),
        Row("DELETE", "dpu", "mode", "-", nullptr, nullptr), Row("SET", "dpu", "flags", "", "1.0", R"({"flag":true})"),
        Row("SET", "dpu", "local", "", "1.0", R"({"flag":false})")}},
      {R"({"qor": {"network": {"nuknics": [{"name": "n0", "mtu": 100}]}, "dpu": {"flags": {}}}})", {}, invalid},
      {R"({"qor": {"dpu": {"unknown": {"flag": true}}}})", {}, invalid},
      {"[]", {}, failed + "SmartNIC configuration is not an object"},
      {R"({"qor": {"dpu": 1}})", {}, failed + "Desired configuration of component qor group dpu is not an object"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.document);
    Sql("DELETE FROM DesiredUserConfig");
    StageEarlier("1");
    const cstest::StoreDump before = cstest::DumpStores();
    EXPECT_EQ(Thrown([&] { StageSmartnic(c.document); }), c.thrown.empty() ? "no exception" : c.thrown);
    if (c.thrown.empty()) {
      EXPECT_EQ(Staged(), c.staged);
      EXPECT_EQ(BootMode(), "3");
    } else {
      EXPECT_EQ("", cstest::DiffStores(before, cstest::DumpStores()));
    }
  }
}

TEST_F(DesiredTest, HostApiDeletionStagesADeleteRowBesideEarlierRows) {
  StageEarlier("1");
  QorConfigStore::DeleteHostAPIConfiguration("qor", "ntp", "servers");
  EXPECT_EQ(BootMode(), "4");
  EXPECT_EQ(Staged("ntp|servers"),
            (Rows{"SET|qor|ntp|servers|earlier|-|{}|-|-", Row("DELETE", "ntp", "servers", "-", nullptr, nullptr)}));
  EXPECT_TRUE(QorConfigStore::CheckDesiredObjectExists({"servers", "qor", "ntp", "any"}, conn_));
  EXPECT_FALSE(QorConfigStore::CheckDesiredObjectExists({"hostname", "qor", "ntp", "any"}, conn_));

  const cstest::StoreDump before = cstest::DumpStores();
  EXPECT_EQ(Thrown([] { QorConfigStore::DeleteHostAPIConfiguration("qor", "ntp", "nothing"); }),
            "1005 desired configuration for component qor group ntp key nothing");
  EXPECT_EQ("", cstest::DiffStores(before, cstest::DumpStores()));
}

// ---- configstorectl: what the tool adds to the library, its exit status and its words.

TEST_F(DesiredTest, StagingSubcommandsExitAndReport) {
  WriteFile("/tmp/bad.json", R"({"profile": {"qor": {"network": {"nuknics": [{"name": "nuk0", "mtu": 100}, {}]},
                                                       "ntp": {"servers": 5}}}})");
  WriteFile("/tmp/good.json", R"({"profile": {"qor": {"system": {"hostname": {"name": "h1"}}}}})");
  WriteFile("/tmp/badnic.json", R"({"qor": {"dpu": {"mode": {"mode": "sideways"}}}})");
  const struct {
    std::string args;
    int status;
    std::string output;  // in standard output on success, standard error otherwise
    const char* mode;    // the boot mode afterwards
  } cases[] = {
      {"set-desired " + Path("/tmp/bad.json"), 1,
       "/profile/qor/network/nuknics/0/mtu: must be at least 1280, got 100\n/profile/qor/network/nuknics/1: missing "
       "required member \"name\"\n/profile/qor/ntp/servers: must be of type object, got integer\nconfigstorectl "
       "set-desired: error 1083: " +
           Path("/tmp/bad.json") + ": 3 validation errors, nothing staged\n",
       "0"},
      {"set-desired " + Path("/tmp/good.json"), 0, "desired configuration staged (1 rows); next boot mode 1\n", "1"},
      // The failure line names the file and the problem, not the library's function or "logs".
      {"set-smartnic " + Path("/tmp/badnic.json"), 1,
       "error 2000: " + Path("/tmp/badnic.json") +
           ": invalid SmartNIC configuration (the errors are listed above), nothing staged\n",
       "1"},
  };
  StageEarlier("0");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args);
    cstest::CtlResult r = cstest::RunCtl(root_, c.args);
    EXPECT_EQ(r.status, c.status) << r.err;
    EXPECT_THAT(c.status == 0 ? r.out : r.err, HasSubstr(c.output));
    EXPECT_EQ(BootMode(), c.mode);
  }
}

}  // namespace
}  // namespace desiredtest
