#include "tests/configstore/bootapply/BootApplyFixture.h"

#include "configstore/frame/ConfigStoreException.h"
#include "platform/schemastore/SchemaStore.h"
#include "tests/support/StoreRows.h"

namespace bootapply {

void BootApplyTest::SetUp() {
  SandboxTest::SetUp();
  ASSERT_EQ(DBStore::CreateDatabases(), 0);
  conn_ = QorConfigStore::GetDBConnection(DBStore::CONFIG_STORE, true);
  ASSERT_EQ(DBStore::AttachSchemaStore(conn_), 0);
}

void BootApplyTest::TearDown() {
  DBStore::faults::Disarm();
  conn_.reset();
  SandboxTest::TearDown();
}

void BootApplyTest::RegisterSchemas(const std::vector<std::string>& elements) {
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

void BootApplyTest::Sql(const std::string& sql, const std::vector<Text>& values) {
  ASSERT_EQ(DBStore::Exec(conn_, sql, values), 0) << sql;
}

void BootApplyTest::AddConfig(const std::string& group, const std::string& key, const std::string& id,
                              const Text& user, const Text& vital, const Text& cached) {
  Sql("INSERT INTO Config (Component, ConfigGroup, Name, Identifier, Version, CreationTime, Revision, UserValue, "
      "VitalValue, CachedValue, DesiredValue) VALUES ('qor', ?, ?, ?, 'old', '2001-02-03 04:05:06', 7, ?, ?, ?, "
      "'staged')",
      {group, key, id, user, vital, cached});
}

void BootApplyTest::AddDesired(const std::string& group, const std::string& key, const Text& id, const Text& value,
                               const Text& action, const Text& vital, const Text& cached) {
  Sql("INSERT INTO DesiredUserConfig (Component, ConfigGroup, Name, Identifier, Version, Value, VitalValue, "
      "CachedValue, BootAction) VALUES ('qor', ?, ?, ?, 'new', ?, ?, ?, ?)",
      {group, key, id, value, vital, cached, action});
}

void BootApplyTest::AddDefault(const std::string& group, const std::string& key, const std::string& id,
                               const std::string& value) {
  Sql("INSERT INTO DefaultConfig (Component, ConfigGroup, Name, Identifier, Version, Value, VitalValue, CachedValue) "
      "VALUES ('qor', ?, ?, ?, 'default', ?, 'dv', 'dc')",
      {group, key, id, value});
}

std::vector<std::string> BootApplyTest::Query(const std::string& sql) {
  return cstest::JoinedRows(conn_, sql, "NULL");
}

std::vector<std::string> BootApplyTest::ConfigRows() {
  return Query(
      "SELECT ConfigGroup || '/' || Name || '/' || Identifier || ' ' || COALESCE(UserValue, 'NULL'), VitalValue, "
      "CachedValue FROM Config ORDER BY ConfigGroup, Name, Identifier");
}

std::string BootApplyTest::ConfigColumn(const std::string& group, const std::string& key, const std::string& id,
                                        const std::string& column) {
  std::vector<std::string> rows = cstest::JoinedRows(
      conn_, "SELECT " + column + " FROM Config WHERE ConfigGroup = ? AND Name = ? AND Identifier = ?", "NULL", group,
      key, id);
  return rows.empty() ? "" : rows.front();
}

void BootApplyTest::Apply(const std::function<void(const DBStore::Connection&)>& routine) {
  DBStore::Transaction tx(conn_);
  ASSERT_EQ(tx.Begin(), 0);
  try {
    routine(conn_);
  } catch (const std::exception& e) {
    FAIL() << "threw: " << e.what();  // rolled back by tx
  }
  ASSERT_EQ(tx.Commit(), 0);
}

std::string BootApplyTest::ApplyAndCancel(const std::function<void(const DBStore::Connection&)>& routine) {
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

}  // namespace bootapply
