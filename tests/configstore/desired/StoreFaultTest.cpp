// A store failure at any call of a staging operation leaves the staging table and the boot mode
// exactly as they were.
#include <gtest/gtest.h>

#include <functional>

#include "configstore/desired/DesiredConfig.h"
#include "tests/configstore/desired/DesiredFixture.h"
#include "tests/support/StoreDump.h"

namespace desiredtest {
namespace {

using Kind = DBStore::faults::Kind;

class StoreFaultTest : public DesiredTest {
 protected:
  void SetUp() override {
    DesiredTest::SetUp();
    InsertConfig("network_zsw", "switches", "sw1", R"({"uuid":"sw1"})");
    InsertConfig("network_zsw", "switches", "sw2", R"({"uuid":"sw2","name":"edge"})");
    InsertConfig("authorization", "permissions", "p1", R"({"id":"p1","principal":"svc-zpl-agent"})");
    InsertConfig("network", "nuknics", "nuk0",
                 R"({"name":"nuk0","port_connection_type":"ZSW","zsw_port":{"port_key":"K"}})");
    InsertConfig("advanced_options", "user_vars", "ZTN_IP", R"({"name":"ZTN_IP"})");
    InsertDefault("ntp", "servers", "a", R"({"server":"a"})");
    InsertDefault("ntp", "servers", "b", R"({"server":"b"})");
  }

  // The state every faulty run starts from.
  void Baseline() {
    Sql("DELETE FROM DesiredUserConfig");
    InsertStaged("system", "hostname", "", "SET");
    SetStoredBootMode("2");
  }

  // Runs `operation` once to count the calls of `kind`, then once with each of them failing.
  void ExpectEveryFaultLeavesStagingAlone(Kind kind, const std::function<void()>& operation, int atLeast) {
    Baseline();
    DBStore::faults::Arm(kind, 1000000, false);
    operation();
    const int calls = DBStore::faults::Calls(kind);
    DBStore::faults::Disarm();
    EXPECT_GE(calls, atLeast);
    const std::multiset<std::string> succeeded = Staged();

    for (int n = 1; n <= calls; ++n) {
      SCOPED_TRACE("failing call " + std::to_string(n) + " of " + std::to_string(calls));
      Baseline();
      const cstest::StoreDump before = cstest::DumpStores();
      DBStore::faults::Arm(kind, n, false);
      EXPECT_THROW(operation(), QorConfigStore::ConfigStoreException);
      DBStore::faults::Disarm();
      EXPECT_EQ("", cstest::DiffStores(before, cstest::DumpStores()));
    }
    // And the operation still works afterwards (generated ids differ from run to run).
    Baseline();
    operation();
    EXPECT_EQ(Staged().size(), succeeded.size());
    EXPECT_NE(BootMode(), "2");
  }

  static void StageDocument() {
    Stage(R"({"profile": {"qor": {
        "network": {"nuknics": [{"name": "nuk0", "port_connection_type": "ZSW"}]},
        "network_zsw": {"switches": [{"uuid": "sw1"}]},
        "ntp": {"servers": [{"server": "b"}]},
        "firewall": {"rules": [{"port": 1}]},
        "system": {"hostname": {"name": "h"}}}}})");
  }
  static void StageSmartnic() {
    auto doc = QorConfigStore::CreateDocumentFromString(
        R"({"qor": {"network": {"nuknics": [{"name": "n0"}]}, "dpu": {"flags": "DELETE_DEFAULT"}}})");
    QorConfigStore::SetDesiredSmartnicConfiguration(*doc->document);
  }
  static void DeleteKey() { QorConfigStore::DeleteHostAPIConfiguration("qor", "ntp", "servers"); }
};

TEST_F(StoreFaultTest, EveryFailingCallLeavesStagingAlone) {
  // Document statements: delete, five objects, switches query and re-insert, nuknic read, defaults
  // (three keys), permissions query and insert, options, boot mode.
  const struct {
    const char* name;
    void (*operation)();
    Kind kind;
    int atLeast;
  } cases[] = {
      {"document", StageDocument, Kind::Step, 15},    {"document", StageDocument, Kind::Prepare, 15},
      {"document", StageDocument, Kind::Begin, 1},    {"document", StageDocument, Kind::Commit, 1},
      {"document", StageDocument, Kind::KvWrite, 1},  {"smartnic", StageSmartnic, Kind::Step, 4},
      {"smartnic", StageSmartnic, Kind::Prepare, 4},  {"smartnic", StageSmartnic, Kind::Attach, 1},
      {"smartnic", StageSmartnic, Kind::Begin, 1},    {"smartnic", StageSmartnic, Kind::Commit, 1},
      {"smartnic", StageSmartnic, Kind::KvWrite, 1},  {"host API", DeleteKey, Kind::Step, 2},
      {"host API", DeleteKey, Kind::Prepare, 2},      {"host API", DeleteKey, Kind::Begin, 1},
      {"host API", DeleteKey, Kind::Commit, 1},       {"host API", DeleteKey, Kind::KvWrite, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.name << ", kind " << static_cast<int>(c.kind));
    ExpectEveryFaultLeavesStagingAlone(c.kind, c.operation, c.atLeast);
  }
}

}  // namespace
}  // namespace desiredtest
