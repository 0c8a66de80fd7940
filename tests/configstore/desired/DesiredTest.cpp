// Staging of desired, SmartNIC and host-API configuration: the rows written, what of the current
// configuration is carried over, refusal of bad documents, and the report of a refused SmartNIC
// document by configstorectl run as a process.
#include <gmock/gmock.h>

#include <set>

#include "configstore/desired/DesiredConfig.h"
#include "configstore/frame/Documents.h"
#include "tests/configstore/bootapply/StoreFixture.h"
#include "tests/support/Ctl.h"

namespace {

using cstest::Thrown;
using storetest::Element;
using testing::HasSubstr;
using testing::MatchesRegex;
using Rows = std::multiset<std::string>;

const char* kNamed = R"("properties": {"name": {"type": "string"}})";
const char* kFlag = R"("properties": {"flag": {"type": "boolean"}})";
const std::vector<Element> kSchemas = {
    {"network", "nuknics", "1.0", R"("smartnic": {"schema": "qor-shared"}, )",
     R"("required": ["name"], "properties": {"name": {"type": "string", "instanceId": true}, "mtu": {"type": "integer",
     "minimum": 1280, "maximum": 9000}, "mac": {"type": "string", "vital": true}, "port_connection_type": {"type":
     "string"}, "zsw_port": {"type": "object", "properties": {"switch_uuid": {"type": "string"}, "port_key": {"type":
     "string"}, "connection_cookie": {"type": "integer"}}}})"},
    {"network_zsw", "switches", "3.2", "", R"("properties": {"uuid": {"type": "string", "instanceId": true}})"},
    {"system", "hostname", "2.0", R"("singleton": true, "mutableDefaultConfig": true, )", kNamed},
    {"firewall", "rules", "1.1", R"("mutableDefaultConfig": true, )",
     R"("properties": {"cs_generated_id": {"type": "string", "instanceId": true, "generatedId": true}})"},
    {"ntp", "servers", "1.4", R"("mutableDefaultConfig": true, )",
     R"("properties": {"server": {"type": "string", "instanceId": true}})"},
    {"authentication", "user_accounts", "2.1", R"("solutionUserInstances": ["svc-backup", "zcmuser", "kcon"], )",
     R"("properties": {"name": {"type": "string", "instanceId": true}})"},
    {"authorization", "permissions", "5.0", "", R"("properties": {"id": {"type": "string", "instanceId": true},
     "principal": {"type": "string"}, "role": {"type": "string"}})"},
    {"advanced_options", "user_vars", "1.0", "",
     R"("properties": {"name": {"type": "string", "instanceId": true}, "value": {"type": "string"}})"},
    {"dpu", "mode", "1.0", R"("singleton": true, "mutableDefaultConfig": true, "smartnic": {"schema": "qor-shared"}, )",
     R"("properties": {"mode": {"type": "string", "enum": ["offload", "passthrough"]}})"},
    {"dpu", "flags", "1.0", R"("singleton": true, "smartnic": {"schema": "qor-shared"}, )", kFlag},
    {"dpu", "local", "1.0", R"("singleton": true, "smartnic": {"schema": "qorio-only"}, )", kFlag},
};

class DesiredTest : public storetest::StoreTest {
 protected:
  void SetUp() override {
    StoreTest::SetUp();
    Register(kSchemas);
  }
  // An earlier staging (one SET row) and the boot mode it left.
  void StageEarlier(const char* mode) {
    AddDesired("('ntp', 'servers', 'earlier', '{}', 'SET', NULL, NULL)");
    ASSERT_EQ(DBStore::WriteKeyValue("BOOT_MODE", mode, conn_), 0);
  }
  // DesiredUserConfig rows "Action|Component|Group|Key|Id|Version|Value|Vital|Cached" (NULL as "-"),
  // of one "group|key" when given.
  Rows Staged(const std::string& groupKey = "") const {
    std::vector<std::string> rows = cstest::JoinedRows(
        conn_,
        "SELECT BootAction, Component, ConfigGroup, Name, Identifier, Version, Value, VitalValue, CachedValue FROM "
        "DesiredUserConfig WHERE ?1 = '' OR ConfigGroup || '|' || Name = ?1",
        "-", groupKey);
    return {rows.begin(), rows.end()};
  }
  static void Stage(const std::string& text) {
    auto doc = QorConfigStore::CreateDocumentFromString(text);
    QorConfigStore::SetDesiredUserConfig(*doc->document);
  }
};

