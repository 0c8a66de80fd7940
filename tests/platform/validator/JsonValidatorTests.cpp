// Messages, rule selection, the compile cache and hostile inputs; draft-04 semantics as such are the
// conformance suite's.
#include <algorithm>

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
  // A valid value gives an empty array in place of what the errors document held.
  rapidjson::Document s = Json(schema), v = Json(R"({"nics": []})"), errors = Json(R"({"stale": true})");
  JsonValidator::Validate(s, v, errors, kUserRules, "nics");
  EXPECT_TRUE(errors.IsArray() && errors.Empty());
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
      {{}, {}},
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

// Rule 7 refuses the members a schema that lists members does not describe.
TEST_F(JsonValidatorTest, UnknownMembersFollowAdditionalProperties) {
  const std::tuple<const char*, const char*, FieldErrors> cases[] = {
      {R"({"properties": {"a": {}}})", R"({"a": 1, "b": 2})", {{"/b", "unknown member \"b\""}}},
      {R"({"properties": {"a": {}}, "additionalProperties": true})", R"({"a": 1, "b": 2})", {}},
      {R"({"patternProperties": {"^x-": {}}})", R"({"x-a": 1, "b": 2})", {{"/b", "unknown member \"b\""}}},
      {R"({"type": "object"})", R"({"b": 2})", {}},  // lists no members: free-form
      {R"({"items": [{}], "additionalItems": false})", R"([1, 2])",
       {{"/1", "unexpected element: at most 1 element allowed"}}},
  };
  for (const auto& [schema, value, expected] : cases) {
    EXPECT_EQ(ErrorsOf(schema, value, {0, 7}), expected) << schema;
    FieldErrors withoutRule7 = expected;
    std::erase_if(withoutRule7, [](const auto& e) { return e.second.rfind("un", 0) == 0; });
    EXPECT_EQ(ErrorsOf(schema, value, {0}), withoutRule7) << schema;
  }
}

TEST_F(JsonValidatorTest, ValueConstraintMessagesNameTheConstraintAndTheValue) {
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {R"({"minimum": 1280})", "100", "must be at least 1280, got 100"},
      {R"({"maximum": 1.5, "exclusiveMaximum": true})", "1.5", "must be less than 1.5, got 1.5"},
      {R"({"multipleOf": 0.01})", "0.125", "must be a multiple of 0.01, got 0.125"},
      {R"({"maxLength": 2})", R"("äöü")", "must be at most 2 characters long, got 3"},
      {R"({"enum": ["a", "b"]})", R"("c")", "must be one of [\"a\",\"b\"], got \"c\""},
      {R"({"enum": [1]})", R"({"x": 1})", "must be one of [1], got an object"},
      {R"({"maxItems": 1})", "[1, 2]", "must have at most 1 element, got 2"},
      {R"({"uniqueItems": true})", R"([1, {"a": [1]}, 2, {"a": [1.0]}])",
       "must not repeat elements: elements 1 and 3 are equal"},
      {R"({"maxProperties": 0})", R"({"a": 1})", "must have at most 0 members, got 1"},
      {R"({"type": ["string", "null"]})", "1.5", "must be of type string or null, got number"},
      {R"({"anyOf": [{"type": "string"}, {"maxProperties": 0}]})", R"({"a": 1})",
       "matches none of the 2 allowed alternatives (anyOf)"},
      {R"({"oneOf": [{"type": "integer"}, {"minimum": 1}]})", "5",
       "matches 2 of the 2 alternatives, must match exactly one (oneOf)"},
      {R"({"not": {"type": "integer"}})", "5", "must not match the schema under \"not\""},
      {R"({"dependencies": {"a": ["b"]}})", R"({"a": 1})", "member \"a\" requires member \"b\""},
  };
  for (const auto& [schema, value, error] : cases) {
    EXPECT_EQ(ErrorsOf(schema, value, {2}), (FieldErrors{{"", error}})) << schema << " " << value;
  }
}

// Alternatives are summed up at their own location, and judged under rule 0 alone too.
TEST_F(JsonValidatorTest, AlternativesGiveOneSummaryError) {
  const char* schema = R"({"properties": {"port": {"oneOf": [
      {"type": "integer", "maximum": 5}, {"type": "integer", "minimum": 10}]}}})";
  FieldErrors expected = {{"/port", "matches none of the 2 alternatives, must match exactly one (oneOf)"}};
  EXPECT_EQ(ErrorsOf(schema, R"({"port": 7})", {0}), expected);
  EXPECT_EQ(ErrorsOf(schema, R"({"port": 12})", {0}), FieldErrors{});
  EXPECT_EQ(ErrorsOf(schema, R"({"port": 7})", {1, 8}), FieldErrors{});  // without rule 0 not judged
}

