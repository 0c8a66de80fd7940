// configstorectl plan, load and last-boot run as real processes on a copy of the sample host: for
// every kind of staged change, the plan changes nothing and agrees object by object with what the
// load then does; last-boot shows the report of the last load, failed ones included.
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <string>

#include "errors/Json.h"
#include "platform/dbstore/DBStore.h"
#include "tests/support/Sandbox.h"
#include "tests/support/Ctl.h"
#include "tests/support/StoreDump.h"

namespace {

using cstest::CtlResult;

using Objects = std::set<std::string>;  // "component/group/key/identifier"

struct ConfigDiff {
  Objects added, removed, changed;
};

class PlanCliTest : public cstest::SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    CopyExampleHost();
  }

  CtlResult Ctl(const std::string& args) { return cstest::RunCtl(root_, args); }
  static rapidjson::Document Json(const CtlResult& r) { return cstest::CtlJson(r); }

  // The first boot of the installed host, then the state an ordinary reboot finds: the run-time
  // directory emptied and the installer's first-boot marker gone.
  void FirstBoot() {
    CtlResult load = Ctl("--json load");
    ASSERT_EQ(load.status, 0);
    EXPECT_FALSE(Json(load)["restore"].GetBool()) << "a new store, not one restored from backup";
    ASSERT_EQ(Ctl("boot-state cleanup").status, 0);
    std::filesystem::remove_all(Path("/var/run"));
    Remove("/var/lib/talvex/firstboot/current-store-1");
  }

  // Config rows: object -> user, vital and cached value (NULL shown as "<null>").
  static std::map<std::string, std::string> ConfigRows() {
    std::map<std::string, std::string> rows;
    DBStore::Connection conn = DBStore::GetConnection(DBStore::CONFIG_STORE, false);
    auto keep = [&rows](const DBStore::Row& row) { rows[row.String(0)] = row.String(1); };
    EXPECT_EQ(DBStore::QueryEach(conn,
                                 "SELECT Component || '/' || ConfigGroup || '/' || Name || '/' || Identifier, "
                                 "COALESCE(UserValue, '<null>') || '|' || COALESCE(VitalValue, '<null>') || '|' || "
                                 "COALESCE(CachedValue, '<null>') FROM Config",
                                 keep),
              0);
    return rows;
  }

  static ConfigDiff Diff(const std::map<std::string, std::string>& before,
                         const std::map<std::string, std::string>& after) {
    ConfigDiff diff;
    for (const auto& [object, values] : before) {
      auto it = after.find(object);
      if (it == after.end()) diff.removed.insert(object);
      else if (it->second != values) diff.changed.insert(object);
    }
    for (const auto& [object, values] : after) {
      if (!before.contains(object)) diff.added.insert(object);
    }
    return diff;
  }

  // The objects of a plan's list, or of the document itself when `list` is null.
  static Objects PlanList(const rapidjson::Value& plan, const char* list) {
    Objects objects;
    const rapidjson::Value* array = list == nullptr ? &plan : plan.HasMember(list) ? &plan[list] : nullptr;
    if (array == nullptr || !array->IsArray()) {
      ADD_FAILURE() << "no list " << (list ? list : "");
      return objects;
    }
    for (const auto& o : array->GetArray()) {
      std::string object;
      for (const char* name : {"component", "group", "key", "identifier"}) {  // a staged key's identifier is null
        object += std::string(object.empty() ? "" : "/") + (o[name].IsString() ? o[name].GetString() : "");
      }
      objects.insert(object);
    }
    return objects;
  }

  std::string StoreBytes() const {
    return ReadFile("/etc/talvex/configstore/current-store-1") + ReadFile("/var/lib/talvex/schemastore/schema-store");
  }
};

