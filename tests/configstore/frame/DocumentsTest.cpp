// Documents: parsing, navigation, the user/vital/cached split and validation of user values.
#include <gmock/gmock.h>

#include "configstore/frame/CallFrame.h"
#include "configstore/frame/Documents.h"
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

std::unordered_map<std::string, std::string> Split(const std::string& value) {
  auto v = Parse(value);
  auto schema = Parse(kNicSchema);
  return SplitConfig(*v->document, *schema->document);
}

TEST_F(DocumentsTest, SplitKeepsTheIdentifierInEveryPart) {
  auto parts = Split(R"({"name":"nic0","mac":"00:11","mtu":1500})");
  EXPECT_EQ(parts["user"], R"({"name":"nic0","mtu":1500})");
  EXPECT_EQ(parts["vital"], R"({"name":"nic0","mac":"00:11"})");
  EXPECT_EQ(parts["cached"], "") << "an object reduced to its identifier is dropped";
  EXPECT_EQ(parts.size(), 3u);
}

TEST_F(DocumentsTest, PresenceOfVitalDecidesEvenWhenFalse) {
  auto parts = Split(R"({"name":"nic0","off":true,"stats":{"rx":5}})");
  EXPECT_EQ(parts["user"], R"({"name":"nic0"})");
  EXPECT_EQ(parts["vital"], R"({"name":"nic0","off":true})");
  EXPECT_EQ(parts["cached"], R"({"name":"nic0","stats":{"rx":5}})");
}

TEST_F(DocumentsTest, ArraysOfObjectsArePrunedElementByElement) {
  auto parts = Split(R"({"name":"n","tags":["a","b"],"ports":[
      {"id":"p1","speed":10,"pci":"0:1"},{"id":"p2","speed":20},{"id":"p3","pci":"0:3"}]})");
  EXPECT_EQ(parts["user"],
            R"({"name":"n","tags":["a","b"],"ports":[{"id":"p1","speed":10},{"id":"p2","speed":20},{"id":"p3"}]})");
  EXPECT_EQ(parts["vital"], R"({"name":"n","ports":[{"id":"p1","pci":"0:1"},{"id":"p3","pci":"0:3"}]})")
      << "p2 is left with its identifier alone; the order of the others is kept";
  EXPECT_EQ(parts["cached"], "");
}

TEST_F(DocumentsTest, EmptyContainersBelongToTheUserOnly) {
  auto schema = Parse(kNicSchema);
  for (const char* text : {"{}", "[]"}) {
    SCOPED_TRACE(text);
    auto parts = SplitConfig(*Parse(text)->document, *schema->document);
    EXPECT_EQ(parts["user"], text);
    EXPECT_EQ(parts["vital"], "");
    EXPECT_EQ(parts["cached"], "");
  }
}

TEST_F(DocumentsTest, SplitLeavesTheInputAlone) {
  auto v = Parse(R"({"name":"nic0","mac":"00:11","mtu":1500})");
  auto schema = Parse(kNicSchema);
  SplitConfig(*v->document, *schema->document);
  EXPECT_EQ((*v->document).MemberCount(), 3u);
}

TEST_F(DocumentsTest, MemberWithoutSchemaThrows1082) {
  auto v = Parse(R"({"name":"nic0","unknown":1})");
  auto schema = Parse(kNicSchema);
  try {
    SplitConfig(*v->document, *schema->document);
    FAIL() << "no throw";
  } catch (const ConfigStoreException& e) {
    EXPECT_EQ(e.code(), CS_ERR_JSON_TYPE);
  }
}

TEST_F(DocumentsTest, ParseFailuresGiveTheirCodes) {
  try {
    CreateDocumentFromString("{");
    FAIL() << "no throw";
  } catch (const InvalidArgumentException& e) {
    EXPECT_EQ(e.code(), 1080);
  }
  std::string missing = Path("/etc/none.json");
  try {
    CreateDocumentFromFile(missing);
    FAIL() << "no throw";
  } catch (const InvalidArgumentException& e) {
    EXPECT_EQ(e.code(), 1081);
    EXPECT_THAT(e.what(), testing::HasSubstr(missing));
  }
  WriteFile("/etc/null.json", "null");
  EXPECT_TRUE(CreateDocumentFromFile(Path("/etc/null.json"))->document->IsNull());
  WriteFile("/etc/trailing.json", "{} x");
  EXPECT_THROW(CreateDocumentFromFile(Path("/etc/trailing.json")), InvalidArgumentException);
  const std::string bad[] = {"{\"a\":1,}", "[NaN]", "// c\n{}", "{'a':1}", std::string("{\"a\":1}\0", 8)};
  for (const auto& text : bad) {
    SCOPED_TRACE(text);
    EXPECT_THROW(CreateDocumentFromString(text), InvalidArgumentException);
  }
}

