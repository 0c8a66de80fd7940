// Fixture of the boot-time apply tests: a sandbox root with fresh stores, registered schemas, rows
// written with SQL, and the store read back as text. Calls run on one connection with the schema
// store attached, inside a transaction, as the boot load runs them.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "configstore/frame/CallFrame.h"
#include "platform/dbstore/DBStore.h"
#include "tests/support/Sandbox.h"

namespace bootapply {

using Text = std::optional<std::string>;  // nullopt is SQL NULL
inline const Text kNull = std::nullopt;

// Schema-file elements. Keys of component "qor"; the group names the scenario.
// nuknics: instanced by "name", shared with the SmartNIC, "vmk0" preserved.
inline const char* kNuknics = R"({"component": "qor", "group": "network", "key": "nuknics", "version": "1.0",
  "singleton": false, "dspIntegrated": true, "preserveInstanceIds": ["vmk0", "vmk9"],
  "smartnic": {"schema": "qor-shared"},
  "schema": {"type": "object", "required": ["name"],
             "properties": {"name": {"type": "string", "instanceId": true},
                            "mtu": {"type": "integer", "minimum": 1280, "maximum": 9000},
                            "mac": {"type": "string", "vital": true},
                            "stats": {"type": "string", "cached": true}}}})";
// hostname: singleton, shared with the SmartNIC.
inline const char* kHostname = R"({"component": "qor", "group": "system", "key": "hostname", "version": "2.0",
  "dspIntegrated": true, "smartnic": {"schema": "qor-shared"},
  "schema": {"type": "object", "required": ["name"], "properties": {"name": {"type": "string"}}}})";
// dns: instanced, objects without a user value survive a desired configuration; shared, mutable defaults.
inline const char* kDns = R"({"component": "qor", "group": "network", "key": "dns", "version": "1.1",
  "singleton": false, "dspIntegrated": true, "preserveNonUser": true, "mutableDefaultConfig": true,
  "smartnic": {"schema": "qor-shared"},
  "schema": {"type": "object", "properties": {"server": {"type": "string", "instanceId": true}}}})";
// user_accounts: instanced; solution-user accounts ("svc-zpl-...") always survive.
inline const char* kUserAccounts = R"({"component": "qor", "group": "authentication", "key": "user_accounts",
  "version": "1.0", "singleton": false, "dspIntegrated": true,
  "schema": {"type": "object", "properties": {"name": {"type": "string", "instanceId": true}}}})";
// syslog: instanced, outside the desired-state process and not shared.
inline const char* kSyslog = R"({"component": "qor", "group": "logging", "key": "syslog", "version": "3.0",
  "singleton": false, "dspIntegrated": false,
  "schema": {"type": "object", "properties": {"host": {"type": "string", "instanceId": true}}}})";
// rules: generated instance ids.
inline const char* kRules = R"({"component": "qor", "group": "firewall", "key": "rules", "version": "1.1",
  "dspIntegrated": true, "mutableDefaultConfig": true,
  "schema": {"type": "object", "properties": {
    "cs_generated_id": {"type": "string", "instanceId": true, "generatedId": true},
    "port": {"type": "integer", "minimum": 1}}}})";

class BootApplyTest : public cstest::SandboxTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  // One registration of the given schema-file elements (compact or not), replacing earlier ones.
  void RegisterSchemas(const std::vector<std::string>& elements);

  // Runs one statement with its values bound in order; fails the test when it fails.
  void Sql(const std::string& sql, const std::vector<Text>& values = {});
  void AddConfig(const std::string& group, const std::string& key, const std::string& id, const Text& user,
                 const Text& vital = kNull, const Text& cached = kNull);
  void AddDesired(const std::string& group, const std::string& key, const Text& id, const Text& value,
                  const Text& action, const Text& vital = kNull, const Text& cached = kNull);
  void AddDefault(const std::string& group, const std::string& key, const std::string& id, const std::string& value);

  // Config as "group/key/id user|vital|cached" (NULL for SQL NULL), ordered.
  std::vector<std::string> ConfigRows();
  // One column of one Config row ("NULL" for SQL NULL, "" when the row is missing).
  std::string ConfigColumn(const std::string& group, const std::string& key, const std::string& id,
                           const std::string& column);
  // As the boot load: the routine inside a transaction that is committed.
  void Apply(const std::function<void(const DBStore::Connection&)>& routine);
  // The routine inside a transaction that is rolled back; the message it threw, or "" when it did not.
  std::string ApplyAndCancel(const std::function<void(const DBStore::Connection&)>& routine);

  std::vector<std::string> Query(const std::string& sql);

  DBStore::Connection conn_;
};

}  // namespace bootapply
