// configstorectl as a process: get, metrics, the failures, the boot flags, and the rules every
// subcommand shares (help, --, --json, exit status, no colour on a pipe). Arguments go to the
// process as they are, without a shell.
#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "errors/Json.h"
#include "platform/dbstore/DBStore.h"
#include "tests/support/Ctl.h"
#include "tests/support/Sandbox.h"
#include "tests/support/StoreDump.h"

namespace {

using cstest::CtlResult;

class CliTest : public cstest::SandboxTest {
 protected:
  // Standard output and error go to files (never a terminal): they must never carry colour.
  CtlResult Ctl(const std::vector<std::string>& args) { return NoColour(cstest::RunCtl(root_, args)); }
  CtlResult Ctl(const std::string& line) { return NoColour(cstest::RunCtl(root_, line)); }  // split at spaces
  static CtlResult NoColour(CtlResult r) {
    EXPECT_EQ((r.out + r.err).find('\033'), std::string::npos) << "colour on a pipe: " << r.out << r.err;
    return r;
  }
  static rapidjson::Document Json(const CtlResult& r) { return cstest::CtlJson(r); }

  // A Config row; nullptr stores NULL.
  static void AddObject(const std::string& component, const std::string& group, const std::string& key,
                        const std::string& id, const char* user = R"({"a":1})", const char* vital = nullptr) {
    ASSERT_EQ(DBStore::Exec(DBStore::GetConnection(DBStore::CONFIG_STORE, true),
                            "INSERT INTO Config (Component, ConfigGroup, Name, Identifier, Version, CreationTime, "
                            "Revision, UserValue, VitalValue) VALUES (?, ?, ?, ?, '1.0', '2024-05-01', 3, ?, ?)",
                            component, group, key, id, user, vital),
              0);
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
    std::vector<std::string> filters, expected;
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
    std::vector<std::string> objects;
    const rapidjson::Document listed = Json(r);
    for (const auto& o : listed.GetArray()) {
      objects.push_back(std::string(o["component"].GetString()) + "|" + o["group"].GetString() + "|" +
                        o["key"].GetString() + "|" + o["identifier"].GetString());
    }
    EXPECT_EQ(objects, c.expected);
  }
}

// The text forms of get and metrics are also checked by the examples of docs/operator-guide.md.
// Each row's text is part of the standard output of a command that succeeds.
TEST_F(CliTest, GetAndMetricsShowWhatTheStoreHolds) {
  ASSERT_EQ(DBStore::CreateDatabases(), 0);
  AddObject("qor", "network", "nuknics", "nuk0", R"({"name": "nuk0",  "mtu": 9000})", R"({"mac":"00:50"})");
  AddObject("qor", "network", "dns", "", "not json", nullptr);
  AddObject("qor", "bad\nname", "k", "");
  AddObject("qor", "bad\xffgroup", "k", "", "{\"h\":\"a\xff\"}");  // stored before staging refused such bytes
  AddObject("網路", "e\u0301", "k,1", "a,b", "ééé");
  ASSERT_EQ(DBStore::Exec(DBStore::GetConnection(DBStore::CONFIG_STORE, true),
                          "INSERT INTO DefaultConfig VALUES ('qor', 'network', 'nuknics', 'nuk0', ?, '', '', '1.0')",
                          R"({"name":"nuk0","mtu":1500})"),
            0);
  const struct {
    std::string args, text;  // the arguments split at spaces
  } cases[] = {
      // Values are JSON, not text; a stored text that is not JSON stays text.
      {"--json get qor network", "\"mtu\": 1500"},
      {"--json get qor network", "\"user\": \"not json\","},
      // Bytes that are not UTF-8 are shown as \xNN, control bytes escaped.
      {"--json get qor", R"("h": "a\\xff")"},
      {"get qor", "qor/bad\\x0aname/k\n  version:"},
      // Sizes are what SQL's LENGTH counts: "ééé" is 3 characters (6 bytes). Columns are as wide as the
      // terminal shows them: two columns a wide character, none a combining mark.
      {"metrics --rows",
       "qor        bad\\xffgroup  k        0      10    0\n"
       "網路       e\u0301             k,1      0      3     0\n"},
  };
  for (const auto& c : cases) {
    CtlResult r = Ctl(c.args);
    EXPECT_EQ(r.status, 0) << c.args << r.err;
    EXPECT_NE(r.out.find(c.text), std::string::npos) << c.args << "\n" << r.out;
  }
}

// The command list comes from the tool itself, so a subcommand added later is covered too: each
// answers --help and -h with its usage; before "--" an option it does not take is bad usage; after
// it every word is a value, and the "--" itself never is one. Bad usage exits 2 with two lines on
// standard error: what is wrong, then the usage line or where to find it; with --json the error is
// also a JSON document on standard output.
TEST_F(CliTest, EverySubcommandAnswersHelpAndBadUsageExitsTwo) {
  ASSERT_EQ(DBStore::CreateDatabases(), 0);
  std::vector<std::string> bad = {"", "no-such-subcommand", "--bogus get", "get a b c d e", "cleanup store --json",
                                  "--json cleanup autoconf", "metrics extra", "metrics -- --rows", "--json --bogus",
                                  "get --json --root", "--json no-such-subcommand", "boot-mode set 9", "boot-mode set",
                                  "boot-mode set -1", "boot-mode set 03", "boot-mode reset", "autoconf", "boot-state",
                                  "live-install maybe", "install-info set", "boot-kind extra"};
  rapidjson::Document d = Json(Ctl("--json --help"));
  ASSERT_TRUE(d.IsArray() && d.Size() >= 20);
  for (const auto& c : d.GetArray()) {
    const std::string name = c["name"].GetString();
    const std::string usage = std::string("usage: configstorectl [--root DIR] [-v] ") + c["usage"].GetString() +
                              (c["json"].GetBool() ? " [--json]" : "") + "\n\n";
    for (const char* flag : {"--help", "-h"}) {
      CtlResult r = Ctl({name, flag});
      EXPECT_TRUE(r.status == 0 && r.out.starts_with(usage) && r.out.size() > usage.size() + 10) << name << r.out;
    }
    bad.push_back(name + " -x");
    const std::string err = Ctl({name, "--", "-x"}).err;
    EXPECT_TRUE(err.find("unknown option") == std::string::npos && err.find("'--'") == std::string::npos) << err;
  }
  EXPECT_EQ(Ctl("install-info set -- -x").status + Ctl("install-info -- set --").status, 0);
  EXPECT_EQ(Ctl("install-info").out, "--\n");
  EXPECT_EQ(Ctl("--version").out, "configstorectl " CONFIGSTORE_VERSION "\n");
  const auto before = cstest::DumpStores();
  for (const std::string& line : bad) {
    CtlResult r = Ctl(line);
    EXPECT_EQ(r.status, 2) << line;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 2) << r.err;
    EXPECT_TRUE(r.err.find("\nusage: configstorectl") != std::string::npos ||
                r.err.ends_with("\ntry 'configstorectl --help'\n"))
        << r.err;
    EXPECT_TRUE(!line.ends_with(" -x") || r.err.find("unknown option '-x'") != std::string::npos) << r.err;
    if (line.find("--json") == std::string::npos) {
      EXPECT_EQ(r.out, "") << line;
    } else {
      rapidjson::Document e = Json(r);
      EXPECT_TRUE(e["error"]["cause"] == "usage" && r.err.find(e["error"]["message"].GetString()) != std::string::npos)
          << r.out;
    }
  }
  EXPECT_EQ(cstest::DiffStores(before, cstest::DumpStores()), "") << "bad usage changes nothing";
}

