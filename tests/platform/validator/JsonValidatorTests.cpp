#include <algorithm>
#include <thread>

#include "platform/validator/JsonValidator.h"
#include "tests/platform/validator/ValidatorTestSupport.h"
#include "tests/support/Sandbox.h"

namespace cstest {
namespace {

const std::set<int> kUserRules = {0, 1, 3, 7, 8};
const std::set<int> kDefaultRules = {0, 1, 4, 8};

class JsonValidatorTest : public SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    JsonValidator::ClearCache();
  }
};

const char* kNicSchema = R"({
  "type": "object",
  "required": ["nics"],
  "properties": {
    "nics": {"type": "array", "items": {
      "type": "object", "required": ["name"],
      "properties": {"name": {"type": "string", "pattern": "^[a-z]+$", "instanceId": true},
                     "mtu": {"type": "integer", "minimum": 1280, "maximum": 9000},
                     "mac": {"type": "string", "vital": true}}}},
    "a/b": {"type": "boolean"}
  }
})";

TEST_F(JsonValidatorTest, ReportsEveryErrorWithThePathOfItsValue) {
  FieldErrors errors = ErrorsOf(kNicSchema, R"({
    "nics": [{"mtu": 1500}, {"name": "Eth1", "mtu": 9000}, {"name": "eth", "mtu": 12000, "speed": 10}],
    "a/b": "yes", "foo": 1})", kUserRules);
  FieldErrors expected = {
      {"/nics/0", "missing required member \"name\""},
      {"/nics/1/name", "does not match pattern ^[a-z]+$"},
      {"/nics/2/mtu", "must be at most 9000, got 12000"},
      {"/nics/2/speed", "unknown member \"speed\""},
      {"/a~1b", "must be of type boolean, got string"},
      {"/foo", "unknown member \"foo\""},
  };
  EXPECT_EQ(errors, expected);
}

TEST_F(JsonValidatorTest, ValidValueGivesAnEmptyArrayAndReplacesWhatTheErrorsDocumentHeld) {
  rapidjson::Document schema = Json(kNicSchema), value = Json(R"({"nics": [{"name": "eth", "mac": "x"}]})");
  rapidjson::Document errors = Json(R"({"stale": true})");
  JsonValidator::Validate(schema, value, errors, kUserRules, "nics");
  ASSERT_TRUE(errors.IsArray());
  EXPECT_TRUE(errors.Empty());
}

// One value breaks one constraint of each kind; each rule set reports exactly its own.
TEST_F(JsonValidatorTest, EachRuleNumberSelectsItsChecks) {
  const char* schema = R"({"type": "object", "required": ["name"],
    "properties": {"id": {"type": "string", "instanceId": true}, "name": {"type": "string"},
                   "mtu": {"type": "integer", "maximum": 9000}, "mac": {"type": "string", "vital": true}}})";
  const char* value = R"({"mtu": 12000, "mac": 5, "extra": 1})";
  const std::pair<std::string, std::string> type{"/mac", "must be of type string, got integer"};
  const std::pair<std::string, std::string> required{"", "missing required member \"name\""};
  const std::pair<std::string, std::string> id{"", "missing instance identifier \"id\""};
  const std::pair<std::string, std::string> unknown{"/extra", "unknown member \"extra\""};
  const std::pair<std::string, std::string> maximum{"/mtu", "must be at most 9000, got 12000"};
  struct Case {
    std::set<int> rules;
    FieldErrors expected;
  };
  const Case cases[] = {
      {{}, {}},
      {{0}, {type}},
      {{1}, {required}},
      {{3}, {id}},
      {{4}, {id}},
      {{7}, {unknown}},
      {{8}, {maximum}},
      {{5, 9, 11, 13, 14, 15, 16, 17, 18, 19, 20}, {}},
      {{0, 1, 3, 7, 8}, {required, maximum, type, unknown, id}},
      {{0, 1, 4, 8}, {required, maximum, type, id}},
      {{2}, {required, maximum, type}},
      {{2, 7}, {required, maximum, type}},  // draft-04: members nothing describes are allowed
      {{2, 3}, {required, maximum, type, id}},
  };
  for (const Case& c : cases) {
    std::string rules;
    for (int r : c.rules) rules += std::to_string(r) + " ";
    SCOPED_TRACE("rules {" + rules + "}");
    FieldErrors errors = ErrorsOf(schema, value, c.rules);
    FieldErrors expected = c.expected;
    std::sort(errors.begin(), errors.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(errors, expected);
  }
}