TEST_F(PlanCliTest, PlanChangesNothingAndAgreesWithTheLoad) {
  const std::string desired = R"({"profile":{"qor":{"network":{"dns":{"hostname":"host02","servers":["192.0.2.9"]},)"
                              R"("nuknics":[{"name":"nuk0","mtu":1500},{"name":"nuk2","mtu":9000}]},)"
                              R"("authentication":{"user_accounts":[{"name":"ops"}]}}}})";
  const std::string smartnic = R"({"qor":{"network":{"nuknics":[{"name":"nuk0","mtu":9000,"enabled":true,)"
                               R"("port_connection_type":"STANDARD"},{"name":"nuk5","mtu":1600}]}}})";
  const std::string bootDocument =
      R"({"profile":{"qor":{"network":{"dns":{"hostname":"host03"},"nuknics":[{"name":"nuk7","mtu":2000}]},)"
      R"("system":{"advanced_options":"DELETE_DEFAULT"}}}})";
  struct Case {
    const char* name;
    std::function<void()> stage;
    const char* list;      // one object the plan must show in this list
    const char* expected;
  } cases[] = {
      {"the sample desired configuration",
       [&] { ASSERT_EQ(Ctl("set-desired " + cstest::SourcePath("examples/desired.json")).status, 0); },
       "kept", "qor/authentication/user_accounts/admin"},
      {"desired configuration",
       [&] {
         WriteFile("/desired.json", desired);
         ASSERT_EQ(Ctl("set-desired " + Path("/desired.json")).status, 0);
       },
       "removed", "qor/authentication/user_accounts/admin"},
      {"smartnic configuration",
       [&] {
         WriteFile("/smartnic.json", smartnic);
         ASSERT_EQ(Ctl("set-smartnic " + Path("/smartnic.json")).status, 0);
       },
       "kept", "qor/network/nuknics/nuk0"},
      {"host-API deletion", [&] { ASSERT_EQ(Ctl("delete-hostapi qor system advanced_options").status, 0); },
       "removed", "qor/system/advanced_options/Syslog.global.logDir"},
      {"boot document of a new store",
       [&] {
         WriteFile("/etc/talvex/boot_configuration.json", bootDocument);
         ASSERT_EQ(Ctl("boot-mode set 2").status, 0);
       },
       "added", "qor/network/nuknics/nuk7"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TearDown();
    SetUp();
    FirstBoot();
    c.stage();

    cstest::StoreDump before = cstest::DumpStores();
    std::string bytes = StoreBytes();
    CtlResult planRun = Ctl("plan --json");
    ASSERT_EQ(planRun.status, 0) << planRun.err;
    EXPECT_EQ("", cstest::DiffStores(before, cstest::DumpStores()));
    EXPECT_TRUE(bytes == StoreBytes()) << "the store files are byte-for-byte as before";
    rapidjson::Document plan = Json(planRun);
    EXPECT_TRUE(PlanList(plan, c.list).contains(c.expected)) << planRun.out;
    // Every object is in one list at most, and every staged object the boot finds is in one.
    Objects listed;
    size_t count = 0;
    for (const char* list : {"added", "removed", "changed", "kept"}) {
      Objects objects = PlanList(plan, list);
      count += objects.size();
      listed.merge(objects);
    }
    EXPECT_EQ(count, listed.size()) << planRun.out;
    std::map<std::string, std::string> config = ConfigRows();
    for (const std::string& object : PlanList(Json(Ctl("staged --json")), nullptr)) {
      if (config.contains(object)) {
        EXPECT_TRUE(listed.contains(object)) << object << " is staged and in no list\n" << planRun.out;
      }
    }

    WriteFile("/before-store", ReadFile("/etc/talvex/configstore/current-store-1"));
    CtlResult load = Ctl("load --no-restore");
    ASSERT_EQ(load.status, 0) << load.out << load.err;
    std::map<std::string, std::string> loaded = ConfigRows();
    ConfigDiff done = Diff(config, loaded);
    EXPECT_EQ(PlanList(plan, "added"), done.added);
    EXPECT_EQ(PlanList(plan, "removed"), done.removed);
    EXPECT_EQ(PlanList(plan, "changed"), done.changed);
    CtlResult diff = Ctl("diff --json " + Path("/before-store") + " " + Path("/etc/talvex/configstore/current-store-1"));
    EXPECT_EQ(diff.status, 1) << diff.err;
    for (const char* list : {"added", "removed", "changed"}) {
      EXPECT_EQ(PlanList(Json(diff), list), PlanList(plan, list)) << "diff of the store before and after the load";
    }
    for (const std::string& kept : PlanList(plan, "kept")) {
      EXPECT_EQ(config[kept], loaded[kept]) << kept << " is kept as it was";
    }
    CtlResult after = Ctl("--json plan");
    EXPECT_TRUE(Json(after)["changed"].Empty() && Json(after)["added"].Empty()) << "nothing is left to do" << after.out;
  }
}

TEST_F(PlanCliTest, LastBootShowsTheLastLoadWithItsFailuresAndAlerts) {
  CtlResult none = Ctl("last-boot");
  EXPECT_EQ(none.status, 1);
  EXPECT_NE(none.err.find("error 2000: No boot report"), std::string::npos) << none.err;

  FirstBoot();
  WriteFile("/var/run/talvex/files/loadStoreErrors.json", R"({"zebs":[{"zebMsg":"Disk %s lost","zebArgs":["sda"]}]})");
  CtlResult load = Ctl("--json load --no-restore");
  ASSERT_EQ(load.status, 0) << load.err;
  CtlResult last = Ctl("last-boot --json");
  ASSERT_EQ(last.status, 0) << last.err;
  rapidjson::Document report = Json(last);
  EXPECT_TRUE(report == Json(load)) << "load --json and the kept report are one document\n" << last.out << load.out;
  EXPECT_EQ(report["status"].GetInt(), 0);
  EXPECT_TRUE(report["fatal"].IsNull());
  EXPECT_STREQ(report["recordedFailures"][0].GetString(), "Disk sda lost");
  EXPECT_STREQ(report["alerts"][0].GetString(), "Disk sda lost");

  // An error file that is no JSON ends the load early: a documented fatal failure.
  WriteFile("/var/run/talvex/files/loadStoreErrors.json", "{");
  EXPECT_EQ(Ctl("load --no-restore --force").status, 1);
  CtlResult failed = Ctl("last-boot");
  ASSERT_EQ(failed.status, 0) << failed.err;
  for (const char* line : {"status 1", "fatal failure: error 1081: ", "system alerts raised:",
                           "  Generic ConfigStore Failure: ", "recorded failures  ", "failed"}) {
    EXPECT_NE(failed.out.find(line), std::string::npos) << line << "\n" << failed.out;
  }
  EXPECT_EQ(Json(Ctl("--json last-boot"))["fatal"]["code"].GetInt(), 1081);

  WriteFile("/var/run/talvex/files/last-boot.json", R"({"startTime":"x","status":"0"})");
  CtlResult corrupt = Ctl("last-boot");
  EXPECT_EQ(corrupt.status, 1);
  EXPECT_NE(corrupt.err.find("member \"restore\""), std::string::npos) << corrupt.err;

  // A report that cannot be kept (a non-empty directory where it goes) does not fail the boot.
  Remove("/var/run/talvex/files/loadStoreErrors.json");
  Remove("/var/run/talvex/files/last-boot.json");
  WriteFile("/var/run/talvex/files/last-boot.json/x", "");
  CtlResult unkept = Ctl("load --no-restore --force");
  EXPECT_EQ(unkept.status, 0) << unkept.err;
  EXPECT_NE(unkept.err.find("Failed to save the boot report"), std::string::npos) << unkept.err;
}

TEST_F(PlanCliTest, BootsKeepTheLastReportsAndSkipAnUnreadableOne) {
  FirstBoot();
  WriteFile("/var/run/talvex/files/loadStoreErrors.json", "{");
  ASSERT_EQ(Ctl("load --no-restore --force").status, 1);
  Remove("/var/run/talvex/files/loadStoreErrors.json");
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(cstest::RunCtl(root_, {"load", "--no-restore", "--force"}, {"TALVEX_BOOT_HISTORY=3"}).status, 0);
  }
  rapidjson::Document boots = Json(Ctl("boots --json"));
  ASSERT_EQ(boots["boots"].Size(), 3u) << "the oldest of four loads is gone";
  const struct { int status; const char* kind; } expected[] = {{0, "as it stands"}, {0, "as it stands"}, {1, "as it stands"}};
  for (unsigned i = 0; i < 3; ++i) {
    EXPECT_EQ(boots["boots"][i]["n"].GetInt(), static_cast<int>(i) + 1);
    EXPECT_EQ(boots["boots"][i]["status"].GetInt(), expected[i].status) << i;
    EXPECT_STREQ(boots["boots"][i]["kind"].GetString(), expected[i].kind);
  }
  EXPECT_TRUE(Json(Ctl("last-boot 1 --json")) == Json(Ctl("last-boot --json")));
  EXPECT_EQ(Json(Ctl("last-boot --json 3"))["fatal"]["code"].GetInt(), 1081);

  WriteFile(Json(Ctl("boots --json"))["boots"][1]["file"].GetString(), "{");
  CtlResult skipping = Ctl("boots");
  EXPECT_EQ(skipping.status, 0);
  EXPECT_NE(skipping.err.find("skipped /var/run/talvex/files/boot-history/"), std::string::npos) << skipping.err;
  EXPECT_EQ(Json(Ctl("boots --json"))["unreadable"][0]["n"].GetInt(), 2);
  EXPECT_EQ(Ctl("last-boot 2").status, 1);
  EXPECT_EQ(Ctl("last-boot 4").status, 1);
  EXPECT_EQ(Ctl("last-boot 0").status, 2);
  EXPECT_EQ(Ctl("load --no-restore --force").status, 0) << "an unreadable history file never fails a boot";
}

