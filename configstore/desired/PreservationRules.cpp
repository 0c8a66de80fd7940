// Current configuration that a desired configuration must not lose: permissions of solution users
// and the distributed-switch port identity of the host's kernel network interfaces. (The
// networking and advanced-options carry-overs are single statements of the document staging.)
#include <algorithm>

#include "configstore/desired/Staging.h"
#include "configstore/frame/CallFrame.h"

namespace QorConfigStore::staging {
namespace {

using QorSchemaStore::SchemaObjectId;

// Parses a stored value; false when it is absent or not JSON.
bool ParseStored(const Column& text, rapidjson::Document& doc) {
  return text && !doc.Parse(text->c_str()).HasParseError();
}

bool IsStringMember(const rapidjson::Value& object, const char* name, const char* expected) {
  if (!object.IsObject()) return false;
  auto it = object.FindMember(name);
  return it != object.MemberEnd() && it->value.IsString() && std::string(it->value.GetString()) == expected;
}

}  // namespace

void PreserveSolutionUserPermissions(const std::shared_ptr<QorSchemaStore::SchemaObjectCache>& cache,
                                     const DBStore::Connection& conn) {
  const SchemaObjectId accountsId("qor", "authentication", "user_accounts");
  const SchemaObjectId permissionsId("qor", "authorization", "permissions");
  auto accounts = cache->GetSchema(accountsId);
  auto permissions = cache->GetSchema(permissionsId);
  if (!accounts || !permissions) {
    for (const auto& [id, schema] : {std::pair{accountsId, accounts}, std::pair{permissionsId, permissions}}) {
      if (!schema) CSLogger::Log(CSLogger::PRIO_WARNING, "Schema not found for id='%s'", id.toString().c_str());
    }
    return;
  }

  std::vector<std::string> solutionUsers = accounts->GetSolutionUserInstances();
  if (solutionUsers.empty()) {
    CSLogger::Log(CSLogger::PRIO_WARNING, "SolutionUserInstances not found for id='%s'", accountsId.toString().c_str());
  } else {
    CSLogger::Log(CSLogger::PRIO_INFO, "Found %d solutionInstances for id='%s'", static_cast<int>(solutionUsers.size()),
                  accountsId.toString().c_str());
  }
  // These two accounts are never solution users.
  std::erase_if(solutionUsers, [](const std::string& name) { return name == "zcmuser" || name == "kcon"; });

  Rows rows = Run(conn,
                  "SELECT Identifier, UserValue, VitalValue FROM Config WHERE Component='qor' and "
                  "ConfigGroup='authorization' and Name='permissions'",
                  {}, "Failed to get permissions.");
  CSLogger::Log(CSLogger::PRIO_INFO, "Found %d permissions in ConfigStore", static_cast<int>(rows.size()));

  for (const auto& row : rows) {
    const Column& identifier = row[0];
    const Column& userValue = row[1];
    const Column& vitalValue = row[2];
    const char* idText = OrNull(identifier);
    CSLogger::Log(CSLogger::PRIO_INFO, "Permission[%s] has user-config=%s, vital-data=%s", idText, OrNull(userValue),
                  OrNull(vitalValue));
    if (!userValue) {
      CSLogger::Log(CSLogger::PRIO_ERROR, "Permission[%s] does not have user-config", idText);
      throw ConfigStoreException(CS_ERR_GENERIC, "Invalid permission found in ConfigStore.");
    }
    rapidjson::Document value;
    if (!ParseStored(userValue, value)) {
      CSLogger::Log(CSLogger::PRIO_ERROR, "Permission[%s] user-config parsing failed.", idText);
      throw ConfigStoreException(CS_ERR_GENERIC, "Failed to process permission from ConfigStore.");
    }
    if (!value.IsObject() || !value.HasMember("principal")) {
      CSLogger::Log(CSLogger::PRIO_ERROR,
                    "Permission[%s] does not contain 'principal' property, not preserving the permissions.", idText);
      throw ConfigStoreException(CS_ERR_GENERIC, "Invalid permission without 'principal' found in ConfigStore.");
    }
    // A principal that is not a string names no user: it is left to the desired document.
    const rapidjson::Value& principal = value["principal"];
    if (!principal.IsString()) continue;
    const std::string user = principal.GetString();
    bool solutionUser = user.starts_with("svc-zpl-") ||
                        std::find(solutionUsers.begin(), solutionUsers.end(), user) != solutionUsers.end();
    if (!solutionUser) continue;

    CSLogger::Log(CSLogger::PRIO_INFO, "Preserving solution-user permission for user=%s", user.c_str());
    Run(conn,
        "INSERT OR REPLACE INTO DesiredUserConfig (Identifier, Name, ConfigGroup, Component, Version, Value, "
        "VitalValue, BootAction) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8)",
        {identifier, "permissions", "authorization", "qor", permissions->GetVersion(), userValue, vitalValue, "SET"},
        "Failed to preserve solution permission.");
  }
}

void PreserveNuknicSwitchPort(rapidjson::Value& desired, const std::string& instanceId,
                              rapidjson::MemoryPoolAllocator<>& alloc, const DBStore::Connection& conn) {
  if (!IsStringMember(desired, "port_connection_type", "ZSW")) return;
  CSLogger::Log(CSLogger::PRIO_INFO, "Desired Nuknic {%s} is connected to ZSW", instanceId.c_str());

  Rows rows = Run(conn,
                  "SELECT UserValue FROM Config WHERE Name = 'nuknics' AND ConfigGroup = 'network' AND "
                  "Component = 'qor' AND Identifier = ?",
                  {instanceId}, "Read nuknic configuration failed");
  // A nuknic without a user value has no binding of its own either.
  if (rows.empty() || !rows.front()[0]) {
    CSLogger::Log(CSLogger::PRIO_INFO, "Nuknic {%s} not found on Qori host, no ZSW configuration to preserve.",
                  instanceId.c_str());
    return;
  }
  rapidjson::Document current;
  if (!ParseStored(rows.front()[0], current)) {
    throw ConfigStoreException(CS_ERR_GENERIC, "Nuknic configuration is invalid.");
  }
  if (!IsStringMember(current, "port_connection_type", "ZSW")) return;
  auto port = current.FindMember("zsw_port");
  if (port == current.MemberEnd() || !port->value.IsObject()) return;

  static const char* const kPortMembers[] = {"switch_uuid", "port_key", "connection_cookie"};
  for (const char* member : kPortMembers) {
    auto found = port->value.FindMember(member);
    if (found == port->value.MemberEnd()) continue;
    // Creates "zsw_port" where missing and overwrites the desired object's own value.
    rapidjson::Pointer(std::string("/zsw_port/") + member).Set(desired, rapidjson::Value(found->value, alloc), alloc);
    CSLogger::Log(CSLogger::PRIO_INFO, "Nuknic {%s} ZSW %s perserved.", instanceId.c_str(), member);
  }
}

}  // namespace QorConfigStore::staging
