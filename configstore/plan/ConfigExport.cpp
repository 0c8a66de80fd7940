#include "configstore/plan/ConfigExport.h"

#include <fstream>
#include <set>

#include "configstore/desired/Staging.h"
#include "configstore/frame/BootLock.h"
#include "configstore/frame/CallFrame.h"
#include "platform/schemastore/SchemaStore.h"
#include "platform/validator/ConfigStoreDocument.h"

namespace QorConfigStore {
namespace {

using QorSchemaStore::SchemaObjectId;

// Why an object with a user value cannot travel in a desired document; "" when it can. `value` gets
// the parsed user value.
std::string WhyNotCarried(const ConfigObjectKey& key, const std::string& user,
                          const std::shared_ptr<QorSchemaStore::SchemaObject>& schema,
                          std::shared_ptr<JsonDoc>& value) {
  if (!schema) return "no schema is registered for its key here, so set-desired would drop it";
  try {
    value = CreateDocumentFromString(user);
  } catch (const std::exception&) {
    return "its user value is not JSON";
  }
  if (!value->document->IsObject()) return "its user value is not a JSON object";
  std::string id;
  try {
    id = GetInstanceIdFromValue(*value->document, schema);
  } catch (const std::exception&) {
    return "its user value lacks the instance id member \"" + schema->GetInstanceIdName() + "\"";
  }
  if (id != key[3]) return "its instance id member gives \"" + id + "\", not its identifier";
  if (staging::IsCarriedOverFromTheHost(key[0], key[1], key[2], key[3])) {
    return "staging carries it over from the host itself and refuses it in a document";
  }
  return "";
}

// The member `name` of `object`, added as an empty object when it is not the last one yet (the
// objects arrive ordered by name).
rapidjson::Value& Child(rapidjson::Value& object, const std::string& name, rapidjson::Type type,
                        rapidjson::Document::AllocatorType& a) {
  const auto last = [&] {
    const rapidjson::Value& n = (object.MemberEnd() - 1)->name;
    return std::string_view(n.GetString(), n.GetStringLength());
  };
  if (object.MemberCount() == 0 || last() != name) {
    object.AddMember(rapidjson::Value(name.data(), static_cast<rapidjson::SizeType>(name.size()), a),
                     rapidjson::Value(type), a);
  }
  return (object.MemberEnd() - 1)->value;
}

std::string Compact(const std::string& text) {
  try {
    std::string compact;
    ConfigStoreDocument::SerializeValue(*CreateDocumentFromString(text)->document, compact);
    return compact;
  } catch (const std::exception&) {
    return text;  // not JSON: compared as it is
  }
}

ConfigObjects ReadDocumentObjects(const std::string& path) {
  std::shared_ptr<JsonDoc> doc = CreateDocumentFromFile(path);
  rapidjson::Value& root = *doc->document;
  if (!root.IsObject() || !root.HasMember("profile") || !root["profile"].IsObject()) {
    throw ConfigStoreException(CS_ERR_GENERIC, path + ": a desired configuration document has a \"profile\" object");
  }
  std::shared_ptr<QorSchemaStore::SchemaObjectCache> cache = QorSchemaStore::SchemaStore::GetCache();
  ConfigObjects objects;
  staging::ForEachKey(root["profile"], [&](const char* component, const char* group, const char* key,
                                           rapidjson::Value& value) {
    auto take = [&](const rapidjson::Value& object) {
      SchemaObjectId id(component, group, key);
      auto schema = cache->GetSchema(id);
      std::string identifier;
      try {
        if (!schema) throw ConfigStoreException(CS_ERR_GENERIC, "no schema is registered for this key here");
        identifier = GetInstanceIdFromValue(object, schema);
      } catch (const std::exception& e) {
        throw ConfigStoreException(CS_ERR_GENERIC, path + ": " + id.toString() +
                                                       ": the instance's identifier cannot be had: " + e.what());
      }
      std::string text;
      ConfigStoreDocument::SerializeValue(object, text);
      objects[{component, group, key, identifier}] = ConfigRowValues{text};
    };
    if (value.IsObject()) take(value);
    if (!value.IsArray()) return;  // "DELETE_DEFAULT" stages nothing of its own
    for (const auto& element : value.GetArray()) {
      if (element.IsObject()) take(element);
    }
  });
  return objects;
}

// Whether the object is under the component, group and key `names` gives (as many as it has).
bool Named(const ConfigObjectKey& key, const std::vector<std::string>& names) {
  for (size_t i = 0; i < names.size() && i < 3; ++i) {
    if (key[i] != names[i]) return false;
  }
  return true;
}

ConfigStoreObjectId IdOf(const ConfigObjectKey& key) {
  ConfigStoreObjectId id;
  id.component = key[0], id.group = key[1], id.key = key[2], id.id = key[3];
  return id;
}

}  // namespace

ConfigExport ExportConfiguration(const std::vector<std::string>& names) {
  BootLock lock(BootLock::Reader{});  // never a store a load is still restoring
  DBStore::Connection conn =
      ConnectOrThrow(DBStore::CONFIG_STORE, "Failed to connect to database", /*readWrite=*/false);
  ConfigObjects objects = ReadConfigObjects(conn);
  std::shared_ptr<QorSchemaStore::SchemaObjectCache> cache = QorSchemaStore::SchemaStore::GetCache();
  // A pending desired value is not the live configuration and no document carries it: the next
  // boot folds it into the user value, or drops it where staging replaces the key whole.
  std::set<ConfigObjectKey> pending;
  for (const auto& row : staging::Run(conn,
                                      "SELECT Component, ConfigGroup, Name, Identifier FROM Config WHERE DesiredValue "
                                      "IS NOT NULL AND DesiredValue IS NOT UserValue",
                                      {}, "Failed to read the pending desired values")) {
    pending.insert({row[0].value_or(""), row[1].value_or(""), row[2].value_or(""), row[3].value_or("")});
  }
  // Staging copies the default instances of a key with mutable default configuration unless the
  // document stages the same instance (with generated ids, whatever it stages).
  staging::Rows defaults = staging::Run(
      conn, "SELECT Component, ConfigGroup, Name, Identifier FROM DefaultConfig ORDER BY Component, ConfigGroup, Name, "
            "Identifier", {}, "Failed to read the default configuration");
  std::set<ConfigObjectKey> defaultObjects;
  for (const auto& row : defaults) {
    defaultObjects.insert({row[0].value_or(""), row[1].value_or(""), row[2].value_or(""), row[3].value_or("")});
  }
  constexpr const char* kPending =
      "its pending desired value is not carried (only its user value is): the boot after staging folds it "
      "in, or drops it where staging replaces the key";

  ConfigExport out;
  out.document.SetObject();
  auto& a = out.document.GetAllocator();
  rapidjson::Value profile(rapidjson::kObjectType);
  for (const auto& [key, row] : objects) {
    if (!Named(key, names)) continue;
    if (!row.user) {
      if (pending.contains(key)) out.leftOut.push_back({IdOf(key), kPending});
      continue;
    }
    auto schema = cache->GetSchema(SchemaObjectId(key[0], key[1], key[2]));
    std::shared_ptr<JsonDoc> value;
    if (std::string why = WhyNotCarried(key, *row.user, schema, value); !why.empty()) {
      out.leftOut.push_back({IdOf(key), why});
      continue;
    }
    if (schema->HasMutableDefaultConfig() && schema->IsGeneratedInstanceId() && defaultObjects.contains(key)) {
      out.leftOut.push_back({IdOf(key), "a default instance of a key with generated ids: set-desired copies it from "
                                        "the key's defaults itself, and a document naming it fails to stage"});
      continue;
    }
    if (pending.contains(key)) out.leftOut.push_back({IdOf(key), kPending});
    rapidjson::Value& group = Child(Child(profile, key[0], rapidjson::kObjectType, a), key[1], rapidjson::kObjectType, a);
    rapidjson::Value object(*value->document, a);
    if (schema->IsSingleton()) {
      group.AddMember(rapidjson::Value(key[2].data(), static_cast<rapidjson::SizeType>(key[2].size()), a), object, a);
    } else {
      Child(group, key[2], rapidjson::kArrayType, a).PushBack(object, a);
    }
    ++out.objects;
  }
  out.document.AddMember("profile", profile, a);

  // A default instance this store has no user value for cannot stay so.
  for (const ConfigObjectKey& key : defaultObjects) {
    auto schema = cache->GetSchema(SchemaObjectId(key[0], key[1], key[2]));
    auto live = objects.find(key);
    if (!Named(key, names) || !schema || !schema->HasMutableDefaultConfig() ||
        (live != objects.end() && live->second.user)) {
      continue;
    }
    out.leftOut.push_back({IdOf(key), "a default instance without a user value here: set-desired stages it with "
                                      "its key's other defaults"});
  }
  return out;
}

bool IsStoreFile(const std::string& path) {
  static constexpr char kHeader[16] = {'S', 'Q', 'L', 'i', 't', 'e', ' ', 'f', 'o', 'r', 'm', 'a', 't', ' ', '3', '\0'};
  char header[16] = {};
  std::ifstream in(path, std::ios::binary);
  return in.read(header, sizeof header) && std::equal(header, header + 16, kHeader);
}

ConfigObjects ReadConfigFile(const std::string& path, bool userValuesOnly) {
  if (!IsStoreFile(path)) return ReadDocumentObjects(path);
  DBStore::Connection conn = DBStore::OpenStoreFile(path, DBStore::CONFIG_STORE, false);
  if (!conn) ThrowStoreFailure("Failed to open the configuration store");
  ConfigObjects objects = ReadConfigObjects(conn);
  if (!userValuesOnly) return objects;
  for (auto it = objects.begin(); it != objects.end();) {
    if (!it->second.user) {
      it = objects.erase(it);
    } else {
      it->second = ConfigRowValues{Compact(*it->second.user)};
      ++it;
    }
  }
  return objects;
}

}  // namespace QorConfigStore
