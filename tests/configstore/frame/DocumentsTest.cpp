// Documents: parsing, navigation, the user/vital/cached split and validation of user values.
#include <gmock/gmock.h>

#include "configstore/frame/CallFrame.h"
#include "configstore/frame/Documents.h"
#include "platform/validator/ConfigStoreDocument.h"
#include "tests/support/Sandbox.h"

namespace QorConfigStore {
namespace {

using DocumentsTest = cstest::SandboxTest;

std::shared_ptr<JsonDoc> Parse(const std::string& text) { return CreateDocumentFromString(text); }

// A network interface list: "name" identifies, "mac" is vital, "stats" cached, the rest user's.
const char* kNicSchema = R"({
  "type": "object",
  "properties": {
    "name":  {"type": "string", "instanceId": true},
    "mtu":   {"type": "integer", "minimum": 1280, "maximum": 9000},
    "mac":   {"type": "string", "vital": true},
    "stats": {"type": "object", "cached": true, "properties": {"rx": {"type": "integer"}}},
    "off":   {"type": "boolean", "vital": false},
    "tags":  {"type": "array", "items": {"type": "string"}},
    "ports": {"type": "array", "items": {"type": "object", "properties": {
        "id":    {"type": "string", "instanceId": true},
        "speed": {"type": "integer"},
        "pci":   {"type": "string", "vital": true}}}}
  }
})";

TEST_F(DocumentsTest, SplitSeparatesUserVitalAndCachedParts) {
  struct Case {
    const char* name;
    const char* value;
    const char* user;
    const char* vital;
    const char* cached;  // "" when a part is reduced to the identifier alone and dropped
  };
  const Case cases[] = {
      {"identifier kept in every part", R"({"name":"nic0","mac":"00:11","mtu":1500})", R"({"name":"nic0","mtu":1500})",
       R"({"name":"nic0","mac":"00:11"})", ""},
      {"presence of vital decides even when false", R"({"name":"nic0","off":true,"stats":{"rx":5}})",
       R"({"name":"nic0"})", R"({"name":"nic0","off":true})", R"({"name":"nic0","stats":{"rx":5}})"},
      {"arrays of objects pruned element by element, order kept",
       R"({"name":"n","tags":["a","b"],"ports":[{"id":"p1","speed":10,"pci":"0:1"},{"id":"p2","speed":20},{"id":"p3","pci":"0:3"}]})",
       R"({"name":"n","tags":["a","b"],"ports":[{"id":"p1","speed":10},{"id":"p2","speed":20},{"id":"p3"}]})",
       R"({"name":"n","ports":[{"id":"p1","pci":"0:1"},{"id":"p3","pci":"0:3"}]})", ""},
      {"empty object belongs to the user", "{}", "{}", "", ""},
      {"empty array belongs to the user", "[]", "[]", "", ""},
  };
  auto schema = Parse(kNicSchema);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto value = Parse(c.value);
    auto parts = SplitConfig(*value->document, *schema->document);
    EXPECT_EQ(parts, (std::unordered_map<std::string, std::string>{
                         {"user", c.user}, {"vital", c.vital}, {"cached", c.cached}}));
    EXPECT_TRUE(*value->document == *Parse(c.value)->document) << "the input is left alone";
    // Pruning a copy in place gives the same parts.
    for (const char* part : {"user", "vital", "cached"}) {
      auto copy = Parse(c.value);
      std::string text;
      if (ProcessConfig(*copy->document, *schema->document, part)) ConfigStoreDocument::SerializeValue(*copy->document, text);
      EXPECT_EQ(text, parts[part]) << part;
    }
  }
  try {
    SplitConfig(*Parse(R"({"name":"nic0","unknown":1})")->document, *schema->document);
    ADD_FAILURE() << "a member without schema was split";
  } catch (const ConfigStoreException& e) {
    EXPECT_EQ(e.code(), CS_ERR_JSON_TYPE);
  }
}

