// configstorectl as a process: get, schemas, metrics, the boot flags, and the rules every
// subcommand shares (help, --, --json, exit status, colour). Arguments go to the process as they
// are, without a shell.
#include <gmock/gmock.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "configstore/bootstate/BootState.h"
#include "configstore/bootstate/UpgradeDetection.h"
#include "errors/Json.h"
#include "errors/Printable.h"
#include "platform/dbstore/DBStore.h"
#include "platform/plon/Plon.h"
#include "platform/schemastore/SchemaStore.h"
#include "tests/support/Ctl.h"
#include "tests/support/Sandbox.h"
#include "tests/support/StoreDump.h"

namespace {

using cstest::CtlResult;

class CliTest : public cstest::SandboxTest {
 protected:
  // Standard output and error go to files (never a terminal): they must never carry colour.
  CtlResult Ctl(const std::vector<std::string>& args, const std::vector<std::string>& env = {}) {
    CtlResult r = cstest::RunCtl(root_, args, env);
    EXPECT_EQ((r.out + r.err).find('\033'), std::string::npos) << "colour on a pipe: " << r.out << r.err;
    return r;
  }
  CtlResult Line(const std::string& line) { return Ctl(Words(line)); }  // words split at spaces
  static std::vector<std::string> Words(const std::string& line) {
    std::vector<std::string> words;
    for (size_t at = 0, end; at < line.size(); at = end + 1) {
      end = std::min(line.find(' ', at), line.size());
      words.push_back(line.substr(at, end - at));
    }
    return words;
  }
  static rapidjson::Document Json(const CtlResult& r) { return cstest::CtlJson(r); }

  // What a terminal on standard output receives from the tool.
  std::string OnTerminal(const std::vector<std::string>& args, const std::vector<std::string>& env = {}) {
    std::vector<std::string> argv = cstest::CtlArgv(root_, args), envp = cstest::CtlEnvironment(env);
    std::vector<char*> argvp = cstest::ExecPointers(argv), envpp = cstest::ExecPointers(envp);
    int master = -1;
    pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
    if (pid == 0) _exit(execve(argvp[0], argvp.data(), envpp.data()) == 0 ? 0 : 127);
    std::string seen;
    char buf[4096];
    for (ssize_t n; (n = read(master, buf, sizeof buf)) > 0;) seen.append(buf, static_cast<size_t>(n));
    close(master);
    waitpid(pid, nullptr, 0);
    return seen;
  }

  // A Config row; nullptr stores NULL.
  void AddObject(const std::string& component, const std::string& group, const std::string& key, const std::string& id,
                 const char* user = R"({"a":1})", const char* vital = nullptr) const {
    ASSERT_EQ(
        DBStore::Exec(DBStore::GetConnection(DBStore::CONFIG_STORE, true),
                      "INSERT INTO Config (Component, ConfigGroup, Name, Identifier, Version, CreationTime, "
                      "Revision, UserValue, VitalValue) VALUES (?, ?, ?, ?, '1.0', '2024-05-01 10:00:00', 3, ?, ?)",
                      component, group, key, id, user, vital),
        0);
  }

  // Each element of a JSON array as its `members` joined by "|".
  static std::vector<std::string> Fields(const rapidjson::Value& list, const std::vector<const char*>& members) {
    std::vector<std::string> rows;
    for (const auto& o : list.GetArray()) {
      std::string& row = rows.emplace_back();
      for (const char* m : members)
        row += (row.empty() ? "" : "|") + (o[m].IsString() ? o[m].GetString() : std::to_string(o[m].GetInt64()));
    }
    return rows;
  }

