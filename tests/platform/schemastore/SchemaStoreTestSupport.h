// Fixture of the schema store tests: a sandbox root with freshly created stores, and a few
// schema-file elements in the shape packages ship them.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "errors/ConfigStoreException.h"
#include "platform/dbstore/DBStore.h"
#include "platform/schemastore/SchemaStore.h"
#include "tests/support/Sandbox.h"

namespace sstest {

inline constexpr const char* kSchemaId = "net-core-1.2.3_4.5";

// An instanced key whose instances are named by "name".
inline const std::string kNuknics = R"({"component": "qor", "group": "network", "key": "nuknics",
  "version": "1.0", "singleton": false, "dspIntegrated": true,
  "smartnic": {"schema": "qor-shared"},
  "schema": {"type": "object", "required": ["name"],
             "properties": {"name": {"type": "string", "instanceId": true},
                            "mtu": {"type": "integer", "minimum": 1280, "maximum": 9000},
                            "mac": {"type": "string", "vital": true}}}})";

inline const std::string kHostname = R"({"component": "qor", "group": "system", "key": "hostname",
  "version": "2.0", "singleton": true,
  "schema": {"type": "object", "required": ["name"], "properties": {"name": {"type": "string"}}}})";

// Instances get generated ids.
inline const std::string kRules = R"({"component": "qor", "group": "firewall", "key": "rules",
  "version": "1.1", "mutableDefaultConfig": true,
  "schema": {"type": "object", "properties": {
    "cs_generated_id": {"type": "string", "instanceId": true, "generatedId": true},
    "port": {"type": "integer", "minimum": 1}}}})";

struct Element {
  std::string component, group, key, text;
  bool hasSmartnic;
};
inline Element Nuknics() { return {"qor", "network", "nuknics", kNuknics, true}; }
inline Element Hostname() { return {"qor", "system", "hostname", kHostname, false}; }
inline Element Rules() { return {"qor", "firewall", "rules", kRules, false}; }

class SchemaStoreFixture : public cstest::SandboxTest {
 protected:
  void SetUp() override {
    cstest::SandboxTest::SetUp();
    ASSERT_EQ(DBStore::CreateDatabases(), 0);
  }
  void TearDown() override {
    DBStore::faults::Disarm();
    cstest::SandboxTest::TearDown();
  }

  static void Set(const std::shared_ptr<QorSchemaStore::SchemaStore>& store, const Element& e,
                  const std::string& schemaId = kSchemaId) {
    QorSchemaStore::SetSchema(schemaId, e.component, e.group, e.key, e.text, store, e.hasSmartnic);
  }

  // A whole registration: begin, reset, one SetSchema per element, commit.
  static void Register(const std::vector<Element>& elements, const std::string& schemaId = kSchemaId) {
    auto store = QorSchemaStore::SchemaStore::GetStore(true);
    store->BeginUpdate();
    store->ResetSchemas();
    for (const Element& e : elements) Set(store, e, schemaId);
    store->CommitUpdate();
  }

  // Keys registered now, as seen by a new read-only store: "component/group/key" of every kind.
  static std::vector<std::string> Registered() {
    auto store = QorSchemaStore::SchemaStore::GetStore(false);
    std::vector<std::string> ids;
    for (const char* kind : {QorSchemaStore::kKindConfig, QorSchemaStore::kKindDataFiles, QorSchemaStore::kKindFiles}) {
      for (const auto& object : store->GetSchemaObjects(kind)) ids.push_back(object->GetObjectId().toString());
    }
    return ids;
  }
};

}  // namespace sstest
