// Staging of a SmartNIC's configuration, handed in by the host the unit sits in.
#include "configstore/desired/DesiredConfig.h"
#include "configstore/desired/Staging.h"
#include "configstore/frame/BootLock.h"
#include "configstore/frame/CallFrame.h"
#include "platform/schemastore/SchemaDocument.h"
#include "platform/validator/ConfigStoreDocument.h"

namespace QorConfigStore {
namespace {

using QorSchemaStore::SchemaObjectId;
using staging::Run;

void DetachOrLog(DBStore::SchemaStoreAttachment& ss) {
  if (ss.Detach() != 0) CSLogger::Log(CSLogger::PRIO_ERROR, "Failed to detach schema store");
}

// Validates one object; on failure logs it and returns false. The generated instance id is filled
// in first, so that an instance of a key with generated ids is not refused for lacking it.
bool ValidSmartnicObject(const QorSchemaStore::SchemaObject& schema, const SchemaObjectId& id,
                         rapidjson::Value& object, rapidjson::MemoryPoolAllocator<>& alloc) {
  QorSchemaStore::PopulateGeneratedInstanceId(schema, object, alloc);
  if (ValidateUserObject(schema.GetSchemaValue(), object, id.toString(), true)) return true;
  std::string text;
  ConfigStoreDocument::SerializeValue(object, text);
  CSLogger::Log(CSLogger::PRIO_ERROR, "Validation failed for configuration {%s}", text.c_str());
  return false;
}

// Stages every object of the document that passes validation; returns whether all passed.
bool StageSmartnicDocument(rapidjson::Document& doc, const DBStore::Connection& conn) {
  if (!doc.IsObject()) throw ConfigStoreException(CS_ERR_GENERIC, "SmartNIC configuration is not an object");
  std::shared_ptr<QorSchemaStore::SchemaObjectCache> cache = QorSchemaStore::SchemaStore::GetCache();
  auto& alloc = doc.GetAllocator();
  bool allValid = true;
  staging::ForEachKey(doc, [&](const char* component, const char* group, const char* key, rapidjson::Value& value) {
    SchemaObjectId id(component, group, key);
    if (value.IsString()) {
      if (std::string(value.GetString()) != staging::kDeleteDefault) return;
      Run(conn, "INSERT INTO DesiredUserConfig (Component, ConfigGroup, Name, BootAction) VALUES (?, ?, ?, ?);",
          {component, group, key, "DELETE"}, "Write desired config failed");
      return;
    }
    if (!value.IsObject() && !value.IsArray()) return;
    auto schema = cache->GetSchema(id);
    if (!schema) {
      // Validation refuses what no schema describes.
      CSLogger::Log(CSLogger::PRIO_WARNING, "Schema not found for id='%s'", id.toString().c_str());
      allValid = false;
      return;
    }
    auto stage = [&](rapidjson::Value& object) {
      if (!ValidSmartnicObject(*schema, id, object, alloc)) {
        allValid = false;
        return;
      }
      ProcessDesiredObject(alloc, conn, component, group, key, schema->GetVersion().c_str(), schema, object);
    };
    if (value.IsObject()) {
      stage(value);
    } else {
      for (auto& element : value.GetArray()) stage(element);
    }
  });
  return allValid;
}

}  // namespace

void SetDesiredSmartnicConfiguration(rapidjson::Document& doc) {
  BootLock lock(Host::FileLock::Mode::Shared);  // staged wholly before or wholly after a boot load
  DBStore::Connection conn = GetDBConnection(DBStore::CONFIG_STORE, true);
  DBStore::SchemaStoreAttachment ss(conn);
  if (ss.Attach() != 0) throw ConfigStoreException(CS_ERR_GENERIC, "Failed to attach schema store");
  DBStore::Transaction tx(conn);
  try {
    if (tx.Begin() != 0) ThrowStoreFailure("Failed to start set desired transaction");
    Run(conn, "DELETE from DesiredUserConfig", {}, "Failed to cleanup desired configuration.");
    if (!StageSmartnicDocument(doc, conn)) {
      throw ConfigStoreException(
          CS_ERR_GENERIC, "Failed to validate smartnic configuration, Check logs for specific validation errors.");
    }
    // Every shared key the document leaves out starts from its default configuration, or from
    // nothing where that default may not change. SYSTEM-AS-IS: the double-quoted tokens are
    // SQLite's string-literal fallback, kept as the host's statement has them.
    Run(conn,
        "INSERT OR REPLACE INTO DesiredUserConfig (Component, ConfigGroup, Name, BootAction) SELECT Component, "
        "ConfigGroup, Name, CASE WHEN MutableDefaultConfig=1 THEN \"SET_DEFAULT\" ELSE 'DELETE' END FROM "
        "ss.ConfigSchema WHERE (Component, ConfigGroup, Name) IN (SELECT Component, ConfigGroup, Name FROM "
        "ss.SmartnicSchema WHERE ss.SmartnicSchema.ValueType = \"qor-shared\" AND (Component, ConfigGroup, Name) NOT "
        "IN (SELECT Component, ConfigGroup, Name FROM DesiredUserConfig));",
        {}, "Failed to initialize the configuration for smartnic.");
    staging::SetBootModeInTransaction(conn, BOOT_MODE_SMARTNIC_CONFIG);
    if (tx.Commit() != 0) {
      throw ConfigStoreException(CS_ERR_GENERIC, "Failed to commit set desired transaction");
    }
  } catch (const std::exception&) {
    (void)tx.Rollback();  // before the detach and the log line; a failed rollback logs itself
    DetachOrLog(ss);
    RethrowFromOperation("SetDesiredSmartnicConfiguration failed: ");
  }
  DetachOrLog(ss);
  CSLogger::Log(CSLogger::PRIO_INFO, "Desired configuration set for smartnic.");
}

}  // namespace QorConfigStore
