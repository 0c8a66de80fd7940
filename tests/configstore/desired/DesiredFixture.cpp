#include "tests/configstore/desired/DesiredFixture.h"

#include "tests/support/StoreRows.h"

#include "configstore/desired/DesiredConfig.h"
#include "platform/schemastore/SchemaStore.h"

namespace desiredtest {
namespace {

// One schema-file element of component "qor".
Element Key(const std::string& group, const std::string& key, const std::string& version, const std::string& extra,
            const std::string& schema, bool smartnic = false) {
  std::string text = R"({"component": "qor", "group": ")" + group + R"(", "key": ")" + key + R"(", "version": ")" +
                     version + "\", " + extra + (extra.empty() ? "" : ", ") + R"("schema": )" + schema + "}";
  return {group, key, text, smartnic};
}


}  // namespace

std::vector<Element> StandardSchemas() {
  return {
      Key("network", "nuknics", "1.0", R"("smartnic": {"schema": "qor-shared"})",
          R"({"type": "object", "required": ["name"], "properties": {
               "name": {"type": "string", "instanceId": true},
               "mtu": {"type": "integer", "minimum": 1280, "maximum": 9000},
               "mac": {"type": "string", "vital": true},
               "port_connection_type": {"type": "string"},
               "zsw_port": {"type": "object", "properties": {"switch_uuid": {"type": "string"},
                            "port_key": {"type": "string"}, "connection_cookie": {"type": "integer"}}}}})",
          true),
      Key("network_zsw", "switches", "3.2", "",
          R"({"type": "object", "properties": {"uuid": {"type": "string", "instanceId": true},
                                               "name": {"type": "string"}}})"),
      Key("system", "hostname", "2.0", R"("singleton": true, "mutableDefaultConfig": true)",
          R"({"type": "object", "properties": {"name": {"type": "string"}}})"),
      Key("firewall", "rules", "1.1", R"("mutableDefaultConfig": true)",
          R"({"type": "object", "properties": {
               "cs_generated_id": {"type": "string", "instanceId": true, "generatedId": true},
               "port": {"type": "integer", "minimum": 1}}})"),
      Key("ntp", "servers", "1.4", R"("mutableDefaultConfig": true)",
          R"({"type": "object", "properties": {"server": {"type": "string", "instanceId": true},
                                               "prefer": {"type": "boolean"}}})"),
      Key("authentication", "user_accounts", "2.1", R"("solutionUserInstances": ["svc-backup", "zcmuser", "kcon"])",
          R"({"type": "object", "properties": {"name": {"type": "string", "instanceId": true}}})"),
      Key("authorization", "permissions", "5.0", "",
          R"({"type": "object", "properties": {"id": {"type": "string", "instanceId": true},
               "principal": {"type": "string"}, "role": {"type": "string"}}})"),
      Key("advanced_options", "user_vars", "1.0", "",
          R"({"type": "object", "properties": {"name": {"type": "string", "instanceId": true},
                                               "value": {"type": "string"}}})"),
      Key("dpu", "mode", "1.0", R"("singleton": true, "mutableDefaultConfig": true, "smartnic": {"schema": "qor-shared"})",
          R"({"type": "object", "properties": {"mode": {"type": "string", "enum": ["offload", "passthrough"]}}})", true),
      Key("dpu", "flags", "1.0", R"("singleton": true, "smartnic": {"schema": "qor-shared"})",
          R"({"type": "object", "properties": {"flag": {"type": "boolean"}}})", true),
      Key("dpu", "local", "1.0", R"("singleton": true, "smartnic": {"schema": "qorio-only"})",
          R"({"type": "object", "properties": {"flag": {"type": "boolean"}}})", true),
  };
}

void DesiredTest::SetUp() {
  cstest::SandboxTest::SetUp();
  ASSERT_EQ(DBStore::CreateDatabases(), 0);
  RegisterStandardExcept({});
  conn_ = DBStore::GetConnection(DBStore::CONFIG_STORE, true);
  ASSERT_TRUE(conn_);
}

void DesiredTest::TearDown() {
  DBStore::faults::Disarm();
  conn_.reset();
  cstest::SandboxTest::TearDown();
}

