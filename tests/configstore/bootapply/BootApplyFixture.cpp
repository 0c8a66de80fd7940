#include "tests/configstore/bootapply/BootApplyFixture.h"

#include <string_view>

#include "configstore/frame/ConfigStoreException.h"
#include "platform/schemastore/SchemaStore.h"

namespace bootapply {
namespace {

int CollectRow(void* context, int argc, char** argv, char**) {
  std::string row;
  for (int i = 0; i < argc; ++i) {
    if (i > 0) row += "|";
    row += argv[i] ? argv[i] : "NULL";
  }
  static_cast<std::vector<std::string>*>(context)->push_back(row);
  return 0;
}

}  // namespace

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
  DBStore::Statement stmt = DBStore::internal::Prepare(conn_, sql, DBStore::kTimeoutMs);
  ASSERT_TRUE(stmt) << sql;
  int index = 1;
  for (const Text& value : values) {
    std::optional<std::string_view> view;
    if (value) view = *value;
    ASSERT_EQ(DBStore::internal::Bind(conn_, stmt, index, view), 0) << sql;
  }
  ASSERT_EQ(DBStore::ExecuteStmt(conn_, stmt, nullptr, nullptr, DBStore::kTimeoutMs), 0) << sql;
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
  std::vector<std::string> rows;
  DBStore::Statement stmt = DBStore::internal::Prepare(conn_, sql, DBStore::kTimeoutMs);
  EXPECT_TRUE(stmt) << sql;
  EXPECT_EQ(DBStore::ExecuteStmt(conn_, stmt, CollectRow, &rows, DBStore::kTimeoutMs), 0) << sql;
  return rows;
}

std::vector<std::string> BootApplyTest::ConfigRows() {
  return Query(
      "SELECT ConfigGroup || '/' || Name || '/' || Identifier || ' ' || COALESCE(UserValue, 'NULL'), VitalValue, "
      "CachedValue FROM Config ORDER BY ConfigGroup, Name, Identifier");
}

std::string BootApplyTest::ConfigColumn(const std::string& group, const std::string& key, const std::string& id,
                                        const std::string& column) {
  std::vector<std::string> rows;
  DBStore::Statement stmt = DBStore::internal::Prepare(
      conn_, "SELECT " + column + " FROM Config WHERE ConfigGroup = ? AND Name = ? AND Identifier = ?",
      DBStore::kTimeoutMs);
  int index = 1;
  EXPECT_EQ(DBStore::internal::Bind(conn_, stmt, index, std::vector<std::string>{group, key, id}), 0);
  EXPECT_EQ(DBStore::ExecuteStmt(conn_, stmt, CollectRow, &rows, DBStore::kTimeoutMs), 0);
  return rows.empty() ? "" : rows.front();
}

std::string BootApplyTest::Snapshot() {
  std::string all;
  for (const char* sql : {"SELECT * FROM Config ORDER BY Component, ConfigGroup, Name, Identifier",
                          "SELECT * FROM DesiredUserConfig ORDER BY Component, ConfigGroup, Name, Identifier, "
                          "BootAction",
                          "SELECT * FROM DefaultConfig ORDER BY Component, ConfigGroup, Name, Identifier"}) {
    for (const std::string& row : Query(sql)) all += row + "\n";
    all += "--\n";
  }
  return all;
}

void BootApplyTest::Apply(const std::function<void(const DBStore::Connection&)>& routine) {
  ASSERT_EQ(DBStore::BeginTransaction(conn_), 0);
  try {
    routine(conn_);
  } catch (const std::exception& e) {
    DBStore::CancelTransaction(conn_);
    FAIL() << "threw: " << e.what();
  }
  ASSERT_EQ(DBStore::CommitTransaction(conn_), 0);
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
