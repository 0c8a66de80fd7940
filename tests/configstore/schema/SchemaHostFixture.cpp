#include "tests/configstore/schema/SchemaHostFixture.h"

#include "platform/dbstore/DBStore.h"
#include "tests/support/StoreRows.h"

namespace cstest {

void SchemaHostTest::SetUp() {
  SandboxTest::SetUp();
  CopyExampleHost();
  Remove("/usr/lib/talvex/configmanager/schemas");
  Remove("/etc/talvex/default-config");
  ASSERT_EQ(DBStore::CreateDatabases(), 0);
  SetSwitches(true, true);
}

std::string SchemaHostTest::Element(const std::string& cgk, const std::string& schema, const std::string& extra,
                                    const std::string& version) {
  size_t first = cgk.find('/'), second = cgk.find('/', first + 1);
  return R"({"component": ")" + cgk.substr(0, first) + R"(", "group": ")" + cgk.substr(first + 1, second - first - 1) +
         R"(", "key": ")" + cgk.substr(second + 1) + R"(", "version": ")" + version + "\", " +
         (extra.empty() ? "" : extra + ", ") + R"("schema": )" + schema + "}";
}

Strings SchemaHostTest::Query(const std::string& sql) {
  DBStore::Connection conn = DBStore::GetConnection(DBStore::CONFIG_STORE, false);
  EXPECT_EQ(DBStore::AttachSchemaStore(conn), 0);
  return cstest::JoinedRows(conn, sql, "NULL");
}

Strings SchemaHostTest::Registered() {
  return Query(
      "SELECT Component || '/' || ConfigGroup || '/' || Name || ' ' || SchemaId || ' ' || Version "
      "FROM ss.ConfigSchema ORDER BY Component, ConfigGroup, Name");
}

Strings SchemaHostTest::DefaultRows() {
  return Query(
      "SELECT Component || '/' || ConfigGroup || '/' || Name, Identifier, Value, VitalValue, CachedValue, Version "
      "FROM DefaultConfig ORDER BY Component, ConfigGroup, Name, Identifier");
}

Strings SchemaHostTest::EventList() const {
  Strings list;
  for (const auto& e : RecordedEvents()) {
    std::string text = e.id + ":";
    for (size_t i = 0; i < e.args.size(); ++i) text += (i ? "," : "") + e.args[i];
    list.push_back(text);
  }
  return list;
}

bool SchemaHostTest::Logged(const std::string& text, int priority) const {
  for (const auto& line : log_.Lines()) {
    if (line.priority == priority && line.text == text) return true;
  }
  return false;
}

}  // namespace cstest
