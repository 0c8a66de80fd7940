// Schema file listing, identifiers, versions and the newest-first selection, on real files.
#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <string>
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
  EXPECT_TRUE(log_.Lines().empty()) << "a missing directory lists nothing, silently";
  for (const char* name : {"a.json", "schema.JSON", "notes.txt", ".json", "x.json.bak", "ab.json"}) {
    WriteRawSchemaFile(name, "{}");
  }
  WriteRawSchemaFile("folder.json/inner.json", "{}");  // a directory named *.json is listed like a file

  Strings files = GetSchemaFiles(Dir());
  std::sort(files.begin(), files.end());
  EXPECT_EQ(files, (Strings{"a.json", "ab.json", "folder.json"}));
  for (const char* skipped : {"schema.JSON", "notes.txt", ".json", "x.json.bak", ".", ".."}) {
    EXPECT_TRUE(Logged(std::string("[SchemaProcessor] Skip processing non-json file ") + skipped, 2)) << skipped;
  }
}

TEST_F(SchemaFilesTest, NamesAndVersionsOfIdentifiers) {
  struct Case {
    std::string id;
    std::string name;
    SchemaVersion version;
  };
  const std::vector<Case> cases = {
      {"net-core-1.2.3_4.5", "net-core", {1, 2, 3, 4, 5}},
      {"net-core-1.10.0_0.1", "net-core", {1, 10, 0, 0, 1}},
      {"qor-base-8.0.2_1.0", "qor-base", {8, 0, 2, 1, 0}},
      {"a-b-1.2_3", "a-b", {0, 0, 0, 0, 0}},
      {"kit-1.2.3_4", "kit", {0, 0, 0, 0, 0}},
      {"kit-007.01.2_03.4", "kit", {7, 1, 2, 3, 4}},
      {"kit-1.2.3_4.5.6", "kit", {1, 2, 3, 4, 5}},
      {"kit-1.2.3_4.5-extra", "", {1, 2, 3, 4, 5}},  // name needs the version at the end; version does not
      {"kit-1_2", "", {0, 0, 0, 0, 0}},
      {"kit-1.2_", "", {0, 0, 0, 0, 0}},
      {"kit-1..2_3", "", {0, 0, 0, 0, 0}},
      {"x-9.9.9_9.9-1.0.0_0.0", "x-9.9.9_9.9", {9, 9, 9, 9, 9}},  // name: last "-"; version: leftmost
      {"noversion", "", {0, 0, 0, 0, 0}},
      {"-1.2_3", "", {0, 0, 0, 0, 0}},
      {"", "", {0, 0, 0, 0, 0}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.id);
    EXPECT_EQ(ExtractSchemaNameFromSchemaId(c.id), c.name);
    EXPECT_EQ(ExtractVersionFromSchemaId(c.id), c.version);
  }
  EXPECT_THROW(ExtractVersionFromSchemaId("kit-2147483648.0.0_0.0"), std::out_of_range);
  EXPECT_EQ(ExtractVersionFromSchemaId("kit-2147483647.0.0_0.0")[0], 2147483647);

  std::string dashes;
  for (int i = 0; i < 200000; ++i) dashes += "-1.";
  EXPECT_EQ(ExtractSchemaNameFromSchemaId(dashes), "");
  EXPECT_EQ(ExtractVersionFromSchemaId(dashes), (SchemaVersion{}));
  std::string longName(1 << 20, 'k');
  EXPECT_EQ(ExtractSchemaNameFromSchemaId(longName + "-1.2.3_4.5"), longName);
}

TEST_F(SchemaFilesTest, IdentifierFromMetadata) {
  auto parse = [](const std::string& text) {
    rapidjson::Document d;
    d.Parse(text.c_str());
    return d;
  };
  EXPECT_EQ(GetSchemaIDfromFile("f.json", parse(R"({"data": [], "metadata": {"kitname": "k", "kitversion": "1"}})")),
            "k-1");
  EXPECT_TRUE(EventList().empty());

  const char* incomplete[] = {R"({"data": [], "metadata": {"kitname": "k"}})",
                              R"({"data": [], "metadata": {"kitversion": "1"}})",
                              R"({"metadata": {"kitname": "k", "kitversion": "1"}})", R"({"data": []})"};
  for (const char* text : incomplete) {
    SCOPED_TRACE(text);
    log_.Clear();
    EXPECT_EQ(GetSchemaIDfromFile("bad.json", parse(text)), "");
    EXPECT_TRUE(Logged("[SchemaProcessor] Invalid format in schema file bad.json", 0));
  }
  EXPECT_EQ(EventList(), Strings(4, "zeb.user.cs.schema.metadata.error:bad.json"));

  for (const char* text : {R"({"data": [], "metadata": {"kitname": 5, "kitversion": "1"}})", "[]",
                           R"({"data": [], "metadata": []})"}) {
    SCOPED_TRACE(text);
    try {
      GetSchemaIDfromFile("t.json", parse(text));
      ADD_FAILURE() << "no exception";
    } catch (const ConfigStoreException& e) {
      EXPECT_EQ(e.code(), CS_ERR_JSON_TYPE);
    }
  }
}

