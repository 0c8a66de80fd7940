#include "tests/configstore/maintenance/MaintenanceFixture.h"

#include <algorithm>

#include "tests/support/StoreRows.h"

namespace QorConfigStore {

void MaintenanceTest::SetUp() {
  SandboxTest::SetUp();
  ASSERT_EQ(DBStore::CreateDatabases(), 0);
}

void MaintenanceTest::TearDown() {
  DBStore::faults::Disarm();
  SandboxTest::TearDown();
}

void MaintenanceTest::AddSchema(const Strings& columns) {
  DBStore::Connection conn = GetDBConnection(DBStore::CONFIG_STORE, true);
  ASSERT_EQ(DBStore::AttachSchemaStore(conn), 0);
  ASSERT_EQ(DBStore::Exec(conn,
                          columns.size() == 3
                              ? "INSERT INTO ss.ConfigSchema (Component, ConfigGroup, Name) VALUES (?, ?, ?)"
                              : "INSERT INTO ss.DataFileSchema (Component, KEY) VALUES (?, ?)",
                          columns),
            0);
}

void MaintenanceTest::AddConfigRow(const std::string& component, const std::string& group, const std::string& key,
                                   const std::string& id, std::vector<Text> values) {
  values.resize(5);
  ASSERT_EQ(DBStore::Exec(GetDBConnection(DBStore::CONFIG_STORE, true),
                          "INSERT INTO Config (Component, ConfigGroup, Name, Identifier, AutoConfValue, UserValue, "
                          "VitalValue, CachedValue, DesiredValue) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)",
                          component, group, key, id, values),
            0);
}

void MaintenanceTest::AddDataFileRow(const std::string& component, const std::string& key, const std::string& dir,
                                     const std::string& file) {
  ASSERT_EQ(DBStore::Exec(GetDBConnection(DBStore::DATAFILE_STORE, true),
                          "INSERT INTO DataFileMetadata (Component, KEY, DirName, FileName) VALUES (?, ?, ?, ?)",
                          Strings{component, key, dir, file}),
            0);
}

MaintenanceTest::Strings MaintenanceTest::Rows(DBStore::Type type, const char* sql) {
  Strings rows = cstest::JoinedRows(GetDBConnection(type, true), sql, "-");
  std::sort(rows.begin(), rows.end());
  return rows;
}

MaintenanceTest::Strings MaintenanceTest::EventIds() const {
  Strings ids;
  for (const auto& e : RecordedEvents()) ids.push_back(e.id);
  return ids;
}

}  // namespace QorConfigStore
