// Fixture of the boot-time apply tests: a sandbox root with fresh stores, registered schemas, rows
// written with SQL, and the store read back as text. Calls run on one connection with the schema
// store attached, inside a transaction, as the boot load runs them.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "configstore/frame/CallFrame.h"
#include "configstore/frame/ConfigStoreException.h"
#include "platform/dbstore/DBStore.h"
#include "platform/schemastore/SchemaStore.h"
#include "tests/support/Sandbox.h"
#include "tests/support/StoreDump.h"
#include "tests/support/StoreRows.h"

namespace bootapply {

using Text = std::optional<std::string>;  // nullopt is SQL NULL
inline const Text kNull = std::nullopt;

// Schema-file elements. Keys of component "qor"; the group names the scenario.
// nuknics: instanced by "name", shared with the SmartNIC, "vmk0" preserved.
inline const char* kNuknics = R"({"component": "qor", "group": "network", "key": "nuknics", "version": "1.0",
  "singleton": false, "dspIntegrated": true, "preserveInstanceIds": ["vmk0", "vmk9"],
  "smartnic": {"schema": "qor-shared"},
  "schema": {"type": "object", "required": ["name"],
             "properties": {"name": {"type": "string", "instanceId": true},
                            "mtu": {"type": "integer", "minimum": 1280, "maximum": 9000},
                            "mac": {"type": "string", "vital": true},
                            "stats": {"type": "string", "cached": true}}}})";
// hostname: singleton, shared with the SmartNIC.
inline const char* kHostname = R"({"component": "qor", "group": "system", "key": "hostname", "version": "2.0",
  "dspIntegrated": true, "smartnic": {"schema": "qor-shared"},
  "schema": {"type": "object", "required": ["name"], "properties": {"name": {"type": "string"}}}})";
// dns: instanced, objects without a user value survive a desired configuration; shared, mutable defaults.
inline const char* kDns = R"({"component": "qor", "group": "network", "key": "dns", "version": "1.1",
  "singleton": false, "dspIntegrated": true, "preserveNonUser": true, "mutableDefaultConfig": true,
  "smartnic": {"schema": "qor-shared"},
  "schema": {"type": "object", "properties": {"server": {"type": "string", "instanceId": true}}}})";
// user_accounts: instanced; solution-user accounts ("svc-zpl-...") always survive.
inline const char* kUserAccounts = R"({"component": "qor", "group": "authentication", "key": "user_accounts",
  "version": "1.0", "singleton": false, "dspIntegrated": true,
  "schema": {"type": "object", "properties": {"name": {"type": "string", "instanceId": true}}}})";
// syslog: instanced, outside the desired-state process and not shared.
inline const char* kSyslog = R"({"component": "qor", "group": "logging", "key": "syslog", "version": "3.0",
  "singleton": false, "dspIntegrated": false,
  "schema": {"type": "object", "properties": {"host": {"type": "string", "instanceId": true}}}})";
// rules: generated instance ids.
inline const char* kRules = R"({"component": "qor", "group": "firewall", "key": "rules", "version": "1.1",
  "dspIntegrated": true, "mutableDefaultConfig": true,
  "schema": {"type": "object", "properties": {
    "cs_generated_id": {"type": "string", "instanceId": true, "generatedId": true},
    "port": {"type": "integer", "minimum": 1}}}})";