TEST_F(JsonValidatorTest, UnknownMembersFollowAdditionalProperties) {
  struct Case {
    const char* schema;
    const char* value;
    FieldErrors expected;
  };
  const Case cases[] = {
      {R"({"properties": {"a": {}}})", R"({"a": 1, "b": 2})", {{"/b", "unknown member \"b\""}}},
      {R"({"properties": {"a": {}}, "additionalProperties": true})", R"({"a": 1, "b": 2})", {}},
      {R"({"properties": {"a": {}}, "additionalProperties": {"type": "string"}})", R"({"b": 2})",
       {{"/b", "must be of type string, got integer"}}},
      {R"({"patternProperties": {"^x-": {}}})", R"({"x-a": 1, "b": 2})", {{"/b", "unknown member \"b\""}}},
      // A schema that lists no members at all describes a free-form object.
      {R"({"type": "object"})", R"({"b": 2})", {}},
      {R"({"type": "object", "additionalProperties": false})", R"({"b": 2})", {{"/b", "unknown member \"b\""}}},
      {R"({"items": [{}], "additionalItems": false})", R"([1, 2])", {{"/1", "unexpected element: at most 1 element allowed"}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.schema) + " " + c.value);
    EXPECT_EQ(ErrorsOf(c.schema, c.value, {0, 7}), c.expected);
    // Without rule 7 nothing is refused for being unknown.
    FieldErrors withoutRule7 = c.expected;
    std::erase_if(withoutRule7, [](const auto& e) { return e.second.rfind("un", 0) == 0; });
    EXPECT_EQ(ErrorsOf(c.schema, c.value, {0}), withoutRule7);
  }
}

TEST_F(JsonValidatorTest, ValueConstraintMessagesNameTheConstraintAndTheValue) {
  struct Case {
    const char* schema;
    const char* value;
    const char* error;
  };
  const Case cases[] = {
      {R"({"minimum": 1280})", "100", "must be at least 1280, got 100"},
      {R"({"minimum": 0, "exclusiveMinimum": true})", "0", "must be greater than 0, got 0"},
      {R"({"maximum": 1.5, "exclusiveMaximum": true})", "1.5", "must be less than 1.5, got 1.5"},
      {R"({"multipleOf": 8})", "12", "must be a multiple of 8, got 12"},
      {R"({"multipleOf": 0.01})", "0.125", "must be a multiple of 0.01, got 0.125"},
      {R"({"minLength": 3})", R"("ab")", "must be at least 3 characters long, got 2"},
      {R"({"maxLength": 2})", R"("äöü")", "must be at most 2 characters long, got 3"},
      {R"({"enum": ["a", "b"]})", R"("c")", "must be one of [\"a\",\"b\"], got \"c\""},
      {R"({"enum": [1]})", R"({"x": 1})", "must be one of [1], got an object"},
      {R"({"minItems": 1})", "[]", "must have at least 1 element, got 0"},
      {R"({"maxItems": 1})", "[1, 2]", "must have at most 1 element, got 2"},
      {R"({"uniqueItems": true})", R"([1, {"a": [1]}, 2, {"a": [1.0]}])", "must not repeat elements: elements 1 and 3 are equal"},
      {R"({"minProperties": 2})", R"({"a": 1})", "must have at least 2 members, got 1"},
      {R"({"maxProperties": 0})", R"({"a": 1})", "must have at most 0 members, got 1"},
      {R"({"type": ["string", "null"]})", "1.5", "must be of type string or null, got number"},
      {R"({"anyOf": [{"type": "string"}, {"minimum": 10}]})", "5", "matches none of the 2 allowed alternatives (anyOf)"},
      {R"({"oneOf": [{"type": "integer"}, {"minimum": 1}]})", "5", "matches 2 of the 2 alternatives, must match exactly one (oneOf)"},
      {R"({"not": {"type": "integer"}})", "5", "must not match the schema under \"not\""},
      {R"({"dependencies": {"a": ["b"]}})", R"({"a": 1})", "member \"a\" requires member \"b\""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.schema) + " " + c.value);
    FieldErrors expected = {{"", c.error}};
    EXPECT_EQ(ErrorsOf(c.schema, c.value, {2}), expected);
  }
}

