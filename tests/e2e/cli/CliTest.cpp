// configstorectl as a process: get, schemas, and the rules every subcommand shares (help, --json,
// exit status, colour). Arguments go to the process as they are, without a shell.
#include <gmock/gmock.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "errors/Json.h"
#include "errors/Printable.h"
#include "platform/dbstore/DBStore.h"
#include "platform/schemastore/SchemaStore.h"
#include "tests/support/Ctl.h"
#include "tests/support/Sandbox.h"
#include "tests/support/StoreDump.h"

namespace {

using cstest::CtlResult;

class CliTest : public cstest::SandboxTest {
 protected:
  // Runs the tool with standard output and error going to files (never a terminal). Output that is
  // not a terminal must never carry colour, so every run checks that.
  CtlResult Ctl(const std::vector<std::string>& args, const std::vector<std::string>& env = {}) {
    CtlResult r = cstest::RunCtl(root_, args, env);
    EXPECT_EQ(r.out.find('\033'), std::string::npos) << "colour on a pipe: " << r.out;
    EXPECT_EQ(r.err.find('\033'), std::string::npos) << "colour on a pipe: " << r.err;
    return r;
  }

  // Runs the tool with standard output on a terminal; what the terminal received.
  std::string OnTerminal(const std::vector<std::string>& args, const std::vector<std::string>& env = {}) {
    std::vector<std::string> argv = cstest::CtlArgv(root_, args), envp = cstest::CtlEnvironment(env);
    std::vector<char*> argvp = cstest::ExecPointers(argv), envpp = cstest::ExecPointers(envp);
    int master = -1;
    pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
    if (pid == 0) {
      execve(argvp[0], argvp.data(), envpp.data());
      _exit(127);
    }
    EXPECT_GT(pid, 0);
    std::string seen;
    char buf[4096];
    for (ssize_t n; (n = read(master, buf, sizeof buf)) > 0 || (n < 0 && errno == EINTR);) {
      if (n > 0) seen.append(buf, static_cast<size_t>(n));
    }
    close(master);
    int raw = 0;
    waitpid(pid, &raw, 0);
    EXPECT_TRUE(WIFEXITED(raw) && WEXITSTATUS(raw) == 0) << seen;
    return seen;
  }

  static rapidjson::Document Json(const CtlResult& r) { return cstest::CtlJson(r); }

  // A Config row; `user` etc. are stored as given (nullptr stores NULL).
  void AddObject(const std::string& component, const std::string& group, const std::string& key,
                 const std::string& id, const char* user = R"({"a":1})", const char* vital = nullptr) const {
    auto conn = DBStore::GetConnection(DBStore::CONFIG_STORE, true);
    ASSERT_EQ(DBStore::Exec(conn,
                            "INSERT INTO Config (Component, ConfigGroup, Name, Identifier, Version, CreationTime, "
                            "Revision, UserValue, VitalValue) VALUES (?, ?, ?, ?, '1.0', '2024-05-01 10:00:00', 3, ?, ?)",
                            component, group, key, id, user, vital),
              0);
  }

  // Registers one configuration key per entry of `keys` ("component", "group", "key").
  void RegisterKeys(const std::vector<std::vector<std::string>>& keys) const {
    auto store = QorSchemaStore::SchemaStore::GetStore(true);
    store->BeginUpdate();
    for (const auto& k : keys) {
      rapidjson::Document element(rapidjson::kObjectType);
      auto& a = element.GetAllocator();
      element.AddMember("component", rapidjson::Value(k[0].c_str(), a), a);
      element.AddMember("group", rapidjson::Value(k[1].c_str(), a), a);
      element.AddMember("key", rapidjson::Value(k[2].c_str(), a), a);
      element.AddMember("version", "2.0", a);
      rapidjson::Value schema(rapidjson::kObjectType);
      schema.AddMember("type", "object", a);
      element.AddMember("schema", schema, a);
      const bool smartnic = k[0] == "qor";
      if (smartnic) {
        rapidjson::Value placement(rapidjson::kObjectType);
        placement.AddMember("schema", "qor-shared", a);
        element.AddMember("smartnic", placement, a);
      }
      store->SetSchema("kit-1.0.0_1.0", {k[0], k[1], k[2]}, element, smartnic);
    }
    store->CommitUpdate();
  }