class BootApplyTest : public cstest::SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    ASSERT_EQ(DBStore::CreateDatabases(), 0);
    conn_ = QorConfigStore::GetDBConnection(DBStore::CONFIG_STORE, true);
    ASSERT_EQ(DBStore::AttachSchemaStore(conn_), 0);
  }
  void TearDown() override {
    DBStore::faults::Disarm();
    conn_.reset();
    SandboxTest::TearDown();
  }

  // One registration of the given schema-file elements, replacing earlier ones.
  static void RegisterSchemas(const std::vector<std::string>& elements) {
    auto store = QorSchemaStore::SchemaStore::GetStore(true);
    store->BeginUpdate();
    store->ResetSchemas();
    for (const std::string& text : elements) {
      rapidjson::Document element;
      ASSERT_FALSE(element.Parse(text.c_str()).HasParseError()) << text;
      QorSchemaStore::SetSchema("test-kit-1.0", element["component"].GetString(), element["group"].GetString(),
                                element["key"].GetString(), text, store, element.HasMember("smartnic"));
    }
    store->CommitUpdate();
  }

  // One statement with its values bound in order.
  void Sql(const std::string& sql, const std::vector<Text>& values = {}) {
    ASSERT_EQ(DBStore::Exec(conn_, sql, values), 0) << sql;
  }
  void AddConfig(const std::string& group, const std::string& key, const std::string& id, const Text& user,
                 const Text& vital = kNull, const Text& cached = kNull) {
    Sql("INSERT INTO Config (Component, ConfigGroup, Name, Identifier, Version, CreationTime, Revision, UserValue, "
        "VitalValue, CachedValue, DesiredValue) VALUES ('qor', ?, ?, ?, 'old', '2001-02-03 04:05:06', 7, ?, ?, ?, "
        "'staged')",
        {group, key, id, user, vital, cached});
  }
  void AddDesired(const std::string& group, const std::string& key, const Text& id, const Text& value,
                  const Text& action, const Text& vital = kNull, const Text& cached = kNull) {
    Sql("INSERT INTO DesiredUserConfig (Component, ConfigGroup, Name, Identifier, Version, Value, VitalValue, "
        "CachedValue, BootAction) VALUES ('qor', ?, ?, ?, 'new', ?, ?, ?, ?)",
        {group, key, id, value, vital, cached, action});
  }
  void AddDefault(const std::string& group, const std::string& key, const std::string& id, const std::string& value) {
    Sql("INSERT INTO DefaultConfig (Component, ConfigGroup, Name, Identifier, Version, Value, VitalValue, "
        "CachedValue) VALUES ('qor', ?, ?, ?, 'default', ?, 'dv', 'dc')",
        {group, key, id, value});
  }

  std::vector<std::string> Query(const std::string& sql) { return cstest::JoinedRows(conn_, sql, "NULL"); }
  // Config as "group/key/id user|vital|cached" (NULL for SQL NULL), ordered.
  std::vector<std::string> ConfigRows() {
    return Query(
        "SELECT ConfigGroup || '/' || Name || '/' || Identifier || ' ' || COALESCE(UserValue, 'NULL'), VitalValue, "
        "CachedValue FROM Config ORDER BY ConfigGroup, Name, Identifier");
  }
  // One column expression of one Config row ("NULL" for SQL NULL, "" when the row is missing).
  std::string ConfigColumn(const std::string& group, const std::string& key, const std::string& id,
                           const std::string& column) {
    std::vector<std::string> rows = cstest::JoinedRows(
        conn_, "SELECT " + column + " FROM Config WHERE ConfigGroup = ? AND Name = ? AND Identifier = ?", "NULL",
        group, key, id);
    return rows.empty() ? "" : rows.front();
  }

  // As the boot load: the routine inside a transaction that is committed.
  void Apply(const std::function<void(const DBStore::Connection&)>& routine) {
    DBStore::Transaction tx(conn_);
    ASSERT_EQ(tx.Begin(), 0);
    try {
      routine(conn_);
    } catch (const std::exception& e) {
      FAIL() << "threw: " << e.what();  // rolled back by tx
    }
    ASSERT_EQ(tx.Commit(), 0);
  }
  // The routine inside a transaction that is rolled back; the message it threw, or "" when it did not.
  std::string ApplyAndCancel(const std::function<void(const DBStore::Connection&)>& routine) {
    EXPECT_EQ(DBStore::BeginTransaction(conn_), 0);
    std::string message;
    try {
      routine(conn_);
    } catch (const QorConfigStore::ConfigStoreException& e) {
      EXPECT_EQ(e.code(), 2000) << e.what();
      message = e.what();
    }
    DBStore::faults::Disarm();
    EXPECT_EQ(DBStore::CancelTransaction(conn_), 0);
    return message;
  }

  DBStore::Connection conn_;
};

}  // namespace bootapply
