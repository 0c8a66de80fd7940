// Schema registration: expected identifiers, the DPU filter, bad files, and the update cycle as one
// transaction, on real schema files, a real image database and a real schema store.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

#include "configstore/schema/SchemaFiles.h"
#include "configstore/schema/SchemaProcessor.h"
#include "configstore/schema/SchemaRegistration.h"
#include "tests/configstore/schema/SchemaHostFixture.h"
#include "tests/support/StoreDump.h"

namespace {

using namespace QorConfigStore;
using cstest::Strings;

constexpr const char* kImageProfile = "/var/db/talvex/imgdb/profile.xml";
const std::string kValueSchema = R"({"type": "object", "properties": {"v": {"type": "string"}}})";

class SchemaRegistrationTest : public cstest::SchemaHostTest {
 protected:
  // qor-base and net-core, the two schemas the sample image expects, with one key each.
  void WriteInstalledKits() const {
    WriteSchemaFile("qor-base.json", cstest::kBaseKit, cstest::kBaseVersion, Element("qor/network/dns", kValueSchema));
    WriteSchemaFile("net-core.json", cstest::kNetKit, cstest::kNetVersion, Element("qor/network/nuknics", kValueSchema));
  }
  const Strings installed_ = {"qor/network/dns qor-base-8.0.2_1.0 1.0", "qor/network/nuknics net-core-1.2.3_4.5 1.0"};
};

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
  WriteInstalledKits();
  WriteSchemaFile("extra.json", "extra-kit", "1.0.0_1.0", Element("qor/extra/thing", kValueSchema));
  WriteSchemaFile("partial.json", "partial-kit", "1.0.0_0.0",
                  Element("qor/partial/first", kValueSchema) + R"(, {"component": "qor", "key": "second"})");
  WriteSchemaFile("refused.json", "refused-kit", "1.0.0_0.0", Element("qor/refused/x", "5"));

  EXPECT_FALSE(ProcessSchemaFiles({"partial-kit-1.0.0_0.0", "refused-kit-1.0.0_0.0"}, false));
  Strings registered = installed_;
  registered.push_back("qor/partial/first partial-kit-1.0.0_0.0 1.0");
  EXPECT_EQ(Registered(), registered);
  Strings events = EventList();
  std::sort(events.begin(), events.end());
  EXPECT_EQ(events, (Strings{"zeb.user.cs.schema.file.error:extra.json", "zeb.user.cs.schema.file.error:partial.json",
                             "zeb.user.cs.schema.file.error:refused.json",
                             "zeb.user.cs.schema.validation.error:extra.json"}));
  EXPECT_TRUE(Logged("[SchemaProcessor] Schema processing completed: failure", 2));
}

// A pass that cannot finish is cancelled as a whole: every store reads as before it. (Store faults
// on the way end in the same cancel and are swept in tests/reliability/sweeps.)
TEST_F(SchemaRegistrationTest, AFailedPassKeepsTheEarlierRegistration) {
  WriteInstalledKits();
  ASSERT_TRUE(ProcessSchemaFiles({}, false));
  const cstest::StoreDump before = cstest::DumpStores();
  // A pass that went through would replace one kit's key.
  WriteSchemaFile("net-core.json", cstest::kNetKit, cstest::kNetVersion, Element("qor/network/other", kValueSchema));
  for (bool versioning : {true, false}) {
    SetSwitches(versioning, true);
    WriteRawSchemaFile("broken.json", R"({"metadata": )");
    EXPECT_FALSE(ProcessSchemaFiles({cstest::kBaseKit}, false));
    EXPECT_EQ(cstest::DiffStores(before, cstest::DumpStores()), "");
  }
  Remove("/usr/lib/talvex/configmanager/schemas/broken.json");
  Remove(kImageProfile);
  EXPECT_FALSE(ProcessSchemaFiles({cstest::kBaseKit}, false));
  EXPECT_EQ(cstest::DiffStores(before, cstest::DumpStores()), "");
  EXPECT_EQ(log_.Count("[SchemaProcessor] Error processing schemas - '"), 3u);
}

}  // namespace