  // A store and the boot nodes the boot-state subcommands read.
  void BootNodes() {
    ASSERT_EQ(DBStore::CreateDatabases(), 0);
    ASSERT_TRUE(PLON_WriteSignature());
    for (const auto& [node, content] :
         {std::pair<std::string, std::string>{"/system/bootCmdLine", "BOOT_IMAGE=/b.b00 ro no-configupgrade-zpan"},
          {"/system/bootOption", std::string(4, '\0')},
          {"/system/bootMAC", ""},
          {"/system/bootFsUUID", "uuid-new"}}) {
      ASSERT_TRUE(PLON_WriteNodeFile(node, content)) << node;
    }
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
      {{"qor", "net work"}, {singleton, singleton + "ü-1"}},
      {{"qor", "net work", kQuoted, ""}, {singleton}},
      {{"qor", "net work", kQuoted, "ü-1"}, {singleton + "ü-1"}},
      {{"qor", "net"}, {"qor|net|k|a"}},  // a name, not a prefix
      {{"q%"}, {}},
      {{"' OR 1=1 --"}, {}},
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
    EXPECT_EQ(Fields(Json(r), {"component", "group", "key", "identifier"}), c.expected);
  }
}

// The text form of get is checked by the examples of docs/operator-guide.md.
TEST_F(CliTest, GetShowsValuesAndTheDefaultAsJsonAndEscapedText) {
  ASSERT_EQ(DBStore::CreateDatabases(), 0);
  AddObject("qor", "network", "nuknics", "nuk0", R"({"name": "nuk0",  "mtu": 9000})", R"({"mac":"00:50"})");
  AddObject("qor", "network", "dns", "", "not json", nullptr);
  AddObject("qor", "bad\nname", "k", "");
  AddObject("qor", "bad\xffgroup", "k", "", "{\"h\":\"a\xff\"}");  // stored before staging refused such bytes
  ASSERT_EQ(DBStore::Exec(DBStore::GetConnection(DBStore::CONFIG_STORE, true),
                          "INSERT INTO DefaultConfig VALUES ('qor', 'network', 'nuknics', 'nuk0', ?, '', '', '1.0')",
                          R"({"name":"nuk0","mtu":1500})"),
            0);
  CtlResult r = Ctl({"--json", "get", "qor", "network"});
  rapidjson::Document d = Json(r);
  ASSERT_TRUE(d.IsArray() && d.Size() == 2) << r.out;
  EXPECT_EQ(d[1]["user"]["mtu"].GetInt(), 9000) << "values are JSON, not text";
  EXPECT_EQ(d[1]["default"]["mtu"].GetInt(), 1500);
  EXPECT_STREQ(d[0]["user"].GetString(), "not json") << "a stored text that is not JSON stays text";
  EXPECT_TRUE(d[0]["default"].IsNull());
  // Bytes that are not UTF-8 are shown as \xNN, control bytes escaped: the output stays JSON.
  r = Ctl({"--json", "get", "qor"});
  EXPECT_TRUE(QorConfigStore::IsValidUtf8(r.out)) << r.out;
  EXPECT_NE(r.out.find(R"("h": "a\\xff")"), std::string::npos) << r.out;
  EXPECT_NE(Ctl({"get", "qor"}).out.find("qor/bad\\x0aname/k\n  version:"), std::string::npos);
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
    if (DBStore::Exec(conn, "PRAGMA cache_size=1") == 0 && DBStore::BeginTransaction(conn) == 0 &&
        DBStore::Exec(conn, R"(UPDATE Config SET UserValue = '{"a":"after"}')") == 0 &&
        DBStore::Exec(conn, "INSERT INTO KeyValue VALUES ('filler', randomblob(1000000))") == 0) {
      raise(SIGKILL);
    }
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
  auto store = QorSchemaStore::SchemaStore::GetStore(true);
  store->BeginUpdate();
  for (const std::vector<std::string>& k :
       {std::vector<std::string>{"qor", "network", "nuknics"}, {"x'y", "g", "k"}, {"網路", "e\u0301", "k"}}) {
    rapidjson::Document element;
    element.Parse(R"({"version": "2.0", "schema": {"type": "object"}, "smartnic": {"schema": "qor-shared"}})");
    if (k[0] != "qor") element.RemoveMember("smartnic");
    store->SetSchema("kit-1.0.0_1.0", {k[0], k[1], k[2]}, element, k[0] == "qor");
  }
  store->CommitUpdate();
  CtlResult none = Ctl({"schemas", "x'y", "nothing"});
  EXPECT_EQ(none.status, 3);
  EXPECT_EQ(none.err, "configstorectl schemas: nothing matches component 'nothing'\n");
  // Columns are as wide as the terminal shows them: two columns a wide character, none a combining mark.
  EXPECT_EQ(Ctl({"schemas", "qor", "網路"}).out,
            "COMPONENT  GROUP    KEY      SCHEMA ID      VERSION  SMARTNIC\n"
            "qor        network  nuknics  kit-1.0.0_1.0  2.0      qor-shared\n"
            "網路       e\u0301        k        kit-1.0.0_1.0  2.0      -\n");
}

// The command list comes from the tool itself, so a subcommand added later is covered too: each
// answers --help and -h with its usage; before "--" an option it does not take is bad usage; after
// it every word is a value, and the "--" itself never is one.
TEST_F(CliTest, EverySubcommandAnswersHelpAndEndsItsOptionsAtDoubleDash) {
  ASSERT_EQ(DBStore::CreateDatabases(), 0);
  CtlResult list = Ctl({"--json", "--help"});
  rapidjson::Document d = Json(list);
  ASSERT_TRUE(d.IsArray() && d.Size() >= 20) << list.out;
  for (const auto& c : d.GetArray()) {
    const std::string name = c["name"].GetString();
    SCOPED_TRACE(name);
    const std::string usage = std::string("usage: configstorectl [--root DIR] [-v] ") + c["usage"].GetString() +
                              (c["json"].GetBool() ? " [--json]" : "") + "\n\n";
    for (const char* flag : {"--help", "-h"}) {
      CtlResult r = Ctl({name, flag});
      EXPECT_EQ(r.status, 0) << r.err;
      EXPECT_TRUE(r.out.starts_with(usage) && r.out.size() > usage.size() + 10) << r.out;
    }
    EXPECT_NE(Ctl({name, "-x"}).err.find("unknown option '-x'"), std::string::npos);
    CtlResult value = Ctl({name, "--", "-x"});
    EXPECT_TRUE(value.err.find("unknown option") == std::string::npos && value.err.find("'--'") == std::string::npos)
        << value.err;
  }
  EXPECT_EQ(Line("install-info set -- -x").status, 0);
  EXPECT_EQ(Line("install-info").out, "-x\n");
  EXPECT_EQ(Line("install-info -- set --").status, 0);
  EXPECT_EQ(Line("install-info --").out, "--\n");
  EXPECT_EQ(Line("--version").out, "configstorectl " CONFIGSTORE_VERSION "\n");
}

// Two lines on standard error: what is wrong, then the usage line or where to find it. With --json
// the error is also a JSON document on standard output, for scripts that read only that.
TEST_F(CliTest, BadUsageExitsTwoWithTheUsageOnStandardError) {
  BootNodes();
  const auto before = cstest::DumpStores();
  // clang-format off
  for (const char* line : {"", "no-such-subcommand", "--bogus get", "get a b c d e",
                           "schemas -x", "cleanup store --json", "--json cleanup autoconf", "metrics extra",
                           "metrics -- --rows", "--json --bogus", "get --json --root", "--json no-such-subcommand",
                           "boot-mode set 9", "boot-mode set -1", "boot-mode set 03", "boot-mode set",
                           "boot-mode reset", "autoconf", "live-install maybe", "install-info set", "boot-state",
                           "boot-kind extra"}) {
    // clang-format on
    const std::vector<std::string> args = *line ? Words(line) : std::vector<std::string>{};
    SCOPED_TRACE(line);
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
      // A root that is not a directory is named as the cause, wherever --root stands.
      {nullptr, {"get", "--root", root_ + "/no"}, 2, "configstorectl: host root \"" + root_ + "/no\" does not exist\n"},
      {[&] { WriteFile("/file", ""); },
       {"--root", root_ + "/file", "get"},
       2,
       "configstorectl: host root \"" + root_ + "/file\" is not a directory\n"},
      // The file's error keeps its message and says why.
      {[&] { WriteFile("/bad.json", "{\n  \"a\" 1}"); },
       {"set-desired", Path("/bad.json")},
       1,
       "configstorectl set-desired: error 1081: The JSON file " + Path("/bad.json") +
           " could not be read or parsed.: line 2, column 7: Missing a colon after a name of object member.\n"},
      {nullptr,
       {"process-schemas"},
       1,
       "configstorectl process-schemas: error 2000: no configuration store at " + store +
           " (it is made at boot by load, or by create-store)\n"},
      {nullptr, {"plan"}, 1, "plan: error 2000: Failed to connect to database: " + missing},
      {nullptr, {"install-info", "get"}, 1, "install-info: error 2000: Failed to connect to database. "},
      {[&] {
         EXPECT_FALSE(Exists("/etc/talvex/configstore/current-store-1")) << "no command above creates the store";
         ASSERT_EQ(DBStore::CreateDatabases(), 0);
         WriteFile("/desired.json", R"({"profile": {}})");
         writer = DBStore::GetConnection(DBStore::CONFIG_STORE, true);
         ASSERT_EQ(DBStore::BeginTransaction(writer), 0);
       },
       {"set-desired", Path("/desired.json")},
       1,
       "set-desired: error 2000: Failed to start set desired transaction: " + store + ": database is locked\n"},
      {[&] {
         writer.reset();
         CopyExampleHost();
         std::filesystem::remove_all(Path("/var/run"));  // the plan above made its boot lock there
         WriteFile("/var/run", "a file where the run-time directory belongs");
       },
       {"setup-ramdisk"},
       1,
       "setup-ramdisk: error 2000: Failed to reserve memory for ConfigStore: cannot create " + Path("/var/run/talvex") +
           ": Not a directory\n"},
      {nullptr, {"load"}, 0, "schemas not processed: " + imageLockFailure + "\n"},
      // A reader that cannot take the boot lock reads anyway, and the system log says so.
      {nullptr, {"get"}, 0, ""},
      // A reboot empties the run-time directory (here a file), so the first load of the boot keeps
      // its report; a second load in that boot would replace the live store with the backup.
      {[&] { Remove("/var/run"); }, {"load"}, 0, "boot load, started "},
      {nullptr,
       {"--json", "load"},
       1,
       "load: error 2000: a load already ran in this boot of the host (its report is "
       "/var/run/talvex/files/last-boot.json): loading again replaces the live store and loses what was staged or "
       "changed since; give --force to load anyway\n"},
      {[&] {
         Remove("/etc/talvex/configstore/current-store-1");
         std::filesystem::create_directory(store);
       },
       {"get"},
       1,
       "get: error 2000: cannot open the configuration store: " + store + " is a directory\n"},
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
    } else if (c.status != 0) {
      EXPECT_EQ(r.out, "");
    }
  }
  EXPECT_THAT(RecordedAlerts(), testing::Contains("Error processing schemas - '" + imageLockFailure + "'."))
      << "a boot that could not read the installed image raises an alert";
  EXPECT_NE(ReadFile("/var/log/syslog.log").find("Reading the store without the boot lock: "), std::string::npos);
}