  static std::vector<std::string> Identities(const rapidjson::Document& list) {
    std::vector<std::string> ids;
    if (!list.IsArray()) return {"not an array"};
    for (const auto& o : list.GetArray()) {
      ids.push_back(std::string(o["component"].GetString()) + "|" + o["group"].GetString() + "|" +
                    o["key"].GetString() + "|" + o["identifier"].GetString());
    }
    return ids;
  }
};

const std::string kQuoted = "it's \"quoted\"";

TEST_F(CliTest, GetNarrowsByEachDepthAndMatchesNamesExactly) {
  ASSERT_EQ(DBStore::CreateDatabases(), 0);
  AddObject("qor", "net work", kQuoted, "");
  AddObject("qor", "net work", kQuoted, "ü-1");
  AddObject("qor", "net", "k", "a");
  AddObject("qor2", "net work", kQuoted, "");
  AddObject("-dash", "g", "k", "");
  const std::string singleton = "qor|net work|" + kQuoted + "|";
  struct Case {
    std::vector<std::string> filters;
    std::vector<std::string> expected;
  } cases[] = {
      {{}, {"-dash|g|k|", "qor|net|k|a", singleton, singleton + "ü-1", "qor2|net work|" + kQuoted + "|"}},
      {{"qor"}, {"qor|net|k|a", singleton, singleton + "ü-1"}},
      {{"qor", "net work"}, {singleton, singleton + "ü-1"}},
      {{"qor", "net work", kQuoted}, {singleton, singleton + "ü-1"}},
      {{"qor", "net work", kQuoted, ""}, {singleton}},
      {{"qor", "net work", kQuoted, "ü-1"}, {singleton + "ü-1"}},
      {{"qor", "net"}, {"qor|net|k|a"}},  // a name, not a prefix
      {{"q%"}, {}},
      {{"' OR 1=1 --"}, {}},
      {{"qor", "net", "k", "b"}, {}},
      {{"--", "-dash"}, {"-dash|g|k|"}},
  };
  for (const Case& c : cases) {
    std::vector<std::string> args = {"get", "--json"};
    args.insert(args.end(), c.filters.begin(), c.filters.end());
    SCOPED_TRACE(testing::PrintToString(args));
    CtlResult r = Ctl(args);
    // Names that match nothing are said to, so that a typo does not read as "no objects".
    EXPECT_EQ(r.status, c.expected.empty() ? 3 : 0) << r.err;
    EXPECT_EQ(r.err.starts_with("configstorectl get: nothing matches "), c.expected.empty()) << r.err;
    EXPECT_EQ(Identities(Json(r)), c.expected);
  }
  EXPECT_EQ(Ctl({"get", "qor", "net", "k", "b"}).err, "configstorectl get: nothing matches qor/net/k [b]\n");
}

TEST_F(CliTest, GetShowsValuesVersionRevisionAndTheDefault) {
  ASSERT_EQ(DBStore::CreateDatabases(), 0);
  AddObject("qor", "network", "nuknics", "nuk0", R"({"name": "nuk0",  "mtu": 9000})", R"({"mac":"00:50"})");
  AddObject("qor", "network", "dns", "", "not json", nullptr);
  AddObject("qor", "bad\nname", "k", "");
  ASSERT_EQ(DBStore::Exec(DBStore::GetConnection(DBStore::CONFIG_STORE, true),
                          "INSERT INTO DefaultConfig VALUES ('qor', 'network', 'nuknics', 'nuk0', ?, '', '', '1.0')",
                          R"({"name":"nuk0","mtu":1500})"),
            0);

  CtlResult r = Ctl({"--json", "get", "qor", "network"});
  ASSERT_EQ(r.status, 0) << r.err;
  rapidjson::Document d = Json(r);
  ASSERT_TRUE(d.IsArray() && d.Size() == 2) << r.out;
  const rapidjson::Value& dns = d[0];
  const rapidjson::Value& nic = d[1];
  EXPECT_STREQ(nic["version"].GetString(), "1.0");
  EXPECT_EQ(nic["revision"].GetInt64(), 3);
  EXPECT_STREQ(nic["created"].GetString(), "2024-05-01 10:00:00");
  ASSERT_TRUE(nic["user"].IsObject()) << "values are JSON, not text";
  EXPECT_EQ(nic["user"]["mtu"].GetInt(), 9000);
  EXPECT_STREQ(nic["vital"]["mac"].GetString(), "00:50");
  EXPECT_TRUE(nic["cached"].IsNull());
  ASSERT_TRUE(nic["default"].IsObject());
  EXPECT_EQ(nic["default"]["mtu"].GetInt(), 1500);
  EXPECT_STREQ(dns["user"].GetString(), "not json") << "a stored text that is not JSON stays text";
  EXPECT_TRUE(dns["default"].IsNull());

  // Bytes that are not UTF-8 (stored before staging refused them) are shown as \xNN: the output
  // stays JSON. They used to be printed raw.
  AddObject("qor", "bad\xffgroup", "k", "", "{\"h\":\"a\xff\"}");
  r = Ctl({"--json", "get", "qor"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(QorConfigStore::IsValidUtf8(r.out)) << r.out;
  EXPECT_NE(r.out.find(R"("group": "bad\\xffgroup")"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find(R"("h": "a\\xff")"), std::string::npos) << r.out;

  r = Ctl({"get", "qor"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("qor/bad\\x0aname/k\n  version:"), std::string::npos) << "control bytes are escaped\n" << r.out;
  EXPECT_NE(r.out.find("qor/network/nuknics [nuk0]\n  version:  1.0\n  revision: 3\n  created:  2024-05-01 10:00:00\n"
                       "  user:     {\"name\":\"nuk0\",\"mtu\":9000}\n  vital:    {\"mac\":\"00:50\"}\n"
                       "  cached:   -\n  default:  {\"name\":\"nuk0\",\"mtu\":1500}\n"),
            std::string::npos)
      << r.out;
}

// A writer killed mid-transaction leaves its journal and its changed pages in the file; a reader
// must see the store as it was before that transaction, not fail on the journal.
TEST_F(CliTest, GetRollsBackWhatAKilledWriterLeft) {
  ASSERT_EQ(DBStore::CreateDatabases(), 0);
  AddObject("qor", "network", "dns", "", R"({"a":"before"})");
  const std::string storeBefore = ReadFile("/etc/talvex/configstore/current-store-1");
  pid_t pid = fork();
  if (pid == 0) {
    // A one-page cache makes the changed pages spill into the file before the commit.
    auto conn = DBStore::GetConnection(DBStore::CONFIG_STORE, true);
    bool written = DBStore::Exec(conn, "PRAGMA cache_size=1") == 0 &&
                   DBStore::BeginTransaction(conn) == 0 &&
                   DBStore::Exec(conn, R"(UPDATE Config SET UserValue = '{"a":"after"}')") == 0 &&
                   DBStore::Exec(conn, "INSERT INTO KeyValue VALUES ('filler', randomblob(1000000))") == 0;
    if (written) raise(SIGKILL);
    _exit(1);
  }
  int raw = 0;
  ASSERT_EQ(waitpid(pid, &raw, 0), pid);
  ASSERT_TRUE(WIFSIGNALED(raw)) << "the writer did not get as far as its kill";
  ASSERT_TRUE(Exists("/etc/talvex/configstore/current-store-1-journal"));
  ASSERT_NE(ReadFile("/etc/talvex/configstore/current-store-1"), storeBefore) << "no page of the writer spilled";

  CtlResult r = Ctl({"get", "--json"});
  ASSERT_EQ(r.status, 0) << r.err;
  rapidjson::Document d = Json(r);
  ASSERT_TRUE(d.IsArray() && d.Size() == 1) << r.out;
  EXPECT_STREQ(d[0]["user"]["a"].GetString(), "before");
}

TEST_F(CliTest, SchemasListsRegisteredKeysOfTheNamedComponents) {
  ASSERT_EQ(DBStore::CreateDatabases(), 0);
  RegisterKeys({{"qor", "network", "nuknics"}, {"net ü", "g", "k"}, {"x'y", "g", "k"}, {"網路", "e\u0301", "k"}});
  struct Case {
    std::vector<std::string> components;
    std::vector<std::string> expected;
  } cases[] = {
      {{}, {"net ü|g|k", "qor|network|nuknics", "x'y|g|k", "網路|e\u0301|k"}},
      {{"qor"}, {"qor|network|nuknics"}},
      {{"net ü", "x'y"}, {"net ü|g|k", "x'y|g|k"}},
      {{"nothing"}, {}},
      {{"qor", "nothing"}, {"qor|network|nuknics"}},
  };
  for (const Case& c : cases) {
    std::vector<std::string> args = {"schemas", "--json"};
    args.insert(args.end(), c.components.begin(), c.components.end());
    SCOPED_TRACE(testing::PrintToString(args));
    CtlResult r = Ctl(args);
    const bool unmatched = c.components.size() > c.expected.size();
    EXPECT_EQ(r.status, unmatched ? 3 : 0) << r.err;
    EXPECT_EQ(r.err, unmatched ? "configstorectl schemas: nothing matches component 'nothing'\n" : "");
    rapidjson::Document d = Json(r);
    ASSERT_TRUE(d.IsArray()) << r.out;
    std::vector<std::string> keys;
    for (const auto& o : d.GetArray()) {
      keys.push_back(std::string(o["component"].GetString()) + "|" + o["group"].GetString() + "|" +
                     o["key"].GetString());
      EXPECT_STREQ(o["schemaId"].GetString(), "kit-1.0.0_1.0");
      EXPECT_STREQ(o["version"].GetString(), "2.0");
      EXPECT_STREQ(o["smartnic"].GetString(), keys.back().starts_with("qor|") ? "qor-shared" : "");
    }
    EXPECT_EQ(keys, c.expected);
  }
  // Columns are as wide as the terminal shows them: two columns a wide character, none a combining mark.
  CtlResult text = Ctl({"schemas", "qor", "網路"});
  EXPECT_EQ(text.out,
            "COMPONENT  GROUP    KEY      SCHEMA ID      VERSION  SMARTNIC\n"
            "qor        network  nuknics  kit-1.0.0_1.0  2.0      qor-shared\n"
            "網路       e\u0301        k        kit-1.0.0_1.0  2.0      -\n");
}

// The command list comes from the tool itself, so a subcommand added later is covered too.
TEST_F(CliTest, EverySubcommandAnswersHelpWithItsUsage) {
  CtlResult list = Ctl({"--json", "--help"});
  ASSERT_EQ(list.status, 0) << list.err;
  rapidjson::Document d = Json(list);
  ASSERT_TRUE(d.IsArray() && d.Size() >= 20) << list.out;
  std::vector<std::string> names;
  for (const auto& c : d.GetArray()) {
    const std::string name = c["name"].GetString();
    names.push_back(name);
    const std::string usage = std::string("usage: configstorectl [--root DIR] [-v] ") + c["usage"].GetString() +
                              (c["json"].GetBool() ? " [--json]" : "") + "\n\n";
    for (const char* flag : {"--help", "-h"}) {
      SCOPED_TRACE(name + " " + flag);
      CtlResult r = Ctl({name, flag});
      EXPECT_EQ(r.status, 0) << r.err;
      EXPECT_TRUE(r.out.starts_with(usage)) << r.out;
      EXPECT_GT(r.out.size(), usage.size() + 10) << "a help text follows the usage";
    }
  }
  for (const char* expected : {"get", "schemas", "process-schemas", "metrics", "load"}) {
    EXPECT_NE(std::find(names.begin(), names.end(), expected), names.end()) << expected;
  }
  CtlResult human = Ctl({"-h"});
  EXPECT_EQ(human.status, 0);
  EXPECT_NE(human.out.find("\nsubcommands:\n"), std::string::npos) << human.out;
  CtlResult version = Ctl({"--version"});
  EXPECT_EQ(version.status, 0);
  EXPECT_EQ(version.out, "configstorectl " CONFIGSTORE_VERSION "\n");
}

// Two lines on standard error: what is wrong, then the usage line or where to find it. With --json
// the error is also a JSON document on standard output, for scripts that read only that.
TEST_F(CliTest, BadUsageExitsTwoWithTheUsageOnStandardError) {
  ASSERT_EQ(DBStore::CreateDatabases(), 0);
  const auto before = cstest::DumpStores();
  const std::vector<std::vector<std::string>> cases = {
      {},
      {"no-such-subcommand"},
      {"--bogus", "get"},
      {"get", "a", "b", "c", "d", "e"},
      {"get", "--bogus"},
      {"schemas", "-x"},
      {"cleanup", "store", "--json"},
      {"--json", "cleanup", "autoconf"},
      {"metrics", "extra"},
      {"boot-mode", "set", "9"},
      {"--json", "--bogus"},
      {"get", "--json", "--root"},
      {"--json", "no-such-subcommand"},
  };
  for (const auto& args : cases) {
    SCOPED_TRACE(testing::PrintToString(args));
    CtlResult r = Ctl(args);
    EXPECT_EQ(r.status, 2) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 2) << r.err;
    EXPECT_TRUE(r.err.find("\nusage: configstorectl") != std::string::npos ||
                r.err.ends_with("\ntry 'configstorectl --help'\n"))
        << r.err;
    if (std::find(args.begin(), args.end(), "--json") == args.end()) {
      EXPECT_EQ(r.out, "");
    } else {
      rapidjson::Document d = Json(r);
      EXPECT_EQ(d["error"]["code"].GetInt(), 2) << r.out;
      EXPECT_STREQ(d["error"]["cause"].GetString(), "usage");
      EXPECT_TRUE(r.err.find(d["error"]["message"].GetString()) != std::string::npos) << r.out;
    }
  }
  EXPECT_EQ(cstest::DiffStores(before, cstest::DumpStores()), "") << "bad usage changes nothing";
}

// Each failure line names the cause and the file. The root changes as the table goes: no store,
// then a store held by a writer, then a run-time directory that cannot be made (var/run is a
// regular file: root itself cannot create anything under a file), then a store that is a directory.
TEST_F(CliTest, FailureExitsOneWithTheErrorCodeAndCause) {
  const std::string store = Path("/etc/talvex/configstore/current-store-1");
  const std::string missing = store + " does not exist\n";
  const std::string imageLockFailure =
      "Cannot open the image database lock file " + Path("/var/run/liveimgdb.pid") + ": Not a directory";
  DBStore::Connection writer;
  struct Case {
    std::function<void()> arrange;  // run before the command, when given
    std::vector<std::string> args;
    int status;
    std::string line;  // part of standard error, or of standard output for a load that ran on
  } cases[] = {
      {nullptr, {"get"}, 1, "configstorectl get: error 2000: no configuration store at " + store + " ("},
      {nullptr, {"--json", "get", "qor"}, 1, "configstorectl get: error 2000: no configuration store at "},
      // A root that is not a directory is named as the cause, wherever --root stands.
      {nullptr, {"get", "--root", root_ + "/no"}, 2, "configstorectl: host root \"" + root_ + "/no\" does not exist\n"},
      {[&] { WriteFile("/file", ""); }, {"--root", root_ + "/file", "get"}, 2,
       "configstorectl: host root \"" + root_ + "/file\" is not a directory\n"},
      {nullptr, {"schemas"}, 1, "configstorectl schemas: error 2000: "},
      // The file's error keeps its message and says why.
      {nullptr, {"set-desired", Path("/missing.json")}, 1,
       "configstorectl set-desired: error 1081: The JSON file " + Path("/missing.json") +
           " could not be read or parsed.: No such file or directory\n"},
      {nullptr, {"set-desired", Path("/")}, 1,
       "configstorectl set-desired: error 1081: The JSON file " + Path("/") +
           " could not be read or parsed.: Is a directory\n"},
      {[&] { WriteFile("/bad.json", "{\n  \"a\" 1}"); }, {"set-desired", Path("/bad.json")}, 1,
       "configstorectl set-desired: error 1081: The JSON file " + Path("/bad.json") +
           " could not be read or parsed.: line 2, column 7: Missing a colon after a name of object member.\n"},
      {nullptr, {"process-schemas"}, 1, "configstorectl process-schemas: error 2000: no configuration store at " +
                                            store + " (it is made at boot by load, or by create-store)\n"},
      {nullptr, {"plan"}, 1, "plan: error 2000: Failed to connect to database: " + missing},
      {nullptr, {"staged"}, 1, "staged: error 2000: Failed to connect to database: " + missing},
      {nullptr, {"boot-mode"}, 1, "boot-mode: error 2000: Failed to connect to database: " + missing},
      {nullptr, {"metrics"}, 1, "metrics: error 2000: Failed to connect to database. " + missing},
      {[&] {
         EXPECT_FALSE(Exists("/etc/talvex/configstore/current-store-1")) << "no command above creates the store";
         ASSERT_EQ(DBStore::CreateDatabases(), 0);
         WriteFile("/desired.json", R"({"profile": {}})");
         writer = DBStore::GetConnection(DBStore::CONFIG_STORE, true);
         ASSERT_EQ(DBStore::BeginTransaction(writer), 0);
       },
       {"set-desired", Path("/desired.json")}, 1,
       "set-desired: error 2000: Failed to start set desired transaction: " + store + ": database is locked\n"},
      {[&] {
         writer.reset();
         CopyExampleHost();
         std::filesystem::remove_all(Path("/var/run"));  // the plan above made its boot lock there
         WriteFile("/var/run", "a file where the run-time directory belongs");
       },
       {"setup-ramdisk"}, 1,
       "setup-ramdisk: error 2000: Failed to reserve memory for ConfigStore: cannot create " + Path("/var/run/talvex") +
           ": Not a directory\n"},
      {nullptr, {"load"}, 0, "schemas not processed: " + imageLockFailure + "\n"},
      // A reboot empties the run-time directory (here a file), so the first load of the boot keeps
      // its report; a second load in that boot would replace the live store with the backup.
      {[&] { Remove("/var/run"); }, {"load"}, 0, "boot load, started "},
      {nullptr, {"--json", "load"}, 1,
       "load: error 2000: a load already ran in this boot of the host (its report is "
       "/var/run/talvex/files/last-boot.json): loading again replaces the live store and loses what was staged or "
       "changed since; give --force to load anyway\n"},
      {[&] {
         Remove("/etc/talvex/configstore/current-store-1");
         std::filesystem::create_directory(store);
       },
       {"load", "--force"}, 1, "load: error 2000: Failed to connect to database: " + store + " is a directory\n"},
      {nullptr, {"get"}, 1, "get: error 2000: cannot open the configuration store: " + store + " is a directory\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    if (c.arrange) c.arrange();
    CtlResult r = Ctl(c.args);
    EXPECT_EQ(r.status, c.status);
    EXPECT_NE((c.status == 0 ? r.out : r.err).find(c.line), std::string::npos) << r.err << r.out;
    if (c.args[0] == "--json") {  // the failure as a document on standard output too
      rapidjson::Document d = Json(r);
      EXPECT_NE(r.err.find(d["error"]["message"].GetString()), std::string::npos) << r.out;
      EXPECT_EQ(d["error"]["code"].GetInt(), 2000);
      EXPECT_STREQ(d["error"]["cause"].GetString(), "failure");
    } else if (c.args[0] != "load") {
      EXPECT_EQ(r.out, "");
    }
  }
  EXPECT_THAT(RecordedAlerts(), testing::Contains("Error processing schemas - '" + imageLockFailure + "'."))
      << "a boot that could not read the installed image raises an alert";
}

// Every object is listed, whatever its names hold, and the figures are what SQL's LENGTH counts:
// characters of text.
TEST_F(CliTest, MetricsListsEveryObjectAndNamesWhatItCounts) {
  ASSERT_EQ(DBStore::CreateDatabases(), 0);
  AddObject("q,or", "net,work", "k,1", "a,b", "ééé");
  AddObject("qor", "g", "k", "", R"({"a":1})", "v");
  CtlResult r = Ctl({"metrics", "--rows", "--json"});
  ASSERT_EQ(r.status, 0) << r.err;
  rapidjson::Document d = Json(r);
  EXPECT_EQ(d["rowCount"].GetInt(), 2);
  EXPECT_EQ(d["userSize"].GetInt(), 10) << "\"ééé\" is 3 characters (6 bytes)";
  std::vector<std::string> rows;
  for (const auto& o : d["rows"].GetArray()) {
    rows.push_back(std::string(o["component"].GetString()) + "|" + o["group"].GetString() + "|" +
                   o["key"].GetString() + "|" + std::to_string(o["userSize"].GetInt64()) + "|" +
                   std::to_string(o["vitalSize"].GetInt64()));
  }
  std::sort(rows.begin(), rows.end());
  EXPECT_EQ(rows, (std::vector<std::string>{"q,or|net,work|k,1|3|0", "qor|g|k|7|1"})) << r.out;

  r = Ctl({"metrics", "--rows"});
  EXPECT_TRUE(r.out.starts_with("rows:              2\nuser characters:   10\nvital characters:  1\n"
                                "cached characters: 0\n"))
      << r.out;
  EXPECT_NE(r.out.find("\nq,or       net,work  k,1  0      3     0\n"), std::string::npos) << r.out;

  // Three values of 800,000,000 characters: a total past the 32-bit range, named.
  auto conn = DBStore::GetConnection(DBStore::CONFIG_STORE, true);
  ASSERT_EQ(DBStore::Exec(conn, "DROP TABLE Config"), 0);
  ASSERT_EQ(DBStore::Exec(conn, "CREATE VIEW Config AS SELECT 'c' Component, 'g' ConfigGroup, 'k' Name, "
                             "zeroblob(800000000) VitalValue, NULL UserValue, NULL CachedValue "
                             "FROM (SELECT 1 UNION ALL SELECT 2 UNION ALL SELECT 3)"),
            0);
  r = Ctl({"metrics"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "configstorectl metrics: error 2000: vital characters: the total is beyond 2147483647 (stoi)\n");
}

// "--" ends the options of every subcommand alike: before it an option the subcommand does not
// take is bad usage; after it every word is a value, and the "--" itself never is one.
TEST_F(CliTest, DoubleDashEndsTheOptionsOfEverySubcommand) {
  ASSERT_EQ(DBStore::CreateDatabases(), 0);
  const rapidjson::Document list = Json(Ctl({"--json", "--help"}));
  ASSERT_TRUE(list.IsArray());
  for (const auto& c : list.GetArray()) {
    const std::string name = c["name"].GetString();
    SCOPED_TRACE(name);
    CtlResult option = Ctl({name, "-x"});
    EXPECT_EQ(option.status, 2);
    EXPECT_NE(option.err.find("unknown option '-x'"), std::string::npos) << option.err;
    CtlResult value = Ctl({name, "--", "-x"});
    EXPECT_EQ(value.err.find("unknown option"), std::string::npos) << value.err;
    EXPECT_EQ(value.err.find("'--'"), std::string::npos) << value.err;
  }
  struct Case {
    std::vector<std::string> args;
    std::string out;
  } cases[] = {
      {{"install-info", "set", "--", "-x"}, "-x\n"},
      {{"install-info", "--", "set", "--"}, "--\n"},
      {{"install-info", "--"}, "--\n"},
      {{"metrics", "--", "--rows"}, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    CtlResult r = Ctl(c.args);
    EXPECT_EQ(r.status, c.out.empty() ? 2 : 0) << r.err;
    EXPECT_EQ(r.out, c.out);
  }
}

// Registration and the default configuration are two halves; the output says which one failed.
TEST_F(CliTest, ProcessSchemasSaysWhichHalfFailed) {
  CopyExampleHost();
  ASSERT_EQ(DBStore::CreateDatabases(), 0);
  const std::string defaults = "/etc/talvex/default-config/qor-base-8.0.2_1.0.json";
  const std::string goodDefaults = ReadFile(defaults);
  struct Case {
    std::string schemaFile, defaultFile;  // written before the run
    bool registered, loaded;
    const char* failure;  // the failure line's message; "" for success
  } cases[] = {
      {"", "{", true, false, "the default configuration failed (the schemas were registered)"},
      {R"({"metadata": {"kitname": "stray", "kitversion": "1"}, "data": []})", "{", false, false,
       "schema registration and the default configuration failed"},
      {R"({"metadata": {"kitname": "stray", "kitversion": "1"}, "data": []})", goodDefaults, false, true,
       "schema registration failed (the default configuration was loaded)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.failure);
    if (!c.schemaFile.empty()) WriteFile("/usr/lib/talvex/configmanager/schemas/stray-1.json", c.schemaFile);
    WriteFile(defaults, c.defaultFile);
    CtlResult r = Ctl({"process-schemas", "--json"});
    EXPECT_EQ(r.status, 1);
    rapidjson::Document d = Json(r);
    EXPECT_EQ(d["schemasRegistered"].GetBool(), c.registered) << r.out;
    EXPECT_EQ(d["defaultsLoaded"].GetBool(), c.loaded) << r.out;
    EXPECT_NE(r.err.find(std::string("configstorectl process-schemas: error 2000: ") + c.failure), std::string::npos)
        << r.err;
  }
}

TEST_F(CliTest, ColourOnlyOnATerminalWithoutNoColorAndNeverInJson) {
  ASSERT_EQ(DBStore::CreateDatabases(), 0);
  AddObject("qor", "network", "dns", "");
  EXPECT_NE(OnTerminal({"get"}).find("\033[1mqor/network/dns\033[0m"), std::string::npos) << "bold heading";
  EXPECT_EQ(OnTerminal({"get"}, {"NO_COLOR=1"}).find('\033'), std::string::npos);
  EXPECT_EQ(OnTerminal({"get", "--json"}).find('\033'), std::string::npos);
  EXPECT_EQ(Ctl({"get"}).status, 0);  // piped: Ctl itself checks there is no escape byte
}

}  // namespace
