// Schema documents for whole desired configurations, and generated instance ids.
#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <string>
#include <vector>

#include "platform/schemastore/SchemaDocument.h"
#include "platform/validator/JsonValidator.h"
#include "tests/platform/schemastore/SchemaStoreTestSupport.h"

namespace {

using QorSchemaStore::GenerateSchemaDocument;
using QorSchemaStore::PopulateGeneratedInstanceId;
using QorSchemaStore::SchemaObjectId;
using QorSchemaStore::SchemaStore;
using QorSchemaStore::UnknownObjects;
using Strings = std::vector<std::string>;

// Its schema refers to its own definitions; an "enum" value that looks like a reference is data.
const sstest::Element kRoutes{"qor", "network", "routes", R"({"version": "1.0", "schema": {"type": "object",
  "definitions": {"port": {"type": "integer", "minimum": 1, "maximum": 65535}},
  "properties": {"name": {"type": "string", "instanceId": true},
                 "port": {"$ref": "#/definitions/port"},
                 "tag": {"enum": [{"$ref": "#/literal"}]}}}})",
                              false};

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
    cache_ = SchemaStore::GetCache();
  }

  // The schema at a JSON pointer of the generated document ("" when absent).
  std::string At(const std::string& pointer) const {
    const rapidjson::Value* v = rapidjson::Pointer(pointer.c_str()).Get(schema_);
    return v ? Text(*v) : "";
  }

  // The value a "$ref" text ("#/definitions/s0") points to inside the generated document.
  std::string Resolve(const std::string& ref) const {
    EXPECT_EQ(ref.rfind("#/", 0), 0u) << ref;
    return At(ref.substr(1));
  }

  std::string RefAt(const std::string& pointer) const {
    const rapidjson::Value* v = rapidjson::Pointer(pointer.c_str()).Get(schema_);
    return v && v->IsString() ? v->GetString() : "";
  }

  std::shared_ptr<QorSchemaStore::SchemaObjectCache> cache_;
  rapidjson::Document schema_;
};

const std::string kKeys = "/properties/profile/properties/qor/properties";

TEST_F(SchemaDocumentTest, EachKeyIsDescribedByTheShapeOfItsValue) {
  rapidjson::Document desired = Parse(R"({"profile": {"qor": {
    "network": {"nuknics": [{"name": "nuk0", "mtu": 1500}], "routes": [{"name": "r1", "port": 80}]},
    "system": {"hostname": {"name": "esx1"}},
    "firewall": {"rules": "DELETE_DEFAULT"}}}})");
  GenerateSchemaDocument(desired, cache_, schema_);

  EXPECT_EQ(At("/type"), "\"object\"");
  EXPECT_EQ(At("/required"), "[\"profile\"]");
  for (const std::string& level : Strings{"/properties/profile", "/properties/profile/properties/qor",
                                          kKeys + "/network", kKeys + "/system", kKeys + "/firewall"}) {
    SCOPED_TRACE(level);
    EXPECT_EQ(At(level + "/type"), "\"object\"");
    EXPECT_EQ(At(level + "/additionalProperties"), "false");
  }

  // Instances: an array of the key's schema. A singleton: the schema itself.
  EXPECT_EQ(At(kKeys + "/network/properties/nuknics/type"), "\"array\"");
  std::string nuknicsRef = RefAt(kKeys + "/network/properties/nuknics/items/$ref");
  EXPECT_EQ(Resolve(nuknicsRef),
            Text(cache_->GetSchema(SchemaObjectId("qor", "network", "nuknics"))->GetSchemaValue()));
  std::string hostnameRef = RefAt(kKeys + "/system/properties/hostname/$ref");
  EXPECT_EQ(Resolve(hostnameRef),
            Text(cache_->GetSchema(SchemaObjectId("qor", "system", "hostname"))->GetSchemaValue()));
  EXPECT_NE(nuknicsRef, hostnameRef);
  EXPECT_EQ(At(kKeys + "/firewall/properties/rules"), R"({"enum":["DELETE_DEFAULT"]})");

  // The copied schema's own references are rebased onto its place; data is left as it was.
  std::string routesRef = RefAt(kKeys + "/network/properties/routes/items/$ref");
  std::string portRef = RefAt(routesRef.substr(1) + "/properties/port/$ref");
  EXPECT_EQ(portRef, routesRef + "/definitions/port");
  EXPECT_EQ(Resolve(portRef), R"({"type":"integer","minimum":1,"maximum":65535})");
  EXPECT_EQ(At(routesRef.substr(1) + "/properties/tag"), R"({"enum":[{"$ref":"#/literal"}]})");

  // Generating again replaces everything.
  GenerateSchemaDocument(Parse(R"({"profile": {}})"), cache_, schema_);
  EXPECT_EQ(At("/definitions"), "{}");
  EXPECT_EQ(At("/properties/profile/properties"), "{}");
}

TEST_F(SchemaDocumentTest, UnknownNamesAreClosedOutOrLeftOpenAsAsked) {
  rapidjson::Document desired = Parse(R"({"profile": {
    "vendor": {"tools": {"agent": {}}},
    "qor": {"nothing": {"here": {}}, "network": {"bogus": {}, "nuknics": {"name": "nuk0"}}}}})");

  GenerateSchemaDocument(desired, cache_, schema_, UnknownObjects::Refuse);
  EXPECT_EQ(At("/properties/profile/properties/vendor"), "");
  EXPECT_EQ(At(kKeys + "/nothing"), "");
  EXPECT_EQ(At(kKeys + "/network/properties/bogus"), "");
  EXPECT_EQ(At(kKeys + "/network/additionalProperties"), "false");
  EXPECT_NE(At(kKeys + "/network/properties/nuknics/$ref"), "");  // one instance given as an object

  GenerateSchemaDocument(desired, cache_, schema_, UnknownObjects::Accept);
  EXPECT_EQ(At("/properties/profile/additionalProperties"), "true");
  EXPECT_EQ(At("/properties/profile/properties/qor/additionalProperties"), "true");
  EXPECT_EQ(At(kKeys + "/network/additionalProperties"), "true");
  EXPECT_NE(At(kKeys + "/network/properties/nuknics/$ref"), "");
}

