// Schema documents for whole desired configurations, and generated instance ids.
#include <gtest/gtest.h>

#include <regex>
#include <set>

#include "platform/schemastore/SchemaDocument.h"
#include "platform/validator/JsonValidator.h"
#include "tests/platform/schemastore/SchemaStoreTestSupport.h"

namespace {

using QorSchemaStore::GenerateSchemaDocument;
using QorSchemaStore::PopulateGeneratedInstanceId;
using QorSchemaStore::SchemaObjectId;
using QorSchemaStore::UnknownObjects;

// Its schema refers to its own definitions (behind a "default" that is data, as an "enum" value
// that looks like a reference is).
const sstest::Element kRoutes{"qor", "network", "routes", R"({"version": "1.0", "schema": {"type": "object",
  "default": {"port": 1}, "definitions": {"port": {"type": "integer", "minimum": 1, "maximum": 65535}},
  "properties": {"name": {"type": "string", "instanceId": true}, "port": {"$ref": "#/definitions/port"},
                 "tag": {"enum": [{"$ref": "#/literal"}]}}}})", false};
const std::string kKeys = "/properties/profile/properties/qor/properties";
const std::set<int> kRules = {0, 1, 4, 7, 8};

rapidjson::Document Parse(const std::string& text) {
  rapidjson::Document doc;
  doc.Parse(text.c_str());
  EXPECT_FALSE(doc.HasParseError()) << text;
  return doc;
}

std::string Text(const rapidjson::Value& value) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  value.Accept(writer);
  return buffer.GetString();
}

class SchemaDocumentTest : public sstest::SchemaStoreFixture {
 protected:
  void SetUp() override {
    sstest::SchemaStoreFixture::SetUp();
    Register({sstest::Nuknics(), sstest::Hostname(), sstest::Rules(), kRoutes});
    cache_ = QorSchemaStore::SchemaStore::GetCache();
  }
  // The schema at a JSON pointer of the generated document ("" when absent); "#/x" follows a "$ref".
  std::string At(const std::string& pointer) const {
    const rapidjson::Value* v = rapidjson::Pointer(pointer.c_str()).Get(schema_);
    return v ? (v->IsString() ? v->GetString() : Text(*v)) : "";
  }
  std::string Errors(const rapidjson::Document& desired) {
    GenerateSchemaDocument(desired, cache_, schema_);
    rapidjson::Document errors;
    JsonValidator::Validate(schema_, desired, errors, kRules, "desired");
    std::set<std::string> fields;
    for (const auto& e : errors.GetArray()) fields.insert(e["field"].GetString());
    std::string joined;
    for (const auto& f : fields) joined += f + " ";
    return joined;
  }
  std::shared_ptr<QorSchemaStore::SchemaObjectCache> cache_;
  rapidjson::Document schema_;
};

TEST_F(SchemaDocumentTest, EachKeyIsDescribedByTheShapeOfItsValue) {
  GenerateSchemaDocument(Parse(R"({"profile": {"qor": {
    "network": {"nuknics": [{"name": "nuk0"}], "routes": [{"name": "r1", "port": 80}]},
    "system": {"hostname": {"name": "esx1"}}, "firewall": {"rules": "DELETE_DEFAULT"}}}})"), cache_, schema_);
  for (const std::string& level : {std::string("/properties/profile"), kKeys.substr(0, 34), kKeys + "/network"}) {
    EXPECT_EQ(At(level + "/type") + At(level + "/additionalProperties"), "objectfalse") << level;
  }
  // Instances: an array of the key's schema. A singleton: the schema itself.
  const std::string nuknics = At(kKeys + "/network/properties/nuknics/items/$ref");
  EXPECT_EQ(At(nuknics.substr(1)), Text(cache_->GetSchema(SchemaObjectId("qor", "network", "nuknics"))->GetSchemaValue()));
  const std::string hostname = At(kKeys + "/system/properties/hostname/$ref");
  EXPECT_EQ(At(hostname.substr(1)), Text(cache_->GetSchema(SchemaObjectId("qor", "system", "hostname"))->GetSchemaValue()));
  EXPECT_EQ(At(kKeys + "/firewall/properties/rules"), R"({"enum":["DELETE_DEFAULT"]})");
  // The copied schema's own references are rebased onto its place; data is left as it was.
  const std::string routes = At(kKeys + "/network/properties/routes/items/$ref");
  EXPECT_EQ(At(routes.substr(1) + "/properties/port/$ref"), routes + "/definitions/port");
  EXPECT_EQ(At(routes.substr(1) + "/properties/tag"), R"({"enum":[{"$ref":"#/literal"}]})");
}

