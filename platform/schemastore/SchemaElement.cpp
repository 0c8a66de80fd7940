#include "platform/schemastore/SchemaElement.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "errors/ConfigStoreException.h"

namespace QorSchemaStore::detail {
namespace {

constexpr size_t kMaxPathLength = 4095;
constexpr size_t kMaxDirNameLength = 255;
constexpr int kMaxSchemaType = 2;
constexpr size_t kMaxNesting = 128;  // far beyond any real schema; keeps recursive JSON walks shallow

struct Reader {
  const std::string& schemaId;
  const SchemaObjectId& id;

  [[noreturn]] void Refuse(const std::string& why) const {
    throw QorConfigStore::ConfigStoreException(
        QorConfigStore::CS_ERR_GENERIC, "Schema element " + id.toString() + " of " + schemaId + " is refused: " + why);
  }

  static std::string Quoted(std::string_view name) { return "\"" + std::string(name) + "\""; }

  std::string String(const rapidjson::Value& object, const char* name, const std::string& where) const {
    auto it = object.FindMember(name);
    if (it == object.MemberEnd()) Refuse(where + Quoted(name) + " is missing");
    if (!it->value.IsString()) Refuse(where + Quoted(name) + " is not a string");
    std::string text(it->value.GetString(), it->value.GetStringLength());
    if (text.find('\0') != std::string::npos) Refuse(where + Quoted(name) + " holds a NUL character");
    return text;
  }

  bool Flag(const rapidjson::Value& element, const char* name, bool absent) const {
    auto it = element.FindMember(name);
    if (it == element.MemberEnd()) return absent;
    if (!it->value.IsBool()) Refuse(Quoted(name) + " is not a boolean");
    return it->value.GetBool();
  }

  std::vector<std::string> Names(const rapidjson::Value& element, const char* name) const {
    std::vector<std::string> names;
    auto it = element.FindMember(name);
    if (it == element.MemberEnd()) return names;
    if (!it->value.IsArray()) Refuse(Quoted(name) + " is not an array");
    for (const rapidjson::Value& item : it->value.GetArray()) {
      if (!item.IsString() || item.GetStringLength() == 0)
        Refuse(Quoted(name) + " holds an item that is not a non-empty string");
      std::string text(item.GetString(), item.GetStringLength());
      if (text.find('\0') != std::string::npos) Refuse(Quoted(name) + " holds a NUL character");
      names.push_back(std::move(text));
    }
    return names;
  }

