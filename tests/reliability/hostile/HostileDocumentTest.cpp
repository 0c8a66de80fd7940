// Hostile input at boot and at every reader of a JSON file: corrupt, truncated and journal-haunted
// store backups; malformed, deeply nested, huge and mistyped documents; files that are not small
// regular files; odd names carried from a schema file to the stored configuration. Each gets its
// error with its cause, the boot goes on where it does, and nothing already stored is lost.
#include <gmock/gmock.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>

#include "configstore/boot/LoadStore.h"
#include "configstore/bootstate/BootState.h"
#include "configstore/defaults/DefaultConfig.h"
#include "configstore/desired/DesiredConfig.h"
#include "configstore/frame/CallFrame.h"
#include "configstore/frame/Documents.h"
#include "configstore/schema/SchemaProcessor.h"
#include "platform/dbstore/DBStore.h"
#include "platform/host/Features.h"
#include "platform/host/Files.h"
#include "platform/host/HostRoot.h"
#include "tests/support/Sandbox.h"
#include "tests/support/StoreDump.h"
#include "tests/support/StoreRows.h"

namespace {

namespace fs = std::filesystem;
using namespace QorConfigStore;
using cstest::Thrown;
using testing::StartsWith;

struct Text {
  std::string name, json, cause = "";  // cause: after the error's message, for the unparsable ones
};

std::string Nested(int depth) { return std::string(size_t(depth), '[') + std::string(size_t(depth), ']'); }

// Texts that are not JSON the store accepts: every reader refuses them as unparsable, with the cause.
const std::vector<Text> kUnparsable = {
    {"empty", "", "line 1, column 1: The document is empty."},
    {"truncated", R"({"profile":{"qor":)", "line 1, column 19: Invalid value."},
    {"NaN", "{\n  \"a\":NaN}", "line 2, column 7: Invalid value."},
    {"trailing comma", R"({"a":1,})", "line 1, column 8: Missing a name for object member."},
    {"comment", R"({/* c */})", "line 1, column 2: Missing a name for object member."},
    {"NUL byte", std::string("{\"a\":\"x\0y\"}", 11), "line 1, column 8: a NUL byte"},
    {"nested deeper than 512", Nested(600), "line 1, column 513: nested deeper than 512 levels"},
    {"object nested deeper than 512",
     [] {
       std::string s;
       for (int i = 0; i < 600; ++i) s += "{\"a\":";
       return s + "1" + std::string(600, '}');
     }(),
     "line 1, column 2561: nested deeper than 512 levels"}};

// The unparsable texts, then a value of the wrong type placed at each level (each level's "@" marks
// the place). The huge values go to the deepest level only: a million-element array one level up is
// a million objects to validate, each failure logged.
std::vector<Text> Hostile(const std::vector<std::string>& levels) {
  std::vector<Text> docs = kUnparsable;
  for (size_t level = 0; level < levels.size(); ++level) {
    std::vector<Text> values = {{"number", "5"},
                                {"null", "null"},
                                {"boolean", "true"},
                                {"empty string", "\"\""},
                                {"array of numbers", "[1,2]"},
                                {"nested 500", Nested(500)},
                                {"object of mistyped members", R"({"name":5,"mtu":"x","hostname":[]})"}};
    if (level + 1 == levels.size()) {
      values.push_back({"32 MB string", "\"" + std::string(32u << 20, 'x') + "\""});
      std::string array = "[7";
      for (int i = 1; i < 1000000; ++i) array += ",7";
      values.push_back({"million-element array", array + "]"});
    }
    for (const Text& v : values) {
      std::string doc = levels[level];
      docs.push_back({v.name + " at level " + std::to_string(level), doc.replace(doc.find('@'), 1, v.json)});
    }
  }
  return docs;
}

class HostileDocumentTest : public cstest::SandboxTest {
 protected:
  // The sample host after its first boot, set for an ordinary reboot (boot bank recorded).
  void SetUp() override {
    SandboxTest::SetUp();
    CopyExampleHost();
    ASSERT_EQ(LoadStore(true), 0);
    CleanupBootState();
    Remove("/var/lib/talvex/firstboot/current-store-1");
    log_.Clear();
  }

