// Default configuration processing on real files, a real schema store and a real DefaultConfig table.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "configstore/defaults/DefaultConfig.h"
#include "configstore/schema/SchemaRegistration.h"
#include "platform/dbstore/DBStore.h"
#include "tests/configstore/schema/SchemaHostFixture.h"

namespace {

using namespace QorConfigStore;
using cstest::Strings;

constexpr const char* kNics =
    R"({"type": "object", "required": ["name"], "properties": {"name": {"type": "string", "instanceId": true},
        "mtu": {"type": "integer", "minimum": 1280, "maximum": 9000}, "mac": {"type": "string", "vital": true},
        "speed": {"type": "integer", "cached": true}}})";
constexpr const char* kDns =
    R"({"type": "object", "properties": {"domain": {"type": "string"}, "servers": {"type": "array", "items": {"type": "string"}}}})";
constexpr const char* kRules =
    R"({"type": "object", "required": ["port"], "properties": {
        "cs_generated_id": {"type": "string", "instanceId": true, "generatedId": true},
        "port": {"type": "integer", "minimum": 1, "maximum": 65535}}})";

class DefaultConfigTest : public cstest::SchemaHostTest {
 protected:
  void SetUp() override {
    SchemaHostTest::SetUp();
    WriteSchemaFile("qor-base.json", cstest::kBaseKit, cstest::kBaseVersion,
                    Element("qor/network/nics", kNics, "", "2.0") + "," + Element("qor/network/dns", kDns) + "," +
                        Element("qor/firewall/rules", kRules));
    ASSERT_TRUE(ProcessSchemaFiles({}, false));
    log_.Clear();
  }

  // A default-configuration element.
  static std::string Defaults(const std::string& key, const std::string& config, const std::string& group = "network") {
    return R"({"component": "qor", "group": ")" + group + R"(", "key": ")" + key + R"(", "config": )" + config + "}";
  }
  void WriteBase(const std::string& data, const std::string& file = "base.json") const {
    WriteDefaultFile(file, cstest::kBaseKit, cstest::kBaseVersion, data);
  }
};

// Instances are split into user, vital and cached parts; a DPU takes qorio_config where there is one.
// With versioning only the newest file of a package is read, without it every file.
TEST_F(DefaultConfigTest, ValidInstancesAreSplitAndWritten) {
  WriteDefaultFile("base-old.json", cstest::kBaseKit, "8.0.1_0.0", Defaults("nics", R"({"name": "nuk-old"})"));
  WriteBase(R"({"component": "qor", "group": "network", "key": "nics", "qorio_config": [{"name": "nuk5"}], "config":
            [{"name": "nuk0", "mtu": 1500, "mac": "aa", "speed": 10}, {"name": "nuk1"}]},)" +
            Defaults("dns", R"({"domain": "lab", "servers": ["a"]})") + "," +
            Defaults("rules", R"([{"port": 22}, {"port": 443, "cs_generated_id": "fixed-id"}])", "firewall"));
  EXPECT_TRUE(ProcessDefaultConfiguration(false));
  EXPECT_EQ(Query("SELECT json_extract(Value, '$.port'), length(Identifier), Identifier = "
                  "json_extract(Value, '$.cs_generated_id') FROM DefaultConfig WHERE Name = 'rules' ORDER BY 1"),
            (Strings{"22|36|1", "443|8|1"}));
  const Strings rows = DefaultRows();
  EXPECT_EQ(
      Strings(rows.begin() + 2, rows.end()),  // after the rules
      (Strings{
          R"(qor/network/dns||{"domain":"lab","servers":["a"]}|||1.0)",
          R"(qor/network/nics|nuk0|{"name":"nuk0","mtu":1500}|{"name":"nuk0","mac":"aa"}|{"name":"nuk0","speed":10}|2.0)",
          R"(qor/network/nics|nuk1|{"name":"nuk1"}|||2.0)"}));
  EXPECT_FALSE(Exists("/var/run/talvex/files/errors-base.json"));
  EXPECT_TRUE(ProcessDefaultConfiguration(true));
  EXPECT_EQ(Query("SELECT Identifier FROM DefaultConfig WHERE Name = 'nics'"), Strings{"nuk5"});
  SetSwitches(false, true);
  EXPECT_TRUE(ProcessDefaultConfiguration(false));
  EXPECT_EQ(Query("SELECT Identifier FROM DefaultConfig WHERE Name = 'nics' ORDER BY 1"),
            (Strings{"nuk-old", "nuk0", "nuk1"}));
}

// Invalid instances and unknown keys go to the package's error file and the valid rest is written.
// Each run replaces the whole table; its error file is rewritten by a failure and kept by a success.
TEST_F(DefaultConfigTest, EachRunReplacesTheTableAndItsErrorFile) {
  const std::string nokey = R"({"key":"nokey","errors":[{"error":"Schema not found"}]})";
  const struct {
    std::string data;
    bool ok;
    Strings rows;
    std::string errors;
  } runs[] = {
      {Defaults("nics", R"([{"name": "nuk0"}, {"name": "nuk1", "mtu": 100}])") + "," + Defaults("nokey", "{}"),
       false,
       {R"(qor/network/nics|nuk0|{"name":"nuk0"}|||2.0)"},
       R"([{"key":"nics","errors":[{"field":"/mtu","error":"must be at least 1280, got 100"}]},)" + nokey + "]"},
      {Defaults("nokey", "{}"), false, {}, "[" + nokey + "]"},  // truncated, not appended to
      {Defaults("dns", R"({"domain": "new"})"),
       true,
       {R"(qor/network/dns||{"domain":"new"}|||1.0)"},
       "[" + nokey + "]"},
  };
  for (const auto& run : runs) {
    SCOPED_TRACE(run.data);
    WriteBase(run.data);
    EXPECT_EQ(ProcessDefaultConfiguration(false), run.ok);
    EXPECT_EQ(DefaultRows(), run.rows);
    EXPECT_EQ(ReadFile("/var/run/talvex/files/errors-base.json"), run.errors);
  }
}

// A failed instance write loses that instance only (every fault point is swept with the store
// checked in tests/reliability/sweeps): the table is cleared, the schema of "nics" read (steps 2
// and 3), and its first instance written.
TEST_F(DefaultConfigTest, AFailedWriteSkipsOnlyItsInstance) {
  WriteBase(Defaults("nics", R"([{"name": "nuk2"}, {"name": "nuk3"}])") + "," + Defaults("dns", R"({"domain": "b"})"));
  DBStore::faults::Arm(DBStore::faults::Kind::Step, 4, false);
  EXPECT_TRUE(ProcessDefaultConfiguration(false));
  DBStore::faults::Disarm();
  EXPECT_TRUE(Logged("Failed to write default config for qor/network/nics/nuk2", 0));
  EXPECT_EQ(DefaultRows(),
            (Strings{R"(qor/network/dns||{"domain":"b"}|||1.0)", R"(qor/network/nics|nuk3|{"name":"nuk3"}|||2.0)"}));
}

}  // namespace
