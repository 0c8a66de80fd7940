#include "configstore/defaults/DefaultConfig.h"

#include <exception>
#include <vector>

#include "configstore/defaults/DefaultConfigSteps.h"
#include "configstore/frame/BootLock.h"
#include "configstore/frame/CallFrame.h"
#include "configstore/frame/Documents.h"
#include "configstore/schema/SchemaFiles.h"
#include "platform/host/Features.h"
#include "platform/host/Files.h"
#include "platform/host/HostRoot.h"
#include "platform/schemastore/SchemaDocument.h"
#include "platform/validator/ConfigStoreDocument.h"
#include "platform/validator/JsonValidator.h"

namespace QorConfigStore {
namespace {

// Replaces the file's content with the compact text of `errors`. A file that cannot be written is
// logged: the run's result is already a failure.
void WriteErrorFile(const std::string& path, const rapidjson::Value& errors) {
  std::string text;
  ConfigStoreDocument::SerializeValue(errors, text);
  std::string error;
  if (!Host::WriteFileAtomically(path, text, &error)) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Failed to write default config error file %s", error.c_str());
  }
}

}  // namespace

void WriteDefaultInstance(rapidjson::MemoryPoolAllocator<>& allocator, const DBStore::Connection& conn,
                          const std::string& version, const std::string& component, const std::string& group,
                          const std::string& key, const std::shared_ptr<QorSchemaStore::SchemaObject>& schema,
                          const JsonValidator::PreparedSchema& validator, rapidjson::Value& instance,
                          rapidjson::Value& keyErrors) {
  rapidjson::Document errors;
  JsonValidator::Validate(validator, instance, errors);
  if (!errors.Empty()) {
    for (const rapidjson::Value& entry : errors.GetArray()) keyErrors.PushBack(rapidjson::Value(entry, allocator), allocator);
    return;
  }

  QorSchemaStore::PopulateGeneratedInstanceId(*schema, instance, allocator);
  const std::string identifier = GetInstanceIdFromValue(instance, schema);
  auto parts = SplitConfig(instance, schema->GetSchemaValue());
  static const std::string kInsert = Format(
      "INSERT OR REPLACE INTO '%s'(Component, ConfigGroup, Name, Identifier, Value, VitalValue, CachedValue, "
      "Version) VALUES (?, ?, ?, ?, ?, ?, ?, ?);",
      "DefaultConfig");
  if (DBStore::Exec(conn, kInsert, component, group, key, identifier, parts["user"], parts["vital"], parts["cached"],
                    version) != 0) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Failed to write default config for %s/%s/%s/%s", component.c_str(),
                  group.c_str(), key.c_str(), identifier.c_str());
  }
}

void ProcessDefaultElement(rapidjson::MemoryPoolAllocator<>& allocator, rapidjson::Value& element,
                           const DBStore::Connection& conn, const std::shared_ptr<QorSchemaStore::SchemaStore>& store,
                           rapidjson::Value& fileErrors, bool isQorio) {
  const std::string key = StringValue(element["key"]);
  const std::string component = StringValue(element["component"]);
  const std::string group = StringValue(element["group"]);

  rapidjson::Value keyErrors(rapidjson::kArrayType);
  std::shared_ptr<QorSchemaStore::SchemaObject> schema = QorSchemaStore::GetSchema(component, group, key, store);
  if (!schema) {
    rapidjson::Value notFound(rapidjson::kObjectType);
    notFound.AddMember("error", "Schema not found", allocator);
    keyErrors.PushBack(notFound, allocator);
  } else {
    const std::string& version = schema->GetVersion();
    // Looked up once for every instance of the key; the stored text is the cache key's part, so the
    // schema is not serialized again.
    const JsonValidator::PreparedSchema validator =
        JsonValidator::Prepare(schema->GetSchemaValue(), schema->Record().schemaJson, kRulesDefaultConfig, "");
    rapidjson::Value& config =
        isQorio && element.HasMember("qorio_config") ? element["qorio_config"] : element["config"];
    if (config.IsArray()) {
      for (rapidjson::Value& instance : config.GetArray()) {
        WriteDefaultInstance(allocator, conn, version, component, group, key, schema, validator, instance, keyErrors);
      }
    } else {
      WriteDefaultInstance(allocator, conn, version, component, group, key, schema, validator, config, keyErrors);
    }
  }

  if (!keyErrors.Empty()) {
    rapidjson::Value entry(rapidjson::kObjectType);
    entry.AddMember("key", rapidjson::Value(key.data(), static_cast<rapidjson::SizeType>(key.size()), allocator),
                    allocator);
    entry.AddMember("errors", keyErrors, allocator);
    fileErrors.PushBack(entry, allocator);
    CSLogger::Log(CSLogger::PRIO_ERROR, "Validation failed for key: %s", key.c_str());
  }
}

bool ProcessDefaultConfiguration(bool isQorio) {
  BootLock lock(Host::FileLock::Mode::Shared);  // a load's restore must not replace the store under it
  CSLogger::Log(CSLogger::PRIO_INFO, "Processing default configuration.");
  const std::string directory = Host::Resolve(kDefaultConfigDir);
  try {
    const std::vector<std::string> files = GetSchemaFiles(directory);
    SchemaFileSelection selection(directory, files, Host::FeatureState_IsEnabled(Host::FEATURE_SCHEMA_VERSIONING));
    DBStore::Connection conn = GetDBConnection(DBStore::CONFIG_STORE, true);
    std::shared_ptr<QorSchemaStore::SchemaStore> store = QorSchemaStore::SchemaStore::GetStore(false);
    if (files.empty()) {
      CSLogger::Log(CSLogger::PRIO_ERROR, "Failed to open %s", directory.c_str());
      return false;
    }

    DBStore::Transaction tx(conn);  // rolled back on the way to the catch below
    if (tx.Begin() != 0) ThrowStoreFailure("Failed to begin default config transaction");
    if (DBStore::Exec(conn, "DELETE from DefaultConfig") != 0) {
      throw ConfigStoreException(CS_ERR_GENERIC, "Failed to cleanup default config");
    }

    bool result = true;
    for (const std::string& name : selection.Files()) {
      if (!selection.Select(name)) continue;
      CSLogger::Log(CSLogger::PRIO_INFO, "Processing default config from '%s'", name.c_str());
      std::shared_ptr<JsonDoc> doc = selection.TakeDocument(name);
      rapidjson::MemoryPoolAllocator<>& allocator = doc->document->GetAllocator();
      rapidjson::Value fileErrors(rapidjson::kArrayType);
      for (rapidjson::Value& element : (*doc->document)["data"].GetArray()) {
        ProcessDefaultElement(allocator, element, conn, store, fileErrors, isQorio);
      }
      if (!fileErrors.Empty()) {
        const std::string errorFile = Host::Resolve(kDefaultConfigErrorFilePrefix + name);
        CSLogger::Log(CSLogger::PRIO_ERROR, "Creating default config error file %s", errorFile.c_str());
        WriteErrorFile(errorFile, fileErrors);
        CSLogger::Log(CSLogger::PRIO_ERROR, "Default configuration failed '%s'", name.c_str());
        result = false;
      }
    }

    if (tx.Commit() != 0) {
      throw ConfigStoreException(CS_ERR_GENERIC, "Failed to commit default config");
    }
    CSLogger::Log(CSLogger::PRIO_INFO, "Completed processing default configuration: %s.",
                  result ? "success" : "failure");
    return result;
  } catch (const std::exception& e) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "DefaultConfiguration Failed %s", e.what());
    return false;
  }
}

}  // namespace QorConfigStore
