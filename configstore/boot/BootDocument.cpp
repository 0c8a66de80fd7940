#include "configstore/boot/BootDocument.h"

#include <memory>
#include <string>
#include <vector>

#include "configstore/frame/CallFrame.h"
#include "platform/host/HostRoot.h"
#include "platform/schemastore/SchemaDocument.h"
#include "platform/schemastore/SchemaStore.h"
#include "platform/validator/ConfigStoreDocument.h"

namespace QorConfigStore {
namespace {

constexpr const char* kWriteUserConfigSql =
    "INSERT OR REPLACE INTO Config ( Identifier, Name, ConfigGroup, Component, Version, CreationTime, Revision, "
    "AutoConfValue, VitalValue, CachedValue, UserValue ) VALUES ( ?1, ?2, ?3, ?4, ?5, COALESCE( ( SELECT "
    "CreationTime FROM Config WHERE Identifier = ?1 AND Name = ?2 AND ConfigGroup = ?3 AND Component = ?4 ), "
    "(DATETIME(CURRENT_TIMESTAMP)) ), COALESCE( ( SELECT Revision FROM Config WHERE Identifier = ?1 AND Name = ?2 "
    "AND ConfigGroup = ?3 AND Component = ?4 ), (0) ) + 1, COALESCE( ( SELECT AutoConfValue FROM Config WHERE "
    "Identifier = ?1 AND Name = ?2 AND ConfigGroup = ?3 AND Component = ?4 ), NULL ), COALESCE( ( SELECT "
    "VitalValue FROM Config WHERE Identifier = ?1 AND Name = ?2 AND ConfigGroup = ?3 AND Component = ?4 ), NULL ), "
    "COALESCE( ( SELECT CachedValue FROM Config WHERE Identifier = ?1 AND Name = ?2 AND ConfigGroup = ?3 AND "
    "Component = ?4 ), NULL ), ?6 )";

constexpr const char* kDeleteKeySql = "DELETE FROM Config WHERE Name = ? AND ConfigGroup = ? AND Component = ?;";

struct Instance {
  std::string id;
  std::string value;
};

bool IsEmptyValue(const rapidjson::Value& value) {
  return value.IsNull() || (value.IsObject() && value.MemberCount() == 0) || (value.IsArray() && value.Empty());
}

// Fills generated instance ids first: the user-object rules require every instance id, generated
// ones included. Every instance is validated so that all errors are logged.
bool FillIdsAndValidate(const QorSchemaStore::SchemaObject& schema, rapidjson::Value& value, const std::string& path,
                        rapidjson::MemoryPoolAllocator<>& allocator) {
  if (!value.IsArray()) {
    QorSchemaStore::PopulateGeneratedInstanceId(schema, value, allocator);
    return ValidateUserObject(schema.GetSchemaValue(), value, path, true);
  }
  if (schema.IsSingleton()) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "%s takes a single object, not an array", path.c_str());
    return false;
  }
  bool valid = true;
  for (rapidjson::Value& element : value.GetArray()) {
    QorSchemaStore::PopulateGeneratedInstanceId(schema, element, allocator);
    valid = ValidateUserObject(schema.GetSchemaValue(), element, path, false) && valid;
  }
  return valid;
}

Instance ToInstance(const rapidjson::Value& value, const std::shared_ptr<QorSchemaStore::SchemaObject>& schema) {
  Instance instance;
  instance.id = GetInstanceIdFromValue(value, schema);
  ConfigStoreDocument::SerializeValue(value, instance.value);
  return instance;
}

void DeleteKey(const DBStore::Connection& conn, const std::string& component, const std::string& group,
               const std::string& key) {
  if (DBStore::Exec(conn, kDeleteKeySql, key, group, component) != 0) {
    throw ConfigStoreException(CS_ERR_GENERIC, "Delete mutable default config failed");
  }
}