// The figures are what SQL's LENGTH counts (characters of text), whatever the names hold.
TEST_F(CliTest, MetricsCountsCharactersAndNamesAnOverflow) {
  ASSERT_EQ(DBStore::CreateDatabases(), 0);
  AddObject("q,or", "net,work", "k,1", "a,b", "ééé");
  AddObject("qor", "g", "k", "", R"({"a":1})", "v");
  CtlResult r = Ctl({"metrics", "--rows", "--json"});
  rapidjson::Document d = Json(r);
  EXPECT_EQ(d["userSize"].GetInt(), 10) << "\"ééé\" is 3 characters (6 bytes)";
  EXPECT_THAT(Fields(d["rows"], {"component", "key", "userSize", "vitalSize"}),
              testing::UnorderedElementsAre("q,or|k,1|3|0", "qor|k|7|1"));
  // Three values of 800,000,000 characters: a total past the 32-bit range, named.
  auto conn = DBStore::GetConnection(DBStore::CONFIG_STORE, true);
  ASSERT_EQ(DBStore::Exec(conn, "DROP TABLE Config"), 0);
  ASSERT_EQ(DBStore::Exec(conn,
                          "CREATE VIEW Config AS SELECT 'c' Component, 'g' ConfigGroup, 'k' Name, "
                          "zeroblob(800000000) VitalValue, NULL UserValue, NULL CachedValue "
                          "FROM (SELECT 1 UNION ALL SELECT 2 UNION ALL SELECT 3)"),
            0);
  r = Ctl({"metrics"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "configstorectl metrics: error 2000: vital characters: the total is beyond 2147483647 (stoi)\n");
}

// Registration and the default configuration are two halves; the output says which one failed.
TEST_F(CliTest, ProcessSchemasSaysWhichHalfFailed) {
  CopyExampleHost();
  ASSERT_EQ(DBStore::CreateDatabases(), 0);
  const std::string defaults = "/etc/talvex/default-config/qor-base-8.0.2_1.0.json";
  const std::string goodDefaults = ReadFile(defaults),
                    stray = R"({"metadata": {"kitname": "s", "kitversion": "1"}, "data": []})";
  struct Case {
    std::string schemaFile, defaultFile;  // written before the run
    bool registered, loaded;
    const char* failure;
  } cases[] = {
      {"", "{", true, false, "the default configuration failed (the schemas were registered)"},
      {stray, "{", false, false, "schema registration and the default configuration failed"},
      {stray, goodDefaults, false, true, "schema registration failed (the default configuration was loaded)"},
  };
  for (const Case& c : cases) {
    if (!c.schemaFile.empty()) WriteFile("/usr/lib/talvex/configmanager/schemas/stray-1.json", c.schemaFile);
    WriteFile(defaults, c.defaultFile);
    CtlResult r = Ctl({"process-schemas", "--json"});
    EXPECT_EQ(r.status, 1);
    rapidjson::Document d = Json(r);
    EXPECT_EQ(d["schemasRegistered"].GetBool(), c.registered) << r.out;
    EXPECT_EQ(d["defaultsLoaded"].GetBool(), c.loaded) << r.out;
    EXPECT_NE(r.err.find(std::string("process-schemas: error 2000: ") + c.failure), std::string::npos) << r.err;
  }
}

TEST_F(CliTest, ColourOnlyOnATerminalWithoutNoColorAndNeverInJson) {
  ASSERT_EQ(DBStore::CreateDatabases(), 0);
  AddObject("qor", "network", "dns", "");
  EXPECT_NE(OnTerminal({"get"}).find("\033[1mqor/network/dns\033[0m"), std::string::npos) << "bold heading";
  EXPECT_EQ(OnTerminal({"get"}, {"NO_COLOR=1"}).find('\033'), std::string::npos);
  EXPECT_EQ(OnTerminal({"get", "--json"}).find('\033'), std::string::npos);
}

// Each flag set is read back by its getter, from the store itself.
TEST_F(CliTest, BootFlagsRoundTripThroughTheStore) {
  BootNodes();
  const struct {
    const char* set;
    const char* get;
    const char* out;
  } cases[] = {
      {"boot-mode set 3", "boot-mode get", "3 (BOOT_MODE_SMARTNIC_CONFIG)\n"},
      {"install-info set build-42", "install-info", "build-42\n"},
      {"autoconf start", "autoconf status", "true\n"},
      {"autoconf end", "autoconf status", "false\n"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Line(c.set).status, 0) << c.set;
    EXPECT_EQ(Line(c.get).out, c.out) << c.set;
  }
  EXPECT_EQ(QorConfigStore::GetBootMode(), QorConfigStore::BOOT_MODE_SMARTNIC_CONFIG);
}

TEST_F(CliTest, BootKindAnswersEachQuestionAndShowsAFailedOne) {
  BootNodes();
  ASSERT_EQ(Line("boot-state cleanup").status, 0);  // records uuid-new as the previous boot's
  ASSERT_TRUE(PLON_WriteNodeFile("/system/bootFsUUID", "uuid-newer"));
  WriteFile(QorConfigStore::FIRSTBOOT_FILE, "");
  EXPECT_FALSE(Json(Line("boot-kind --json"))["upgrade"].GetBool()) << "a first boot is never an upgrade";
  Remove(QorConfigStore::FIRSTBOOT_FILE);
  rapidjson::Document d = Json(Line("boot-kind --json"));
  for (const auto& [name, value] : {std::pair<const char*, bool>{"upgrade", true},
                                    {"bootbankChanged", true},
                                    {"installed", true},
                                    {"debugUpgrade", true},
                                    {"ferrinInstalled", false}}) {
    EXPECT_TRUE(d[name].IsBool() && d[name].GetBool() == value) << name;
  }
  EXPECT_STREQ(d["bootFsUuid"].GetString(), "uuid-newer");

  ASSERT_EQ(Line("live-install true").status, 0);
  EXPECT_FALSE(Json(Line("--json boot-kind"))["upgrade"].GetBool()) << "a live-install boot is no upgrade";
  ASSERT_EQ(Line("boot-state cleanup").status, 0);
  std::string marker;
  ASSERT_EQ(DBStore::ReadKeyValue(QorConfigStore::POST_LIVE_INSTALL_BOOT, &marker,
                                  DBStore::GetConnection(DBStore::CONFIG_STORE, false)),
            0);
  EXPECT_EQ(marker, "false") << "the next cleanup clears the live-install marker";

  Remove("/sys/plon/system/bootFsUUID");
  CtlResult r = Line("--json boot-kind");
  EXPECT_EQ(r.status, 1);
  d = Json(r);
  EXPECT_STREQ(d["bootbankChanged"]["error"]["message"].GetString(), "Failed to get boot fs uuid.");
  EXPECT_FALSE(d["upgrade"].GetBool()) << "the upgrade check answers false on failure";
  EXPECT_TRUE(d["installed"].GetBool());
}

// With another writer holding the store past the busy time-out, the library's setters drop the write
// without a word; the command line reads back and fails, naming the key and what the store holds.
TEST_F(CliTest, SettersFailWhenTheStoreDidNotTakeTheWrite) {
  BootNodes();
  DBStore::Connection writer = DBStore::GetConnection(DBStore::CONFIG_STORE, true);
  ASSERT_EQ(DBStore::BeginTransaction(writer), 0);
  const struct {
    const char* args;
    const char* line;
  } cases[] = {
      {"boot-mode set 3", "BOOT_MODE was not written: the store holds \"0\", not \"3\""},
      {"install-info set build-43", "CS_INST_INFO_KEY was not written: the store holds \"\", not \"build-43\""},
      {"autoconf start", "IS_BOOT was not written: the store holds \"\", not \"true\""},
      {"apply-record set done", "BOOT_APPLY_RESULT was not written"},
  };
  std::vector<cstest::CtlProcess> running;  // all at once: each waits out the busy time-out
  for (const auto& c : cases) running.push_back(cstest::StartCtl(root_, Words(c.args), Words(c.args)[0]));
  for (size_t i = 0; i < running.size(); ++i) {
    CtlResult r = cstest::WaitCtl(running[i]);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find(cases[i].line), std::string::npos) << r.err;
  }
}

}  // namespace
