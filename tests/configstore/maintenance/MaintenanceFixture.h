// A sandbox with all three stores created, and the vocabulary of the cleanup scenarios: schemas
// registered, rows written, rows and directories read back.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "configstore/frame/CallFrame.h"
#include "tests/support/Sandbox.h"

namespace QorConfigStore {

class MaintenanceTest : public cstest::SandboxTest {
 protected:
  using Text = std::optional<std::string>;
  using Strings = std::vector<std::string>;
  static constexpr const char* kDataFileRoot = "/var/cache/datafiles";

  void SetUp() override;
  void TearDown() override;

  // A row of the schema store's ConfigSchema ({component, group, key}) or DataFileSchema ({component, key}).
  void AddSchema(const Strings& columns);
  // Values in the order AutoConfValue, UserValue, VitalValue, CachedValue, DesiredValue.
  void AddConfigRow(const std::string& component, const std::string& group, const std::string& key,
                    const std::string& id, std::vector<Text> values = {});
  void AddDataFileRow(const std::string& component, const std::string& key, const std::string& dir,
                      const std::string& file);
  // The rows of `sql` on the store of `type`, columns "|"-joined (NULL as "-"), sorted.
  Strings Rows(DBStore::Type type, const char* sql);
  Strings DataFileRows() {
    return Rows(DBStore::DATAFILE_STORE, "SELECT Component, KEY, DirName, FileName FROM DataFileMetadata");
  }
  // A file (and its directories) under the data-file root, and whether something is there.
  void AddDataFile(const std::string& relative) { WriteFile(std::string(kDataFileRoot) + "/" + relative, "data"); }
  bool DataFileExists(const std::string& relative) const { return Exists(std::string(kDataFileRoot) + "/" + relative); }
  Strings EventIds() const;
};

}  // namespace QorConfigStore
