// A sandbox host with fresh stores and a small set of registered schemas in the shape packages ship
// them, with words to fill Config and DefaultConfig and to read back what was staged.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "configstore/desired/DesiredConfig.h"
#include "configstore/frame/Documents.h"
#include "platform/schemastore/SchemaStore.h"
#include "tests/support/Sandbox.h"
#include "tests/support/StoreDump.h"
#include "tests/support/StoreRows.h"

namespace desiredtest {

using cstest::Thrown;
using Rows = std::multiset<std::string>;

// Registered keys of component "qor": group, key, version, extra members, the schema object's body.
struct Element {
  const char *group, *key, *version, *extra, *schema;
};
inline const char* kNamed = R"("properties": {"name": {"type": "string"}})";
inline const char* kFlag = R"("properties": {"flag": {"type": "boolean"}})";
inline const std::vector<Element> kSchemas = {
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

class DesiredTest : public cstest::SandboxTest {
 protected:
  void SetUp() override {
    cstest::SandboxTest::SetUp();
    ASSERT_EQ(DBStore::CreateDatabases(), 0);
    Register(kSchemas);
    conn_ = DBStore::GetConnection(DBStore::CONFIG_STORE, true);
  }
  void TearDown() override {
    conn_.reset();
    cstest::SandboxTest::TearDown();
  }

  // Registers `elements` in place of everything registered before.
  static void Register(const std::vector<Element>& elements) {
    auto store = QorSchemaStore::SchemaStore::GetStore(true);
    store->BeginUpdate();
    store->ResetSchemas();
    for (const Element& e : elements) {
      const std::string text = std::string(R"({"component": "qor", "group": ")") + e.group + R"(", "key": ")" + e.key +
                               R"(", "version": ")" + e.version + "\", " + e.extra +
                               R"("schema": {"type": "object", )" + e.schema + "}}";
      QorSchemaStore::SetSchema("test-schemas-1.0", "qor", e.group, e.key, text, store,
                                std::string(e.extra).find("smartnic") != std::string::npos);
    }
    store->CommitUpdate();
  }

  // One statement with its values bound in order (NULL where a value is nullptr).
  void Sql(const std::string& sql, const std::vector<const char*>& values = {}) const {
    DBStore::Values bound;
    for (const char* v : values) bound.push_back(v ? std::optional<std::string>(v) : std::nullopt);
    ASSERT_EQ(DBStore::Exec(conn_, sql, bound), 0) << sql;
  }
  void InsertConfig(const std::string& group, const std::string& key, const std::string& id, const char* user,
                    const char* vital = nullptr) const {
    Sql("INSERT INTO Config (Identifier, Name, ConfigGroup, Component, Version, UserValue, VitalValue) "
        "VALUES (?, ?, ?, 'qor', '0.9', ?, ?)",
        {id.c_str(), key.c_str(), group.c_str(), user, vital});
  }
  void InsertDefault(const std::string& group, const std::string& key, const std::string& id, const char* value,
                     const char* vital = nullptr) const {
    Sql("INSERT INTO DefaultConfig (Component, ConfigGroup, Name, Identifier, Value, VitalValue, Version) "
        "VALUES ('qor', ?, ?, ?, ?, ?, 'd1')",
        {group.c_str(), key.c_str(), id.c_str(), value, vital});
  }
  // An earlier staging (one SET row) and the boot mode it left.
  void StageEarlier(const char* mode) const {
    Sql("INSERT INTO DesiredUserConfig (Component, ConfigGroup, Name, Identifier, Value, BootAction) "
        "VALUES ('qor', 'ntp', 'servers', 'earlier', '{}', 'SET')");
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
  std::string BootMode() const {
    std::string mode;
    EXPECT_EQ(DBStore::ReadKeyValue("BOOT_MODE", &mode, conn_), 0);
    return mode;
  }

  static void Stage(const std::string& text) {
    auto doc = QorConfigStore::CreateDocumentFromString(text);
    QorConfigStore::SetDesiredUserConfig(*doc->document);
  }
  static void StageSmartnic(const std::string& text) {
    auto doc = QorConfigStore::CreateDocumentFromString(text);
    QorConfigStore::SetDesiredSmartnicConfiguration(*doc->document);
  }

  DBStore::Connection conn_;
};

// "SET|qor|group|key|id|version|value|-|-"
inline std::string Row(const char* action, const std::string& group, const std::string& key, const std::string& id,
                       const char* version, const char* value, const char* vital = nullptr,
                       const char* cached = nullptr) {
  auto text = [](const char* t) { return std::string(t ? t : "-"); };
  return text(action) + "|qor|" + group + "|" + key + "|" + id + "|" + text(version) + "|" + text(value) + "|" +
         text(vital) + "|" + text(cached);
}

}  // namespace desiredtest
