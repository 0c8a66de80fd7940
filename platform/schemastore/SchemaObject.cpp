#include "platform/schemastore/SchemaObject.h"

#include <functional>

#include "errors/ConfigStoreException.h"

namespace QorSchemaStore {

std::string SchemaObjectId::toString() const { return component + "/" + group + "/" + key; }

size_t SchemaObjectIdHash::operator()(const SchemaObjectId& id) const {
  std::hash<std::string> h;
  size_t seed = h(id.component);
  for (const std::string* part : {&id.group, &id.key}) {
    seed ^= h(*part) + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2);
  }
  return seed;
}

namespace {

constexpr unsigned kSchemaParseFlags = rapidjson::kParseIterativeFlag;  // a hostile depth cannot exhaust the stack

// Reads `text` as the DOM parse of GetSchemaValue does, building nothing.
bool IsJson(const std::string& text) {
  rapidjson::MemoryStream memory(text.data(), text.size());
  rapidjson::EncodedInputStream<rapidjson::UTF8<>, rapidjson::MemoryStream> input(memory);
  rapidjson::BaseReaderHandler<> ignore;
  return !rapidjson::Reader().Parse<kSchemaParseFlags>(input, ignore).IsError();
}

}  // namespace

SchemaObject::SchemaObject(SchemaRecord record) : SchemaObject(std::move(record), false) {}

SchemaObject::SchemaObject(SchemaRecord record, bool parseNow) : record_(std::move(record)) {
  if (record_.schemaJson.empty()) return;
  const bool readable = parseNow ? (GetSchemaValue(), !schema_.HasParseError()) : IsJson(record_.schemaJson);
  if (!readable) {
    throw QorConfigStore::ConfigStoreException(QorConfigStore::CS_ERR_GENERIC,
                                               "Schema store holds an unreadable schema for " + record_.id.toString());
  }
}

SchemaObject::~SchemaObject() = default;

const std::string& SchemaObject::GetInstanceIdName() const { return record_.instanceIdName; }
const SchemaObjectId& SchemaObject::GetObjectId() const { return record_.id; }
const rapidjson::Value& SchemaObject::GetSchemaValue() const {
  std::call_once(parsed_, [this] {
    if (record_.schemaJson.empty()) return;  // schema_ stays null
    // The text was read once already, so only running out of memory can fail here.
    schema_.Parse<kSchemaParseFlags>(record_.schemaJson.c_str(), record_.schemaJson.size());
  });
  return schema_;
}
const std::string& SchemaObject::GetSchemaId() const { return record_.schemaId; }
SchemaObjectKind SchemaObject::GetKind() const { return record_.kind; }
bool SchemaObject::IsSingleton() const { return record_.singleton; }
const std::string& SchemaObject::GetVersion() const { return record_.version; }
bool SchemaObject::IsGeneratedInstanceId() const { return record_.instanceIdName == kGeneratedIdMember; }
bool SchemaObject::HasMutableDefaultConfig() const { return record_.mutableDefaultConfig; }
bool SchemaObject::IsNoRestore() const { return record_.noRestore; }
bool SchemaObject::IsPreserveNonUser() const { return record_.preserveNonUser; }
bool SchemaObject::IsDSPIntegrated() const { return record_.dspIntegrated; }
int SchemaObject::GetSchemaType() const { return record_.schemaType; }
const std::vector<std::string>& SchemaObject::GetSolutionUserInstances() const { return record_.solutionUserInstances; }
const std::vector<std::string>& SchemaObject::GetPreservedInstanceIds() const { return record_.preservedInstanceIds; }
const std::optional<std::string>& SchemaObject::GetSmartnicValueType() const { return record_.smartnicValueType; }

int SchemaObject::IsFileEntry(bool* isFile) const {
  if (isFile == nullptr) return 1;
  *isFile = record_.kind == SchemaObjectKind::File;
  return 0;
}

int SchemaObject::GetFileCategory(std::string* category) const {
  if (category == nullptr || record_.kind == SchemaObjectKind::Config) return 1;
  *category = record_.category;
  return 0;
}

int SchemaObject::GetFilePath(std::string* path) const {
  if (path == nullptr || record_.kind != SchemaObjectKind::File) return 1;
  *path = record_.path;
  return 0;
}

int SchemaObject::GetDataFileDirName(std::string* dirName) const {
  if (dirName == nullptr || record_.kind != SchemaObjectKind::DataFile) return 1;
  *dirName = record_.dirName;
  return 0;
}

}  // namespace QorSchemaStore