void DesiredTest::Register(const std::vector<Element>& elements) {
  auto store = QorSchemaStore::SchemaStore::GetStore(true);
  store->BeginUpdate();
  store->ResetSchemas();
  for (const Element& e : elements) {
    QorSchemaStore::SetSchema("test-schemas-1.0", "qor", e.group, e.key, e.text, store, e.smartnic);
  }
  store->CommitUpdate();
}

void DesiredTest::RegisterStandardExcept(const std::set<std::string>& left_out) {
  std::vector<Element> elements;
  for (const Element& e : StandardSchemas()) {
    if (left_out.count(e.group + "/" + e.key) == 0) elements.push_back(e);
  }
  Register(elements);
}

void DesiredTest::Sql(const std::string& sql, const std::vector<const char*>& values) const {
  DBStore::Values bound;
  for (const char* v : values) bound.push_back(v ? std::optional<std::string>(v) : std::nullopt);
  ASSERT_EQ(DBStore::Exec(conn_, sql, bound), 0) << sql;
}

void DesiredTest::InsertConfig(const std::string& group, const std::string& key, const std::string& id,
                               const char* user, const char* vital) const {
  Sql("INSERT INTO Config (Identifier, Name, ConfigGroup, Component, Version, UserValue, VitalValue) "
      "VALUES (?, ?, ?, 'qor', '0.9', ?, ?)",
      {id.c_str(), key.c_str(), group.c_str(), user, vital});
}

void DesiredTest::InsertDefault(const std::string& group, const std::string& key, const std::string& id,
                                const char* value, const char* vital) const {
  Sql("INSERT INTO DefaultConfig (Component, ConfigGroup, Name, Identifier, Value, VitalValue, Version) "
      "VALUES ('qor', ?, ?, ?, ?, ?, 'd1')",
      {group.c_str(), key.c_str(), id.c_str(), value, vital});
}

void DesiredTest::InsertStaged(const std::string& group, const std::string& key, const std::string& id,
                               const char* bootAction) const {
  Sql("INSERT INTO DesiredUserConfig (Component, ConfigGroup, Name, Identifier, Value, BootAction) "
      "VALUES ('qor', ?, ?, ?, '{}', ?)",
      {group.c_str(), key.c_str(), id.c_str(), bootAction});
}

std::multiset<std::string> DesiredTest::Staged() const {
  std::vector<std::string> rows = cstest::JoinedRows(conn_,
                                                     "SELECT BootAction, Component, ConfigGroup, Name, Identifier, "
                                                     "Version, Value, VitalValue, CachedValue FROM DesiredUserConfig",
                                                     "-");
  return {rows.begin(), rows.end()};
}

std::multiset<std::string> DesiredTest::StagedOf(const std::string& group, const std::string& key) const {
  std::multiset<std::string> rows;
  for (const std::string& row : Staged()) {
    if (row.find("|qor|" + group + "|" + key + "|") != std::string::npos) rows.insert(row);
  }
  return rows;
}

std::string DesiredTest::BootMode() const {
  std::string mode;
  EXPECT_EQ(DBStore::ReadKeyValue("BOOT_MODE", &mode, conn_), 0);
  return mode;
}

void DesiredTest::SetStoredBootMode(const std::string& mode) const {
  ASSERT_EQ(DBStore::WriteKeyValue("BOOT_MODE", mode, conn_), 0);
}

std::shared_ptr<QorConfigStore::JsonDoc> DesiredTest::Doc(const std::string& text) {
  return QorConfigStore::CreateDocumentFromString(text);
}

void DesiredTest::Stage(const std::string& text) {
  auto doc = Doc(text);
  QorConfigStore::SetDesiredUserConfig(*doc->document);
}

std::string Text(const char* text) { return text ? text : "-"; }

std::string Row(const char* action, const std::string& group, const std::string& key, const std::string& id,
                const char* version, const char* value, const char* vital, const char* cached) {
  return Text(action) + "|qor|" + group + "|" + key + "|" + id + "|" + Text(version) + "|" + Text(value) + "|" +
         Text(vital) + "|" + Text(cached);
}

}  // namespace desiredtest
