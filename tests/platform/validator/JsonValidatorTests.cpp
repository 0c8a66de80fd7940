// Messages, rule selection, the compile cache and hostile inputs; draft-04 semantics as such are the
// conformance suite's.
#include <algorithm>

#include "platform/validator/ConfigStoreDocument.h"
#include "platform/validator/JsonValidator.h"
#include "tests/platform/validator/ValidatorTestSupport.h"
#include "tests/support/Sandbox.h"

namespace cstest {
namespace {

const std::set<int> kUserRules = {0, 1, 3, 7, 8};
const std::set<int> kDefaultRules = {0, 1, 4, 8};
using Error = std::pair<std::string, std::string>;

class JsonValidatorTest : public SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    JsonValidator::ClearCache();
  }
};

TEST_F(JsonValidatorTest, ReportsEveryErrorWithThePathOfItsValue) {
  const char* schema = R"({"type": "object", "required": ["nics"], "properties": {
    "nics": {"type": "array", "items": {"type": "object", "required": ["name"],
      "properties": {"name": {"type": "string", "pattern": "^[a-z]+$"}, "mtu": {"maximum": 9000}}}},
    "a/b": {"type": "boolean"}}})";
  FieldErrors expected = {
      {"/nics/0", "missing required member \"name\""},     {"/nics/1/name", "does not match pattern ^[a-z]+$"},
      {"/nics/2/mtu", "must be at most 9000, got 12000"}, {"/nics/2/speed", "unknown member \"speed\""},
      {"/a~1b", "must be of type boolean, got string"},   {"/foo", "unknown member \"foo\""}};
  EXPECT_EQ(ErrorsOf(schema, R"({"nics": [{"mtu": 1500}, {"name": "Eth1"}, {"name": "e", "mtu": 12000, "speed": 10}],
                                 "a/b": "yes", "foo": 1})", kUserRules), expected);
  EXPECT_EQ(ErrorsOf(schema, R"({"nics": []})", kUserRules), FieldErrors{});
}

// One value breaks one constraint of each kind; each rule set reports exactly its own.
TEST_F(JsonValidatorTest, EachRuleNumberSelectsItsChecks) {
  const char* schema = R"({"type": "object", "required": ["name"],
    "properties": {"id": {"type": "string", "instanceId": true}, "name": {"type": "string"},
                   "mtu": {"type": "integer", "maximum": 9000}, "mac": {"type": "string"}}})";
  const Error type{"/mac", "must be of type string, got integer"}, required{"", "missing required member \"name\""},
      id{"", "missing instance identifier \"id\""}, unknown{"/extra", "unknown member \"extra\""},
      maximum{"/mtu", "must be at most 9000, got 12000"};
  const std::pair<std::set<int>, FieldErrors> cases[] = {
      {{0}, {type}},
      {{1}, {required}},
      {{3}, {id}},
      {{4}, {id}},
      {{7}, {unknown}},
      {{8}, {maximum}},
      {{2, 7}, {required, maximum, type}},  // draft-04: members nothing describes are allowed
      {{2, 3}, {required, maximum, type, id}},
  };
  for (auto [rules, expected] : cases) {
    FieldErrors errors = ErrorsOf(schema, R"({"mtu": 12000, "mac": 5, "extra": 1})", rules);
    std::sort(errors.begin(), errors.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(errors, expected) << testing::PrintToString(rules);
  }
}

// Rule 7 refuses the members a schema that lists members does not describe; the messages name the
// constraint and the value; an instance id is asked for by rules 3 and 4 (4 spares a generated one).
TEST_F(JsonValidatorTest, MessagesOfOneValueEach) {
  const char* plain = R"({"properties": {"id": {"type": "string", "instanceId": true}}})";
  const char* generated = R"({"properties": {"cs_generated_id": {"instanceId": true, "generatedId": true}}})";
  const std::tuple<const char*, const char*, std::set<int>, FieldErrors> cases[] = {
      {R"({"properties": {"a": {}}})", R"({"a": 1, "b": 2})", {0, 7}, {{"/b", "unknown member \"b\""}}},
      {R"({"properties": {"a": {}}})", R"({"a": 1, "b": 2})", {0}, {}},
      {R"({"properties": {"a": {}}, "additionalProperties": true})", R"({"b": 2})", {0, 7}, {}},
      {R"({"patternProperties": {"^x-": {}}})", R"({"x-a": 1, "b": 2})", {7}, {{"/b", "unknown member \"b\""}}},
      {R"({"type": "object"})", R"({"b": 2})", {0, 7}, {}},  // lists no members: free-form
      {R"({"maximum": 1.5, "exclusiveMaximum": true})", "1.5", {2}, {{"", "must be less than 1.5, got 1.5"}}},
      {R"({"maxLength": 2})", R"("äöü")", {2}, {{"", "must be at most 2 characters long, got 3"}}},
      {R"({"enum": ["a", "b"]})", R"("c")", {2}, {{"", "must be one of [\"a\",\"b\"], got \"c\""}}},
      {R"({"uniqueItems": true})", R"([1, {"a": [1]}, 2, {"a": [1.0]}])", {2},
       {{"", "must not repeat elements: elements 1 and 3 are equal"}}},
      {R"({"anyOf": [{"type": "string"}, {"maxProperties": 0}]})", R"({"a": 1})", {2},
       {{"", "matches none of the 2 allowed alternatives (anyOf)"}}},
      {R"({"oneOf": [{"type": "integer"}, {"minimum": 1}]})", "5", {2},
       {{"", "matches 2 of the 2 alternatives, must match exactly one (oneOf)"}}},
      {R"({"dependencies": {"a": ["b"]}})", R"({"a": 1})", {2}, {{"", "member \"a\" requires member \"b\""}}},
      {plain, "{}", kDefaultRules, {{"", "missing instance identifier \"id\""}}},
      {plain, R"({"id": ""})", kUserRules, {{"/id", "instance identifier \"id\" must be a non-empty string, got \"\""}}},
      {generated, "{}", kDefaultRules, {}},
      {generated, "{}", kUserRules, {{"", "missing instance identifier \"cs_generated_id\""}}},
      {R"({"required": ["id"], "properties": {"id": {"instanceId": true}}})", "{}", kUserRules,
       {{"", "missing required member \"id\""}}},  // listed in "required" too: reported once
  };
  for (const auto& [schema, value, rules, expected] : cases) {
    EXPECT_EQ(ErrorsOf(schema, value, rules), expected) << schema << " " << value;
  }
}

