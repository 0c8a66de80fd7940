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

  void SetUp() override;
  void TearDown() override;

  void AddConfigSchema(const std::string& component, const std::string& group, const std::string& key);
  void AddDataFileSchema(const std::string& component, const std::string& key);
  // Values in the order AutoConfValue, UserValue, VitalValue, CachedValue, DesiredValue.
  void AddConfigRow(const std::string& component, const std::string& group, const std::string& key,
                    const std::string& id, std::vector<Text> values = {});
  void AddDataFileRow(const std::string& component, const std::string& key, const std::string& dir,
                      const std::string& file);

  // "component|group|key|id" of every Config row, sorted.
  std::vector<std::string> ConfigRows();
  // "key|auto|user|vital|cached|desired" of every Config row, sorted (NULL shown as "-").
  std::vector<std::string> ConfigValues();
  // "component|key|dir|file" of every DataFileMetadata row, sorted.
  std::vector<std::string> DataFileRows();

  // Creates a file (and its directories) under the data-file root.
  void AddDataFile(const std::string& relative, const std::string& content = "data");
  bool DataFileExists(const std::string& relative) const;

  std::vector<std::string> EventIds() const;

  static constexpr const char* kDataFileRoot = "/var/cache/datafiles";

 private:
  std::vector<std::string> Query(DBStore::Type type, const char* sql);
};

}  // namespace QorConfigStore
