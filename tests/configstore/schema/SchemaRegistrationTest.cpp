// Schema registration: expected identifiers, the DPU filter, bad files, and the update cycle as one
// transaction, on real schema files, a real image database and a real schema store.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "configstore/frame/ConfigStoreException.h"
#include "configstore/schema/SchemaFiles.h"
#include "configstore/schema/SchemaProcessor.h"
#include "configstore/schema/SchemaRegistration.h"
#include "tests/configstore/schema/SchemaHostFixture.h"
#include "tests/support/StoreDump.h"

namespace {

using namespace QorConfigStore;
using cstest::Strings;

const std::string kNicSchema =
    R"({"type": "object", "required": ["name"], "properties": {"name": {"type": "string", "instanceId": true},
        "mtu": {"type": "integer", "minimum": 1280, "maximum": 9000}, "mac": {"type": "string", "vital": true}}})";
constexpr const char* kImageProfile = "/var/db/talvex/imgdb/profile.xml";
const std::string kValueSchema = R"({"type": "object", "properties": {"v": {"type": "string"}}})";

class SchemaRegistrationTest : public cstest::SchemaHostTest {
 protected:
  // qor-base and net-core, the two schemas the sample image expects, with one key each.
  void WriteInstalledKits() const {
    WriteSchemaFile("qor-base.json", cstest::kBaseKit, cstest::kBaseVersion, Element("qor/network/dns", kValueSchema));
    WriteSchemaFile("net-core.json", cstest::kNetKit, cstest::kNetVersion, Element("qor/network/nuknics", kNicSchema));
  }
  static Strings InstalledRegistration() {
    return {"qor/network/dns qor-base-8.0.2_1.0 1.0", "qor/network/nuknics net-core-1.2.3_4.5 1.0"};
  }
};

TEST_F(SchemaRegistrationTest, SmartnicPlacementDecidesWhereAnElementApplies) {
  struct Case {
    const char* element;
    bool hostFiltered;  // applies on the ordinary host, switch 70 on
    bool dpuFiltered;   // applies on the DPU variant, switch 70 on
  };
  const Case cases[] = {
      {R"({"key": "k"})", true, false},
      {R"({"smartnic": {"schema": "qor-shared"}})", true, true},
      {R"({"smartnic": {"schema": "qorio-only"}})", false, true},
      {R"({"smartnic": {"schema": "QOR-SHARED"}})", false, false},
      {R"({"smartnic": {"schema": "qor-shared "}})", false, false},
      {R"({"smartnic": {"schema": "qorio"}})", false, false},
      {R"({"smartnic": {"schema": 1}})", false, false},
      {R"({"smartnic": {"schema": null}})", false, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.element);
    rapidjson::Document element;
    element.Parse(c.element);
    EXPECT_EQ(ElementAppliesToHost(element, false, true), c.hostFiltered);
    EXPECT_EQ(ElementAppliesToHost(element, true, true), c.dpuFiltered);
    EXPECT_TRUE(ElementAppliesToHost(element, false, false));
    EXPECT_TRUE(ElementAppliesToHost(element, true, false));
  }
  for (const char* bad : {R"({"smartnic": "qor-shared"})", R"({"smartnic": {}})", R"({"smartnic": []})"}) {
    SCOPED_TRACE(bad);
    rapidjson::Document element;
    element.Parse(bad);
    try {
      ElementAppliesToHost(element, false, true);
      ADD_FAILURE() << "no exception";
    } catch (const ConfigStoreException& e) {
      EXPECT_EQ(e.code(), CS_ERR_JSON_TYPE);
    }
  }
}