// ECMA meanings the conformance suite leaves out.
TEST_F(JsonValidatorTest, PatternsAreEnforcedWithEcmaMeanings) {
  const std::tuple<const char*, std::string, bool> cases[] = {
      {"^[]a]$", "a", false},  // [] matches nothing
      {"^[^]$", "\n", true},   // [^] matches anything
      {"^\\da$", "1a", true},  // an escape before a letter is no control escape
      {"^\\u00e9$", "\u00e9", true},
  };
  for (const auto& [pattern, text, matches] : cases) {
    rapidjson::Document schema;
    schema.SetObject();
    schema.AddMember("pattern", rapidjson::StringRef(pattern), schema.GetAllocator());
    rapidjson::Value value(text.c_str(), schema.GetAllocator());
    FieldErrors expected;
    if (!matches) expected = {{"", std::string("does not match pattern ") + pattern}};
    EXPECT_EQ(ErrorsOf(schema, value, {8}), expected) << pattern << " on " << text;
  }
}

TEST_F(JsonValidatorTest, CompilesOncePerKeyAndAgainWhenTheSchemaChanges) {
  rapidjson::Document schema = Json(R"({"properties": {"mtu": {"type": "integer", "maximum": 9000}}})");
  rapidjson::Document good = Json(R"({"mtu": 1500})"), bad = Json(R"({"mtu": 9001})");
  EXPECT_TRUE(ErrorsOf(schema, good, kUserRules, "qor/network/nics").empty());
  EXPECT_FALSE(ErrorsOf(schema, bad, kUserRules, "qor/network/nics").empty());
  EXPECT_EQ(JsonValidator::CacheStats().compiles, 1u);
  schema["properties"]["mtu"]["maximum"] = 9216;  // the same name, a changed schema
  EXPECT_TRUE(ErrorsOf(schema, bad, kUserRules, "qor/network/nics").empty());
  // A caller's own text of the schema is its key: compiled once, then found by that text.
  for (int i = 0; i < 2; ++i) {
    rapidjson::Document errors;
    JsonValidator::Validate(schema, R"({ "properties": { "mtu": { "type": "integer", "maximum": 9216 } } })",
                            Json(R"({"mtu": 9217})"), errors, kUserRules, "qor/network/nics");
    EXPECT_TRUE(errors.IsArray() && errors.Size() == 1u) << i;
  }
  EXPECT_EQ(JsonValidator::CacheStats().compiles, 3u);
  ErrorsOf(schema, bad, kDefaultRules, "qor/network/nics");  // another rule set is another key
  EXPECT_EQ(JsonValidator::CacheStats().compiles, 4u);
  JsonValidator::ClearCache();
  EXPECT_EQ(JsonValidator::CacheStats().entries, 0u);
}

// Where a schema error lies: through indexes and escaped names, at a "$ref" target's own place, and
// below the "$ref" for a target that no schema keyword reaches.
TEST_F(JsonValidatorTest, BadSchemasAreReportedNotFatal) {
  const std::pair<const char*, const char*> cases[] = {
      {R"j({"properties": {"a": {"pattern": "("}}})j", "#/properties/a/pattern"},
      {R"j({"pattern": "(?=a)b"})j", "bad pattern"},  // look-ahead: RE2 refuses it
      {R"({"allOf": [{}, {"not": {"items": {"maxItems": -2}}}]})", "#/allOf/1/not/items/maxItems: \"maxItems\""},
      {R"({"$ref": "#/definitions/a", "definitions": {"a": {"properties": {"x": 5}}}})",
       "#/definitions/a/properties/x: a schema must be an object"},
      {R"({"definitions": {"a": {"$ref": "#/definitions/b"}, "b": {"$ref": "#/definitions/a"}},
          "properties": {"x": {"$ref": "#/definitions/a"}}})", "$ref cycle"},
      {R"({"required": ["a", 1]})", "an array of member names"},
  };
  for (const auto& [schema, mentions] : cases) {
    for (const std::set<int>& rules : {kUserRules, std::set<int>{2}}) {
      FieldErrors errors = ErrorsOf(schema, R"({"a": "x"})", rules, "qor/bad/key");
      ASSERT_EQ(errors.size(), 1u) << schema;
      EXPECT_EQ(errors[0].first, "");
      EXPECT_EQ(errors[0].second.rfind("invalid schema qor/bad/key: ", 0), 0u) << errors[0].second;
      EXPECT_NE(errors[0].second.find(mentions), std::string::npos) << errors[0].second;
    }
  }
  EXPECT_TRUE(log_.Contains("Invalid schema qor/bad/key", CSLogger::PRIO_WARNING));
}