  // What no hostile file may change: the configuration (without the restore flag, which every boot
  // resets), the defaults and every schema, but for the rows of the hostile package itself.
  static cstest::StoreDump Guarded() {
    cstest::StoreDump dump = cstest::MaskRunToRun(cstest::DumpStores());
    std::erase_if(dump, [](const auto& table) {  // the data files, the boot state, what staging writes
      return table.first.starts_with("datafile.") || table.first == "config.KeyValue" ||
             table.first == "config.DesiredUserConfig";
    });
    dump["config.Config"] =
        cstest::JoinedRows(DBStore::GetConnection(DBStore::CONFIG_STORE, false),
                           "SELECT Component, ConfigGroup, Name, Identifier, Version, CreationTime, "
                           "Revision, AutoConfValue, VitalValue, CachedValue, UserValue, DesiredValue "
                           "FROM Config ORDER BY Component, ConfigGroup, Name, Identifier",
                           "NULL");
    for (auto& [table, rows] : dump) {
      std::erase_if(rows, [](const std::string& row) { return row.find("hostile-1.0.0_1.0") != std::string::npos; });
    }
    return dump;
  }
};

// Every reader of a JSON file, with hostile texts in the places of its document.
TEST_F(HostileDocumentTest, EveryReaderRefusesHostileDocumentsAndKeepsTheStores) {
  const std::string id = "hostile-1.0.0_1.0";
  const std::string meta = R"({"metadata":{"kitname":"hostile","kitversion":"1.0.0_1.0"},)";
  const std::string schema = R"({"component":"c","group":"g","key":"k","version":"1","schema":)";
  const std::string element = R"({"component":"qor","group":"network","key":"dns","config":)";
  // What set-desired does: every error reported, then nothing staged while any remains. A key value
  // of a SmartNIC document that is neither object, array nor "DELETE_DEFAULT" is passed over.
  auto staging = [this](const std::string& name, void (*set)(rapidjson::Document&)) {
    return [this, name, set](const Text&) {
      auto doc = CreateDocumentFromFile(Path("/tmp/desired.json"));
      const auto& cache = QorSchemaStore::SchemaStore::GetCache();
      EXPECT_THAT(Thrown([&] { EXPECT_GT(DesiredDocumentErrors(*doc->document, cache).Size(), 0u); }),
                  testing::AnyOf("no exception", StartsWith("1082 JSON error:")));
      const cstest::StoreDump before = cstest::DumpStores();
      const std::string thrown = Thrown([&] { set(*doc->document); });
      EXPECT_THAT(thrown,
                  testing::AnyOf("no exception", StartsWith("2000 " + name + " failed: "),
                                 StartsWith("1032 " + name + " failed: "), StartsWith("1082 " + name + " failed: ")));
      if (thrown != "no exception") {
        EXPECT_EQ("", cstest::DiffStores(before, cstest::DumpStores())) << "rolled back whole";
      }
    };
  };
  struct Reader {
    std::string name, file;
    std::vector<std::string> levels;        // where a wrong value goes ("@")
    std::function<void(const Text&)> read;  // checks a parsed document's outcome
  } readers[] = {
      {"desired document",
       "/tmp/desired.json",
       {"@", R"({"profile":@})", R"({"profile":{"qor":@}})", R"({"profile":{"qor":{"network":@}}})",
        R"({"profile":{"qor":{"network":{"nuknics":@}}}})", R"({"profile":{"qor":{"network":{"nuknics":[@]}}}})"},
       staging("SetDesiredUserConfig", [](rapidjson::Document& d) { SetDesiredUserConfig(d); })},
      {"SmartNIC document",
       "/tmp/desired.json",
       {"@", R"({"qor":@})", R"({"qor":{"network":@}})", R"({"qor":{"network":{"nuknics":@}}})",
        R"({"qor":{"network":{"nuknics":[@]}}})"},
       staging("SetDesiredSmartnicConfiguration", [](rapidjson::Document& d) { SetDesiredSmartnicConfiguration(d); })},
      {"boot document",
       "/etc/talvex/boot_configuration.json",
       {"@", R"({"profile":@})", R"({"profile":{"qor":@}})", R"({"profile":{"qor":{"network":@}}})",
        R"({"qor":{"network":{"dns":@}}})", R"({"qor":{"network":{"nuknics":[@]}}})"},
       [this](const Text& t) {
         SetBootMode(BOOT_MODE_NEW_STORE);
         EXPECT_EQ(LoadStore(false), 0) << "the boot goes on";
         EXPECT_EQ(RecordedAlerts(), std::vector<std::string>{});
         EXPECT_TRUE(!t.cause.empty() || log_.Contains("Boot document processed.") ||
                     log_.Contains("Failed to process, document should be an object", CSLogger::PRIO_ERROR) ||
                     log_.Contains("Failed to process, \"profile\" should be an object", CSLogger::PRIO_ERROR));
       }},
      {"schema file",
       "/usr/lib/talvex/configmanager/schemas/" + id + ".json",
       {"@", meta + R"("data":@})", meta + R"("data":[@]})",
        meta + R"("data":[{"component":@,"group":"g","key":"k","version":"1","schema":{}}]})",
        meta + R"("data":[)" + schema + "@}]}", meta + R"("data":[)" + schema + R"({"properties":@}}]})",
        meta + R"("data":[)" + schema + R"({"properties":{"p":@}}}]})"},
       // An object where a schema is expected is a schema (unknown keywords are ignored), and an object
       // without metadata is left out: the only hostile files that pass.
       [id](const Text& t) {
         EXPECT_THAT(ProcessSchemas({id}) ? t.name : "refused",
                     testing::AnyOf("refused", testing::HasSubstr("mistyped")));
       }},
      {"default-configuration file",
       "/etc/talvex/default-config/" + id + ".json",
       {"@", meta + R"("data":@})", meta + R"("data":[@]})",
        meta + R"("data":[{"component":@,"group":"network","key":"dns","config":{}}]})",
        meta + R"("data":[)" + element + "@}]}", meta + R"("data":[)" + element + "[@]}]}",
        meta + R"("data":[)" + element + R"({"hostname":@}}]})"},
       // A file without metadata is left out; any other hostile file fails the run.
       [this, id](const Text&) {
         EXPECT_FALSE(ProcessDefaultConfiguration(false) &&
                      log_.Contains("Processing default config from '" + id + ".json'"));
       }},
      // The events a failed step of the previous boot recorded become alerts, cut to an alert's
      // length; a malformed file fails the boot with one generic alert.
      {"load-store error file",
       "/var/run/talvex/files/loadStoreErrors.json",
       {R"({"zebs":[{"zebMsg":"%s","zebArgs":@}]})", R"({"zebs":@})", R"({"zebs":[{"zebMsg":@,"zebArgs":[]}]})"},
       [this](const Text&) {
         const std::string generic = "Generic ConfigStore Failure: ";
         EXPECT_THAT(LoadStore(false) == 0 ? std::vector<std::string>{generic} : RecordedAlerts(),
                     testing::ElementsAre(StartsWith(generic)));
         for (const std::string& alert : RecordedAlerts()) EXPECT_LE(alert.size(), kMaxSysAlertLength);
         EXPECT_TRUE(Exists("/var/run/talvex/files/loadStoreErrors.json")) << "the file is left in place";
       }},
  };
  // A FIFO, an endless device, a directory or a file past the cap in the place of the file: each is
  // refused at once with the file's error and its cause (a FIFO used to block the reader for ever).
  const std::pair<std::string, std::function<void(const std::string&)>> kinds[] = {
      {"not a regular file", [](const std::string& p) { ASSERT_EQ(::mkfifo(p.c_str(), 0644), 0); }},
      {"not a regular file", [](const std::string& p) { fs::create_symlink("/dev/zero", p); }},
      {"Is a directory", [](const std::string& p) { fs::create_directories(p); }},
      {"larger than " + std::to_string(Host::kMaxReadBytes) + " bytes",
       [](const std::string& p) {
         std::ofstream{p};
         fs::resize_file(p, Host::kMaxReadBytes + 1);  // sparse: no disk is used
       }},
  };
  for (const Reader& reader : readers) {
    std::vector<Text> docs = Hostile(reader.levels);
    for (const auto& [cause, make] : kinds) docs.push_back({"file " + cause, "", cause});
    for (size_t i = 0; i < docs.size(); ++i) {
      const Text& t = docs[i];
      SCOPED_TRACE(reader.name + ": " + t.name);
      Remove(reader.file);
      fs::create_directories(fs::path(Path(reader.file)).parent_path());
      if (i + std::size(kinds) >= docs.size()) {
        kinds[i + std::size(kinds) - docs.size()].second(Path(reader.file));
      } else {
        WriteFile(reader.file, t.json);
      }
      Remove("/var/log/sysalerts.jsonl");
      const cstest::StoreDump before = Guarded();
      log_.Clear();
      const std::string thrown = Thrown([&] { reader.read(t); });  // thrown, or logged by the boot step
      const std::string message = "The JSON file " + Path(reader.file) + " could not be read or parsed.: " + t.cause;
      if (!t.cause.empty()) {
        EXPECT_TRUE(thrown == "1081 " + message || log_.Contains(message, CSLogger::PRIO_ERROR)) << thrown;
      } else {
        EXPECT_EQ(thrown, "no exception");
      }
      EXPECT_EQ("", cstest::DiffStores(before, Guarded()));
    }
    Remove(reader.file);
    std::printf("hostile %s: %zu inputs tried\n", reader.name.c_str(), docs.size());
  }
  // The feature switches, read at every boot, fall back to their defaults.
  Remove("/etc/talvex/features");
  ASSERT_EQ(::mkfifo(Path("/etc/talvex/features").c_str(), 0644), 0);
  EXPECT_EQ(Host::FeatureState_IsEnabled(Host::FEATURE_SCHEMA_VERSIONING),
            Host::FeatureDefault(Host::FEATURE_SCHEMA_VERSIONING));
}

std::vector<std::string> DocumentErrors(const std::string& json) {
  auto doc = CreateDocumentFromString(json);
  const rapidjson::Document errors = DesiredDocumentErrors(*doc->document, QorSchemaStore::SchemaStore::GetCache());
  std::vector<std::string> found;
  for (const auto& e : errors.GetArray()) {
    found.push_back(std::string(e["field"].GetString(), e["field"].GetStringLength()) + ": " + e["error"].GetString());
  }
  return found;
}

// Empty names are refused wherever they appear; control characters in a name are shown as \xNN (a NUL
// used to end the error's text); a string or name that is not UTF-8 is refused at its path (it used to
// be staged and printed as invalid JSON).
TEST_F(HostileDocumentTest, OddNamesAreRefusedAtTheirPlace) {
  EXPECT_EQ(DocumentErrors(R"({"profile":{"qor":{"network":{"":{}}},"":{"g":{"k":{}}}}})").size(), 2u);
  EXPECT_EQ(DocumentErrors(R"({"profile":{"qor":{"network":{"a\u0000b\nc":{}}}}})"),
            std::vector<std::string>{R"(/profile/qor/network/a\x00b\x0ac: unknown member "a\x00b\x0ac")"});
  EXPECT_THAT(DocumentErrors("{\"profile\":{\"qor\":{\"network\":{\"dns\":{\"hostname\":\"a\xff\","
                             "\"search_domains\":[\"\xc3\"]},\"nuk\xfe\":{}}}}}"),
              testing::UnorderedElementsAre(R"(/profile/qor/network/nuk\xfe: unknown member "nuk\xfe")",
                                            "/profile/qor/network/dns/hostname: invalid UTF-8",
                                            "/profile/qor/network/dns/search_domains/0: invalid UTF-8",
                                            R"(/profile/qor/network/nuk\xfe: invalid UTF-8 in the member name)"));
  auto badSmartnic = CreateDocumentFromString("{\"qor\":{\"network\":{\"dns\":{\"hostname\":\"a\xff\"}}}}");
  EXPECT_THAT(Thrown([&] { SetDesiredSmartnicConfiguration(*badSmartnic->document); }),
              StartsWith("2000 SetDesiredSmartnicConfiguration failed: Failed to validate"));
  EXPECT_TRUE(log_.Contains("Schema validation error at /hostname: invalid UTF-8", CSLogger::PRIO_ERROR));
}

// Corrupt, truncated and journal-haunted store backups at boot: the boot goes on, a backup that
// fails the store check is answered with a new store, a sound one is restored intact, and the
// backup itself is never changed.
TEST_F(HostileDocumentTest, CorruptBackupsGiveANewStoreAndAreKept) {
  const std::string backup = "/var/lib/talvex/configstore/backup/current-store-1";
  const std::string working = "/etc/talvex/configstore/current-store-1";
  const std::string dataBackup = "/var/lib/talvex/configstore/backup/datafile-store";
  const std::string dataWorking = "/etc/talvex/configstore/datafile-store";
  WriteFile(backup, ReadFile(working));  // the stores as the backup process saves them
  WriteFile(dataBackup, ReadFile(dataWorking));
  const std::string good = ReadFile(backup);
  const cstest::StoreDump backedUp = Guarded();
  const size_t page = uint8_t(good.at(16)) << 8 | uint8_t(good.at(17));  // the header's page size
  ASSERT_GT(good.size(), 3 * page);
  // The rollback journal of another store's unfinished transaction, as a killed writer leaves it:
  // a tiny cache makes the transaction spill, so the journal is synced and the file written mid-way.
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(Path("/foreign.db").c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db,
                         "CREATE TABLE t(x); WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n "
                         "WHERE i < 2000) INSERT INTO t SELECT randomblob(300) FROM n; PRAGMA cache_size=2; "
                         "BEGIN; UPDATE t SET x = randomblob(300);",
                         nullptr, nullptr, nullptr),
            SQLITE_OK);
  const std::string journal = ReadFile("/foreign.db-journal");
  sqlite3_close_v2(db);
  ASSERT_GT(journal.size(), 4096u);

