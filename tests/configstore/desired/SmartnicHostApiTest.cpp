// SmartNIC staging and host-API deletions.
#include <gtest/gtest.h>

#include "configstore/desired/DesiredConfig.h"
#include "tests/configstore/desired/DesiredFixture.h"
#include "tests/support/StoreDump.h"

namespace desiredtest {
namespace {

void StageSmartnic(const std::string& text) {
  auto doc = QorConfigStore::CreateDocumentFromString(text);
  QorConfigStore::SetDesiredSmartnicConfiguration(*doc->document);
}

TEST_F(DesiredTest, SmartnicEmptyDocumentStartsEverySharedKeyFromItsDefault) {
  InsertStaged("ntp", "servers", "earlier", "SET");
  StageSmartnic("{}");
  EXPECT_EQ(Staged(), (std::multiset<std::string>{
                          Row("SET_DEFAULT", "dpu", "mode", "-", nullptr, nullptr),
                          Row("DELETE", "dpu", "flags", "-", nullptr, nullptr),
                          Row("DELETE", "network", "nuknics", "-", nullptr, nullptr),
                      }));
  EXPECT_EQ(BootMode(), "3");
  EXPECT_TRUE(log_.Contains("Desired configuration set for smartnic.", CSLogger::PRIO_INFO));
}

TEST_F(DesiredTest, SmartnicDocumentKeysAreNeverOverwrittenByTheDefaults) {
  StageSmartnic(R"({"qor": {"network": {"nuknics": [{"name": "n0", "mtu": 1500}, {"name": "n1"}]},
                            "dpu": {"mode": "DELETE_DEFAULT", "flags": {"flag": true}, "local": {"flag": false}}}})");
  EXPECT_EQ(Staged(), (std::multiset<std::string>{
                          Row("SET", "network", "nuknics", "n0", "1.0", R"({"name":"n0","mtu":1500})"),
                          Row("SET", "network", "nuknics", "n1", "1.0", R"({"name":"n1"})"),
                          Row("DELETE", "dpu", "mode", "-", nullptr, nullptr),
                          Row("SET", "dpu", "flags", "", "1.0", R"({"flag":true})"),
                          Row("SET", "dpu", "local", "", "1.0", R"({"flag":false})"),
                      }));
  EXPECT_EQ(BootMode(), "3");
}

TEST_F(DesiredTest, InvalidSmartnicDocumentIsRefusedWhole) {
  const std::string invalid =
      "2000 SetDesiredSmartnicConfiguration failed: Failed to validate smartnic configuration, Check logs for "
      "specific validation errors.";
  struct Case {
    const char* document;
    std::string thrown;
    size_t invalid;
  } cases[] = {
      {R"({"qor": {"network": {"nuknics": [{"name": "n0", "mtu": 100}, {"name": "n1"}, {"name": "n2", "bogus": 1}]},
                   "dpu": {"flags": {"flag": true}}}})", invalid, 2},
      {R"({"qor": {"dpu": {"mode": {"mode": "sideways"}}}})", invalid, 1},
      {R"({"qor": {"dpu": {"unknown": {"flag": true}}}})", invalid, 0},
      {"[]", "2000 SetDesiredSmartnicConfiguration failed: SmartNIC configuration is not an object", 0},
      {R"({"qor": []})",
       "2000 SetDesiredSmartnicConfiguration failed: Desired configuration of component qor is not an object", 0},
      {R"({"qor": {"dpu": 1}})",
       "2000 SetDesiredSmartnicConfiguration failed: Desired configuration of component qor group dpu is not an object",
       0},
  };
  InsertStaged("ntp", "servers", "earlier", "SET");
  SetStoredBootMode("1");
  const cstest::StoreDump before = cstest::DumpStores();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.document);
    log_.Clear();
    EXPECT_EQ(Thrown([&] { StageSmartnic(c.document); }), c.thrown);
    EXPECT_EQ(log_.Count("Validation failed for configuration {"), c.invalid);
    EXPECT_EQ("", cstest::DiffStores(before, cstest::DumpStores()));
    if (c.invalid == 0 && c.thrown == invalid) {
      EXPECT_TRUE(log_.Contains("Schema not found for id='qor/dpu/unknown'"));
    }
  }
}

// ---- Host API deletion.