  std::string Category(const rapidjson::Value& object, const std::string& where) const {
    std::string category = String(object, "category", where);
    if (category != kCategoryVital && category != kCategoryCached && category != kCategoryConfig) {
      Refuse(where + "\"category\" is \"" + category + "\", not \"vital\", \"cached\" or \"config\"");
    }
    return category;
  }
};

// Depth of the deepest array or object inside `root` (1 for a flat object), counted without recursion.
size_t NestingDepth(const rapidjson::Value& root) {
  std::vector<std::pair<const rapidjson::Value*, size_t>> pending{{&root, 1}};
  size_t deepest = 0;
  while (!pending.empty()) {
    auto [value, depth] = pending.back();
    pending.pop_back();
    deepest = std::max(deepest, depth);
    if (depth > kMaxNesting) break;
    if (value->IsObject()) {
      for (const auto& m : value->GetObject()) {
        if (m.value.IsObject() || m.value.IsArray()) pending.emplace_back(&m.value, depth + 1);
      }
    } else if (value->IsArray()) {
      for (const rapidjson::Value& item : value->GetArray()) {
        if (item.IsObject() || item.IsArray()) pending.emplace_back(&item, depth + 1);
      }
    }
  }
  return deepest;
}

// "/a/b": absolute, no empty, "." or ".." element, no trailing "/".
bool IsCleanAbsolutePath(const std::string& path) {
  if (path.size() < 2 || path.size() > kMaxPathLength || path[0] != '/' || path.back() == '/') return false;
  size_t start = 1;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    std::string_view part(path.data() + start, end - start);
    if (part.empty() || part == "." || part == "..") return false;
    start = end + 1;
  }
  return true;
}

// One directory name under the data-file root; the store cleanup removes it recursively.
bool IsPlainName(const std::string& name) {
  return !name.empty() && name.size() <= kMaxDirNameLength && name != "." && name != ".." &&
         name.find('/') == std::string::npos;
}

// Finds the instance-id property and checks the generated-id marks. Returns "" for none.
std::string InstanceIdName(const Reader& r, const rapidjson::Value& schema) {
  auto props = schema.FindMember("properties");
  if (props == schema.MemberEnd()) return "";
  if (!props->value.IsObject()) r.Refuse("\"schema\".\"properties\" is not an object");
  std::string found;
  for (const auto& m : props->value.GetObject()) {
    std::string name(m.name.GetString(), m.name.GetStringLength());
    std::string where = "property " + Reader::Quoted(name) + " ";
    if (!m.value.IsObject()) r.Refuse(where + "is not an object");
    bool instanceId = false;
    bool generated = false;
    if (auto it = m.value.FindMember("instanceId"); it != m.value.MemberEnd()) {
      if (!it->value.IsBool()) r.Refuse(where + "has an \"instanceId\" that is not a boolean");
      instanceId = it->value.GetBool();
    }
    if (auto it = m.value.FindMember("generatedId"); it != m.value.MemberEnd()) {
      if (!it->value.IsBool()) r.Refuse(where + "has a \"generatedId\" that is not a boolean");
      generated = it->value.GetBool();
    }
    if (generated && !instanceId) r.Refuse(where + "is \"generatedId\" but not \"instanceId\"");
    if (generated && name != kGeneratedIdMember) {
      r.Refuse(where + "is a generated instance id and must be named \"" + kGeneratedIdMember + "\"");
    }
    if (instanceId && !generated && name == kGeneratedIdMember) {
      r.Refuse(where + "is reserved for generated instance ids and needs \"generatedId\": true");
    }
    if (!instanceId) continue;
    if (!found.empty()) r.Refuse("more than one instance id property (\"" + found + "\" and \"" + name + "\")");
    if (auto type = m.value.FindMember("type");
        type != m.value.MemberEnd() &&
        !(type->value.IsString() && std::string_view(type->value.GetString()) == "string")) {
      r.Refuse(where + "is the instance id and must be of type \"string\"");
    }
    found = name;
  }
  if (found == kGeneratedIdMember) {
    // Instances arrive without their generated id; it is filled in after validation.
    if (auto req = schema.FindMember("required"); req != schema.MemberEnd() && req->value.IsArray()) {
      for (const rapidjson::Value& item : req->value.GetArray()) {
        if (item.IsString() && found == item.GetString()) r.Refuse(Reader::Quoted(found) + " must not be \"required\"");
      }
    }
  }
  return found;
}

SchemaRecord ReadConfigKey(const Reader& r, const rapidjson::Value& element, bool hasSmartnic) {
  SchemaRecord rec;
  rec.kind = SchemaObjectKind::Config;
  rec.id = r.id;
  rec.schemaId = r.schemaId;
  rec.version = r.String(element, "version", "");
  auto schema = element.FindMember("schema");
  if (schema == element.MemberEnd()) r.Refuse("\"schema\" is missing");
  if (!schema->value.IsObject()) r.Refuse("\"schema\" is not an object");
  rec.schemaJson = ToJsonText(schema->value);
  rec.instanceIdName = InstanceIdName(r, schema->value);

  rec.singleton = r.Flag(element, "singleton", rec.instanceIdName.empty());
  if (rec.singleton && !rec.instanceIdName.empty()) {
    r.Refuse("\"singleton\" is true but the schema has the instance id property \"" + rec.instanceIdName + "\"");
  }
  if (!rec.singleton && rec.instanceIdName.empty()) {
    r.Refuse("\"singleton\" is false but no property of the schema has \"instanceId\": true");
  }
  rec.mutableDefaultConfig = r.Flag(element, "mutableDefaultConfig", false);
  rec.dspIntegrated = r.Flag(element, "dspIntegrated", false);
  rec.preserveNonUser = r.Flag(element, "preserveNonUser", false);
  rec.noRestore = r.Flag(element, "noRestore", false);

  if (auto type = element.FindMember("schemaType"); type != element.MemberEnd()) {
    if (!type->value.IsInt() || type->value.GetInt() < 0 || type->value.GetInt() > kMaxSchemaType) {
      r.Refuse("\"schemaType\" is not 0, 1 or 2");
    }
    rec.schemaType = type->value.GetInt();
  }

  rec.solutionUserInstances = r.Names(element, "solutionUserInstances");
  rec.preservedInstanceIds = r.Names(element, "preserveInstanceIds");
  if (!rec.preservedInstanceIds.empty() && (rec.singleton || rec.instanceIdName == kGeneratedIdMember)) {
    r.Refuse("\"preserveInstanceIds\" needs a schema whose instance id is neither absent nor generated");
  }

  if (hasSmartnic) {
    auto smartnic = element.FindMember("smartnic");
    if (smartnic == element.MemberEnd()) r.Refuse("\"smartnic\" is missing");
    if (!smartnic->value.IsObject()) r.Refuse("\"smartnic\" is not an object");
    std::string valueType = r.String(smartnic->value, "schema", "\"smartnic\": ");
    if (valueType.empty()) r.Refuse("\"smartnic\": \"schema\" is empty");
    rec.smartnicValueType = std::move(valueType);
  }
  return rec;
}

SchemaRecord ReadDataFileKey(const Reader& r, const rapidjson::Value& dataFile) {
  if (!dataFile.IsObject()) r.Refuse("\"datafile\" is not an object");
  SchemaRecord rec;
  rec.kind = SchemaObjectKind::DataFile;
  rec.id = SchemaObjectId(r.id.component, "", r.id.key);
  rec.dirName = r.String(dataFile, "dirName", "\"datafile\": ");
  if (!IsPlainName(rec.dirName))
    r.Refuse("\"datafile\": \"dirName\" \"" + rec.dirName + "\" is not a plain directory name");
  rec.category = r.Category(dataFile, "\"datafile\": ");
  return rec;
}

std::vector<SchemaRecord> ReadFiles(const Reader& r, const rapidjson::Value& files) {
  if (!files.IsArray()) r.Refuse("\"files\" is not an array");
  std::vector<SchemaRecord> records;
  for (rapidjson::SizeType i = 0; i < files.Size(); ++i) {
    std::string where = "\"files\"[" + std::to_string(i) + "]: ";
    const rapidjson::Value& entry = files[i];
    if (!entry.IsObject()) r.Refuse(where + "is not an object");
    SchemaRecord rec;
    rec.kind = SchemaObjectKind::File;
    rec.schemaId = r.schemaId;
    rec.category = r.Category(entry, where);
    rec.path = r.String(entry, "path", where);
    if (!IsCleanAbsolutePath(rec.path)) r.Refuse(where + "\"path\" \"" + rec.path + "\" is not a clean absolute path");
    rec.id = SchemaObjectId(r.id.component, rec.category, rec.path);
    records.push_back(std::move(rec));
  }
  return records;
}

}  // namespace