  auto flip = [](size_t offset) {
    return [offset](std::string b) { return b[offset] = static_cast<char>(b[offset] ^ 0xff), b; };
  };
  auto same = [](std::string b) { return b; };
  const struct {
    const char* name;
    std::function<std::string(std::string)> backup;  // the backup's bytes from the good ones
    std::string journalBeside;                       // a foreign hot journal put beside this file
    bool restored;                                   // else a new store
  } cases[] = {
      {"empty file", [](std::string) { return std::string(); }, "", false},
      {"header magic flipped", flip(0), "", false},
      {"page 2 b-tree type flipped", flip(page), "", false},
      {"page 2 cell pointers overwritten", [&](std::string b) { return b.replace(page + 8, 56, 56, '\xee'), b; }, "",
       false},
      {"truncated mid-page", [&](std::string b) { return b.substr(0, b.size() - page / 2); }, "", false},
      {"foreign journal beside the backup", same, backup, false},
      {"foreign journal beside the working store", same, working, true},
      {"foreign journal beside the working data-file store", same, dataWorking, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string bytes = c.backup(good);
    WriteFile(backup, bytes);
    Remove(backup + "-journal");
    if (!c.journalBeside.empty()) WriteFile(c.journalBeside + "-journal", journal);
    const cstest::StoreDump schemas = cstest::DumpStoreFile(DBStore::SchemaStorePath(), "schema");
    log_.Clear();
    const size_t eventsBefore = RecordedEvents().size();
    ASSERT_EQ(LoadStore(true), 0) << "the boot goes on";
    EXPECT_EQ(DBStore::Check(Path(working)), 0);
    EXPECT_EQ(DBStore::Check(Path(dataWorking)), 0);
    const std::vector<Events::Event> events = RecordedEvents();
    const bool refused = std::any_of(events.begin() + long(eventsBefore), events.end(), [&](const Events::Event& e) {
      return e.id == "zeb.user.cs.createstore.copy.backup.error" &&
             e.message == "Error copying ConfigStore from backup " + Path(backup) + ".";
    });
    EXPECT_EQ(refused, !c.restored);
    if (c.restored) {
      EXPECT_TRUE(log_.Contains("ConfigStore restored successfully from backup"));
      EXPECT_EQ("", cstest::DiffStores(backedUp, Guarded())) << "restored exactly as backed up";
    } else {
      EXPECT_TRUE(log_.Contains("is inconsistent, creating new ConfigStore.", CSLogger::PRIO_ERROR));
      EXPECT_TRUE(log_.Contains("Generating desired user config: BootMode = 2"))
          << "the new store gets the boot document";
    }
    EXPECT_TRUE(ReadFile(backup) == bytes) << "the backup is left as it was";
    EXPECT_EQ("", cstest::DiffStores(schemas, cstest::DumpStoreFile(DBStore::SchemaStorePath(), "schema")));
  }
  // A FIFO where either backup belongs would hold the boot forever if it were opened or copied.
  for (const std::string& path : {backup, dataBackup}) {
    Remove(path);
    ASSERT_EQ(mkfifo(Path(path).c_str(), 0644), 0);
  }
  log_.Clear();
  ASSERT_EQ(LoadStore(true), 0) << "the boot goes on";
  EXPECT_TRUE(log_.Contains("is inconsistent, creating new ConfigStore.", CSLogger::PRIO_ERROR));
  EXPECT_TRUE(log_.Contains("not a regular file", CSLogger::PRIO_ERROR));
  EXPECT_EQ(DBStore::Check(Path(working)), 0);
  std::printf("corrupt backups: %zu tried, and FIFOs as both backups\n", std::size(cases));
}

}  // namespace