TEST_F(SchemaDocumentTest, UnknownNamesAreClosedOutOrLeftOpenAsAsked) {
  rapidjson::Document desired = Parse(R"({"profile": {"vendor": {"tools": {"agent": {}}},
    "qor": {"nothing": {"here": {}}, "network": {"bogus": {}, "nuknics": {"name": "nuk0"}}}}})");
  GenerateSchemaDocument(desired, cache_, schema_, UnknownObjects::Refuse);
  EXPECT_EQ(At("/properties/profile/properties/vendor") + At(kKeys + "/nothing") + At(kKeys + "/network/properties/bogus"), "");
  EXPECT_NE(At(kKeys + "/network/properties/nuknics/$ref"), "");  // one instance given as an object
  GenerateSchemaDocument(desired, cache_, schema_, UnknownObjects::Accept);
  for (const std::string& level : {std::string("/properties/profile"), kKeys.substr(0, 34), kKeys + "/network"}) {
    EXPECT_EQ(At(level + "/additionalProperties"), "true") << level;
  }
}

// The whole document in one validator pass: what is valid passes, each fault is reported at its
// path, and a misshapen document still gets a schema that rejects it.
TEST_F(SchemaDocumentTest, TheWholeDesiredDocumentValidatesInOnePass) {
  EXPECT_EQ(Errors(Parse(R"({"profile": {"qor": {"network": {"nuknics": [{"name": "nuk0", "mtu": 1500}, {"name": "nuk1"}],
    "routes": [{"name": "r", "port": 80}]}, "system": {"hostname": {"name": "esx1"}}, "firewall": {"rules": [{"port": 22}]}}}})")), "");
  EXPECT_EQ(Errors(Parse(R"({"profile": {"qor": {"network": {"nuknics": [{"name": "nuk0", "mtu": 100}],
    "routes": [{"name": "r", "port": 70000}], "bogus": {}}, "system": {"hostname": [{"name": "esx1"}]},
    "firewall": {"rules": "DELETE"}}}})")),
            "/profile/qor/firewall/rules /profile/qor/network/bogus /profile/qor/network/nuknics/0/mtu "
            "/profile/qor/network/routes/0/port /profile/qor/system/hostname ");
  for (const char* text : {"[]", R"({"profile": 5})", R"({"profile": {"qor": {"network": []}}})"}) {
    EXPECT_NE(Errors(Parse(text)), "") << text;
  }
  EXPECT_THROW(GenerateSchemaDocument(Parse("{}"), nullptr, schema_), QorConfigStore::ConfigStoreException);
}

TEST_F(SchemaDocumentTest, GeneratedIdsAreFilledOnlyWhereAskedForAndAbsent) {
  auto rules = cache_->GetSchema(SchemaObjectId("qor", "firewall", "rules"));
  rapidjson::Document doc = Parse(R"([{"port": 22}, {"port": 23}, {"cs_generated_id": "keep"}, 5, {"name": "nuk0"}])");
  auto& a = doc.GetAllocator();
  EXPECT_TRUE(PopulateGeneratedInstanceId(*rules, doc[0], a));
  // A raw schema value: the generated id is found behind members that are not objects.
  EXPECT_TRUE(PopulateGeneratedInstanceId(Parse(R"({"properties": {"port": 1,
      "cs_generated_id": {"instanceId": true, "generatedId": true}}})"), doc[1], a));
  EXPECT_FALSE(PopulateGeneratedInstanceId(*rules, doc[2], a));
  EXPECT_FALSE(PopulateGeneratedInstanceId(*cache_->GetSchema(SchemaObjectId("qor", "network", "nuknics")), doc[4], a));
  const std::regex uuid("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
  EXPECT_TRUE(std::regex_match(doc[0]["cs_generated_id"].GetString(), uuid)) << Text(doc[0]);
  EXPECT_NE(Text(doc[0]["cs_generated_id"]), Text(doc[1]["cs_generated_id"]));
  EXPECT_EQ(Text(doc[2]) + Text(doc[4]), R"({"cs_generated_id":"keep"}{"name":"nuk0"})");
}

}  // namespace
