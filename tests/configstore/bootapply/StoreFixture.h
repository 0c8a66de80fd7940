// Fixture of the staging and boot-time apply tests: a sandbox root with fresh stores, schemas of
// component "qor" registered, and one connection to the store, the schema store attached, on which
// rows are written with SQL and read back as text.
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

namespace storetest {

// A registered key of component "qor": group, key, version, extra members, the schema object's body.
struct Element {
  const char *group, *key, *version, *extra, *schema;
};

class StoreTest : public cstest::SandboxTest {
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

  // Registers `elements` in place of everything registered before.
  static void Register(const std::vector<Element>& elements) {
    auto store = QorSchemaStore::SchemaStore::GetStore(true);
    store->BeginUpdate();
    store->ResetSchemas();
    for (const Element& e : elements) {
      const std::string text = std::string(R"({"component": "qor", "group": ")") + e.group + R"(", "key": ")" + e.key +
                               R"(", "version": ")" + e.version + "\", " + e.extra +
                               R"("schema": {"type": "object", )" + e.schema + "}}";
      QorSchemaStore::SetSchema("test-kit-1.0", "qor", e.group, e.key, text, store,
                                std::string(e.extra).find("smartnic") != std::string::npos);
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
  std::string BootMode() const { return cstest::StoredKeyValue(conn_, "BOOT_MODE"); }

  // As the boot load: the routine inside a transaction that is committed.
  void Apply(const std::function<void(const DBStore::Connection&)>& routine) {
    DBStore::Transaction tx(conn_);
    ASSERT_EQ(tx.Begin(), 0);
    routine(conn_);  // a throw rolls back and fails the test
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

// The boot-time apply tests' keys. nuknics: instanced, shared with the SmartNIC, "vmk0" and "vmk9"
// preserved. hostname: a shared singleton. dns: instanced, shared, objects without a user value survive
// a desired configuration. user_accounts: instanced. syslog: outside the desired-state process and not
// shared. rules: generated instance ids.
inline const std::vector<Element> kBootSchemas = {
    {"network", "nuknics", "1.0",
     R"("singleton": false, "dspIntegrated": true, "preserveInstanceIds": ["vmk0", "vmk9"], "smartnic": {"schema":
     "qor-shared"}, )",
     R"("required": ["name"], "properties": {"name": {"type": "string", "instanceId": true}, "mtu": {"type": "integer",
     "minimum": 1280, "maximum": 9000}, "mac": {"type": "string", "vital": true}, "stats": {"type": "string",
     "cached": true}})"},
    {"system", "hostname", "2.0", R"("dspIntegrated": true, "smartnic": {"schema": "qor-shared"}, )",
     R"("properties": {"name": {"type": "string"}})"},
    {"network", "dns", "1.1",
     R"("singleton": false, "dspIntegrated": true, "preserveNonUser": true, "mutableDefaultConfig": true,
     "smartnic": {"schema": "qor-shared"}, )",
     R"("properties": {"server": {"type": "string", "instanceId": true}})"},
    {"authentication", "user_accounts", "1.0", R"("singleton": false, "dspIntegrated": true, )",
     R"("properties": {"name": {"type": "string", "instanceId": true}})"},
    {"logging", "syslog", "3.0", R"("singleton": false, "dspIntegrated": false, )",
     R"("properties": {"host": {"type": "string", "instanceId": true}})"},
    {"firewall", "rules", "1.1", R"("dspIntegrated": true, )",
     R"("properties": {"cs_generated_id": {"type": "string", "instanceId": true, "generatedId": true}, "port":
     {"type": "integer", "minimum": 1}})"},
};

}  // namespace storetest
