// The validator with a fuzzed schema: compiled afresh for every input (the cache is emptied), with
// remote references under http://fuzz.example/ resolving to the input itself, and checked against
// a few fixed values and against its own text. A schema that cannot be compiled is an answer
// ("invalid schema ..."), never a throw.
#include "configstore/frame/Documents.h"
#include "fuzz/FuzzHost.h"
#include "platform/validator/JsonValidator.h"

using namespace QorConfigStore;

namespace {

constexpr const char* kValues[] = {
    "null", "0", "-1.5e300", "\"\"", "\"nuk0\"", "true", "[]", "[1, \"a\", null, [2], {\"b\": 3}, 1]",
    R"({"name": "nuk0", "mtu": 1500, "mac": "00:50:56:aa:bb:cc", "cs_generated_id": "x", "ports": [22, 22],
        "tree": {"kids": [{"kids": []}, null]}, "labels": {"x-a": "b", "c": 1}})",
};
constexpr const char* kRemotePrefix = "http://fuzz.example/";

std::vector<std::shared_ptr<JsonDoc>> values;
const rapidjson::Value* currentSchema = nullptr;

const RuleSet kDraft = {2};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  csfuzz::SetUpHost(csfuzz::HostKind::Empty);
  for (const char* text : kValues) values.push_back(CreateDocumentFromString(text));
  JsonValidator::SetRemoteResolver([](const std::string& uri) -> const rapidjson::Value* {
    return uri.starts_with(kRemotePrefix) ? currentSchema : nullptr;
  });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::shared_ptr<JsonDoc> schema = csfuzz::ParsedInput(data, size);
  if (!schema) return 0;
  JsonValidator::ClearCache();
  currentSchema = schema->document.get();
  rapidjson::Document errors;
  auto check = [&](const rapidjson::Value& value) {
    for (const RuleSet* rules : {&kRulesUserObject, &kRulesDefaultConfig, &kDraft}) {
      csfuzz::NoThrow([&] { JsonValidator::Validate(*schema->document, value, errors, *rules, "fuzzed"); },
                      "JsonValidator::Validate");
      csfuzz::CheckValidationErrors(errors);
    }
  };
  for (const auto& value : values) check(*value->document);
  check(*schema->document);
  currentSchema = nullptr;
  csfuzz::TrimLogs();
  return 0;
}