TEST_F(JsonValidatorTest, InstanceIdentifierRulesAndGeneratedIds) {
  const char* plain = R"({"type": "object", "properties": {"id": {"type": "string", "instanceId": true}}})";
  const char* generated = R"({"type": "object", "properties": {"cs_generated_id": {"type": "string",
      "instanceId": true, "generatedId": true}}})";
  const std::tuple<const char*, const char*, std::set<int>, FieldErrors> cases[] = {
      {plain, "{}", kDefaultRules, {{"", "missing instance identifier \"id\""}}},
      {plain, R"({"id": ""})", kUserRules, {{"/id", "instance identifier \"id\" must be a non-empty string, got \"\""}}},
      {plain, R"({"id": 7})", {3}, {{"/id", "instance identifier \"id\" must be a non-empty string, got 7"}}},
      {plain, R"({"id": "vmk0"})", kUserRules, {}},
      {generated, "{}", kDefaultRules, {}},
      {generated, "{}", kUserRules, {{"", "missing instance identifier \"cs_generated_id\""}}},
      // Listed in "required" too: reported once.
      {R"({"required": ["id"], "properties": {"id": {"instanceId": true}}})", "{}", kUserRules,
       {{"", "missing required member \"id\""}}},
      {R"({"properties": {"list": {"items": {"properties": {"key": {"instanceId": true}}}}}})",
       R"({"list": [{"key": "a"}, {}]})", {3}, {{"/list/1", "missing instance identifier \"key\""}}},
  };
  for (const auto& [schema, value, rules, expected] : cases) {
    EXPECT_EQ(ErrorsOf(schema, value, rules), expected) << schema << " " << value;
  }
}

TEST_F(JsonValidatorTest, PatternsAreEnforcedWithEcmaMeanings) {
  const std::tuple<const char*, std::string, bool> cases[] = {
      {"^\\d+$", "\u0661\u0662", false},  // Arabic-Indic digits are not \d
      {"^[a-z]{0,63}$", std::string(64, 'a'), false},
      {"^[]a]$", "a", false},  // [] matches nothing
      {"^[^]$", "\n", true},   // [^] matches anything
      {"^\\s$", "\u00a0", true},  // ECMA white space, wider than RE2's \s
      {"^\\cJ$", "\n", true},
      {"^\\da$", "1a", true},  // an escape before a letter is no control escape
      {"^\\p{Letter}+$", "\u00e9t\u00e9", true},
      {"b", "abc", true},  // unanchored search
      {"^abc$", "abc\n", false},
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
  for (int i = 0; i < 100; ++i) {
    ASSERT_EQ(ErrorsOf(schema, i % 2 ? bad : good, kUserRules, "qor/network/nics").empty(), i % 2 == 0) << i;
  }
  EXPECT_EQ(JsonValidator::CacheStats().compiles, 1u);
  EXPECT_EQ(JsonValidator::CacheStats().hits, 99u);
  schema["properties"]["mtu"]["maximum"] = 9216;  // the same name, a changed schema
  EXPECT_TRUE(ErrorsOf(schema, bad, kUserRules, "qor/network/nics").empty());
  ErrorsOf(schema, bad, kDefaultRules, "qor/network/nics");  // another rule set is another key
  EXPECT_EQ(JsonValidator::CacheStats().compiles, 3u);
  // A caller's own text of the schema, laid out otherwise, names the same schema.
  rapidjson::Document errors;
  for (int i = 0; i < 3; ++i) {
    JsonValidator::Validate(schema, R"({ "properties": { "mtu": { "type": "integer", "maximum": 9216 } } })", bad,
                            errors, kUserRules, "qor/network/nics");
    EXPECT_TRUE(errors.IsArray() && errors.Empty()) << i;
  }
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
      {R"({"items": [{}, "x"]})", "#/items/1: a schema must be an object"},
      {R"({"allOf": [{}, {"not": {"items": {"maxItems": -2}}}]})", "#/allOf/1/not/items/maxItems: \"maxItems\""},
      {R"({"dependencies": {"a/b": 5}})", "#/dependencies/a~1b: a schema must be an object"},
      {R"({"$ref": "#/definitions/a", "definitions": {"a": {"properties": {"x": 5}}}})",
       "#/definitions/a/properties/x: a schema must be an object"},
      {R"({"properties": {"p": {"$ref": "#/enum/0"}}, "enum": [{"minimum": "1"}]})",
       "#/properties/p/$ref/minimum: \"minimum\" must be a number"},
      {R"({"$ref": "#/definitions/missing"})", "points to nothing"},
      {R"({"$ref": "http://example.com/x.json"})", "cannot resolve $ref"},
      {R"({"definitions": {"a": {"$ref": "#/definitions/b"}, "b": {"$ref": "#/definitions/a"}},
          "properties": {"x": {"$ref": "#/definitions/a"}}})", "$ref cycle"},
      {R"({"required": ["a", 1]})", "an array of member names"},
      {R"j({"definitions": {"unused": {"pattern": "(?<=x)"}}})j", "#/definitions/unused/pattern"},
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
  EXPECT_TRUE(ErrorsOf(Json(R"({"type": "array", "enum": [[]]})"), deep, {0}).empty());
  EXPECT_EQ(ErrorsOf(Json(R"({"enum": [[]]})"), deep, {8}).size(), 1u);
  // Composition that applies the same schema to the same value forever.
  EXPECT_EQ(ErrorsOf(R"({"allOf": [{"$ref": "#"}]})", "1", {0}),
            (FieldErrors{{"", "nested deeper than 128 levels; not checked further"}}));
  // A schema nested far too deep is refused as a whole.
  rapidjson::Document deepSchema;
  deepSchema.SetObject();
  rapidjson::Value* at = &deepSchema;
  for (int i = 0; i < 1000; ++i) {
    at->AddMember("not", rapidjson::Value(rapidjson::kObjectType), deepSchema.GetAllocator());
    at = &(*at)["not"];
  }
  errors = ErrorsOf(deepSchema, Json("1"), {2});
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
  EXPECT_EQ(errors[0], Error("/0", "must be of type string, got integer"));
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
  EXPECT_EQ(ErrorsOf(schema, R"({"port": 70000})", {2}).at(0).second.rfind("invalid schema", 0), 0u);
}

}  // namespace
}  // namespace cstest