// One key of the document. Document faults are logged and skip the key; store failures throw.
void ProcessKey(const DBStore::Connection& conn, const QorSchemaStore::SchemaObjectCache& cache,
                const std::string& component, const std::string& group, const std::string& key,
                rapidjson::Value& value, rapidjson::MemoryPoolAllocator<>& allocator) {
  const std::string path = component + "/" + group + "/" + key;
  if (IsEmptyValue(value)) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "%s is empty, skipping", path.c_str());
    return;
  }
  std::shared_ptr<QorSchemaStore::SchemaObject> schema = cache.GetSchema({component, group, key});
  if (!schema) {
    CSLogger::Log(CSLogger::PRIO_WARNING, "Schema not found for %s, skipping", path.c_str());
    return;
  }

  bool deleteDefault = false;
  std::vector<Instance> instances;
  try {
    if (!FillIdsAndValidate(*schema, value, path, allocator)) {
      CSLogger::Log(CSLogger::PRIO_ERROR, "Validation failed for %s, skipping", path.c_str());
      return;
    }
    if (value.IsString()) {
      deleteDefault = true;  // validation admits no other string
    } else if (value.IsArray()) {
      for (const rapidjson::Value& element : value.GetArray()) instances.push_back(ToInstance(element, schema));
    } else {
      instances.push_back(ToInstance(value, schema));
    }
  } catch (const std::exception& e) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "%s: %s, skipping", e.what(), path.c_str());
    return;
  }

  if (deleteDefault) {
    CSLogger::Log(CSLogger::PRIO_INFO, "Default configuration for %s will be deleted.", path.c_str());
    DeleteKey(conn, component, group, key);
    return;
  }
  for (const Instance& instance : instances) {
    WriteUserConfig(conn, ConfigStoreObjectId{key, component, group, instance.id}, schema->GetVersion(),
                    instance.value);
  }
}

}  // namespace

void ProcessBootConfigurationDocument(const DBStore::Connection& conn) {
  const std::string path = Host::Resolve(kBootConfigurationDocument);
  if (!FileExists(path.c_str())) return;

  CSLogger::Log(CSLogger::PRIO_INFO, "Processing boot document %s", path.c_str());
  std::shared_ptr<JsonDoc> doc = CreateDocumentFromFile(path);
  std::shared_ptr<QorSchemaStore::SchemaObjectCache> cache = QorSchemaStore::SchemaStore::GetCache();
  rapidjson::Document& root = *doc->document;
  if (!root.IsObject()) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Failed to process, document should be an object");
    return;
  }
  rapidjson::Value::MemberIterator profile = root.FindMember("profile");
  rapidjson::Value& components = profile != root.MemberEnd() ? profile->value : root;
  if (!components.IsObject()) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Failed to process, \"profile\" should be an object");
    return;
  }

  for (auto& component : components.GetObject()) {
    const std::string componentName = component.name.GetString();
    if (!component.value.IsObject()) {
      CSLogger::Log(CSLogger::PRIO_ERROR, "/%s is invalid, skipping", componentName.c_str());
      continue;
    }
    for (auto& group : component.value.GetObject()) {
      const std::string groupName = group.name.GetString();
      if (!group.value.IsObject()) {
        CSLogger::Log(CSLogger::PRIO_ERROR, "/%s/%s is invalid, skipping", componentName.c_str(), groupName.c_str());
        continue;
      }
      for (auto& key : group.value.GetObject()) {
        ProcessKey(conn, *cache, componentName, groupName, key.name.GetString(), key.value, root.GetAllocator());
      }
    }
  }
  CSLogger::Log(CSLogger::PRIO_INFO, "Boot document processed.");
}

void WriteUserConfig(const DBStore::Connection& conn, const ConfigStoreObjectId& id, const std::string& version,
                     const std::string& userValue) {
  if (DBStore::Exec(conn, kWriteUserConfigSql, id.id, id.key, id.group, id.component, version, userValue) != 0) {
    throw ConfigStoreException(CS_ERR_GENERIC, "Write user config failed");
  }
}

}  // namespace QorConfigStore