TEST_F(DesiredTest, HostApiDeletionStagesADeleteRowBesideEarlierRows) {
  InsertStaged("ntp", "servers", "earlier", "SET");
  SetStoredBootMode("1");

  QorConfigStore::DeleteHostAPIConfiguration("qor", "ntp", "servers");
  EXPECT_EQ(BootMode(), "4");
  QorConfigStore::DeleteHostAPIConfiguration("qor", "ntp", "servers");

  const std::string deleted = Row("DELETE", "ntp", "servers", "-", nullptr, nullptr);
  EXPECT_EQ(Staged(), (std::multiset<std::string>{"SET|qor|ntp|servers|earlier|-|{}|-|-", deleted, deleted}));
  EXPECT_EQ(BootMode(), "4");
}

TEST_F(DesiredTest, HostApiDeletionOfAKeyWithoutSchemaStagesNothing) {
  InsertStaged("ntp", "servers", "earlier", "SET");
  SetStoredBootMode("1");
  const cstest::StoreDump before = cstest::DumpStores();
  EXPECT_EQ(Thrown([] { QorConfigStore::DeleteHostAPIConfiguration("qor", "ntp", "nothing"); }),
            "1005 desired configuration for component qor group ntp key nothing");
  EXPECT_EQ("", cstest::DiffStores(before, cstest::DumpStores()));
  EXPECT_THROW(QorConfigStore::DeleteHostAPIConfiguration(nullptr, "ntp", "servers"),
               QorConfigStore::InvalidArgumentException);
}

TEST_F(DesiredTest, HostApiWriteAndCommitFailuresCarryTheirCodes) {
  SetStoredBootMode("0");
  // The calls of a kind are counted back from the end of a whole run: the schema look-up comes
  // first, the row and then the boot mode are written last.
  struct Case {
    DBStore::faults::Kind kind;
    int fromLast;
    int code;
    const char* message;
  } cases[] = {
      {DBStore::faults::Kind::Commit, 0, 1012, "for component qor group ntp key servers in Delete HostAPI"},
      {DBStore::faults::Kind::Step, 1, 1005, "desired configuration for component qor group ntp key servers"},
      {DBStore::faults::Kind::Prepare, 1, 1005, "desired configuration for component qor group ntp key servers"},
      {DBStore::faults::Kind::KvWrite, 0, 2000, "Failed to set next boot mode"},
      {DBStore::faults::Kind::Begin, 0, 2000, "Failed to start Delete HostAPI transaction: injected fault"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.message);
    DBStore::faults::Arm(c.kind, 1000000, false);
    QorConfigStore::DeleteHostAPIConfiguration("qor", "ntp", "servers");
    int target = DBStore::faults::Calls(c.kind) - c.fromLast;
    DBStore::faults::Disarm();
    Sql("DELETE FROM DesiredUserConfig");
    SetStoredBootMode("0");
    const cstest::StoreDump before = cstest::DumpStores();

    DBStore::faults::Arm(c.kind, target, false);
    EXPECT_EQ(Thrown([] { QorConfigStore::DeleteHostAPIConfiguration("qor", "ntp", "servers"); }),
              std::to_string(c.code) + " " + c.message);
    DBStore::faults::Disarm();
    EXPECT_EQ("", cstest::DiffStores(before, cstest::DumpStores()));
  }
}

TEST_F(DesiredTest, CheckDesiredObjectExistsAnswersForTheWholeKey) {
  QorConfigStore::DeleteHostAPIConfiguration("qor", "ntp", "servers");
  InsertStaged("system", "hostname", "", "SET");
  auto check = [&](const char* group, const char* key) {
    return QorConfigStore::CheckDesiredObjectExists({key, "qor", group, "any-instance"}, conn_);
  };
  EXPECT_TRUE(check("ntp", "servers"));
  EXPECT_TRUE(check("system", "hostname"));
  EXPECT_FALSE(check("ntp", "hostname"));
  EXPECT_FALSE(check("network", "nuknics"));

  DBStore::faults::Arm(DBStore::faults::Kind::Step, 1, false);
  EXPECT_EQ(Thrown([&] { check("ntp", "servers"); }),
            "2000 Check Instance failed for: comp qor grp ntp key servers id any-instance");
}

}  // namespace
}  // namespace desiredtest
