// configstorectl's boot-state subcommands run as a real process against a sandbox host root.
#include <cstdlib>
#include <string>
#include <vector>

#include "configstore/bootstate/BootState.h"
#include "configstore/bootstate/UpgradeDetection.h"
#include "errors/Json.h"
#include "platform/dbstore/DBStore.h"
#include "platform/plon/Plon.h"
#include "tests/support/Ctl.h"
#include "tests/support/Sandbox.h"

namespace {

using cstest::CtlResult;

class BootStateCliTest : public cstest::SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    ASSERT_EQ(DBStore::CreateDatabases(), 0);
    ASSERT_TRUE(PLON_WriteSignature());
    Node("/system/bootCmdLine", "BOOT_IMAGE=/b.b00 ro no-configupgrade-zpan");
    Node("/system/bootOption", std::string(4, '\0'));
    Node("/system/bootMAC", "");
    Node("/system/bootFsUUID", "uuid-new");
  }

  void Node(const std::string& path, const std::string& content) {
    ASSERT_TRUE(PLON_WriteNodeFile(path, content)) << path;
  }

  CtlResult Ctl(const std::string& args) { return cstest::RunCtl(root_, args); }
  static rapidjson::Document Json(const CtlResult& r) { return cstest::CtlJson(r); }
};

TEST_F(BootStateCliTest, BootModeSetThenGetRoundTrips) {
  CtlResult set = Ctl("boot-mode set 3");
  ASSERT_EQ(set.status, 0) << set.err;
  CtlResult get = Ctl("--json boot-mode get");
  ASSERT_EQ(get.status, 0) << get.err;
  rapidjson::Document d = Json(get);
  ASSERT_TRUE(d.HasMember("bootMode") && d["bootMode"].IsInt());
  EXPECT_EQ(d["bootMode"].GetInt(), 3);
  EXPECT_EQ(QorConfigStore::GetBootMode(), QorConfigStore::BOOT_MODE_SMARTNIC_CONFIG) << "the store itself holds it";
}

TEST_F(BootStateCliTest, BootKindAnswersEveryQuestionAsJson) {
  CtlResult seed = Ctl("boot-state cleanup");  // records uuid-new as the previous boot's UUID
  ASSERT_EQ(seed.status, 0) << seed.err;
  Node("/system/bootFsUUID", "uuid-newer");
  WriteFile(QorConfigStore::FIRSTBOOT_FILE, "");
  EXPECT_FALSE(Json(Ctl("boot-kind --json"))["upgrade"].GetBool()) << "a first boot is never an upgrade";
  Remove(QorConfigStore::FIRSTBOOT_FILE);

  CtlResult r = Ctl("boot-kind --json");
  ASSERT_EQ(r.status, 0) << r.err;
  rapidjson::Document d = Json(r);
  struct Expect {
    const char* name;
    bool value;
  } flags[] = {{"upgrade", true},      {"bootbankChanged", true},   {"installed", true},
               {"debugUpgrade", true}, {"ferrinInstalled", false}};
  for (const Expect& e : flags) {
    SCOPED_TRACE(e.name);
    ASSERT_TRUE(d.HasMember(e.name) && d[e.name].IsBool()) << r.out;
    EXPECT_EQ(d[e.name].GetBool(), e.value);
  }
  ASSERT_TRUE(d.HasMember("bootFsUuid") && d["bootFsUuid"].IsString());
  EXPECT_STREQ(d["bootFsUuid"].GetString(), "uuid-newer");
}

TEST_F(BootStateCliTest, BootKindShowsAFailedAnswerAndStillGivesTheOthers) {
  Remove("/sys/plon/system/bootFsUUID");
  CtlResult r = Ctl("--json boot-kind");
  EXPECT_EQ(r.status, 1);
  rapidjson::Document d = Json(r);
  ASSERT_TRUE(d.HasMember("bootbankChanged") && d["bootbankChanged"].IsObject()) << r.out;
  const rapidjson::Value& err = d["bootbankChanged"]["error"];
  EXPECT_EQ(err["code"].GetInt(), 2000);
  EXPECT_STREQ(err["message"].GetString(), "Failed to get boot fs uuid.");
  ASSERT_TRUE(d["upgrade"].IsBool());
  EXPECT_FALSE(d["upgrade"].GetBool()) << "the upgrade check answers false on failure";
  ASSERT_TRUE(d["installed"].IsBool());
  EXPECT_TRUE(d["installed"].GetBool());
}