TEST_F(SchemaRegistrationTest, RegistersTheFilteredElementsOfEachKindOfHost) {
  WriteSchemaFile("net-core.json", cstest::kNetKit, cstest::kNetVersion,
                  Element("qor/network/plain", kValueSchema) + "," +
                      Element("qor/network/shared", kValueSchema, R"("smartnic": {"schema": "qor-shared"})") + "," +
                      Element("qor/network/dpu", kValueSchema, R"("smartnic": {"schema": "qorio-only"})") + "," +
                      Element("qor/network/other", kValueSchema, R"("smartnic": {"schema": "QOR-SHARED"})"));
  struct Case {
    bool qorio;
    bool filtering;
    Strings keys;
  };
  const Case cases[] = {
      {false, true, {"plain", "shared"}},
      {true, true, {"dpu", "shared"}},
      {false, false, {"dpu", "other", "plain", "shared"}},
      {true, false, {"dpu", "other", "plain", "shared"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string("qorio ") + (c.qorio ? "1" : "0") + " filtering " + (c.filtering ? "1" : "0"));
    SetSwitches(true, c.filtering);
    log_.Clear();
    EXPECT_TRUE(ProcessSchemaFiles({}, c.qorio));
    Strings keys;
    for (const auto& row : Registered()) keys.push_back(row.substr(12, row.find(' ') - 12));
    EXPECT_EQ(keys, c.keys);
    EXPECT_EQ(Logged(std::string("[SchemaProcessor]: Skipping schema qor/network/plain for qorio=1"), 2),
              c.qorio && c.filtering);
    EXPECT_EQ(Logged(std::string("[SchemaProcessor]: Skipping schema qor/network/other for qorio=") +
                         (c.qorio ? "1" : "0"),
                     2),
              c.filtering);
    // Elements that carry "smartnic" are recorded with their placement.
    Strings smartnic = Query("SELECT Name || '=' || ValueType FROM ss.SmartnicSchema ORDER BY Name");
    Strings expected;
    const std::vector<std::pair<std::string, std::string>> placements = {
        {"dpu", "qorio-only"}, {"other", "QOR-SHARED"}, {"shared", "qor-shared"}};
    for (const auto& [key, type] : placements) {
      if (std::find(c.keys.begin(), c.keys.end(), key) != c.keys.end()) expected.push_back(key + "=" + type);
    }
    EXPECT_EQ(smartnic, expected);
  }
}

TEST_F(SchemaRegistrationTest, OnlyExpectedIdentifiersRegister) {
  WriteInstalledKits();
  WriteSchemaFile("extra.json", "extra-kit", "1.0.0_1.0", Element("qor/extra/thing", kValueSchema));

  EXPECT_FALSE(ProcessSchemaFiles({}, false));
  EXPECT_EQ(Registered(), InstalledRegistration());
  EXPECT_EQ(EventList(),
            (Strings{"zeb.user.cs.schema.validation.error:extra.json", "zeb.user.cs.schema.file.error:extra.json"}));
  EXPECT_TRUE(Logged("[SchemaProcessor] Schema-id 'extra-kit-1.0.0_1.0' does not align with expected schema-ids.", 0));
  EXPECT_TRUE(Logged("[SchemaProcessor] Schema processing completed: failure", 2));
  EXPECT_FALSE(Logged("[SchemaProcessor] Schema ID list received as input", 2));

  // The caller's list is expected besides the image's own identifiers.
  EXPECT_TRUE(ProcessSchemaFiles({"extra-kit-1.0.0_1.0"}, false));
  Strings all = InstalledRegistration();
  all.insert(all.begin(), "qor/extra/thing extra-kit-1.0.0_1.0 1.0");
  EXPECT_EQ(Registered(), all);
  EXPECT_TRUE(Logged("[SchemaProcessor] Schema ID list received as input", 2));
  EXPECT_TRUE(Logged("[SchemaProcessor] Schema processing completed: success", 2));
}

TEST_F(SchemaRegistrationTest, BadFilesFailAloneAndTheOthersRegister) {
  for (bool versioning : {true, false}) {
    SCOPED_TRACE(versioning ? "versioning on" : "versioning off");
    Remove("/var/log/configstore-events.jsonl");
    Remove("/usr/lib/talvex/configmanager/schemas");
    SetSwitches(versioning, true);
    log_.Clear();
    WriteSchemaFile("good.json", "good-kit", "1.0.0_0.0", Element("qor/good/a", kValueSchema));
    WriteSchemaFile("partial.json", "partial-kit", "1.0.0_0.0",
                    Element("qor/partial/first", kValueSchema) +
                        R"(, {"component": "qor", "key": "second", "version": "1.0", "schema": {}})" + "," +
                        Element("qor/partial/third", kValueSchema));
    WriteSchemaFile("refused.json", "refused-kit", "1.0.0_0.0",
                    Element("qor/refused/x", "5") + "," + Element("qor/refused/y", kValueSchema));
    WriteRawSchemaFile("dataobject.json", R"({"metadata": {"kitname": "obj-kit", "kitversion": "1.0.0_0.0"}, "data": {}})");
    WriteRawSchemaFile("nometa.json", R"({"data": [{"component": "qor", "group": "n", "key": "m"}]})");

    EXPECT_FALSE(ProcessSchemaFiles({"good-kit-1.0.0_0.0", "partial-kit-1.0.0_0.0", "refused-kit-1.0.0_0.0",
                                     "obj-kit-1.0.0_0.0"},
                                    false));
    EXPECT_EQ(Registered(),
              (Strings{"qor/good/a good-kit-1.0.0_0.0 1.0", "qor/partial/first partial-kit-1.0.0_0.0 1.0"}));

    Strings events = EventList();
    std::sort(events.begin(), events.end());
    Strings expected = {"zeb.user.cs.schema.file.error:dataobject.json", "zeb.user.cs.schema.file.error:partial.json",
                        "zeb.user.cs.schema.file.error:refused.json", "zeb.user.cs.schema.metadata.error:nometa.json"};
    // With versioning a file without metadata is left out of the selection; without, it is processed and fails.
    if (!versioning) expected.insert(expected.begin() + 1, "zeb.user.cs.schema.file.error:nometa.json");
    EXPECT_EQ(events, expected);
    EXPECT_TRUE(Logged("[SchemaProcessor] Schema file has errors.", 0));
    EXPECT_EQ(log_.Count("[SchemaProcessor] Failed to process schema file: "), 2u);  // refused, dataobject
    EXPECT_EQ(log_.Count("[SchemaProcessor] Invalid format in schema file nometa.json"), 1u);
    EXPECT_TRUE(Logged("[SchemaProcessor] Schema processing completed: failure", 2));
  }
}

TEST_F(SchemaRegistrationTest, EmptyDataRegistersNothingSuccessfully) {
  WriteSchemaFile("net-core.json", cstest::kNetKit, cstest::kNetVersion, "");
  EXPECT_TRUE(ProcessSchemaFiles({}, false));
  EXPECT_TRUE(Registered().empty());
  EXPECT_TRUE(Logged("[SchemaProcessor] Schema file processed successfully", 2));
}

TEST_F(SchemaRegistrationTest, NewestVersionRegistersWithVersioningEveryFileWithout) {
  WriteSchemaFile("net-core-old.json", cstest::kNetKit, "1.1.0_2.0", Element("qor/network/nuknics", kNicSchema, "", "0.9"));
  WriteSchemaFile("net-core-new.json", cstest::kNetKit, cstest::kNetVersion, Element("qor/network/nuknics", kNicSchema));
  const Strings ids = {"net-core-1.1.0_2.0"};

  EXPECT_TRUE(ProcessSchemaFiles(ids, false));
  EXPECT_EQ(Registered(), Strings{"qor/network/nuknics net-core-1.2.3_4.5 1.0"});
  EXPECT_EQ(log_.Count("Processing schema file 'net-core-old.json'."), 0u);

  // Switch 62 is read at each run: off, both files register in listing order, the last one winning.
  SetSwitches(false, true);
  log_.Clear();
  EXPECT_TRUE(ProcessSchemaFiles(ids, false));
  const Strings listing = GetSchemaFiles(Path(kSchemaDir));
  ASSERT_EQ(listing.size(), 2u);
  EXPECT_EQ(Registered(), Strings{listing.back() == "net-core-new.json" ? "qor/network/nuknics net-core-1.2.3_4.5 1.0"
                                                                         : "qor/network/nuknics net-core-1.1.0_2.0 0.9"});
  EXPECT_EQ(log_.Count("Processing schema file 'net-core-new.json'."), 1u);
  EXPECT_EQ(log_.Count("Processing schema file 'net-core-old.json'."), 1u);
  EXPECT_EQ(log_.Count("Skipping schema file"), 0u);
}

// A pass that cannot finish is cancelled as a whole: every store reads as before it. (Store faults
// on the way end in the same cancel and are swept in tests/reliability/sweeps.)
TEST_F(SchemaRegistrationTest, AFailedPassKeepsTheEarlierRegistration) {
  WriteInstalledKits();
  ASSERT_TRUE(ProcessSchemaFiles({}, false));
  const cstest::StoreDump before = cstest::DumpStores();
  const std::string profile = ReadFile(kImageProfile);
  // A pass that went through would replace one kit's key.
  WriteSchemaFile("net-core.json", cstest::kNetKit, cstest::kNetVersion, Element("qor/network/other", kNicSchema));

  struct Case {
    const char* name;
    std::function<void()> setup;
  };
  const Case cases[] = {
      {"unparsable file, versioning on", [this] { WriteRawSchemaFile("broken.json", R"({"metadata": )"); }},
      {"unparsable file, versioning off",
       [this] {
         SetSwitches(false, true);
         WriteRawSchemaFile("broken.json", R"({"metadata": )");
       }},
      {"image database unreadable", [this] { Remove(kImageProfile); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    WriteFile(kImageProfile, profile);
    Remove("/usr/lib/talvex/configmanager/schemas/broken.json");
    SetSwitches(true, true);
    log_.Clear();
    c.setup();
    EXPECT_FALSE(ProcessSchemaFiles({cstest::kBaseKit}, false));
    EXPECT_EQ(cstest::DiffStores(before, cstest::DumpStores()), "");
    EXPECT_EQ(log_.Count("[SchemaProcessor] Error processing schemas - '"), 1u);
    EXPECT_TRUE(Logged("[SchemaProcessor] Schema processing completed: failure", 2));
  }
}

// The DPU marker and a successful default run are shown on the sample host (SampleHostTest).
TEST_F(SchemaRegistrationTest, ProcessSchemasFailsWhenTheDefaultsFail) {
  WriteSchemaFile("net-core.json", cstest::kNetKit, cstest::kNetVersion,
                  Element("qor/network/plain", kValueSchema) + "," +
                      Element("qor/network/dpu", kValueSchema, R"("smartnic": {"schema": "qorio-only"})"));

  // No default-configuration file: the defaults fail, and so does the whole.
  EXPECT_FALSE(ProcessSchemas({}));
  EXPECT_TRUE(Logged("[SchemaProcessor] Schema processing completed: success", 2));
  EXPECT_TRUE(Logged("Failed to open " + Path("/etc/talvex/default-config"), 0));
  EXPECT_FALSE(Logged("[SchemaProcessor]: This is qorio booting up.", 2));
  EXPECT_EQ(Registered(), Strings{"qor/network/plain net-core-1.2.3_4.5 1.0"});
}

}  // namespace