std::string ToJsonText(const rapidjson::Value& value) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  value.Accept(writer);
  return std::string(buffer.GetString(), buffer.GetSize());
}

std::vector<SchemaRecord> ReadSchemaElement(const std::string& schemaId, const SchemaObjectId& id,
                                            const rapidjson::Value& element, bool hasSmartnic) {
  Reader r{schemaId, id};
  if (schemaId.empty()) r.Refuse("the schema id is empty");
  for (const std::string* name : {&id.component, &id.group, &id.key}) {
    if (name->empty()) r.Refuse("component, group and key must not be empty");
    if (name->find('\0') != std::string::npos) r.Refuse("component, group and key must not hold NUL characters");
  }
  if (!element.IsObject()) r.Refuse("the element is not an object");
  if (NestingDepth(element) > kMaxNesting)
    r.Refuse("it is nested more than " + std::to_string(kMaxNesting) + " levels deep");
  const std::pair<const char*, const std::string*> names[] = {
      {"component", &id.component}, {"group", &id.group}, {"key", &id.key}};
  for (const auto& [member, expected] : names) {
    auto it = element.FindMember(member);
    if (it != element.MemberEnd() &&
        (!it->value.IsString() || *expected != std::string(it->value.GetString(), it->value.GetStringLength()))) {
      r.Refuse(Reader::Quoted(member) + " does not match the element it is registered as");
    }
  }

  bool isFiles = element.HasMember("files");
  bool isDataFile = element.HasMember("datafile");
  bool isConfig = element.HasMember("schema");
  if (int(isFiles) + int(isDataFile) + int(isConfig) > 1) {
    r.Refuse("only one of \"schema\", \"datafile\" and \"files\" may be given");
  }
  if (isFiles) return ReadFiles(r, element["files"]);
  if (isDataFile) return {ReadDataFileKey(r, element["datafile"])};
  return {ReadConfigKey(r, element, hasSmartnic)};
}

}  // namespace QorSchemaStore::detail