// Alternatives are summed up at their own location, however many errors a branch holds; and their
// verdict does not depend on the rules selected (rule 0 alone still judges the branch's maximum).
TEST_F(JsonValidatorTest, AlternativesGiveOneSummaryError) {
  const char* schema = R"({"properties": {"port": {"oneOf": [
      {"type": "integer", "maximum": 5}, {"type": "integer", "minimum": 10}]}}})";
  FieldErrors expected = {{"/port", "matches none of the 2 alternatives, must match exactly one (oneOf)"}};
  EXPECT_EQ(ErrorsOf(schema, R"({"port": 7})", {0}), expected);
  EXPECT_EQ(ErrorsOf(schema, R"({"port": 7})", kUserRules), expected);
  EXPECT_EQ(ErrorsOf(schema, R"({"port": 12})", {0}), FieldErrors{});
  // Without rule 0 the alternatives are not judged.
  EXPECT_EQ(ErrorsOf(schema, R"({"port": 7})", {1, 8}), FieldErrors{});
}

TEST_F(JsonValidatorTest, InstanceIdentifierRulesAndGeneratedIds) {
  const char* plain = R"({"type": "object", "properties": {"id": {"type": "string", "instanceId": true}}})";
  const char* generated =
      R"({"type": "object", "properties": {"cs_generated_id": {"type": "string", "instanceId": true, "generatedId": true}}})";
  const char* required = R"({"type": "object", "required": ["id"], "properties": {"id": {"type": "string", "instanceId": true}}})";
  struct Case {
    const char* schema;
    const char* value;
    std::set<int> rules;
    FieldErrors expected;
  };
  const Case cases[] = {
      {plain, "{}", kUserRules, {{"", "missing instance identifier \"id\""}}},
      {plain, "{}", kDefaultRules, {{"", "missing instance identifier \"id\""}}},
      {plain, R"({"id": ""})", kUserRules, {{"/id", "instance identifier \"id\" must be a non-empty string, got \"\""}}},
      {plain, R"({"id": 7})", {3}, {{"/id", "instance identifier \"id\" must be a non-empty string, got 7"}}},
      {plain, R"({"id": "vmk0"})", kUserRules, {}},
      {generated, "{}", kDefaultRules, {}},
      {generated, "{}", kUserRules, {{"", "missing instance identifier \"cs_generated_id\""}}},
      {generated, "{}", {3, 4}, {{"", "missing instance identifier \"cs_generated_id\""}}},
      // Listed in "required" too: reported once.
      {required, "{}", kUserRules, {{"", "missing required member \"id\""}}},
      // Instance ids of nested objects (arrays of instances) are checked where they sit.
      {R"({"properties": {"list": {"items": {"properties": {"key": {"instanceId": true}}}}}})",
       R"({"list": [{"key": "a"}, {}]})", {3}, {{"/list/1", "missing instance identifier \"key\""}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.schema) + " " + c.value);
    EXPECT_EQ(ErrorsOf(c.schema, c.value, c.rules), c.expected);
  }
}