// "SET|qor|group|key|id|version|value|-|-"
std::string Row(const char* action, const std::string& group, const std::string& key, const std::string& id,
                const char* version, const char* value, const char* vital = nullptr, const char* cached = nullptr) {
  auto text = [](const char* t) { return std::string(t ? t : "-"); };
  return text(action) + "|qor|" + group + "|" + key + "|" + id + "|" + text(version) + "|" + text(value) + "|" +
         text(vital) + "|" + text(cached);
}

// The earlier staging goes; DELETE_DEFAULT stages nothing but keeps the mutable defaults, which are
// copied whole except the instances the document stages (generated ids never match a default's);
// the last instance of an id wins.
TEST_F(DesiredTest, StagesEveryObjectAsSetWithItsSchemaVersion) {
  StageEarlier("0");
  // switches has no mutable default configuration; the document leaves dpu/mode out.
  AddDefault(R"(('ntp', 'servers', 'pool', '{"server":"pool"}'), ('network_zsw', 'switches', 'sw0', '{"uuid":"sw0"}'),
      ('firewall', 'rules', 'gen-1', '{"cs_generated_id":"gen-1"}'), ('system', 'hostname', '', '{"name":"default"}'),
      ('dpu', 'mode', '', '{"mode":"offload"}'))");
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
                  Row(nullptr, "ntp", "servers", "pool", "default", R"({"server":"pool"})", "dv", "dc"),
                  Row(nullptr, "firewall", "rules", "gen-1", "default", R"({"cs_generated_id":"gen-1"})", "dv", "dc"),
                  Row(nullptr, "dpu", "mode", "", "default", R"({"mode":"offload"})", "dv", "dc"),
                  MatchesRegex("SET\\|qor\\|firewall\\|rules\\|" + uuid +
                               "\\|1.1\\|\\{\"port\":22,\"cs_generated_id\":\"" + uuid + "\"\\}\\|-\\|-")));
  EXPECT_EQ(Query("SELECT COUNT(*) FROM DesiredUserConfig WHERE Name = 'rules' AND Identifier = "
                  "json_extract(Value, '$.cs_generated_id')"),
            std::vector<std::string>{"2"});
  EXPECT_EQ(BootMode(), "1");
  EXPECT_TRUE(log_.Contains("Schema not found for id='qor/network/bogus'", CSLogger::PRIO_WARNING));
}

// Every refusal leaves the stores as they were, the earlier staging and boot mode included.
TEST_F(DesiredTest, BadDocumentOrUnreadableCurrentObjectIsRefusedWhole) {
  const std::string failed = "2000 SetDesiredUserConfig failed: ";
  const std::string empty = R"({"profile": {}})";
  struct Case {
    const char* current;  // a current object as a Config tuple
    std::string document;
    std::string thrown;
  } cases[] = {
      {"('network_zsw', 'switches', 'sw', '{not json', NULL, NULL)", empty,
       failed + "Failed to preserve ZSW configruation."},
      {"('network', 'nuknics', 'nuk9', 'not json', NULL, NULL)",
       R"({"profile": {"qor": {"network": {"nuknics": [{"name": "nuk9", "port_connection_type": "ZSW"}]}}}})",
       failed + "Nuknic configuration is invalid."},
      {"('authorization', 'permissions', 'p', NULL, NULL, NULL)", empty,
       failed + "Invalid permission found in ConfigStore."},
      {R"(('authorization', 'permissions', 'p', '{"principal":', NULL, NULL))", empty,
       failed + "Failed to process permission from ConfigStore."},
      {"('authorization', 'permissions', 'p', '[1]', NULL, NULL)", empty,
       failed + "Invalid permission without 'principal' found in ConfigStore."},
      // The carry-over of held agent options is a plain INSERT: a document naming one fails.
      {R"(('advanced_options', 'user_vars', 'ZTN_IP', '{"name":"ZTN_IP"}', NULL, NULL))",
       R"({"profile": {"qor": {"advanced_options": {"user_vars": [{"name": "ZTN_IP", "value": "2"}]}}}})",
       failed + "Failed to preserve ZTN user-var advanced options"},
  };
  StageEarlier("2");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.document);
    Sql("DELETE FROM Config");
    AddConfig(c.current);
    const cstest::StoreDump before = cstest::DumpStores();
    EXPECT_EQ(Thrown([&] { Stage(c.document); }), c.thrown);
    EXPECT_EQ("", cstest::DiffStores(before, cstest::DumpStores()));
  }
}