// Each failure line names the cause and the file (the examples of docs/operator-guide.md show a
// host without a store). The root changes as the table goes: a run-time directory that cannot be
// made (var/run is a regular file: root itself cannot create anything under a file), then removed.
TEST_F(CliTest, FailureExitsOneWithTheErrorCodeAndCause) {
  const std::string run = Path("/var/run");
  const std::string imageLock = "Cannot open the image database lock file " + run + "/liveimgdb.pid: Not a directory";
  struct Case {
    std::function<void()> arrange;  // run before the command, when given
    std::vector<std::string> args;
    int status;
    std::string line;  // part of standard error, or of standard output for a load that ran on
  } cases[] = {
      // clang-format off
      // A root that is not a directory is named as the cause, wherever --root stands.
      {nullptr, {"get", "--root", root_ + "/no"}, 2, "configstorectl: host root \"" + root_ + "/no\" does not exist\n"},
      {[&] {
         CopyExampleHost();
         std::filesystem::remove_all(run);
         WriteFile("/var/run", "a file where the run-time directory belongs");
       }, {"load"}, 0, "schemas not processed: " + imageLock + "\n"},
      // A reader that cannot take the boot lock reads anyway, and the system log says so.
      {nullptr, {"get"}, 0, ""},
      // A reboot empties the run-time directory (here a file), so the first load of the boot keeps
      // its report; a second load in that boot would replace the live store with the backup.
      {[&] { Remove("/var/run"); }, {"load"}, 0, "boot load, started "},
      {nullptr, {"--json", "load"}, 1, "load: error 2000: a load already ran in this boot of the host (its report is "},
      // Registration and the default configuration are two halves; the failure says which one failed.
      {[&] { WriteFile("/usr/lib/talvex/configmanager/schemas/s-1.json", R"({"metadata": {"kitname": "s",
                                                                              "kitversion": "1"}, "data": []})"); },
       {"--json", "process-schemas"}, 1, "error 2000: schema registration failed (the default configuration was loaded)"},
      // clang-format on
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    if (c.arrange) c.arrange();
    CtlResult r = Ctl(c.args);
    EXPECT_EQ(r.status, c.status);
    EXPECT_NE((c.status == 0 ? r.out : r.err).find(c.line), std::string::npos) << r.err << r.out;
    if (c.args[0] == "--json") {  // the failure as a document on standard output too: its error, or a false result
      rapidjson::Document d = Json(r);
      EXPECT_TRUE(d.HasMember("error") ? d["error"]["code"].GetInt() == 2000 &&
                                             r.err.find(d["error"]["message"].GetString()) != std::string::npos
                                       : d["result"].IsFalse())
          << r.out;
    } else if (c.status != 0) {
      EXPECT_EQ(r.out, "");
    }
  }
  EXPECT_THAT(RecordedAlerts(), testing::Contains("Error processing schemas - '" + imageLock + "'."))
      << "a boot that could not read the installed image raises an alert";
  EXPECT_NE(ReadFile("/var/log/syslog.log").find("Reading the store without the boot lock: "), std::string::npos);
}

// A flag set is read back by its getter. With another writer holding the store past the busy
// time-out, the library's setter drops the write without a word; the command line reads back and
// fails, naming the key and what the store holds.
TEST_F(CliTest, BootFlagsRoundTripOrSayTheStoreDidNotTakeThem) {
  ASSERT_EQ(DBStore::CreateDatabases(), 0);
  DBStore::Connection writer = DBStore::GetConnection(DBStore::CONFIG_STORE, true);
  ASSERT_EQ(DBStore::BeginTransaction(writer), 0);
  CtlResult r = Ctl("boot-mode set 3");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("BOOT_MODE was not written: the store holds \"0\", not \"3\""), std::string::npos) << r.err;
  writer.reset();
  EXPECT_EQ(Ctl("boot-mode set 3").status, 0);
  EXPECT_EQ(Ctl("boot-mode get").out, "3 (BOOT_MODE_SMARTNIC_CONFIG)\n");
}

}  // namespace
