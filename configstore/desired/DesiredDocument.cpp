// Staging of whole desired documents for the next boot.
#include <filesystem>
#include <map>
#include <set>

#include "configstore/desired/DesiredConfig.h"
#include "configstore/desired/Staging.h"
#include "configstore/frame/BootLock.h"
#include "configstore/frame/CallFrame.h"
#include "platform/host/Features.h"
#include "platform/host/HostRoot.h"
#include "platform/schemastore/SchemaDocument.h"
#include "platform/validator/ConfigStoreDocument.h"
#include "platform/validator/JsonValidator.h"

namespace QorConfigStore {
namespace {

using QorSchemaStore::SchemaObjectId;
using staging::Column;
using staging::Run;

// The user-object rules, except that an instance id the schema generates may be absent: it is
// filled in when the object is staged.
const RuleSet kRulesDesiredDocument = {0, 1, 4, 7, 8};

constexpr const char* kHostConfigurationFile = "/etc/talvex/host_configuration.json";

// The desired networking objects are ignored when the host configuration file is present: the
// host's current ones are carried over instead.
bool IsNetworkingKey(const std::string& group, const std::string& key) {
  return key == "nuknics" || (group == "network_zsw" && key == "switches");
}

bool HostConfigurationFilePresent() {
  FeatureState_InitSilentMode();
  if (!Host::FeatureState_IsEnabled(Host::FEATURE_HOST_CONFIG_FILE)) return false;
  std::error_code ec;
  std::filesystem::file_status status = std::filesystem::status(Host::Resolve(kHostConfigurationFile), ec);
  return status.type() != std::filesystem::file_type::none && status.type() != std::filesystem::file_type::not_found;
}

rapidjson::Value& ProfileOf(rapidjson::Document& doc) {
  if (!doc.IsObject() || !doc.HasMember("profile") || !doc["profile"].IsObject()) {
    throw ConfigStoreException(CS_ERR_GENERIC, "Desired configuration has no \"profile\" object");
  }
  return doc["profile"];
}

void PreserveNetworking(const DBStore::Connection& conn) {
  Run(conn,
      "INSERT INTO DesiredUserConfig (Identifier, Name, ConfigGroup, Component, Version, Value, BootAction) "
      "SELECT Identifier, Name, ConfigGroup, Component, Version, UserValue, 'SET' FROM Config WHERE Component = "
      "'qor' AND ((ConfigGroup = 'network_zsw' AND Name = 'switches') OR (ConfigGroup = 'network' AND Name = "
      "'nuknics'))",
      {}, "Failed to preserve current ZSW networking configuration.");
  CSLogger::Log(CSLogger::PRIO_INFO, "Successfully preserved network configuration.");
}

// Current distributed switches that the desired configuration does not stage are staged again:
// a switch disappears only by an explicit change on its manager.
void PreserveDroppedSwitches(const DBStore::Connection& conn,
                             const std::shared_ptr<QorSchemaStore::SchemaObjectCache>& cache) {
  staging::Rows rows = Run(
      conn,
      "SELECT Identifier, UserValue, VitalValue FROM Config WHERE Component = 'qor' AND ConfigGroup = "
      "'network_zsw' AND Name = 'switches' AND Identifier NOT IN (SELECT Identifier FROM DesiredUserConfig WHERE "
      "Component = 'qor' AND ConfigGroup = 'network_zsw' AND Name = 'switches')",
      {}, "Failed to get current ZSW configuration.");
  if (rows.empty()) {
    CSLogger::Log(CSLogger::PRIO_INFO, "ZSW objects are not getting deleted, skip ZSW special-handling logic");
    return;
  }
  CSLogger::Log(CSLogger::PRIO_INFO, "%d zsw objects in ConfigStore will be deleted.", static_cast<int>(rows.size()));
  auto schema = cache->GetSchema(SchemaObjectId("qor", "network_zsw", "switches"));
  Column version = schema ? Column(schema->GetVersion()) : std::nullopt;
  for (const auto& row : rows) {
    const Column& identifier = row[0];
    CSLogger::Log(CSLogger::PRIO_INFO, "Preserve Zsw[%s] user-config=%s, vital-data=%s", staging::OrNull(identifier),
                  staging::OrNull(row[1]), staging::OrNull(row[2]));
    rapidjson::Document value;
    if (!row[1] || value.Parse(row[1]->c_str()).HasParseError()) {
      // SYSTEM-AS-IS: "configruation" is the host's own wording; scripts match the message.
      throw ConfigStoreException(CS_ERR_GENERIC, "Failed to preserve ZSW configruation.");
    }
    std::string serialized;
    ConfigStoreDocument::SerializeValue(value, serialized);
    Run(conn,
        "INSERT INTO DesiredUserConfig (Identifier, Name, ConfigGroup, Component, Version, Value, VitalValue, "
        "BootAction) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8)",
        {identifier, "switches", "network_zsw", "qor", version, serialized, row[2], "SET"},
        "Failed to preserve ZSW configruation.");
    bool named = value.IsObject() && value.HasMember("name") && value["name"].IsString();
    CSLogger::Log(CSLogger::PRIO_INFO, "Successfully preserved Zsw[%s] configuration",
                  named ? value["name"].GetString() : staging::OrNull(identifier));
  }
}

// Keys with mutable default configuration keep their default objects in the desired state; an
// instance the document stages wins over the default instance of the same id.
void CopyMutableDefaultConfig(const DBStore::Connection& conn,
                              const std::shared_ptr<QorSchemaStore::SchemaObjectCache>& cache,
                              const std::map<SchemaObjectId, std::vector<std::string>>& stagedIds) {
  static const char* const kCopy =
      "INSERT INTO DesiredUserConfig (Component, ConfigGroup, Name, Identifier, Version, Value, VitalValue, "
      "CachedValue) SELECT Component, ConfigGroup, Name, Identifier, Version, Value, VitalValue, CachedValue FROM "
      "DefaultConfig WHERE Component = ? AND ConfigGroup = ? AND Name = ?";
  for (const auto& [id, schema] : cache->GetAll()) {
    if (!schema->HasMutableDefaultConfig()) continue;
    CSLogger::Log(CSLogger::PRIO_INFO, "Processing mutableDefaultConfig schemas id = %s", id.toString().c_str());
    std::string sql = kCopy;
    std::vector<Column> params = {id.component, id.group, id.key};
    // Generated ids never match a default's id. A key the document names without staging an
    // instance (DELETE_DEFAULT, ignored networking) gets its defaults whole. A singleton's staged
    // object has the default's id "" and is excluded like an instance.
    auto staged = stagedIds.find(id);
    if (staged != stagedIds.end() && !staged->second.empty() && !schema->IsGeneratedInstanceId()) {
      sql += " AND Identifier NOT IN (";
      for (const std::string& instanceId : staged->second) {
        sql += "?,";
        params.emplace_back(instanceId);
      }
      sql.back() = ')';
    }
    Run(conn, sql, params, "Failed to insert default configuration to desired config table");
  }
}

void PreserveAdvancedOptions(const DBStore::Connection& conn) {
  static const std::string sql = [] {
    std::string text =
        "INSERT INTO DesiredUserConfig (Identifier, Name, ConfigGroup, Component, Version, Value, BootAction) SELECT "
        "Identifier, Name, ConfigGroup, Component, Version, UserValue, 'SET' FROM Config WHERE Component = 'qor' AND "
        "ConfigGroup = 'advanced_options' AND Name = 'user_vars' AND Identifier in (";
    for (const char* id : staging::kCarriedOverUserVars) text += std::string(text.back() == '(' ? "'" : ", '") + id + "'";
    return text + ")";
  }();
  Run(conn, sql, {}, "Failed to preserve ZTN user-var advanced options");
  CSLogger::Log(CSLogger::PRIO_INFO, "Successfully preserved ZTN user-var advanced options.");
}

}  // namespace

void SetDesiredUserConfig(rapidjson::Document& doc) {
  BootLock lock(Host::FileLock::Mode::Shared);  // staged wholly before or wholly after a boot load
  DBStore::Connection conn = GetDBConnection(DBStore::CONFIG_STORE, true);
  DBStore::Transaction tx(conn);
  if (tx.Begin() != 0) ThrowStoreFailure("Failed to start set desired transaction");
  try {
    Run(conn, "DELETE from DesiredUserConfig", {}, "Failed to cleanup desired configuration.");
    ProcessDesiredDocument(doc, conn);
    staging::SetBootModeInTransaction(conn, BOOT_MODE_DESIRED_USER_CONFIG);
    if (tx.Commit() != 0) {
      throw ConfigStoreException(CS_ERR_GENERIC, "Failed to commit set desired transaction");
    }
  } catch (const std::exception&) {
    (void)tx.Rollback();  // before the log line; a failed rollback logs itself
    RethrowFromOperation("SetDesiredUserConfig failed: ");
  }
  CSLogger::Log(CSLogger::PRIO_INFO, "Desired configuration set");
}

rapidjson::Document DesiredDocumentErrors(const rapidjson::Value& doc,
                                          const std::shared_ptr<QorSchemaStore::SchemaObjectCache>& cache) {
  rapidjson::Document schemaDoc;
  QorSchemaStore::GenerateSchemaDocument(doc, cache, schemaDoc, QorSchemaStore::UnknownObjects::Refuse);
  rapidjson::Document errors;
  JsonValidator::Validate(schemaDoc, doc, errors, kRulesDesiredDocument, "desired document");
  return errors;
}

void ValidateDesiredDocument(rapidjson::Document& doc, const std::shared_ptr<QorSchemaStore::SchemaObjectCache>& cache) {
  rapidjson::Document errors = DesiredDocumentErrors(doc, cache);
  if (!checkValidationErrors(errors)) {
    throw ConfigStoreException(CS_ERR_GENERIC,
                               "Failed to validate desired configuration, Check logs for specific validation errors.");
  }
}

void ProcessDesiredDocument(rapidjson::Document& doc, const std::shared_ptr<DBStore::StoreConnection>& conn) {
  std::shared_ptr<QorSchemaStore::SchemaObjectCache> cache = QorSchemaStore::SchemaStore::GetCache();
  const bool hostConfigFile = HostConfigurationFilePresent();

  // Ids of the keys the document names, with the instance ids it staged for each.
  std::map<SchemaObjectId, std::vector<std::string>> stagedIds;
  auto& alloc = doc.GetAllocator();
  staging::ForEachKey(ProfileOf(doc), [&](const char* component, const char* group, const char* key,
                                          rapidjson::Value& value) {
    SchemaObjectId id(component, group, key);
    std::vector<std::string>& staged = stagedIds[id];
    if (hostConfigFile && IsNetworkingKey(group, key)) return;
    if (value.IsString()) {
      if (std::string(value.GetString()) == staging::kDeleteDefault) {
        CSLogger::Log(CSLogger::PRIO_INFO, "Default configuration for comp:%s, group:%s key:%s will be deleted.",
                      component, group, key);
      }
      return;
    }
    if (!value.IsObject() && !value.IsArray()) return;
    auto schema = cache->GetSchema(id);
    if (!schema) {
      // Boot drops objects that no schema describes; staging them would only postpone that.
      CSLogger::Log(CSLogger::PRIO_WARNING, "Schema not found for id='%s'", id.toString().c_str());
      return;
    }
    const char* version = schema->GetVersion().c_str();
    if (value.IsObject()) {
      staged.push_back(ProcessDesiredObject(alloc, conn, component, group, key, version, schema, value));
      return;
    }
    for (auto& element : value.GetArray()) {
      if (!element.IsObject()) {
        CSLogger::Log(CSLogger::PRIO_WARNING, "Skipping an instance of %s that is not an object",
                      id.toString().c_str());
        continue;
      }
      staged.push_back(ProcessDesiredObject(alloc, conn, component, group, key, version, schema, element));
    }
  });

  if (hostConfigFile) {
    PreserveNetworking(conn);
  } else {
    PreserveDroppedSwitches(conn, cache);
  }
  CopyMutableDefaultConfig(conn, cache, stagedIds);
  staging::PreserveSolutionUserPermissions(cache, conn);
  PreserveAdvancedOptions(conn);
}

std::string ProcessDesiredObject(rapidjson::MemoryPoolAllocator<>& alloc,
                                 const std::shared_ptr<DBStore::StoreConnection>& conn, const char* component,
                                 const char* group, const char* key, const char* version,
                                 const std::shared_ptr<QorSchemaStore::SchemaObject>& schema, rapidjson::Value& object) {
  if (component == nullptr || group == nullptr || key == nullptr) {
    throw InvalidArgumentException(CS_ERR_GENERIC, "A desired object needs a component, group and key");
  }
  if (!schema) {
    throw ConfigStoreException(CS_ERR_GENERIC, std::string("No schema to stage desired configuration of ") +
                                                   SchemaObjectId(component, group, key).toString());
  }
  QorSchemaStore::PopulateGeneratedInstanceId(*schema, object, alloc);
  std::string instanceId = GetInstanceIdFromValue(object, schema);
  if (std::string(key) == "nuknics") staging::PreserveNuknicSwitchPort(object, instanceId, alloc, conn);

  std::string serialized;
  ConfigStoreDocument::SerializeValue(object, serialized);
  Run(conn,
      "INSERT OR REPLACE INTO DesiredUserConfig (Identifier, Name, ConfigGroup, Component, Version, Value, "
      "BootAction) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7)",
      {instanceId, key, group, component, version ? Column(version) : std::nullopt, serialized, "SET"},
      "Write desired config failed");
  return instanceId;
}

std::vector<StagedRow> GetStagedRows() {
  DBStore::Connection conn = GetDBConnection(DBStore::CONFIG_STORE, true);
  staging::Rows rows = Run(conn,
                           "SELECT Identifier, Name, ConfigGroup, Component, Version, Value, VitalValue, CachedValue, "
                           "BootAction FROM DesiredUserConfig ORDER BY Component, ConfigGroup, Name, Identifier",
                           {}, "Failed to read the staged desired configuration");
  std::vector<StagedRow> staged;
  staged.reserve(rows.size());
  for (auto& r : rows) staged.push_back({r[0], r[1], r[2], r[3], r[4], r[5], r[6], r[7], r[8]});
  return staged;
}

}  // namespace QorConfigStore
