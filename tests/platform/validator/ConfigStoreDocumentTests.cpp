#include "platform/validator/ConfigStoreDocument.h"
#include "tests/platform/validator/ValidatorTestSupport.h"

namespace cstest {
namespace {

TEST(ConfigStoreDocumentTest, ValueExistsOnlyForMembersOfObjects) {
  rapidjson::Document doc = Json(R"({"object": {"name": null, "": 1}, "array": ["name"], "text": "name"})");
  const std::tuple<const char*, const char*, bool> cases[] = {
      {"object", "name", true}, {"object", "", true},    {"object", "other", false},
      {"object", nullptr, false}, {"array", "name", false}, {"text", "name", false}};
  for (const auto& [path, name, exists] : cases) {
    EXPECT_EQ(ConfigStoreDocument::ValueExists(doc[path], name), exists) << path << " " << (name ? name : "(null)");
  }
}

// Compact, in document order, and without recursion however deep the value nests.
TEST(ConfigStoreDocumentTest, SerializeValueWritesCompactJson) {
  std::string text = "previous content";
  ConfigStoreDocument::SerializeValue(Json(R"({ "z": 1, "a": [ true, {}, [{}], "q\"\n" ], "u": 18446744073709551615 })"),
                                      text);
  EXPECT_EQ(text, R"({"z":1,"a":[true,{},[{}],"q\"\n"],"u":18446744073709551615})");

  rapidjson::Document doc;
  rapidjson::Value v(rapidjson::kObjectType);
  for (int i = 0; i < 200000; ++i) {
    rapidjson::Value outer(rapidjson::kObjectType);
    outer.AddMember("k", v, doc.GetAllocator());
    v = outer;
  }
  ConfigStoreDocument::SerializeValue(v, text);
  EXPECT_EQ(text.size(), 200000u * 6 + 2);
  EXPECT_EQ(text.substr(0, 12), "{\"k\":{\"k\":{\"");
}

}  // namespace
}  // namespace cstest
