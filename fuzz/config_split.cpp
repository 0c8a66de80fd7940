// The user/vital/cached split of a value by its schema. The input is a value, split by every
// registered schema of the sample host, or {"schema": S, "value": V} to split V by a schema of its
// own. Mistyped values and schemas are refused with a ConfigStoreException; each part that comes out
// must be JSON again, and must be what pruning a copy with ProcessConfig gives (SplitConfig writes
// the parts in one pass; ProcessConfig is the reference).
#include <optional>
#include <string>
#include <unordered_map>

#include "configstore/frame/Documents.h"
#include "fuzz/FuzzHost.h"
#include "platform/schemastore/SchemaStore.h"
#include "platform/validator/ConfigStoreDocument.h"

using namespace QorConfigStore;

namespace {

std::shared_ptr<QorSchemaStore::SchemaObjectCache> registered;

// The part as pruning a deep copy gives it; nullopt when that is refused.
std::optional<std::string> Pruned(const rapidjson::Value& value, const rapidjson::Value& schema, const char* part) {
  std::string text;
  if (csfuzz::Refused([&] {
        rapidjson::Document copy;
        copy.CopyFrom(value, copy.GetAllocator());
        if (ProcessConfig(copy, schema, part)) ConfigStoreDocument::SerializeValue(copy, text);
      })) {
    return std::nullopt;
  }
  return text;
}

void Split(const rapidjson::Value& value, const rapidjson::Value& schema) {
  std::unordered_map<std::string, std::string> parts;
  const bool refused = csfuzz::Refused([&] { parts = SplitConfig(value, schema); });
  std::unordered_map<std::string, std::optional<std::string>> reference;
  bool referenceRefused = false;
  for (const char* part : {"user", "vital", "cached"}) {
    reference[part] = Pruned(value, schema, part);
    referenceRefused = referenceRefused || !reference[part];
  }
  if (refused != referenceRefused)
    csfuzz::Finding(refused ? "split refused what pruning accepts" : "split accepted what pruning refuses");
  if (refused || referenceRefused) return;
  for (const char* part : {"user", "vital", "cached"}) {
    auto it = parts.find(part);
    if (it == parts.end()) {
      csfuzz::Finding(std::string("no ") + part + " part");
      continue;
    }
    if (*reference[part] != it->second) {
      csfuzz::Finding(std::string("the ") + part + " part differs from pruning: " + it->second.substr(0, 200));
    }
    if (!it->second.empty() &&
        csfuzz::Refused([&] { CreateDocumentFromString(it->second); }, {CS_ERR_JSON_PARSE_STRING})) {
      csfuzz::Finding(std::string("the ") + part + " part is not JSON: " + it->second.substr(0, 200));
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  csfuzz::SetUpHost(csfuzz::HostKind::Booted);
  registered = QorSchemaStore::SchemaStore::GetCache();
  if (registered->GetAll().empty()) csfuzz::Finding("the sample host registered no schema");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::shared_ptr<JsonDoc> doc = csfuzz::ParsedInput(data, size);
  if (!doc) return 0;
  const rapidjson::Value& root = *doc->document;
  if (root.IsObject() && root.HasMember("schema") && root.HasMember("value")) {
    Split(root["value"], root["schema"]);
    return 0;
  }
  for (const auto& [id, schema] : registered->GetAll()) Split(root, schema->GetSchemaValue());
  return 0;
}
