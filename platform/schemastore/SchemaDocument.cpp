#include "platform/schemastore/SchemaDocument.h"

#include <sys/random.h>

#include <cerrno>
#include <cstdint>
#include <map>
#include <random>
#include <set>
#include <string_view>
#include <utility>
#include <vector>

#include "errors/ConfigStoreException.h"

namespace QorSchemaStore {
namespace {

using Alloc = rapidjson::MemoryPoolAllocator<>;

constexpr const char* kDeleteDefault = "DELETE_DEFAULT";
constexpr const char* kProfile = "profile";

rapidjson::Value Str(std::string_view text, Alloc& a) {
  return rapidjson::Value(text.data(), static_cast<rapidjson::SizeType>(text.size()), a);
}

// {"type": "object", "properties": {}, "additionalProperties": !closed}. Stated either way, so a
// validator that refuses undescribed members by default still accepts them when asked to.
rapidjson::Value ObjectSchema(bool closed, Alloc& a) {
  rapidjson::Value schema(rapidjson::kObjectType);
  schema.AddMember("type", "object", a);
  schema.AddMember("properties", rapidjson::Value(rapidjson::kObjectType), a);
  schema.AddMember("additionalProperties", !closed, a);
  return schema;
}

rapidjson::Value& Properties(rapidjson::Value& schema) { return schema["properties"]; }

// properties[name] of `schema`, created as an object schema when missing.
rapidjson::Value& Child(rapidjson::Value& schema, const rapidjson::Value& name, bool closed, Alloc& a) {
  rapidjson::Value& props = Properties(schema);
  auto it = props.FindMember(name);
  if (it == props.MemberEnd()) {
    props.AddMember(rapidjson::Value(name, a), ObjectSchema(closed, a), a);
    return (props.MemberEnd() - 1)->value;
  }
  if (!it->value.HasMember("properties"))
    it->value.AddMember("properties", rapidjson::Value(rapidjson::kObjectType), a);
  return it->value;
}

// properties[name] of `schema` as {"type": "object"} unless already described: a value that is
// not an object where one belongs, which the validator then reports.
void ExpectObject(rapidjson::Value& schema, const rapidjson::Value& name, Alloc& a) {
  rapidjson::Value& props = Properties(schema);
  if (props.HasMember(name)) return;
  rapidjson::Value object(rapidjson::kObjectType);
  object.AddMember("type", "object", a);
  props.AddMember(rapidjson::Value(name, a), object, a);
}

// Rebases the local "$ref" pointers of a schema copied to `base` ("#/definitions/sN").
// Iterative: the copy may come from any stored schema. Data keywords are left alone.
void RebaseRefs(rapidjson::Value& schema, const std::string& base, Alloc& a) {
  std::vector<rapidjson::Value*> pending{&schema};
  while (!pending.empty()) {
    rapidjson::Value* value = pending.back();
    pending.pop_back();
    if (value->IsArray()) {
      for (rapidjson::Value& item : value->GetArray()) pending.push_back(&item);
      continue;
    }
    if (!value->IsObject()) continue;
    for (auto& m : value->GetObject()) {
      std::string_view name(m.name.GetString(), m.name.GetStringLength());
      if (name == "enum" || name == "default") continue;
      if (name == "$ref" && m.value.IsString()) {
        std::string_view ref(m.value.GetString(), m.value.GetStringLength());
        if (ref == "#" || ref.substr(0, 2) == "#/") m.value = Str(base + std::string(ref.substr(1)), a);
        continue;
      }
      pending.push_back(&m.value);
    }
  }
}

// The property of `schema` marked as a generated instance id, or null.
const rapidjson::Value* GeneratedIdName(const rapidjson::Value& schema) {
  if (!schema.IsObject()) return nullptr;
  auto props = schema.FindMember("properties");
  if (props == schema.MemberEnd() || !props->value.IsObject()) return nullptr;
  for (const auto& m : props->value.GetObject()) {
    if (!m.value.IsObject()) continue;
    auto instanceId = m.value.FindMember("instanceId");
    auto generated = m.value.FindMember("generatedId");
    if (instanceId != m.value.MemberEnd() && instanceId->value.IsBool() && instanceId->value.GetBool() &&
        generated != m.value.MemberEnd() && generated->value.IsBool() && generated->value.GetBool()) {
      return &m.name;
    }
  }
  return nullptr;
}

std::string NewInstanceId() {
  uint8_t bytes[16];
  // getrandom reads the kernel's source in one call; std::random_device costs an open and close
  // (and a CPU probe) per id. It stays the fallback for a kernel without the call.
  ssize_t got = -1;
  do {
    got = getrandom(bytes, sizeof bytes, 0);
  } while (got < 0 && errno == EINTR);
  if (got != static_cast<ssize_t>(sizeof bytes)) {
    std::random_device source;
    for (size_t i = 0; i < sizeof bytes; i += 4) {
      uint32_t word = source();
      for (size_t j = 0; j < 4; ++j) bytes[i + j] = static_cast<uint8_t>(word >> (8 * j));
    }
  }
  bytes[6] = static_cast<uint8_t>((bytes[6] & 0x0f) | 0x40);  // version 4
  bytes[8] = static_cast<uint8_t>((bytes[8] & 0x3f) | 0x80);  // RFC 4122 variant
  static constexpr char kHex[] = "0123456789abcdef";
  std::string text;
  for (size_t i = 0; i < sizeof bytes; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += kHex[bytes[i] >> 4];
    text += kHex[bytes[i] & 0x0f];
  }
  return text;
}

}  // namespace

void GenerateSchemaDocument(const rapidjson::Value& desiredDoc, const std::shared_ptr<SchemaObjectCache>& cache,
                            rapidjson::Document& schemaDoc, UnknownObjects unknown) {
  if (!cache) {
    throw QorConfigStore::ConfigStoreException(QorConfigStore::CS_ERR_GENERIC,
                                               "No schema cache to build the desired document's schema from");
  }
  const bool closed = unknown == UnknownObjects::Refuse;
  Alloc& a = schemaDoc.GetAllocator();
  schemaDoc.SetObject();
  schemaDoc.AddMember("$schema", "http://json-schema.org/draft-04/schema#", a);
  schemaDoc.AddMember("type", "object", a);
  rapidjson::Value required(rapidjson::kArrayType);
  required.PushBack(rapidjson::StringRef(kProfile), a);
  schemaDoc.AddMember("required", required, a);
  rapidjson::Value rootProps(rapidjson::kObjectType);
  rootProps.AddMember(rapidjson::StringRef(kProfile), ObjectSchema(closed, a), a);
  schemaDoc.AddMember("properties", rootProps, a);
  schemaDoc.AddMember("additionalProperties", true, a);  // only "profile" holds configuration
  schemaDoc.AddMember("definitions", rapidjson::Value(rapidjson::kObjectType), a);

  if (!desiredDoc.IsObject()) return;
  auto profile = desiredDoc.FindMember(kProfile);
  if (profile == desiredDoc.MemberEnd() || !profile->value.IsObject()) return;

  // Known components and groups get a node even when none of their keys in the document is
  // known, so that an unknown name is reported where it stands.
  std::set<std::string> knownComponents;
  std::set<std::pair<std::string, std::string>> knownGroups;
  for (const auto& entry : cache->GetAll()) {
    knownComponents.insert(entry.first.component);
    knownGroups.emplace(entry.first.component, entry.first.group);
  }

  std::map<SchemaObjectId, std::string> definitions;  // key -> "sN"
  rapidjson::Value& profileSchema = schemaDoc["properties"][kProfile];
  for (const auto& comp : profile->value.GetObject()) {
    std::string compName(comp.name.GetString(), comp.name.GetStringLength());
    if (!comp.value.IsObject()) {
      ExpectObject(profileSchema, comp.name, a);
      continue;
    }
    if (knownComponents.count(compName) == 0) continue;  // left to "additionalProperties"
    rapidjson::Value& compSchema = Child(profileSchema, comp.name, closed, a);
    for (const auto& group : comp.value.GetObject()) {
      std::string groupName(group.name.GetString(), group.name.GetStringLength());
      if (!group.value.IsObject()) {
        ExpectObject(compSchema, group.name, a);
        continue;
      }
      if (knownGroups.count({compName, groupName}) == 0) continue;
      rapidjson::Value& groupSchema = Child(compSchema, group.name, closed, a);
      for (const auto& key : group.value.GetObject()) {
        SchemaObjectId id(compName, groupName, std::string(key.name.GetString(), key.name.GetStringLength()));
        std::shared_ptr<SchemaObject> schema = cache->GetSchema(id);
        if (!schema || Properties(groupSchema).HasMember(key.name)) continue;  // a repeated name: the first decides
        rapidjson::Value keySchema(rapidjson::kObjectType);
        if (key.value.IsString()) {
          rapidjson::Value values(rapidjson::kArrayType);
          values.PushBack(rapidjson::StringRef(kDeleteDefault), a);
          keySchema.AddMember("enum", values, a);
        } else {
          auto [def, added] = definitions.emplace(id, "s" + std::to_string(definitions.size()));
          std::string ref = "#/definitions/" + def->second;
          if (added) {
            rapidjson::Value copy(schema->GetSchemaValue(), a);
            RebaseRefs(copy, ref, a);
            schemaDoc["definitions"].AddMember(Str(def->second, a), copy, a);
          }
          rapidjson::Value refSchema(rapidjson::kObjectType);
          refSchema.AddMember("$ref", Str(ref, a), a);
          if (key.value.IsArray() && !schema->IsSingleton()) {
            keySchema.AddMember("type", "array", a);
            keySchema.AddMember("items", refSchema, a);
          } else {
            keySchema = refSchema;
          }
        }
        Properties(groupSchema).AddMember(rapidjson::Value(key.name, a), keySchema, a);
      }
    }
  }
}

bool PopulateGeneratedInstanceId(const SchemaObject& schema, rapidjson::Value& instance, Alloc& allocator) {
  // Registration names a generated id kGeneratedIdMember and refuses that name for anything else,
  // so the schema value (parsed on first use) is needed only for keys with generated ids.
  if (!schema.IsGeneratedInstanceId()) return false;
  return PopulateGeneratedInstanceId(schema.GetSchemaValue(), instance, allocator);
}

bool PopulateGeneratedInstanceId(const rapidjson::Value& schema, rapidjson::Value& instance, Alloc& allocator) {
  const rapidjson::Value* name = GeneratedIdName(schema);
  if (name == nullptr || !instance.IsObject() || instance.HasMember(*name)) return false;
  instance.AddMember(rapidjson::Value(*name, allocator), Str(NewInstanceId(), allocator), allocator);
  return true;
}

}  // namespace QorSchemaStore