// The host configuration file decides between carrying current networking over whole and the
// switch rule, which stages again (compact, with the schema's version) every switch the document drops
// and keeps the current switch port of a nuknic on a switch. Held agent options survive, and so do the
// permissions of a service principal and of solution users, the latter in place of the document's.
TEST_F(DesiredTest, CurrentConfigurationIsCarriedOver) {
  const char* nuk0 =
      R"({"name":"nuk0","port_connection_type":"ZSW","zsw_port":{"port_key":"K-7","connection_cookie":4}})";
  AddConfig("('network', 'nuknics', 'nuk0', '" + std::string(nuk0) + R"(', '{"mac":"00:aa"}', NULL),
      ('network_zsw', 'switches', 'sw1', '{"uuid": "sw1", "name": "core"}', '{"v":1}', NULL),
      ('network_zsw', 'switches', 'sw2', '{ "uuid": "sw2" }', '{"v":2}', NULL),
      ('advanced_options', 'user_vars', 'ZTN_IP', '{"name":"ZTN_IP","value":"10.0.0.1"}', NULL, NULL),
      ('advanced_options', 'user_vars', 'ZTN_OptionalServices', '{"name":"ZTN_OptionalServices"}', NULL, NULL),
      ('advanced_options', 'user_vars', 'Other_Var', '{"name":"Other_Var"}', NULL, NULL),
      ('authorization', 'permissions', 'p1', '{"id":"p1","principal":"svc-zpl-agent"}', NULL, NULL),
      ('authorization', 'permissions', 'p2', '{"id":"p2","principal":"svc-backup"}', NULL, NULL),
      ('authorization', 'permissions', 'p3', '{"id":"p3","principal":"zcmuser"}', NULL, NULL),
      ('authorization', 'permissions', 'p4', '{"id":"p4","principal":"kcon"}', NULL, NULL),
      ('authorization', 'permissions', 'p5', '{"id":"p5","principal":"alice"}', NULL, NULL))");
  const std::string networking = R"({"profile": {"qor": {"network": {"nuknics": [{"name": "nuk5"},
      {"name": "nuk0", "port_connection_type": "ZSW", "zsw_port": {"port_key": "mine", "switch_uuid": "U"}}]},
      "network_zsw": {"switches": [{"uuid": "sw1", "name": "renamed"}]}}}})";
  const Rows carried = {Row("SET", "network", "nuknics", "nuk0", "old", nuk0),
                        Row("SET", "network_zsw", "switches", "sw1", "old", R"({"uuid": "sw1", "name": "core"})"),
                        Row("SET", "network_zsw", "switches", "sw2", "old", R"({ "uuid": "sw2" })")};
  const Rows staged = {
      Row("SET", "network", "nuknics", "nuk0", "1.0",
          R"({"name":"nuk0","port_connection_type":"ZSW","zsw_port":{"port_key":"K-7","switch_uuid":"U","connection_cookie":4}})"),
      Row("SET", "network", "nuknics", "nuk5", "1.0", R"({"name":"nuk5"})"),
      Row("SET", "network_zsw", "switches", "sw1", "3.2", R"({"uuid":"sw1","name":"renamed"})"),
      Row("SET", "network_zsw", "switches", "sw2", "3.2", R"({"uuid":"sw2"})", R"({"v":2})")};
  const struct {
    bool file;
    const char* features;
    std::string document;
    std::vector<std::string> keys;  // the "group|key"s compared
    Rows rows;
  } cases[] = {
      {true, nullptr, networking, {"network|nuknics", "network_zsw|switches"}, carried},
      {true, "41=on\n", networking, {"network|nuknics", "network_zsw|switches"}, carried},
      {true, "# staging\n41=off\n", networking, {"network|nuknics", "network_zsw|switches"}, staged},
      {false, nullptr, networking, {"network|nuknics", "network_zsw|switches"}, staged},
      {false,
       nullptr,
       R"({"profile": {"qor": {"advanced_options": {"user_vars": [{"name": "Mine"}]},
          "authorization": {"permissions": [{"id": "p2", "principal": "svc-backup", "role": "admin"},
                                            {"id": "p5", "principal": "alice", "role": "ro"}]}}}})",
       {"advanced_options|user_vars", "authorization|permissions"},
       {Row("SET", "advanced_options", "user_vars", "Mine", "1.0", R"({"name":"Mine"})"),
        Row("SET", "advanced_options", "user_vars", "ZTN_IP", "old", R"({"name":"ZTN_IP","value":"10.0.0.1"})"),
        Row("SET", "advanced_options", "user_vars", "ZTN_OptionalServices", "old",
            R"({"name":"ZTN_OptionalServices"})"),
        Row("SET", "authorization", "permissions", "p1", "5.0", R"({"id":"p1","principal":"svc-zpl-agent"})"),
        Row("SET", "authorization", "permissions", "p2", "5.0", R"({"id":"p2","principal":"svc-backup"})"),
        Row("SET", "authorization", "permissions", "p5", "5.0", R"({"id":"p5","principal":"alice","role":"ro"})")}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.file ? "file " : "no file ") + (c.features ? c.features : "") + c.document);
    Remove("/etc/talvex/host_configuration.json");
    Remove("/etc/talvex/features");
    if (c.file) WriteFile("/etc/talvex/host_configuration.json", "{}");
    if (c.features) WriteFile("/etc/talvex/features", c.features);
    Stage(c.document);
    Rows rows;
    for (const std::string& key : c.keys) rows.merge(Staged(key));
    EXPECT_EQ(rows, c.rows);
  }
}

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
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.document);
    Sql("DELETE FROM DesiredUserConfig");
    StageEarlier("1");
    const cstest::StoreDump before = cstest::DumpStores();
    const std::string thrown = Thrown([&] {
      auto doc = QorConfigStore::CreateDocumentFromString(c.document);
      QorConfigStore::SetDesiredSmartnicConfiguration(*doc->document);
    });
    EXPECT_EQ(thrown, c.thrown.empty() ? "no exception" : c.thrown);
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
            (Rows{"SET|qor|ntp|servers|earlier|new|{}|-|-", Row("DELETE", "ntp", "servers", "-", nullptr, nullptr)}));

  const cstest::StoreDump before = cstest::DumpStores();
  EXPECT_EQ(Thrown([] { QorConfigStore::DeleteHostAPIConfiguration("qor", "ntp", "nothing"); }),
            "1005 desired configuration for component qor group ntp key nothing");
  EXPECT_EQ("", cstest::DiffStores(before, cstest::DumpStores()));
}

// The failure line names the file and the problem, not the library's function or "logs".
TEST_F(DesiredTest, SetSmartnicNamesTheFileAndTheProblem) {
  WriteFile("/tmp/badnic.json", R"({"qor": {"dpu": {"mode": {"mode": "sideways"}}}})");
  StageEarlier("0");
  cstest::CtlResult r = cstest::RunCtl(root_, "set-smartnic " + Path("/tmp/badnic.json"));
  EXPECT_EQ(r.status, 1);
  EXPECT_THAT(r.err, HasSubstr("error 2000: " + Path("/tmp/badnic.json") +
                               ": invalid SmartNIC configuration (the errors are listed above), nothing staged\n"));
  EXPECT_EQ(BootMode(), "0");
}

}  // namespace