TEST_F(JsonValidatorTest, HostileValuesAndSchemasGetClearErrors) {
  rapidjson::Document doc;
  rapidjson::Value deep(rapidjson::kArrayType);
  for (int i = 0; i < 100000; ++i) {
    rapidjson::Value outer(rapidjson::kArrayType);
    outer.PushBack(deep, doc.GetAllocator());
    deep = outer;
  }
  // A recursive schema stops at the nesting limit, at a readable field.
  FieldErrors errors = ErrorsOf(Json(R"({"items": {"$ref": "#"}})"), deep, {2});
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].second, "nested deeper than 128 levels; not checked further");
  EXPECT_EQ(errors[0].first.size(), 2u * 128);  // "/0" per level below the root
  // Composition that applies the same schema to the same value forever.
  EXPECT_EQ(ErrorsOf(R"({"allOf": [{"$ref": "#"}]})", "1", {0}),
            (FieldErrors{{"", "nested deeper than 128 levels; not checked further"}}));
  std::string deepSchema;  // a schema nested far too deep is refused as a whole
  for (int i = 0; i < 1000; ++i) deepSchema += R"({"not": )";
  errors = ErrorsOf(deepSchema + "{}" + std::string(1000, '}'), "1", {2});
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_NE(errors[0].second.find("nests deeper than 256 levels"), std::string::npos) << errors[0].second;
}

TEST_F(JsonValidatorTest, HugeArraysStayLinearAndErrorsAreCapped) {
  rapidjson::Document value;
  value.SetArray();
  for (int i = 0; i < 200000; ++i) value.PushBack(i, value.GetAllocator());
  value.PushBack(5, value.GetAllocator());
  EXPECT_EQ(ErrorsOf(Json(R"({"uniqueItems": true})"), value, {8}),
            (FieldErrors{{"", "must not repeat elements: elements 5 and 200000 are equal"}}));
  FieldErrors errors = ErrorsOf(Json(R"({"items": {"type": "string"}})"), value, {0});
  ASSERT_EQ(errors.size(), 1001u);
  EXPECT_EQ(errors.back(), Error("", "more than 1000 errors; the rest are not listed"));
}

// A reference is resolved against the schema's id (if any), dot segments removed, before the resolver is asked.
TEST_F(JsonValidatorTest, RemoteReferencesGoThroughTheResolver) {
  rapidjson::Document remote = Json(R"({"definitions": {"port": {"type": "integer", "maximum": 65535}}})");
  std::vector<std::string> asked;
  JsonValidator::SetRemoteResolver([&](const std::string& uri) -> const rapidjson::Value* {
    asked.push_back(uri);
    return uri == "http://schemas.local/common.json" || uri == "common.json" ? &remote : nullptr;
  });
  const char* schema = R"({"id": "http://schemas.local/kit/nic.json",
      "properties": {"port": {"$ref": "../x/./../common.json#/definitions/port"}}})";
  EXPECT_EQ(ErrorsOf(schema, R"({"port": 70000})", {2}), (FieldErrors{{"/port", "must be at most 65535, got 70000"}}));
  EXPECT_EQ(ErrorsOf(R"({"properties": {"port": {"$ref": "./common.json#/definitions/port"}}})", R"({"port": 70000})", {2}),
            (FieldErrors{{"/port", "must be at most 65535, got 70000"}}));
  EXPECT_EQ(asked, (std::vector<std::string>{"http://schemas.local/common.json", "common.json"}));
  JsonValidator::SetRemoteResolver(nullptr);
}

TEST(ConfigStoreDocumentTest, ValueExistsOnlyForMembersOfObjects) {
  rapidjson::Document doc = Json(R"({"object": {"name": null, "": 1}, "array": ["name"], "text": "name"})");
  const std::tuple<const char*, const char*, bool> cases[] = {
      {"object", "name", true}, {"object", "", true},    {"object", "other", false},
      {"object", nullptr, false}, {"array", "name", false}, {"text", "name", false}};
  for (const auto& [path, name, exists] : cases) {
    EXPECT_EQ(ConfigStoreDocument::ValueExists(doc[path], name), exists)
        << path << " " << (name ? name : "(null)");
  }
}

}  // namespace
}  // namespace cstest
