// Fixture of the boot-time apply tests: a sandbox root with fresh stores, registered schemas, rows
// written with SQL and read back as text. Calls run on one connection with the schema store attached,
// inside a transaction, as the boot load runs them.
#pragma once

#include <functional>
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

// Schema-file elements of component "qor". nuknics: instanced, shared with the SmartNIC, "vmk0" and
// "vmk9" preserved. hostname: a shared singleton. dns: instanced, shared, objects without a user value
// survive a desired configuration. user_accounts: instanced. syslog: outside the desired-state process
// and not shared. rules: generated instance ids.
inline const std::vector<std::string> kSchemas = {
    R"({"component": "qor", "group": "network", "key": "nuknics", "version": "1.0", "singleton": false,
    "dspIntegrated": true, "preserveInstanceIds": ["vmk0", "vmk9"], "smartnic": {"schema": "qor-shared"},
    "schema": {"type": "object", "required": ["name"], "properties": {"name": {"type": "string", "instanceId": true},
    "mtu": {"type": "integer", "minimum": 1280, "maximum": 9000}, "mac": {"type": "string", "vital": true},
    "stats": {"type": "string", "cached": true}}}})",
    R"({"component": "qor", "group": "system", "key": "hostname", "version": "2.0", "dspIntegrated": true,
    "smartnic": {"schema": "qor-shared"}, "schema": {"type": "object", "properties": {"name": {"type": "string"}}}})",
    R"({"component": "qor", "group": "network", "key": "dns", "version": "1.1", "singleton": false,
    "dspIntegrated": true, "preserveNonUser": true, "mutableDefaultConfig": true, "smartnic": {"schema": "qor-shared"},
    "schema": {"type": "object", "properties": {"server": {"type": "string", "instanceId": true}}}})",
    R"({"component": "qor", "group": "authentication", "key": "user_accounts", "version": "1.0", "singleton": false,
    "dspIntegrated": true, "schema": {"type": "object", "properties": {"name": {"type": "string", "instanceId": true}}}})",
    R"({"component": "qor", "group": "logging", "key": "syslog", "version": "3.0", "singleton": false,
    "dspIntegrated": false, "schema": {"type": "object", "properties": {"host": {"type": "string", "instanceId": true}}}})",
    R"({"component": "qor", "group": "firewall", "key": "rules", "version": "1.1", "dspIntegrated": true,
    "schema": {"type": "object", "properties": {"cs_generated_id": {"type": "string", "instanceId": true,
    "generatedId": true}, "port": {"type": "integer", "minimum": 1}}}})",
};

class BootApplyTest : public cstest::SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    ASSERT_EQ(DBStore::CreateDatabases(), 0);
    conn_ = QorConfigStore::GetDBConnection(DBStore::CONFIG_STORE, true);
    ASSERT_EQ(DBStore::AttachSchemaStore(conn_), 0);
  }
  void TearDown() override {
    conn_.reset();
    SandboxTest::TearDown();
  }

  // One registration of the given schema-file elements (all of kSchemas by default), replacing earlier ones.
  static void RegisterSchemas(const std::vector<std::string>& elements = kSchemas) {
    auto store = QorSchemaStore::SchemaStore::GetStore(true);
    store->BeginUpdate();
    store->ResetSchemas();
    for (const std::string& text : elements) {
      rapidjson::Document element;
      ASSERT_FALSE(element.Parse(text.c_str()).HasParseError()) << text;
      QorSchemaStore::SetSchema("test-kit-1.0", "qor", element["group"].GetString(), element["key"].GetString(), text,
                                store, element.HasMember("smartnic"));
    }
    store->CommitUpdate();
  }

  void Sql(const std::string& sql) { ASSERT_EQ(DBStore::Exec(conn_, sql), 0) << sql; }
  // Rows of component "qor" as SQL tuples. Config: (group, key, id, user, vital, cached), version 'old',
  // revision 7, a desired value. DesiredUserConfig: (group, key, id, value, action, vital, cached),
  // version 'new'. DefaultConfig: (group, key, id, value), version 'default', vital 'dv', cached 'dc'.
  void AddConfig(const std::string& tuples) {
    Sql("INSERT INTO Config (Component, ConfigGroup, Name, Identifier, UserValue, VitalValue, CachedValue, Version, "
        "CreationTime, Revision, DesiredValue) SELECT 'qor', *, 'old', '2001-02-03 04:05:06', 7, 'staged' FROM "
        "(VALUES " +
        tuples + ")");
  }
  void AddDesired(const std::string& tuples) {
    Sql("INSERT INTO DesiredUserConfig (Component, ConfigGroup, Name, Identifier, Value, BootAction, VitalValue, "
        "CachedValue, Version) SELECT 'qor', *, 'new' FROM (VALUES " +
        tuples + ")");
  }
  void AddDefault(const std::string& tuples) {
    Sql("INSERT INTO DefaultConfig (Component, ConfigGroup, Name, Identifier, Value, Version, VitalValue, "
        "CachedValue) SELECT 'qor', *, 'default', 'dv', 'dc' FROM (VALUES " +
        tuples + ")");
  }

  std::vector<std::string> Query(const std::string& sql) { return cstest::JoinedRows(conn_, sql, "NULL"); }
  // Config as "group/key/id user|vital|cached", ordered, and `more` columns after them.
  std::vector<std::string> ConfigRows(const std::string& more = "") {
    return Query(
        "SELECT ConfigGroup || '/' || Name || '/' || Identifier || ' ' || COALESCE(UserValue, 'NULL'), "
        "VitalValue, CachedValue" +
        more + " FROM Config ORDER BY ConfigGroup, Name, Identifier");
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
