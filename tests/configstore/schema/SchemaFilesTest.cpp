// Schema file listing, identifiers, versions and the newest-first selection, on real files.
#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

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

  // A schema file whose metadata gives the identifier kit-version.
  void Kit(const std::string& file, const std::string& kit, const std::string& version) const {
    WriteSchemaFile(file, kit, version, "");
  }

  // The files a selection over `files` (in that listing order) hands to processing.
  Strings Processed(const Strings& files, bool versioning) {
    SchemaFileSelection selection(Dir(), files, versioning);
    Strings taken;
    for (const auto& f : selection.Files()) {
      if (selection.Select(f)) taken.push_back(f);
    }
    return taken;
  }
};

TEST_F(SchemaFilesTest, ListingKeepsJsonFilesAndLogsTheRest) {
  EXPECT_TRUE(GetSchemaFiles(Dir()).empty());
  for (const char* name : {"a.json", "schema.JSON", "notes.txt", ".json", "x.json.bak"}) WriteRawSchemaFile(name, "{}");
  WriteRawSchemaFile("folder.json/inner.json", "{}");  // a directory named *.json is listed like a file
  Strings files = GetSchemaFiles(Dir());
  std::sort(files.begin(), files.end());
  EXPECT_EQ(files, (Strings{"a.json", "folder.json"}));
  EXPECT_TRUE(Logged("[SchemaProcessor] Skip processing non-json file schema.JSON", 2));
}

TEST_F(SchemaFilesTest, NamesAndVersionsOfIdentifiers) {
  const std::tuple<std::string, std::string, SchemaVersion> cases[] = {
      {"net-core-1.10.0_0.1", "net-core", {1, 10, 0, 0, 1}},
      {"a-b-1.2_3", "a-b", {0, 0, 0, 0, 0}},
      {"kit-007.01.2_03.4", "kit", {7, 1, 2, 3, 4}},
      {"kit-1.2.3_4.5-extra", "", {1, 2, 3, 4, 5}},  // name needs the version at the end; version does not
      {"kit-1..2_3", "", {0, 0, 0, 0, 0}},
      {"x-9.9.9_9.9-1.0.0_0.0", "x-9.9.9_9.9", {9, 9, 9, 9, 9}},  // name: last "-"; version: leftmost
      {"-1.2_3", "", {0, 0, 0, 0, 0}},
  };
  for (const auto& [id, name, version] : cases) {
    SCOPED_TRACE(id);
    EXPECT_EQ(ExtractSchemaNameFromSchemaId(id), name);
    EXPECT_EQ(ExtractVersionFromSchemaId(id), version);
  }
  EXPECT_THROW(ExtractVersionFromSchemaId("kit-2147483648.0.0_0.0"), std::out_of_range);
}

TEST_F(SchemaFilesTest, IdentifierFromMetadata) {
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
  EXPECT_EQ(cstest::Thrown([&] { GetSchemaIDfromFile("t.json", parse("[]")); }).substr(0, 4), "1082");
}

// Versions compare numerically (1.10 after 1.9); equal versions keep their listing order; a file
// without metadata is left out, one without a version sorts last.
TEST_F(SchemaFilesTest, SortIsNewestFirstAndStable) {
  Kit("a.json", "alpha", "1.0.0_0.0");
  Kit("b.json", "beta", "1.9.0_0.0");
  Kit("c.json", "gamma", "1.0.0_0.0");
  Kit("d.json", "delta", "x");
  Kit("e.json", "eps", "1.10.0_0.0");
  WriteRawSchemaFile("h.json", R"({"data": []})");
  SchemaFileSelection selection(Dir(), {"d.json", "c.json", "h.json", "a.json", "b.json", "e.json"}, true);
  EXPECT_EQ(selection.Files(), (Strings{"e.json", "b.json", "c.json", "a.json", "d.json"}));
  EXPECT_EQ(EventList(), Strings{"zeb.user.cs.schema.metadata.error:h.json"});
}

// With versioning only the newest file of each schema is taken; without, files are not even
// parsed and every one is taken in listing order.
TEST_F(SchemaFilesTest, NewestVersionOfEachSchemaIsTaken) {
  Kit("old.json", "net-core", "1.2.3_4.5");
  Kit("new.json", "net-core", "1.10.0_0.1");
  Kit("copy.json", "net-core", "1.10.0_0.1");  // same identifier, listed later
  Kit("one.json", "plain", "7");               // no schema name in "plain-7": never skipped
  Kit("two.json", "plain", "7");
  const Strings listing = {"old.json", "one.json", "new.json", "copy.json", "two.json"};
  EXPECT_EQ(Processed(listing, true), (Strings{"new.json", "one.json", "two.json"}));
  EXPECT_TRUE(Logged("Skipping schema file 'copy.json' since latest version already processed.", 2));

  WriteRawSchemaFile("broken.json", "not json");
  const Strings withBroken = {"old.json", "broken.json", "new.json"};
  EXPECT_EQ(Processed(withBroken, false), withBroken);
  EXPECT_THROW(SchemaFileSelection(Dir(), withBroken, true), InvalidArgumentException);
}

}  // namespace
