// The validator with a fuzzed value against fixed schemas: every schema the sample host registers
// and one that uses every keyword the validator knows, each under the rule sets the library uses.
// Validation never throws and answers with well-formed error entries only.
#include "configstore/frame/Documents.h"
#include "fuzz/FuzzHost.h"
#include "platform/schemastore/SchemaStore.h"
#include "platform/validator/JsonValidator.h"

using namespace QorConfigStore;

namespace {

constexpr const char* kEveryKeyword = R"({
  "type": "object", "required": ["name"], "additionalProperties": false,
  "definitions": {"port": {"type": "integer", "minimum": 1, "maximum": 65535, "exclusiveMaximum": true},
                  "tree": {"type": ["object", "null"], "properties": {"kids": {"type": "array", "items": {"$ref": "#/definitions/tree"}}}}},
  "properties": {
    "name": {"type": "string", "instanceId": true, "minLength": 1, "maxLength": 64, "pattern": "^[a-z][a-z0-9_\\-]*\\d?$"},
    "mtu": {"type": "integer", "minimum": 1280, "maximum": 9000, "multipleOf": 2},
    "ratio": {"type": "number", "exclusiveMinimum": true, "minimum": 0, "multipleOf": 0.01},
    "mac": {"type": "string", "vital": true, "pattern": "^([0-9a-f]{2}:){5}[0-9a-f]{2}$"},
    "token": {"type": "string", "cached": true},
    "mode": {"enum": ["STANDARD", "ZSW", 1, null, {"a": [1]}]},
    "ports": {"type": "array", "items": {"$ref": "#/definitions/port"}, "minItems": 1, "maxItems": 8, "uniqueItems": true},
    "pair": {"type": "array", "items": [{"type": "string"}, {"type": "boolean"}], "additionalItems": false},
    "tree": {"$ref": "#/definitions/tree"},
    "either": {"oneOf": [{"type": "string", "format": "ipv4"}, {"type": "integer"}]},
    "any": {"anyOf": [{"type": "null"}, {"type": "object", "minProperties": 1, "maxProperties": 3}]},
    "all": {"allOf": [{"type": "string"}, {"not": {"enum": ["root"]}}]},
    "labels": {"type": "object", "patternProperties": {"^x-\\w+$": {"type": "string"}},
               "additionalProperties": {"type": "integer"}, "dependencies": {"a": ["b"], "c": {"required": ["d"]}}}
  }
})";

struct Fixed {
  std::string name;
  const rapidjson::Value* schema;
};
std::vector<Fixed> schemas;
std::shared_ptr<QorSchemaStore::SchemaObjectCache> registered;
std::shared_ptr<JsonDoc> everyKeyword;

const RuleSet kDraft = {2};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  csfuzz::SetUpHost(csfuzz::HostKind::Booted);
  registered = QorSchemaStore::SchemaStore::GetCache();
  for (const auto& [id, schema] : registered->GetAll()) schemas.push_back({id.toString(), &schema->GetSchemaValue()});
  everyKeyword = CreateDocumentFromString(kEveryKeyword);
  schemas.push_back({"every keyword", everyKeyword->document.get()});
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::shared_ptr<JsonDoc> value = csfuzz::ParsedInput(data, size);
  if (!value) return 0;
  rapidjson::Document errors;
  for (const Fixed& fixed : schemas) {
    for (const RuleSet* rules : {&kRulesUserObject, &kRulesDefaultConfig, &kDraft}) {
      csfuzz::NoThrow([&] { JsonValidator::Validate(*fixed.schema, *value->document, errors, *rules, fixed.name); },
                      "JsonValidator::Validate");
      csfuzz::CheckValidationErrors(errors);
    }
  }
  csfuzz::TrimLogs();
  return 0;
}