TEST_F(PlanCliTest, ExportStagedBackPlansNoChange) {
  FirstBoot();
  // An instance whose id member names another: no document can stage it back.
  DBStore::Connection conn = DBStore::GetConnection(DBStore::CONFIG_STORE, true);
  ASSERT_EQ(DBStore::Exec(conn, "INSERT INTO Config (Component, ConfigGroup, Name, Identifier, UserValue) "
                                 "VALUES ('qor', 'network', 'nuknics', 'nuk9', '{\"name\":\"nuk8\"}')"), 0);
  // A pending desired value no document carries: the boot after staging drops it, as staging
  // replaces its key whole.
  ASSERT_EQ(DBStore::Exec(conn, "UPDATE Config SET DesiredValue = '{\"name\":\"admin\",\"shell\":\"pending\"}' "
                                 "WHERE Name = 'user_accounts' AND Identifier = 'admin'"), 0);
  conn.reset();
  // First on the installed host, whose mutable default instances are not in the store yet, then
  // after a boot that applied a desired configuration.
  const struct {
    Objects leftOut, added, removed;
  } rounds[] = {
      {{"qor/network/nuknics/nuk9", "qor/authentication/user_accounts/admin", "qor/advanced_options/user_vars/Agent_LogLevel",
        "qor/advanced_options/user_vars/Agent_RetrySeconds", "qor/system/advanced_options/Net.TcpipHeapSize"},
       {"qor/advanced_options/user_vars/Agent_LogLevel", "qor/advanced_options/user_vars/Agent_RetrySeconds",
        "qor/system/advanced_options/Net.TcpipHeapSize"},
       {"qor/network/nuknics/nuk9"}},
      {{}, {}, {}},
  };
  for (const auto& round : rounds) {
    CtlResult exported = Ctl("export --json -o " + Path("/export.json"));
    ASSERT_EQ(exported.status, 0) << exported.err;
    const std::string bytes = ReadFile("/export.json");
    EXPECT_EQ(Ctl("export").out, bytes) << "two exports of one store are the same bytes";
    Objects leftOut;
    const rapidjson::Document report = Json(exported);  // outlives the loop over its members
    for (const auto& o : report["leftOut"].GetArray()) {
      const std::string name = std::string(o["component"].GetString()) + "/" + o["group"].GetString() + "/" +
                               o["key"].GetString() + "/" + o["identifier"].GetString();
      leftOut.insert(name);
      EXPECT_NE(exported.err.find(o["identifier"].GetString()), std::string::npos) << name << " on standard error";
    }
    EXPECT_EQ(leftOut, round.leftOut);
    ASSERT_EQ(Ctl("set-desired " + Path("/export.json")).status, 0);
    rapidjson::Document plan = Json(Ctl("plan --json"));
    EXPECT_EQ(PlanList(plan, "added"), round.added);
    EXPECT_EQ(PlanList(plan, "removed"), round.removed);
    EXPECT_EQ(PlanList(plan, "changed"), Objects{});
    ASSERT_EQ(Ctl("load --no-restore --force").status, 0);
  }
  EXPECT_EQ(Ctl("diff " + Path("/export.json") + " " + Path("/etc/talvex/configstore/current-store-1")).status, 0);

  // Names that match nothing are said so, as get says it; an unreadable file is named in order.
  CtlResult none = Ctl("export qor nosuch");
  EXPECT_EQ(none.status, 3);
  EXPECT_EQ(none.err, "configstorectl export: nothing matches qor/nosuch\n");
  EXPECT_EQ(Json(Ctl("export --json qor nosuch"))["objects"].GetInt(), 0) << "the empty result comes first";
  CtlResult unreadable = Ctl("diff " + Path("/a.json") + " " + Path("/b.json"));
  EXPECT_EQ(unreadable.status, 2);
  EXPECT_NE(unreadable.err.find(Path("/a.json") + " could not be read"), std::string::npos) << unreadable.err;
}

}  // namespace