TEST_F(JsonValidatorTest, PatternsAreEnforcedWithEcmaMeanings) {
  std::string letters63(63, 'a');
  struct Case {
    const char* pattern;
    std::string value;
    bool matches;
  };
  const Case cases[] = {
      {"^\\d+$", "123", true},
      {"^\\d+$", "12a", false},
      {"^\\d+$", "\u0661\u0662", false},  // Arabic-Indic digits are not \d
      {"^\\w+$", "a_1", true},
      {"^\\w+$", "\u00e9", false},
      {"^[a-z]{0,63}$", letters63, true},
      {"^[a-z]{0,63}$", letters63 + "a", false},
      {"^[a-z]{0,63}$", "", true},
      {"^[a-z]{0,63}$", "abc-", false},
      {"^\\s$", "\u00a0", true},  // ECMA white space, wider than RE2's \s
      {"^\\S$", "\u00a0", false},
      {"^\\u0041$", "A", true},
      {"^\\cJ$", "\n", true},
      {"^\\p{Letter}+$", "\u00e9t\u00e9", true},
      {"b", "abc", true},  // unanchored search
      {"^abc$", "abc\n", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.pattern) + " on " + c.value);
    rapidjson::Document schema;
    schema.SetObject();
    schema.AddMember("pattern", rapidjson::StringRef(c.pattern), schema.GetAllocator());
    rapidjson::Value value(c.value.c_str(), schema.GetAllocator());
    FieldErrors errors = ErrorsOf(schema, value, {8});
    EXPECT_EQ(errors.empty(), c.matches);
    if (!c.matches && !errors.empty()) {
      EXPECT_EQ(errors[0].second, std::string("does not match pattern ") + c.pattern);
    }
  }
  FieldErrors keys = ErrorsOf(R"({"patternProperties": {"^\\d+$": {"type": "integer"}}})", R"({"12": 1, "x1": 2})", {0, 7});
  EXPECT_EQ(keys, (FieldErrors{{"/x1", "unknown member \"x1\""}}));
}

TEST_F(JsonValidatorTest, CompilesOncePerKeyAndAgainWhenTheSchemaChanges) {
  rapidjson::Document schema = Json(R"({"type": "object", "properties": {"mtu": {"type": "integer", "maximum": 9000}}})");
  rapidjson::Document good = Json(R"({"mtu": 1500})"), bad = Json(R"({"mtu": 9001})");
  for (int i = 0; i < 5000; ++i) {
    ASSERT_TRUE(ErrorsOf(schema, i % 2 ? bad : good, kUserRules, "qor/network/nics").empty() == (i % 2 == 0)) << i;
  }
  EXPECT_EQ(JsonValidator::CacheStats().compiles, 1u);
  EXPECT_EQ(JsonValidator::CacheStats().hits, 4999u);

  // The same name with a changed schema: compiled again, and the new bound holds.
  schema["properties"]["mtu"]["maximum"] = 9216;
  EXPECT_TRUE(ErrorsOf(schema, bad, kUserRules, "qor/network/nics").empty());
  EXPECT_EQ(JsonValidator::CacheStats().compiles, 2u);
  // Another rule set is another key.
  ErrorsOf(schema, bad, kDefaultRules, "qor/network/nics");
  EXPECT_EQ(JsonValidator::CacheStats().compiles, 3u);

  // A caller's own text of the schema, laid out otherwise, names the same schema: one more compile
  // at most, and the bound of the value it was given holds.
  const std::string text = R"({ "type": "object", "properties": { "mtu": { "type": "integer", "maximum": 9216 } } })";
  rapidjson::Document errors;
  for (int i = 0; i < 3; ++i) {
    JsonValidator::Validate(schema, text, bad, errors, kUserRules, "qor/network/nics");
    EXPECT_TRUE(errors.IsArray() && errors.Empty()) << i;
  }
  EXPECT_EQ(JsonValidator::CacheStats().compiles, 4u);

  JsonValidator::ClearCache();
  EXPECT_EQ(JsonValidator::CacheStats().entries, 0u);
  EXPECT_EQ(JsonValidator::CacheStats().compiles, 0u);
}