TEST_F(DocumentsTest, ParsingRefusesBadAndHostileText) {
  const std::string depth(kMaxJsonDepth, '[');
  const std::pair<std::string, bool> cases[] = {
      {"{", false},
      {"[NaN]", false},
      {std::string("{\"a\":1}\0", 8), false},
      {std::string(100000, '[') + std::string(100000, ']'), false},  // refused, not a stack overflow
      {depth + std::string(kMaxJsonDepth, ']'), true},
      {"[\"" + std::string(5000, '[') + "\"]", true},  // brackets inside strings do not count
      {"[1.7976931348623157e308]", true},
      {"[{\"mtu\":21e308}]", false},  // past the double range: would be read as infinity
  };
  for (const auto& [text, ok] : cases) {
    SCOPED_TRACE(text.substr(0, 40));
    try {
      EXPECT_TRUE(CreateDocumentFromString(text)->document->IsArray());
      EXPECT_TRUE(ok);
    } catch (const InvalidArgumentException& e) {
      EXPECT_FALSE(ok);
      EXPECT_EQ(e.code(), CS_ERR_JSON_PARSE_STRING);
    }
  }

  std::string missing = Path("/etc/none.json");
  try {
    CreateDocumentFromFile(missing);
    ADD_FAILURE() << "no throw";
  } catch (const InvalidArgumentException& e) {
    EXPECT_EQ(e.code(), CS_ERR_JSON_PARSE_FILE);
    EXPECT_THAT(e.what(), testing::HasSubstr(missing));
  }
  WriteFile("/etc/null.json", "null");
  EXPECT_TRUE(CreateDocumentFromFile(Path("/etc/null.json"))->document->IsNull());
  WriteFile("/etc/trailing.json", "{} x");
  EXPECT_THROW(CreateDocumentFromFile(Path("/etc/trailing.json")), InvalidArgumentException);
}

TEST_F(DocumentsTest, NavigationFollowsMembersAndInstances) {
  auto doc = Parse(R"({"qor":{"network":{"nics":[{"name":"a","mtu":1},{"name":"b","mtu":2}]}}})");
  EXPECT_EQ(doc->GetJsonValuePtr(), doc->document.get()) << "an empty path is the root";
  doc->path = {{"qor", "", ""}, {"network", "", ""}, {"nics", "name", "b"}};
  EXPECT_EQ((*doc->GetJsonValuePtr())["mtu"].GetInt(), 2);
  doc->path.back().value = "z";
  EXPECT_EQ(cstest::Thrown([&] { doc->GetJsonValuePtr(); }), "2000 Subobject instance does not exists.");
  doc->path = {{"qor", "", ""}, {"storage", "", ""}};
  EXPECT_EQ(cstest::Thrown([&] { doc->GetJsonValuePtr(); }), "2000 Subobject does not exists.");
}

TEST_F(DocumentsTest, ValidationLogsEveryErrorAndPassesOnlyTheDeleteMarker) {
  auto schema = Parse(R"({"type":"object","required":["name"],"properties":{
      "name":{"type":"string","instanceId":true},"mtu":{"type":"integer","maximum":9000},
      "mode":{"type":"string","enum":["a","b"]}}})");
  EXPECT_TRUE(ValidateUserObject(*schema->document, *Parse(R"({"name":"nic0","mtu":1500})")->document, "k", false));
  log_.Clear();
  EXPECT_FALSE(
      ValidateUserObject(*schema->document, *Parse(R"({"name":"nic0","mtu":12000,"mode":"c"})")->document, "k", false));
  EXPECT_EQ(log_.Count("[1083]"), 2u) << "both errors are logged, not only the first";
  EXPECT_TRUE(log_.Contains("mtu"));
  EXPECT_TRUE(log_.Contains("mode"));

  auto marker = Parse(R"("DELETE_DEFAULT")");
  EXPECT_TRUE(ValidateUserObject(*schema->document, *marker->document, "k", true));
  EXPECT_FALSE(ValidateUserObject(*schema->document, *Parse(R"("DELETE")")->document, "k", true));
  log_.Clear();
  EXPECT_FALSE(ValidateUserObject(*schema->document, *marker->document, "k", false))
      << "without the flag a string is validated like any value";
  EXPECT_EQ(log_.Count("[1083]"), 1u);

  EXPECT_TRUE(checkValidationErrors(*Parse("[]")->document));
  EXPECT_THROW(checkValidationErrors(*Parse("{}")->document), ConfigStoreException);
  EXPECT_THROW(checkValidationErrors(*Parse(R"([{"field":1,"error":"x"}])")->document), ConfigStoreException);
}

}  // namespace
}  // namespace QorConfigStore
