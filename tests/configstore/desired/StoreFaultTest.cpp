// A store failure at any call of a staging operation leaves the staging table and the boot mode
// exactly as they were.
#include <gtest/gtest.h>

#include <functional>

#include "configstore/desired/DesiredConfig.h"
#include "tests/configstore/desired/DesiredFixture.h"

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
    Exec("DELETE FROM DesiredUserConfig");
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
      const std::multiset<std::string> before = Staged();
      DBStore::faults::Arm(kind, n, false);
      EXPECT_THROW(operation(), QorConfigStore::ConfigStoreException);
      DBStore::faults::Disarm();
      EXPECT_EQ(Staged(), before);
      EXPECT_EQ(BootMode(), "2");
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

TEST_F(StoreFaultTest, DesiredDocument) {
  // Statements: delete, five objects, switches query and re-insert, nuknic read, defaults (three
  // keys), permissions query and insert, options, boot mode.
  ExpectEveryFaultLeavesStagingAlone(Kind::Step, StageDocument, 15);
  ExpectEveryFaultLeavesStagingAlone(Kind::Prepare, StageDocument, 15);
  ExpectEveryFaultLeavesStagingAlone(Kind::Begin, StageDocument, 1);
  ExpectEveryFaultLeavesStagingAlone(Kind::Commit, StageDocument, 1);
  ExpectEveryFaultLeavesStagingAlone(Kind::KvWrite, StageDocument, 1);
}

TEST_F(StoreFaultTest, SmartnicDocument) {
  ExpectEveryFaultLeavesStagingAlone(Kind::Step, StageSmartnic, 4);
  ExpectEveryFaultLeavesStagingAlone(Kind::Prepare, StageSmartnic, 4);
  ExpectEveryFaultLeavesStagingAlone(Kind::Attach, StageSmartnic, 1);
  ExpectEveryFaultLeavesStagingAlone(Kind::Begin, StageSmartnic, 1);
  ExpectEveryFaultLeavesStagingAlone(Kind::Commit, StageSmartnic, 1);
  ExpectEveryFaultLeavesStagingAlone(Kind::KvWrite, StageSmartnic, 1);
}

TEST_F(StoreFaultTest, HostApiDeletion) {
  ExpectEveryFaultLeavesStagingAlone(Kind::Step, DeleteKey, 2);
  ExpectEveryFaultLeavesStagingAlone(Kind::Prepare, DeleteKey, 2);
  ExpectEveryFaultLeavesStagingAlone(Kind::Begin, DeleteKey, 1);
  ExpectEveryFaultLeavesStagingAlone(Kind::Commit, DeleteKey, 1);
  ExpectEveryFaultLeavesStagingAlone(Kind::KvWrite, DeleteKey, 1);
}

}  // namespace
}  // namespace desiredtest
