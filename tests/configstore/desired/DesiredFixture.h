// A sandbox host with fresh stores and a small set of registered schemas in the shape packages ship
// them, with words to fill Config and DefaultConfig and to read back what was staged.
#pragma once

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "configstore/frame/Documents.h"
#include "platform/dbstore/DBStore.h"
#include "tests/support/Sandbox.h"

namespace desiredtest {

using cstest::Thrown;

// Registered keys (component "qor").
//   network/nuknics            instance id "name", "mac" vital, SmartNIC "qor-shared"
//   network_zsw/switches       instance id "uuid"
//   system/hostname            singleton, mutable default configuration
//   firewall/rules             generated instance ids, mutable default configuration
//   ntp/servers                instance id "server", mutable default configuration
//   authentication/user_accounts  solution users "svc-backup", "zcmuser", "kcon"
//   authorization/permissions  instance id "id"
//   advanced_options/user_vars instance id "name"
//   dpu/mode                   SmartNIC "qor-shared", mutable default configuration
//   dpu/flags                  SmartNIC "qor-shared"
//   dpu/local                  SmartNIC "qorio-only"
struct Element {
  std::string group, key, text;
  bool smartnic;
};
std::vector<Element> StandardSchemas();

class DesiredTest : public cstest::SandboxTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Registers `elements` (replacing everything registered before).
  static void Register(const std::vector<Element>& elements);
  // Registers the standard schemas except those whose "group/key" is listed.
  static void RegisterStandardExcept(const std::set<std::string>& left_out);

  // One statement with its values bound in order (NULL where a value is nullptr).
  void Sql(const std::string& sql, const std::vector<const char*>& values = {}) const;
  // Rows straight into the store (NULL where a text is nullptr).
  void InsertConfig(const std::string& group, const std::string& key, const std::string& id, const char* user,
                    const char* vital = nullptr) const;
  void InsertDefault(const std::string& group, const std::string& key, const std::string& id, const char* value,
                     const char* vital = nullptr) const;
  void InsertStaged(const std::string& group, const std::string& key, const std::string& id,
                    const char* bootAction) const;

  // Every DesiredUserConfig row as "Action|Component|Group|Key|Id|Version|Value|Vital|Cached"
  // (NULL as "-"), sorted.
  std::multiset<std::string> Staged() const;
  // Rows of one key.
  std::multiset<std::string> StagedOf(const std::string& group, const std::string& key) const;
  std::string BootMode() const;
  void SetStoredBootMode(const std::string& mode) const;

  // Parses a document; the JsonDoc keeps the allocator alive.
  static std::shared_ptr<QorConfigStore::JsonDoc> Doc(const std::string& text);
  // Stages `text` as a desired document.
  static void Stage(const std::string& text);

  void WriteHostConfigFile() const { WriteFile("/etc/talvex/host_configuration.json", "{}"); }

  DBStore::Connection conn_;
};

// "SET|qor|group|key|id|version|value|-|-"
std::string Row(const char* action, const std::string& group, const std::string& key, const std::string& id,
                const char* version, const char* value, const char* vital = nullptr, const char* cached = nullptr);

}  // namespace desiredtest
