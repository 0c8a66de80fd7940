// Schema files and their registration on real files, image database and schema store.
#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "configstore/frame/ConfigStoreException.h"
#include "configstore/schema/SchemaFiles.h"
#include "configstore/schema/SchemaProcessor.h"
#include "configstore/schema/SchemaRegistration.h"
#include "platform/host/HostRoot.h"
#include "tests/configstore/schema/SchemaHostFixture.h"

namespace {

using namespace QorConfigStore;
using cstest::Strings;

using SchemaFilesTest = cstest::SchemaHostTest;

// A file's identifier is "<kitname>-<kitversion>" of its metadata: a file without both is left out,
// with an event. With versioning only the newest file of each schema is taken (1.10 after 1.9, ties
// in listing order); without, files are not even parsed and each is taken in listing order.
TEST_F(SchemaFilesTest, IdentifiedFilesAndTheNewestVersionOfEachSchemaAreTaken) {
  for (const char* name : {"a.json", "schema.JSON", "x.json.bak"}) WriteRawSchemaFile(name, "{}");
  EXPECT_EQ(GetSchemaFiles(Path(kSchemaDir)), Strings{"a.json"});
  WriteSchemaFile("old.json", "net-core", "1.9.0_0.0", "");
  WriteSchemaFile("new.json", "net-core", "1.10.0_0.1", "");
  WriteSchemaFile("copy.json", "net-core", "1.10.0_0.1", "");
  WriteSchemaFile("one.json", "plain", "7", "");  // no schema name in "plain-7": never skipped
  WriteSchemaFile("two.json", "plain", "7", "");
  WriteRawSchemaFile("nometa.json", R"({"data": []})");
  WriteRawSchemaFile("noversion.json", R"({"data": [], "metadata": {"kitname": "k"}})");
  WriteRawSchemaFile("noname.json", R"({"data": [], "metadata": {"kitversion": "1"}})");
  WriteRawSchemaFile("broken.json", "not json");
  const Strings listing = {"old.json", "one.json", "nometa.json", "noversion.json", "new.json",
                           "noname.json", "copy.json", "two.json"};
  for (bool versioning : {true, false}) {
    SchemaFileSelection selection(Path(kSchemaDir), listing, versioning);
    Strings taken;
    for (const auto& f : selection.Files()) {
      if (selection.Select(f)) taken.push_back(f);
    }
    EXPECT_EQ(taken, versioning ? Strings({"new.json", "one.json", "two.json"}) : listing);
  }
  EXPECT_EQ(EventList(), (Strings{"zeb.user.cs.schema.metadata.error:nometa.json",
                                  "zeb.user.cs.schema.metadata.error:noversion.json",
                                  "zeb.user.cs.schema.metadata.error:noname.json"}));
  EXPECT_TRUE(Logged("Skipping schema file 'copy.json' since latest version already processed.", 2));
  EXPECT_THROW(SchemaFileSelection(Path(kSchemaDir), {"broken.json"}, true), InvalidArgumentException);
  EXPECT_EQ(SchemaFileSelection(Path(kSchemaDir), {"broken.json"}, false).Files(), Strings{"broken.json"});

  const std::tuple<std::string, std::string, SchemaVersion> ids[] = {
      {"kit-007.01.2_03.4", "kit", {7, 1, 2, 3, 4}},
      {"a-b-1.2_3", "a-b", {0, 0, 0, 0, 0}},
      {"kit-1.2.3_4.5-extra", "", {1, 2, 3, 4, 5}},  // the name needs the version at the end; the version does not
      {"x-9.9.9_9.9-1.0.0_0.0", "x-9.9.9_9.9", {9, 9, 9, 9, 9}},  // name: last "-"; version: leftmost
  };
  for (const auto& [id, name, version] : ids) {
    EXPECT_EQ(ExtractSchemaNameFromSchemaId(id), name) << id;
    EXPECT_EQ(ExtractVersionFromSchemaId(id), version) << id;
  }
  EXPECT_THROW(ExtractVersionFromSchemaId("kit-2147483648.0.0_0.0"), std::out_of_range);
}

const std::string kValueSchema = R"({"type": "object", "properties": {"v": {"type": "string"}}})";

using SchemaRegistrationTest = cstest::SchemaHostTest;

TEST_F(SchemaRegistrationTest, SmartnicPlacementDecidesWhereAnElementApplies) {
  // element, applies on the ordinary host / on the DPU variant with switch 70 on
  const std::tuple<const char*, bool, bool> cases[] = {
      {R"({"key": "k"})", true, false},
      {R"({"smartnic": {"schema": "qor-shared"}})", true, true},
      {R"({"smartnic": {"schema": "qorio-only"}})", false, true},
      {R"({"smartnic": {"schema": "QOR-SHARED"}})", false, false},
  };
  for (const auto& [text, host, dpu] : cases) {
    rapidjson::Document element;
    element.Parse(text);
    EXPECT_EQ(ElementAppliesToHost(element, false, true), host) << text;
    EXPECT_EQ(ElementAppliesToHost(element, true, true), dpu) << text;
    EXPECT_TRUE(ElementAppliesToHost(element, true, false)) << text;
  }
  // Registration applies the filter and records each element's placement.
  WriteSchemaFile("net-core.json", cstest::kNetKit, cstest::kNetVersion,
                  Element("qor/network/plain", kValueSchema) + "," +
                      Element("qor/network/dpu", kValueSchema, R"("smartnic": {"schema": "qorio-only"})"));
  EXPECT_TRUE(ProcessSchemaFiles({}, true));
  EXPECT_EQ(Registered(), Strings{"qor/network/dpu net-core-1.2.3_4.5 1.0"});
  EXPECT_EQ(Query("SELECT Name || '=' || ValueType FROM ss.SmartnicSchema"), Strings{"dpu=qorio-only"});
}

// Unexpected identifiers, elements without a key and refused schemas fail their own file only.
TEST_F(SchemaRegistrationTest, BadFilesFailAloneAndTheOthersRegister) {
  // qor-base and net-core, the two schemas the sample image expects, with one key each.
  WriteSchemaFile("qor-base.json", cstest::kBaseKit, cstest::kBaseVersion, Element("qor/network/dns", kValueSchema));
  WriteSchemaFile("net-core.json", cstest::kNetKit, cstest::kNetVersion, Element("qor/network/nuknics", kValueSchema));
  WriteSchemaFile("extra.json", "extra-kit", "1.0.0_1.0", Element("qor/extra/thing", kValueSchema));
  WriteSchemaFile("partial.json", "partial-kit", "1.0.0_0.0",
                  Element("qor/partial/first", kValueSchema) + R"(, {"component": "qor", "key": "second"})");
  WriteSchemaFile("refused.json", "refused-kit", "1.0.0_0.0", Element("qor/refused/x", "5"));

  EXPECT_FALSE(ProcessSchemaFiles({"partial-kit-1.0.0_0.0", "refused-kit-1.0.0_0.0"}, false));
  EXPECT_EQ(Registered(), (Strings{"qor/network/dns qor-base-8.0.2_1.0 1.0",
                                   "qor/network/nuknics net-core-1.2.3_4.5 1.0",
                                   "qor/partial/first partial-kit-1.0.0_0.0 1.0"}));
  Strings events = EventList();
  std::sort(events.begin(), events.end());
  EXPECT_EQ(events, (Strings{"zeb.user.cs.schema.file.error:extra.json", "zeb.user.cs.schema.file.error:partial.json",
                             "zeb.user.cs.schema.file.error:refused.json",
                             "zeb.user.cs.schema.validation.error:extra.json"}));
}

}  // namespace