TEST_F(JsonValidatorTest, ConcurrentValidationsShareTheCache) {
  rapidjson::Document schema = Json(R"({"properties": {"n": {"maximum": 10}}})");
  rapidjson::Document bad = Json(R"({"n": 11})");
  std::vector<std::thread> threads;
  std::vector<int> wrong(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 500; ++i) {
        rapidjson::Document errors;
        JsonValidator::Validate(schema, bad, errors, {8}, "shared");
        if (errors.Size() != 1) ++wrong[t];
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(wrong, std::vector<int>(4, 0));
  JsonValidator::CacheStatistics stats = JsonValidator::CacheStats();
  EXPECT_EQ(stats.compiles + stats.hits, 2000u);
  EXPECT_LE(stats.compiles, 4u);
}

TEST_F(JsonValidatorTest, BadSchemasAreReportedNotFatal) {
  struct Case {
    const char* schema;
    const char* mentions;
  };
  const Case cases[] = {
      {R"j({"properties": {"a": {"pattern": "("}}})j", "#/properties/a/pattern"},
      {R"j({"pattern": "(?=a)b"})j", "bad pattern"},  // look-ahead: RE2 refuses it
      {R"({"patternProperties": {"[": {}}})", "bad pattern \"[\""},
      {R"({"properties": {"a": 5}})", "#/properties/a: a schema must be an object"},
      {R"({"items": [{}, "x"]})", "#/items/1: a schema must be an object"},
      // Where a schema error lies: through indexes and escaped names, at a "$ref" target's own place,
      // and below the "$ref" for a target that no schema keyword reaches.
      {R"({"allOf": [{}, {"not": {"items": {"maxItems": -2}}}]})", "#/allOf/1/not/items/maxItems: \"maxItems\""},
      {R"({"dependencies": {"a/b": 5}})", "#/dependencies/a~1b: a schema must be an object"},
      {R"({"$ref": "#/definitions/a", "definitions": {"a": {"properties": {"x": 5}}}})",
       "#/definitions/a/properties/x: a schema must be an object"},
      {R"({"properties": {"p": {"$ref": "#/enum/0"}}, "enum": [{"minimum": "1"}]})",
       "#/properties/p/$ref/minimum: \"minimum\" must be a number"},
      {R"({"$ref": "#/definitions/missing"})", "points to nothing"},
      {R"({"$ref": "http://example.com/x.json"})", "cannot resolve $ref"},
      {R"({"$ref": "#"})", "$ref cycle"},
      {R"({"definitions": {"a": {"$ref": "#/definitions/b"}, "b": {"$ref": "#/definitions/a"}}, "properties": {"x": {"$ref": "#/definitions/a"}}})",
       "$ref cycle"},
      {R"({"minimum": "1"})", "\"minimum\" must be a number"},
      {R"({"maxLength": -1})", "\"maxLength\" must be a non-negative integer"},
      {R"({"type": "strin"})", "\"type\" must be a type name"},
      {R"({"required": "a"})", "\"required\" must be an array"},
      {R"j({"definitions": {"unused": {"pattern": "(?<=x)"}}})j", "#/definitions/unused/pattern"},
      {R"([1, 2])", "a schema must be an object"},
      {R"("text")", "a schema must be an object"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.schema);
    for (const std::set<int>& rules : {kUserRules, std::set<int>{2}}) {
      FieldErrors errors = ErrorsOf(c.schema, R"({"a": "x"})", rules, "qor/bad/key");
      ASSERT_EQ(errors.size(), 1u);
      EXPECT_EQ(errors[0].first, "");
      EXPECT_EQ(errors[0].second.rfind("invalid schema qor/bad/key: ", 0), 0u) << errors[0].second;
      EXPECT_NE(errors[0].second.find(c.mentions), std::string::npos) << errors[0].second;
    }
  }
  EXPECT_TRUE(log_.Contains("Invalid schema qor/bad/key", CSLogger::PRIO_WARNING));
}

TEST_F(JsonValidatorTest, LocalReferencesAndDefinitionsWork) {
  const char* schema = R"({"definitions": {"nic": {"type": "object", "required": ["name"],
      "properties": {"name": {"type": "string"}, "children": {"type": "array", "items": {"$ref": "#/definitions/nic"}}}}},
      "$ref": "#/definitions/nic"})";
  FieldErrors expected = {{"/children/0/children/0", "missing required member \"name\""},
                          {"/children/1/name", "must be of type string, got integer"}};
  EXPECT_EQ(ErrorsOf(schema, R"({"name": "a", "children": [{"name": "b", "children": [{}]}, {"name": 3}]})", kUserRules),
            expected);
}

rapidjson::Value NestedArrays(int depth, rapidjson::Document::AllocatorType& a) {
  rapidjson::Value v(rapidjson::kArrayType);
  for (int i = 0; i < depth; ++i) {
    rapidjson::Value outer(rapidjson::kArrayType);
    outer.PushBack(v, a);
    v = outer;
  }
  return v;
}

TEST_F(JsonValidatorTest, HostileValuesAndSchemasGetClearErrors) {
  rapidjson::Document doc;
  rapidjson::Value deep = NestedArrays(100000, doc.GetAllocator());

  // A recursive schema stops at the nesting limit, at a readable field.
  FieldErrors errors = ErrorsOf(Json(R"({"items": {"$ref": "#"}})"), deep, {2});
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].second, "nested deeper than 128 levels; not checked further");
  EXPECT_EQ(errors[0].first.size(), 2u * 128);  // "/0" per level below the root
  // A schema that does not descend does not care.
  EXPECT_TRUE(ErrorsOf(Json(R"({"type": "array", "uniqueItems": true, "enum": [[]]})"), deep, {0}).empty());
  EXPECT_EQ(ErrorsOf(Json(R"({"enum": [[]]})"), deep, {8}).size(), 1u);

  // Composition that applies the same schema to the same value forever.
  errors = ErrorsOf(R"({"allOf": [{"$ref": "#"}]})", "1", {0});
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].second, "nested deeper than 128 levels; not checked further");

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
  FieldErrors errors = ErrorsOf(Json(R"({"uniqueItems": true})"), value, {8});
  EXPECT_EQ(errors, (FieldErrors{{"", "must not repeat elements: elements 5 and 200000 are equal"}}));

  errors = ErrorsOf(Json(R"({"items": {"type": "string"}})"), value, {0});
  ASSERT_EQ(errors.size(), 1001u);
  EXPECT_EQ(errors[0], (std::pair<std::string, std::string>{"/0", "must be of type string, got integer"}));
  EXPECT_EQ(errors.back(), (std::pair<std::string, std::string>{"", "more than 1000 errors; the rest are not listed"}));
}

TEST_F(JsonValidatorTest, RemoteReferencesGoThroughTheResolver) {
  rapidjson::Document remote = Json(R"({"definitions": {"port": {"type": "integer", "maximum": 65535}}})");
  std::vector<std::string> asked;
  JsonValidator::SetRemoteResolver([&](const std::string& uri) -> const rapidjson::Value* {
    asked.push_back(uri);
    return uri == "http://schemas.local/common.json" ? &remote : nullptr;
  });
  const char* schema = R"({"id": "http://schemas.local/nic.json", "properties": {"port": {"$ref": "common.json#/definitions/port"}}})";
  EXPECT_EQ(ErrorsOf(schema, R"({"port": 70000})", {2}), (FieldErrors{{"/port", "must be at most 65535, got 70000"}}));
  EXPECT_EQ(asked, std::vector<std::string>{"http://schemas.local/common.json"});
  JsonValidator::SetRemoteResolver(nullptr);
  EXPECT_EQ(ErrorsOf(schema, R"({"port": 70000})", {2}).at(0).second.rfind("invalid schema", 0), 0u);
}

}  // namespace
}  // namespace cstest
