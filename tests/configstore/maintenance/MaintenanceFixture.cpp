#include "tests/configstore/maintenance/MaintenanceFixture.h"

#include <algorithm>

#include "tests/support/StoreRows.h"

namespace QorConfigStore {
namespace {

void Exec(DBStore::Type type, const std::string& sql, const std::vector<std::string>& args, bool schemaStore = false) {
  DBStore::Connection conn = GetDBConnection(type, true);
  if (schemaStore) {
    ASSERT_EQ(DBStore::AttachSchemaStore(conn), 0);
  }
  ASSERT_EQ(DBStore::Exec(conn, sql, args), 0) << sql;
}

}  // namespace

void MaintenanceTest::SetUp() {
  SandboxTest::SetUp();
  ASSERT_EQ(DBStore::CreateDatabases(), 0);
}

void MaintenanceTest::TearDown() {
  DBStore::faults::Disarm();
  SandboxTest::TearDown();
}

void MaintenanceTest::AddConfigSchema(const std::string& component, const std::string& group, const std::string& key) {
  Exec(DBStore::CONFIG_STORE, "INSERT INTO ss.ConfigSchema (Component, ConfigGroup, Name) VALUES (?, ?, ?)",
       {component, group, key}, true);
}

void MaintenanceTest::AddDataFileSchema(const std::string& component, const std::string& key) {
  Exec(DBStore::CONFIG_STORE, "INSERT INTO ss.DataFileSchema (Component, KEY) VALUES (?, ?)", {component, key}, true);
}

void MaintenanceTest::AddConfigRow(const std::string& component, const std::string& group, const std::string& key,
                                   const std::string& id, std::vector<Text> values) {
  values.resize(5);
  DBStore::Connection conn = GetDBConnection(DBStore::CONFIG_STORE, true);
  ASSERT_EQ(DBStore::Exec(conn,
                          "INSERT INTO Config (Component, ConfigGroup, Name, Identifier, AutoConfValue, UserValue, "
                          "VitalValue, CachedValue, DesiredValue) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)",
                          component, group, key, id, values),
            0);
}

void MaintenanceTest::AddDataFileRow(const std::string& component, const std::string& key, const std::string& dir,
                                     const std::string& file) {
  Exec(DBStore::DATAFILE_STORE, "INSERT INTO DataFileMetadata (Component, KEY, DirName, FileName) VALUES (?, ?, ?, ?)",
       {component, key, dir, file});
}

std::vector<std::string> MaintenanceTest::Query(DBStore::Type type, const char* sql) {
  DBStore::Connection conn = GetDBConnection(type, true);
  std::vector<std::string> rows = cstest::JoinedRows(conn, sql, "-");
  std::sort(rows.begin(), rows.end());
  return rows;
}

std::vector<std::string> MaintenanceTest::ConfigRows() {
  return Query(DBStore::CONFIG_STORE, "SELECT Component, ConfigGroup, Name, Identifier FROM Config");
}

std::vector<std::string> MaintenanceTest::ConfigValues() {
  return Query(DBStore::CONFIG_STORE,
               "SELECT Name, AutoConfValue, UserValue, VitalValue, CachedValue, DesiredValue FROM Config");
}

std::vector<std::string> MaintenanceTest::DataFileRows() {
  return Query(DBStore::DATAFILE_STORE, "SELECT Component, KEY, DirName, FileName FROM DataFileMetadata");
}

void MaintenanceTest::AddDataFile(const std::string& relative, const std::string& content) {
  WriteFile(std::string(kDataFileRoot) + "/" + relative, content);
}

bool MaintenanceTest::DataFileExists(const std::string& relative) const {
  return Exists(std::string(kDataFileRoot) + "/" + relative);
}

std::vector<std::string> MaintenanceTest::EventIds() const {
  std::vector<std::string> ids;
  for (const auto& e : RecordedEvents()) ids.push_back(e.id);
  return ids;
}

}  // namespace QorConfigStore