TEST_F(DocumentsTest, HostileNestingIsRefusedNotOverflowed) {
  EXPECT_THROW(CreateDocumentFromString(std::string(100000, '[') + std::string(100000, ']')),
               InvalidArgumentException);
  std::string deepButFine = std::string(kMaxJsonDepth, '[') + std::string(kMaxJsonDepth, ']');
  EXPECT_TRUE(CreateDocumentFromString(deepButFine)->document->IsArray());
  // Brackets inside strings do not count.
  EXPECT_TRUE(CreateDocumentFromString("[\"" + std::string(5000, '[') + "\"]")->document->IsArray());
}

TEST_F(DocumentsTest, NavigationFollowsMembersAndInstances) {
  auto doc = Parse(R"({"qor":{"network":{"nics":[{"name":"a","mtu":1},{"name":"b","mtu":2}]}}})");
  EXPECT_EQ(doc->GetJsonValuePtr(), doc->document.get()) << "an empty path is the root";
  doc->path = {{"qor", "", ""}, {"network", "", ""}, {"nics", "name", "b"}};
  EXPECT_EQ((*doc->GetJsonValuePtr())["mtu"].GetInt(), 2);

  doc->path = {{"qor", "", ""}, {"storage", "", ""}};
  try {
    doc->GetJsonValuePtr();
    FAIL() << "no throw";
  } catch (const ConfigStoreException& e) {
    EXPECT_EQ(e.code(), 2000);
    EXPECT_STREQ(e.what(), "Subobject does not exists.");
    EXPECT_TRUE(log_.Contains("Cannot find subobject storage", CSLogger::PRIO_ERROR));
  }
  doc->path = {{"qor", "", ""}, {"network", "", ""}, {"nics", "name", "z"}};
  try {
    doc->GetJsonValuePtr();
    FAIL() << "no throw";
  } catch (const ConfigStoreException& e) {
    EXPECT_STREQ(e.what(), "Subobject instance does not exists.");
    EXPECT_TRUE(log_.Contains("Cannot find subobject instance name=z", CSLogger::PRIO_ERROR));
  }
}

TEST_F(DocumentsTest, ObjectIdText) {
  EXPECT_EQ((ConfigStoreObjectId{"nics", "qor", "network", "vmnic0"}).toString(),
            "comp qor grp network key nics id vmnic0");
  EXPECT_EQ((ConfigStoreObjectId{"dns", "qor", "network", ""}).toString(), "comp qor grp network key dns");
}

TEST_F(DocumentsTest, ValidationLogsEveryError) {
  auto schema = Parse(R"({"type":"object","required":["name"],"properties":{
      "name":{"type":"string","instanceId":true},"mtu":{"type":"integer","maximum":9000},
      "mode":{"type":"string","enum":["a","b"]}}})");
  auto good = Parse(R"({"name":"nic0","mtu":1500})");
  EXPECT_TRUE(ValidateUserObject(*schema->document, *good->document, "qor.network.nics", false));

  auto bad = Parse(R"({"name":"nic0","mtu":12000,"mode":"c"})");
  log_.Clear();
  EXPECT_FALSE(ValidateUserObject(*schema->document, *bad->document, "qor.network.nics", false));
  EXPECT_EQ(log_.Count("[1083]"), 2u) << "both errors are logged, not only the first";
  EXPECT_TRUE(log_.Contains("mtu"));
  EXPECT_TRUE(log_.Contains("mode"));
}

TEST_F(DocumentsTest, DeleteMarkerIsNotValidated) {
  auto schema = Parse(R"({"type":"object"})");
  auto marker = Parse(R"("DELETE_DEFAULT")");
  auto other = Parse(R"("DELETE")");
  EXPECT_TRUE(ValidateUserObject(*schema->document, *marker->document, "k", true));
  EXPECT_FALSE(ValidateUserObject(*schema->document, *other->document, "k", true));
  log_.Clear();
  EXPECT_FALSE(ValidateUserObject(*schema->document, *marker->document, "k", false))
      << "without the flag a string is validated like any value";
  EXPECT_EQ(log_.Count("[1083]"), 1u);
}

TEST_F(DocumentsTest, ValidationErrorsMustBeWellFormed) {
  EXPECT_TRUE(checkValidationErrors(*Parse("[]")->document));
  EXPECT_THROW(checkValidationErrors(*Parse("{}")->document), ConfigStoreException);
  EXPECT_THROW(checkValidationErrors(*Parse(R"([{"field":1,"error":"x"}])")->document), ConfigStoreException);
}

}  // namespace
}  // namespace QorConfigStore
