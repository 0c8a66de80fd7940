#include "configstore/schema/SchemaProcessor.h"

#include <exception>
#include <set>
#include <string_view>

#include "configstore/defaults/DefaultConfig.h"
#include "configstore/frame/BootLock.h"
#include "configstore/frame/CallFrame.h"
#include "configstore/frame/Documents.h"
#include "configstore/schema/SchemaFiles.h"
#include "configstore/schema/SchemaRegistration.h"
#include "platform/host/Features.h"
#include "platform/host/HostRoot.h"
#include "platform/image/QorImage.h"
#include "platform/logging/Events.h"

namespace QorConfigStore {
namespace {

// Whether the document carries the metadata an identifier is made of. Throws 1082 when the root or
// "metadata" is not an object.
bool HasCompleteMetadata(const rapidjson::Value& document) {
  if (!document.HasMember("data") || !document.HasMember("metadata")) return false;
  const rapidjson::Value& metadata = document["metadata"];
  return metadata.HasMember("kitname") && metadata.HasMember("kitversion");
}

bool IsStringEqual(const rapidjson::Value& value, std::string_view text) {
  return value.IsString() && std::string_view(value.GetString(), value.GetStringLength()) == text;
}

void LogCompletion(bool result) {
  CSLogger::Log(CSLogger::PRIO_INFO, "[SchemaProcessor] Schema processing completed: %s",
                result ? "success" : "failure");
}

}  // namespace

bool ElementAppliesToHost(const rapidjson::Value& element, bool isQorio, bool smartnicFiltering) {
  if (!smartnicFiltering) return true;
  if (!element.HasMember("smartnic")) return !isQorio;
  const rapidjson::Value& placement = element["smartnic"]["schema"];
  if (IsStringEqual(placement, kSmartnicShared)) return true;
  if (IsStringEqual(placement, kSmartnicQorioOnly)) return isQorio;
  return false;
}

bool RegisterSchemaElements(const std::shared_ptr<QorSchemaStore::SchemaStore>& store, const std::string& schemaId,
                            const rapidjson::Value& document, bool isQorio) {
  try {
    const bool smartnicFiltering = Host::FeatureState_IsEnabled(Host::FEATURE_SMARTNIC_SCHEMA_FILTER);
    for (const rapidjson::Value& element : document["data"].GetArray()) {
      if (!element.HasMember("key") || !element.HasMember("group") || !element.HasMember("component")) {
        CSLogger::Log(CSLogger::PRIO_ERROR, "[SchemaProcessor] Schema file has errors.");
        return false;
      }
      const std::string component = StringValue(element["component"]);
      const std::string group = StringValue(element["group"]);
      const std::string key = StringValue(element["key"]);
      if (!ElementAppliesToHost(element, isQorio, smartnicFiltering)) {
        CSLogger::Log(CSLogger::PRIO_INFO, "[SchemaProcessor]: Skipping schema %s/%s/%s for qorio=%d",
                      component.c_str(), group.c_str(), key.c_str(), isQorio ? 1 : 0);
        continue;
      }
      // The parsed element goes to the store as it is: no text round trip.
      store->SetSchema(schemaId, QorSchemaStore::SchemaObjectId(component, group, key), element,
                       element.HasMember("smartnic"));
    }
    CSLogger::Log(CSLogger::PRIO_INFO, "[SchemaProcessor] Schema file processed successfully");
    return true;
  } catch (const std::exception& e) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "[SchemaProcessor] Failed to process schema file: %s", e.what());
    return false;
  }
}

bool ProcessSchemaFiles(const std::vector<std::string>& schemaIds, bool isQorio, std::string* failure) {
  CSLogger::Log(CSLogger::PRIO_INFO, "[SchemaProcessor] Processing schemas..");
  std::shared_ptr<QorSchemaStore::SchemaStore> store;
  try {
    std::set<std::string> expected;
    for (std::string& id : QorImage::GetSchemaIds()) expected.insert(std::move(id));
    if (!schemaIds.empty()) {
      CSLogger::Log(CSLogger::PRIO_INFO, "[SchemaProcessor] Schema ID list received as input");
      expected.insert(schemaIds.begin(), schemaIds.end());
    }

    store = QorSchemaStore::SchemaStore::GetStore(true);
    store->BeginUpdate();
    store->ResetSchemas();

    const std::string directory = Host::Resolve(kSchemaDir);
    SchemaFileSelection selection(directory, GetSchemaFiles(directory),
                                  Host::FeatureState_IsEnabled(Host::FEATURE_SCHEMA_VERSIONING));
    bool result = true;
    for (const std::string& name : selection.Files()) {
      if (!selection.Select(name)) continue;
      // With versioning the selection has already logged this line for the file.
      if (!selection.Versioning()) CSLogger::Log(CSLogger::PRIO_INFO, "Processing schema file '%s'.", name.c_str());
      std::shared_ptr<JsonDoc> doc = selection.TakeDocument(name);
      const rapidjson::Value& root = *doc->document;

      std::string schemaId;
      if (!HasCompleteMetadata(root)) {
        DumpZeb("zeb.user.cs.schema.metadata.error", 1, name.c_str());
        CSLogger::Log(CSLogger::PRIO_ERROR, "[SchemaProcessor] Invalid format in schema file %s", name.c_str());
      } else {
        schemaId = selection.Versioning() ? selection.SchemaId(name) : GetSchemaIDfromFile(name, root);
        if (expected.count(schemaId) == 0) {
          DumpZeb("zeb.user.cs.schema.validation.error", 1, name.c_str());
          CSLogger::Log(CSLogger::PRIO_ERROR, "[SchemaProcessor] Schema-id '%s' does not align with expected schema-ids.",
                        schemaId.c_str());
          schemaId.clear();
        }
      }
      if (schemaId.empty() || !RegisterSchemaElements(store, schemaId, root, isQorio)) {
        DumpZeb("zeb.user.cs.schema.file.error", 1, name.c_str());
        result = false;
      }
    }

    store->CommitUpdate();
    LogCompletion(result);
    return result;
  } catch (const std::exception& e) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "[SchemaProcessor] Error processing schemas - '%s'.", e.what());
    if (failure != nullptr) *failure = e.what();
    if (store) store->CancelUpdate();
    LogCompletion(false);
    return false;
  }
}

SchemaProcessingResult ProcessSchemasAndDefaults(const std::vector<std::string>& schemaIds, std::string* failure) {
  BootLock lock(Host::FileLock::Mode::Shared);  // a load's restore must not replace the store under it
  const bool isQorio = FileExists(Host::Resolve(kQorioMarkerFile).c_str());
  if (isQorio) CSLogger::Log(CSLogger::PRIO_INFO, "[SchemaProcessor]: This is qorio booting up.");
  FeatureState_InitSilentMode();
  SchemaProcessingResult result;
  result.schemasRegistered = ProcessSchemaFiles(schemaIds, isQorio, failure);
  result.defaultsLoaded = ProcessDefaultConfiguration(isQorio);
  return result;
}

bool ProcessSchemas(const std::vector<std::string>& schemaIds, std::string* failure) {
  const SchemaProcessingResult result = ProcessSchemasAndDefaults(schemaIds, failure);
  return result.schemasRegistered && result.defaultsLoaded;
}

}  // namespace QorConfigStore
