// A sandbox with all three stores created, and the vocabulary of the cleanup scenarios: schemas
// registered, rows written, rows and directories read back.
#pragma once

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "configstore/frame/CallFrame.h"
#include "tests/support/Sandbox.h"
#include "tests/support/StoreRows.h"

namespace QorConfigStore {

class MaintenanceTest : public cstest::SandboxTest {
 protected:
  using Strings = std::vector<std::string>;
  static constexpr const char* kDataFileRoot = "/var/cache/datafiles";

  void SetUp() override {
    SandboxTest::SetUp();
    ASSERT_EQ(DBStore::CreateDatabases(), 0);
  }
  void TearDown() override {
    DBStore::faults::Disarm();
    SandboxTest::TearDown();
  }

  // A row of the schema store's ConfigSchema ({component, group, key}) or DataFileSchema ({component, key}).
  void AddSchema(const Strings& columns) {
    DBStore::Connection conn = GetDBConnection(DBStore::CONFIG_STORE, true);
    ASSERT_EQ(DBStore::AttachSchemaStore(conn), 0);
    ASSERT_EQ(DBStore::Exec(conn,
                            columns.size() == 3
                                ? "INSERT INTO ss.ConfigSchema (Component, ConfigGroup, Name) VALUES (?, ?, ?)"
                                : "INSERT INTO ss.DataFileSchema (Component, KEY) VALUES (?, ?)",
                            columns),
              0);
  }
  // {component, group, key, id}, then AutoConfValue, UserValue, VitalValue, CachedValue, DesiredValue.
  void AddConfigRow(const Strings& name, std::vector<std::optional<std::string>> values = {}) {
    values.resize(5);
    ASSERT_EQ(DBStore::Exec(GetDBConnection(DBStore::CONFIG_STORE, true),
                            "INSERT INTO Config (Component, ConfigGroup, Name, Identifier, AutoConfValue, UserValue, "
                            "VitalValue, CachedValue, DesiredValue) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)",
                            name[0], name[1], name[2], name[3], values),
              0);
  }
  // {component, key, directory, file}
  void AddDataFileRow(const Strings& columns) {
    ASSERT_EQ(DBStore::Exec(GetDBConnection(DBStore::DATAFILE_STORE, true),
                            "INSERT INTO DataFileMetadata (Component, KEY, DirName, FileName) VALUES (?, ?, ?, ?)",
                            columns),
              0);
  }
  // The rows of `sql` on the store of `type`, columns "|"-joined (NULL as "-"), sorted.
  Strings Rows(DBStore::Type type, const char* sql) {
    Strings rows = cstest::JoinedRows(GetDBConnection(type, true), sql, "-");
    std::sort(rows.begin(), rows.end());
    return rows;
  }
  Strings DataFileRows() {
    return Rows(DBStore::DATAFILE_STORE, "SELECT Component, KEY, DirName, FileName FROM DataFileMetadata");
  }
  // A file (and its directories) under the data-file root, and whether something is there.
  void AddDataFile(const std::string& relative) { WriteFile(std::string(kDataFileRoot) + "/" + relative, "data"); }
  bool DataFileExists(const std::string& relative) const { return Exists(std::string(kDataFileRoot) + "/" + relative); }
  Strings EventIds() const {
    Strings ids;
    for (const auto& e : RecordedEvents()) ids.push_back(e.id);
    return ids;
  }
};

}  // namespace QorConfigStore