TEST_F(SchemaFilesTest, IdentifierMapHoldsFilesWithMetadataByPath) {
  Kit("good.json", "net-core", "1.2.3_4.5");
  WriteRawSchemaFile("nometa.json", R"({"data": []})");
  SchemaIdMap map = GenerateSchemaIdMap({"good.json", "nometa.json"}, Dir());
  EXPECT_EQ(map, (SchemaIdMap{{Dir() + "/good.json", "net-core-1.2.3_4.5"}}));
  EXPECT_EQ(ExtractVersion(map, "good.json", Dir()), (SchemaVersion{1, 2, 3, 4, 5}));
  EXPECT_THROW(ExtractVersion(map, "nometa.json", Dir()), std::out_of_range);

  WriteRawSchemaFile("broken.json", "{\"data\": [");
  try {
    GenerateSchemaIdMap({"good.json", "broken.json"}, Dir());
    ADD_FAILURE() << "no exception";
  } catch (const ConfigStoreException& e) {
    EXPECT_EQ(e.code(), CS_ERR_JSON_PARSE_FILE);
  }
}

// Versions compare numerically (1.10 after 1.9); equal versions keep their listing order.
TEST_F(SchemaFilesTest, SortIsNewestFirstAndStable) {
  Kit("a.json", "alpha", "1.0.0_0.0");
  Kit("b.json", "beta", "1.9.0_0.0");
  Kit("c.json", "gamma", "1.0.0_0.0");
  Kit("d.json", "delta", "x");          // no version: sorts last
  Kit("e.json", "eps", "1.10.0_0.0");
  Kit("f.json", "zeta", "1.0.0_0.0");
  Kit("g.json", "eta", "1.0");          // no version either
  WriteRawSchemaFile("h.json", R"({"data": []})");  // no metadata: left out
  const Strings listing = {"d.json", "c.json", "h.json", "a.json", "g.json", "b.json", "f.json", "e.json"};

  SchemaFileSelection selection(Dir(), listing, true);
  EXPECT_EQ(selection.Files(), (Strings{"e.json", "b.json", "c.json", "a.json", "f.json", "d.json", "g.json"}));
  EXPECT_EQ(EventList(), Strings{"zeb.user.cs.schema.metadata.error:h.json"});

  SchemaFileSelection reversed(Dir(), Strings(listing.rbegin(), listing.rend()), true);
  EXPECT_EQ(reversed.Files(), (Strings{"e.json", "b.json", "f.json", "a.json", "c.json", "g.json", "d.json"}));
}

TEST_F(SchemaFilesTest, NewestVersionOfEachSchemaIsTaken) {
  Kit("net-core-1.2.3_4.5.json", "net-core", "1.2.3_4.5");
  Kit("net-core-1.10.0_0.1.json", "net-core", "1.10.0_0.1");
  Kit("qor-base.json", "qor-base", "8.0.2_1.0");
  Kit("net-core-copy.json", "net-core", "1.10.0_0.1");  // same identifier, listed later
  Kit("one.json", "plain", "7");  // no schema name in "plain-7": never skipped
  Kit("two.json", "plain", "7");

  const Strings listing = {"net-core-1.2.3_4.5.json", "one.json", "net-core-1.10.0_0.1.json", "qor-base.json",
                           "net-core-copy.json", "two.json"};
  EXPECT_EQ(Processed(listing, true), (Strings{"qor-base.json", "net-core-1.10.0_0.1.json", "one.json", "two.json"}));
  EXPECT_TRUE(Logged("Processing schema file 'net-core-1.10.0_0.1.json'.", 2));
  EXPECT_TRUE(Logged("Processing schema file 'qor-base.json'.", 2));
  EXPECT_TRUE(Logged("Skipping schema file 'net-core-copy.json' since latest version already processed.", 2));
  EXPECT_TRUE(Logged("Skipping schema file 'net-core-1.2.3_4.5.json' since latest version already processed.", 2));
}

// Without versioning files are not even parsed; with it, one that does not parse abandons the selection.
TEST_F(SchemaFilesTest, WithoutVersioningEveryFileInListingOrder) {
  Kit("net-core-1.2.3_4.5.json", "net-core", "1.2.3_4.5");
  Kit("net-core-1.10.0_0.1.json", "net-core", "1.10.0_0.1");
  WriteRawSchemaFile("broken.json", "not json");  // not parsed when versioning is off
  const Strings listing = {"net-core-1.2.3_4.5.json", "broken.json", "net-core-1.10.0_0.1.json"};
  log_.Clear();
  SchemaFileSelection selection(Dir(), listing, false);
  EXPECT_EQ(selection.SchemaId("broken.json"), "");
  EXPECT_EQ(Processed(listing, false), listing);
  EXPECT_EQ(log_.Count("Skipping schema file"), 0u);
  EXPECT_EQ(log_.Count("Processing schema file"), 0u);
  EXPECT_THROW(SchemaFileSelection(Dir(), listing, true), InvalidArgumentException);
}

}  // namespace