TEST_F(BootStateCliTest, BadUsageExitsTwo) {
  for (const char* args : {"boot-mode set 5", "boot-mode set -1", "boot-mode set 03", "boot-mode set abc",
                           "boot-mode set", "boot-mode reset", "autoconf", "autoconf begin", "live-install maybe",
                           "install-info set", "boot-state", "boot-kind extra"}) {
    SCOPED_TRACE(args);
    CtlResult r = Ctl(args);
    EXPECT_EQ(r.status, 2) << r.err;
    EXPECT_NE(r.err.find("usage"), std::string::npos) << r.err;
  }
  EXPECT_EQ(QorConfigStore::GetBootMode(), QorConfigStore::BOOT_MODE_DEFAULT) << "nothing was stored";
}

TEST_F(BootStateCliTest, FailureExitsOneWithTheCode) {
  Remove("/etc/talvex/configstore/current-store-1");
  CtlResult r = Ctl("install-info get");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("error 2000: Failed to connect to database."), std::string::npos) << r.err;
}

// With another writer holding the store past the busy time-out, the library's setters drop the write
// without a word; the command line reads back and fails, naming the key and what the store holds.
TEST_F(BootStateCliTest, SettersFailWhenTheStoreDidNotTakeTheWrite) {
  DBStore::Connection writer = DBStore::GetConnection(DBStore::CONFIG_STORE, true);
  ASSERT_EQ(DBStore::BeginTransaction(writer), 0);
  struct Case {
    std::vector<std::string> args;
    std::string line;
  } cases[] = {
      {{"boot-mode", "set", "3"}, "BOOT_MODE was not written: the store holds \"0\", not \"3\""},
      {{"install-info", "set", "build-43"}, "CS_INST_INFO_KEY was not written: the store holds \"\", not \"build-43\""},
      {{"autoconf", "start"}, "IS_BOOT was not written: the store holds \"\", not \"true\""},
      {{"apply-record", "set", "done"}, "BOOT_APPLY_RESULT was not written"},
  };
  std::vector<cstest::CtlProcess> running;  // all at once: each waits out the busy time-out
  for (const Case& c : cases) running.push_back(cstest::StartCtl(root_, c.args, c.args[0]));
  for (size_t i = 0; i < running.size(); ++i) {
    SCOPED_TRACE(cases[i].args[0]);
    CtlResult r = cstest::WaitCtl(running[i]);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find(cases[i].line), std::string::npos) << r.err;
  }
}

TEST_F(BootStateCliTest, LiveInstallMarkerIsClearedByTheNextCleanup) {
  ASSERT_EQ(Ctl("live-install true").status, 0);
  EXPECT_FALSE(Json(Ctl("--json boot-kind"))["upgrade"].GetBool()) << "a live-install boot is no upgrade";
  ASSERT_EQ(Ctl("boot-state cleanup").status, 0);
  DBStore::Connection conn = DBStore::GetConnection(DBStore::CONFIG_STORE, false);
  std::string marker;
  ASSERT_EQ(DBStore::ReadKeyValue(QorConfigStore::POST_LIVE_INSTALL_BOOT, &marker, conn), 0);
  EXPECT_EQ(marker, "false");
}

TEST_F(BootStateCliTest, InstallInfoAndAutoConfRoundTrip) {
  ASSERT_EQ(Ctl("install-info set build-42").status, 0);
  CtlResult info = Ctl("--json install-info");
  ASSERT_EQ(info.status, 0) << info.err;
  EXPECT_STREQ(Json(info)["installInfo"].GetString(), "build-42");

  ASSERT_EQ(Ctl("autoconf start").status, 0);
  CtlResult status = Ctl("--json autoconf status");
  EXPECT_TRUE(Json(status)["autoconf"].GetBool());
  ASSERT_EQ(Ctl("autoconf end").status, 0);
  EXPECT_EQ(Ctl("autoconf status").out, "false\n");
}

}  // namespace