TEST_F(SchemaDocumentTest, MisshapenDocumentsStillGiveASchemaThatRejectsThem) {
  for (const char* text :
       {"[]", "{}", R"({"profile": 5})", R"({"profile": {"qor": 5}})", R"({"profile": {"qor": {"network": []}}})"}) {
    SCOPED_TRACE(text);
    rapidjson::Document desired = Parse(text);
    GenerateSchemaDocument(desired, cache_, schema_);
    rapidjson::Document errors;
    JsonValidator::Validate(schema_, desired, errors, {0, 1, 4, 7, 8}, "desired");
    ASSERT_TRUE(errors.IsArray());
    EXPECT_FALSE(errors.Empty()) << Text(schema_);
  }
  EXPECT_THROW(GenerateSchemaDocument(Parse("{}"), nullptr, schema_), QorConfigStore::ConfigStoreException);
}

// The whole document in one validator pass: what is valid passes, and each fault is reported at its path.
TEST_F(SchemaDocumentTest, TheWholeDesiredDocumentValidatesInOnePass) {
  const std::set<int> rules = {0, 1, 4, 7, 8};
  rapidjson::Document good = Parse(R"({"profile": {"qor": {
    "network": {"nuknics": [{"name": "nuk0", "mtu": 1500}, {"name": "nuk1"}], "routes": [{"name": "r", "port": 80}]},
    "system": {"hostname": {"name": "esx1"}},
    "firewall": {"rules": [{"port": 22}]}}}})");
  GenerateSchemaDocument(good, cache_, schema_);
  rapidjson::Document errors;
  JsonValidator::Validate(schema_, good, errors, rules, "desired");
  EXPECT_EQ(Text(errors), "[]");

  rapidjson::Document bad = Parse(R"({"profile": {"qor": {
    "network": {"nuknics": [{"name": "nuk0", "mtu": 100}], "routes": [{"name": "r", "port": 70000}], "bogus": {}},
    "system": {"hostname": [{"name": "esx1"}]},
    "firewall": {"rules": "DELETE"}}}})");
  GenerateSchemaDocument(bad, cache_, schema_);
  JsonValidator::Validate(schema_, bad, errors, rules, "desired");
  ASSERT_TRUE(errors.IsArray());
  std::set<std::string> fields;
  for (const auto& e : errors.GetArray()) fields.insert(e["field"].GetString());
  EXPECT_EQ(fields, (std::set<std::string>{"/profile/qor/network/nuknics/0/mtu", "/profile/qor/network/routes/0/port",
                                           "/profile/qor/network/bogus", "/profile/qor/system/hostname",
                                           "/profile/qor/firewall/rules"}))
      << Text(errors);
}

TEST_F(SchemaDocumentTest, GeneratedIdsAreFilledOnlyWhereAskedForAndAbsent) {
  const std::regex uuid("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
  auto rules = cache_->GetSchema(SchemaObjectId("qor", "firewall", "rules"));
  auto nuknics = cache_->GetSchema(SchemaObjectId("qor", "network", "nuknics"));

  rapidjson::Document doc = Parse(R"([{"port": 22}, {"port": 23}, {"cs_generated_id": "keep", "port": 24},
                                      {"cs_generated_id": null}, 5, {"name": "nuk0"}])");
  auto& a = doc.GetAllocator();
  EXPECT_TRUE(PopulateGeneratedInstanceId(*rules, doc[0], a));
  EXPECT_TRUE(PopulateGeneratedInstanceId(rules->GetSchemaValue(), doc[1], a));
  EXPECT_FALSE(PopulateGeneratedInstanceId(*rules, doc[2], a));
  EXPECT_FALSE(PopulateGeneratedInstanceId(*rules, doc[3], a));
  EXPECT_FALSE(PopulateGeneratedInstanceId(*rules, doc[4], a));
  EXPECT_FALSE(PopulateGeneratedInstanceId(*nuknics, doc[5], a));  // its id is the user's "name"

  std::string first = doc[0]["cs_generated_id"].GetString();
  std::string second = doc[1]["cs_generated_id"].GetString();
  EXPECT_TRUE(std::regex_match(first, uuid)) << first;
  EXPECT_TRUE(std::regex_match(second, uuid)) << second;
  EXPECT_NE(first, second);
  EXPECT_EQ(doc[0]["port"].GetInt(), 22);
  EXPECT_EQ(Text(doc[2]), R"({"cs_generated_id":"keep","port":24})");
  EXPECT_EQ(Text(doc[3]), R"({"cs_generated_id":null})");
  EXPECT_EQ(Text(doc[5]), R"({"name":"nuk0"})");

  // A filled instance passes the check that wants an identifier unless it is generated.
  rapidjson::Document errors;
  JsonValidator::Validate(rules->GetSchemaValue(), doc[0], errors, {0, 1, 3, 7, 8}, "rules");
  EXPECT_EQ(Text(errors), "[]");
}

}  // namespace
