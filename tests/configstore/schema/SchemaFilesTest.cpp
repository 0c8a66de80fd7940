// Schema file listing, identifiers, versions and the newest-first selection, on real files.
#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <tuple>

#include "configstore/frame/ConfigStoreException.h"
#include "configstore/schema/SchemaFiles.h"
#include "platform/host/HostRoot.h"
#include "tests/configstore/schema/SchemaHostFixture.h"

namespace {

using namespace QorConfigStore;
using cstest::Strings;

class SchemaFilesTest : public cstest::SchemaHostTest {
 protected:
  std::string Dir() const { return Path(kSchemaDir); }
  void Kit(const std::string& file, const std::string& kit, const std::string& version) const {
    WriteSchemaFile(file, kit, version, "");
  }
};

TEST_F(SchemaFilesTest, IdentifiersFromMetadataWithNamesAndVersions) {
  for (const char* name : {"a.json", "schema.JSON", "x.json.bak"}) WriteRawSchemaFile(name, "{}");
  EXPECT_EQ(GetSchemaFiles(Dir()), Strings{"a.json"});

  auto parse = [](const std::string& text) {
    rapidjson::Document d;
    d.Parse(text.c_str());
    return d;
  };
  EXPECT_EQ(GetSchemaIDfromFile("f.json", parse(R"({"data": [], "metadata": {"kitname": "k", "kitversion": "1"}})")),
            "k-1");
  for (const char* text : {R"({"data": [], "metadata": {"kitname": "k"}})",
                           R"({"data": [], "metadata": {"kitversion": "1"}})", R"({"data": []})"}) {
    EXPECT_EQ(GetSchemaIDfromFile("bad.json", parse(text)), "") << text;
  }
  EXPECT_EQ(EventList(), Strings(3, "zeb.user.cs.schema.metadata.error:bad.json"));

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

// With versioning, files sort newest first (1.10 after 1.9, ties in listing order, no version
// last, no metadata left out) and only the newest of each schema is taken; without, files are not
// even parsed and each is taken in listing order.
TEST_F(SchemaFilesTest, NewestVersionOfEachSchemaIsTaken) {
  Kit("old.json", "net-core", "1.9.0_0.0");
  Kit("new.json", "net-core", "1.10.0_0.1");
  Kit("copy.json", "net-core", "1.10.0_0.1");
  Kit("one.json", "plain", "7");  // no schema name in "plain-7": never skipped
  Kit("two.json", "plain", "7");
  WriteRawSchemaFile("nometa.json", R"({"data": []})");
  WriteRawSchemaFile("broken.json", "not json");
  const Strings listing = {"old.json", "one.json", "nometa.json", "new.json", "copy.json", "two.json"};
  for (bool versioning : {true, false}) {
    SchemaFileSelection selection(Dir(), listing, versioning);
    Strings taken;
    for (const auto& f : selection.Files()) {
      if (selection.Select(f)) taken.push_back(f);
    }
    EXPECT_EQ(taken, versioning ? Strings({"new.json", "one.json", "two.json"}) : listing);
  }
  EXPECT_TRUE(Logged("Skipping schema file 'copy.json' since latest version already processed.", 2));
  EXPECT_THROW(SchemaFileSelection(Dir(), {"broken.json"}, true), InvalidArgumentException);
  EXPECT_EQ(SchemaFileSelection(Dir(), {"broken.json"}, false).Files(), Strings{"broken.json"});
}

}  // namespace
