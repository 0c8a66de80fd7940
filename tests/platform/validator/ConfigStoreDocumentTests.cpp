#include "platform/validator/ConfigStoreDocument.h"
#include "tests/platform/validator/ValidatorTestSupport.h"
#include "tests/support/Sandbox.h"

namespace cstest {
namespace {

class ConfigStoreDocumentTest : public SandboxTest {};

TEST_F(ConfigStoreDocumentTest, ValueExistsOnlyForMembersOfObjects) {
  rapidjson::Document doc = Json(R"({"object": {"name": null, "": 1}, "array": ["name"], "text": "name"})");
  struct Case {
    const char* path;
    const char* name;
    bool exists;
  };
  const Case cases[] = {
      {"object", "name", true}, {"object", "", true},    {"object", "other", false}, {"object", nullptr, false},
      {"array", "name", false}, {"text", "name", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.path) + " " + (c.name ? c.name : "(null)"));
    EXPECT_EQ(ConfigStoreDocument::ValueExists(doc[c.path], c.name), c.exists);
  }
}

TEST_F(ConfigStoreDocumentTest, SerializeValueWritesCompactJsonInDocumentOrder) {
  struct Case {
    const char* input;
    const char* compact;
  };
  const Case cases[] = {
      {R"({ "z": 1, "a": [ true, null, 1.5, -3 ], "s": "q\"\\\u00e9\n" })", "{\"z\":1,\"a\":[true,null,1.5,-3],\"s\":\"q\\\"\\\\\u00e9\\n\"}"},
      {"[]", "[]"},
      {"{}", "{}"},
      {R"([[], {}, [{}]])", "[[],{},[{}]]"},
      {"\"x\"", "\"x\""},
      {"18446744073709551615", "18446744073709551615"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.input);
    std::string text = "previous content";
    ConfigStoreDocument::SerializeValue(Json(c.input), text);
    EXPECT_EQ(text, c.compact);
  }
}

TEST_F(ConfigStoreDocumentTest, SerializeValueHandlesAnyNesting) {
  rapidjson::Document doc;
  rapidjson::Value v(rapidjson::kObjectType);
  for (int i = 0; i < 200000; ++i) {
    rapidjson::Value outer(rapidjson::kObjectType);
    outer.AddMember("k", v, doc.GetAllocator());
    v = outer;
  }
  std::string text;
  ConfigStoreDocument::SerializeValue(v, text);
  EXPECT_EQ(text.size(), 200000u * 6 + 2);
  EXPECT_EQ(text.substr(0, 12), "{\"k\":{\"k\":{\"");
}

}  // namespace
}  // namespace cstest
