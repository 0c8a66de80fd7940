// Malformed, deeply nested, huge and mistyped documents at every entry point
// that reads one, and odd names carried from a schema file to the stored
// configuration. Each gets its error; the boot goes on where it does; nothing
// already stored is lost.
#include <gmock/gmock.h>

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
#include "tests/reliability/hostile/HostileFixture.h"
#include "tests/support/StoreRows.h"

namespace {

using namespace QorConfigStore;
using cstest::HugeArray;
using cstest::HugeString;
using cstest::Nested;
using cstest::Thrown;
using testing::HasSubstr;
using testing::StartsWith;

struct Text {
  std::string name;
  std::string json;
  std::string cause = "";  // after the error's message, for the unparsable ones
};

// Texts that are not JSON the store accepts; every reader refuses them as
// unparsable (1081), with the cause.
std::vector<Text> Unparsable() {
  return {{"empty", "", "line 1, column 1: The document is empty."},
          {"truncated", R"({"profile":{"qor":)", "line 1, column 19: Invalid value."},
          {"NaN", "{\n  \"a\":NaN}", "line 2, column 7: Invalid value."},
          {"trailing comma", R"({"a":1,})", "line 1, column 8: Missing a name for object member."},
          {"comment", R"({/* c */})", "line 1, column 2: Missing a name for object member."},
          {"NUL byte", std::string("{\"a\":\"x\0y\"}", 11), "line 1, column 8: a NUL byte"},
          {"nested deeper than 512", Nested(600), "line 1, column 513: nested deeper than 512 levels"},
          {"object nested deeper than 512", [] {
             std::string s;
             for (int i = 0; i < 600; ++i) s += "{\"a\":";
             return s + "1" + std::string(600, '}');
           }(), "line 1, column 2561: nested deeper than 512 levels"}};
}

// Values of the wrong type for any place of a document; the big ones stand for
// a hostile sender.
std::vector<Text> WrongValues(bool big) {
  std::vector<Text> values = {{"number", "5"},
                              {"null", "null"},
                              {"boolean", "true"},
                              {"empty string", "\"\""},
                              {"array of numbers", "[1,2]"},
                              {"nested 500", Nested(500)},
                              {"object of mistyped members", R"({"name":5,"mtu":"x","hostname":[]})"}};
  if (big) {
    values.push_back({"32 MB string", HugeString(32u << 20)});
    values.push_back({"million-element array", HugeArray(1000000)});
  }
  return values;
}

// A wrong value placed at each level, from the root down (each level's "@"
// marks the place). The big values go to the deepest level only: a
// million-element array one level up is a million objects to validate, each
// failure logged, which takes a minute in a Debug build.
std::vector<Text> AtEveryLevel(const std::vector<std::string>& levels) {
  std::vector<Text> docs;
  for (size_t level = 0; level < levels.size(); ++level) {
    for (const Text& v : WrongValues(level + 1 == levels.size())) {
      std::string doc = levels[level];
      doc.replace(doc.find('@'), 1, v.json);
      docs.push_back({v.name + " at level " + std::to_string(level), doc});
    }
  }
  return docs;
}

class HostileDocumentTest : public cstest::HostileTest {
 protected:
  void Report(const char* kind, size_t tried) { std::printf("hostile %s: %zu inputs tried\n", kind, tried); }
};

TEST_F(HostileDocumentTest, DesiredAndSmartnicDocuments) {
  const std::string file = Path("/tmp/desired.json");
  size_t tried = 0;
  for (const Text& t : Unparsable()) {
    SCOPED_TRACE(t.name);
    WriteFile("/tmp/desired.json", t.json);
    const std::string message = "The JSON file " + file + " could not be read or parsed.: " + t.cause;
    EXPECT_EQ(Thrown([&] { CreateDocumentFromFile(file); }), "1081 " + message);
    ++tried;
  }
  struct Shape {
    bool smartnic;
    std::vector<std::string> levels;
  } shapes[] = {
      {false,
       {"@", R"({"profile":@})", R"({"profile":{"qor":@}})", R"({"profile":{"qor":{"network":@}}})",
        R"({"profile":{"qor":{"network":{"nuknics":@}}}})", R"({"profile":{"qor":{"network":{"nuknics":[@]}}}})"}},
      {true,
       {"@", R"({"qor":@})", R"({"qor":{"network":@}})", R"({"qor":{"network":{"nuknics":@}}})",
        R"({"qor":{"network":{"nuknics":[@]}}})"}},
  };
  for (const Shape& shape : shapes) {
    for (const Text& t : AtEveryLevel(shape.levels)) {
      SCOPED_TRACE((shape.smartnic ? "smartnic " : "desired ") + t.name);
      ++tried;
      WriteFile("/tmp/desired.json", t.json);
      auto doc = CreateDocumentFromFile(file);
      const cstest::StoreDump before = cstest::DumpStores();
      std::string thrown;
      if (shape.smartnic) {
        // A key value that is neither object, array nor "DELETE_DEFAULT" is
        // passed over.
        thrown = Thrown([&] { SetDesiredSmartnicConfiguration(*doc->document); });
        // A ConfigStoreException from inside keeps its code: 1032 for a missing instance id, 1082 for
        // a JSON type check.
        EXPECT_THAT(thrown, testing::AnyOf("no exception", StartsWith("2000 SetDesiredSmartnicConfiguration failed: "),
                                           StartsWith("1032 SetDesiredSmartnicConfiguration failed: "),
                                           StartsWith("1082 SetDesiredSmartnicConfiguration failed: ")));
      } else {
        // What set-desired does: every error reported, and nothing staged while
        // any remains.
        std::string errors = Thrown([&] {
          EXPECT_GT(DesiredDocumentErrors(*doc->document, QorSchemaStore::SchemaStore::GetCache()).Size(), 0u);
        });
        EXPECT_THAT(errors, testing::AnyOf("no exception", StartsWith("1082 JSON error:")));
        thrown = Thrown([&] { SetDesiredUserConfig(*doc->document); });
        EXPECT_THAT(thrown, testing::AnyOf("no exception", StartsWith("2000 SetDesiredUserConfig failed: "),
                                           StartsWith("1032 SetDesiredUserConfig failed: "),
                                           StartsWith("1082 SetDesiredUserConfig failed: ")));
      }
      if (thrown != "no exception") {
        EXPECT_EQ("", cstest::DiffStores(before, cstest::DumpStores())) << "rolled back whole";
      } else {
        // Staged without the hostile part: the live configuration is untouched.
        EXPECT_EQ(before.at("config.Config"), cstest::DumpStores().at("config.Config"));
      }
    }
  }
  Report("desired and SmartNIC documents", tried);
}

TEST_F(HostileDocumentTest, BootDocumentsAreSkippedAndTheBootGoesOn) {
  size_t tried = 0;
  std::vector<Text> docs = Unparsable();
  for (const Text& t :
       AtEveryLevel({"@", R"({"profile":@})", R"({"profile":{"qor":@}})", R"({"profile":{"qor":{"network":@}}})",
                     R"({"qor":{"network":{"dns":@}}})", R"({"qor":{"network":{"nuknics":[@]}}})"})) {
    docs.push_back(t);
  }
  for (size_t i = 0; i < docs.size(); ++i) {
    const Text& t = docs[i];
    SCOPED_TRACE(t.name);
    ++tried;
    WriteFile("/etc/talvex/boot_configuration.json", t.json);
    SetBootMode(BOOT_MODE_NEW_STORE);
    const std::vector<std::string> before = ConfigObjects();
    log_.Clear();
    ASSERT_EQ(LoadStore(false), 0);
    EXPECT_EQ(ConfigObjects(), before) << "nothing of a hostile boot document is written, nothing is lost";
    const bool unparsable = i < Unparsable().size();
    EXPECT_EQ(log_.Contains("GenerateDesiredConfiguration failed: The JSON file " +
                                Path("/etc/talvex/boot_configuration.json") + " could not be read or parsed.",
                            CSLogger::PRIO_ERROR),
              unparsable);
    if (!unparsable) {
      EXPECT_TRUE(log_.Contains("Boot document processed.") ||
                  log_.Contains("Failed to process, document should be an object", CSLogger::PRIO_ERROR) ||
                  log_.Contains("Failed to process, \"profile\" should be an object", CSLogger::PRIO_ERROR));
    }
  }
  EXPECT_TRUE(RecordedAlerts().empty());
  Report("boot documents", tried);
}

TEST_F(HostileDocumentTest, SchemaFilesAreRefusedAndOtherPackagesKeepTheirSchemas) {
  const std::string id = "hostile-1.0.0_1.0";
  const std::string file = "/usr/lib/talvex/configmanager/schemas/" + id + ".json";
  const std::string meta = R"({"metadata":{"kitname":"hostile","kitversion":"1.0.0_1.0"},)";
  std::vector<Text> docs = Unparsable();
  for (
      const Text& t : AtEveryLevel(
          {"@", meta + R"("data":@})", meta + R"("data":[@]})",
           meta + R"("data":[{"component":@,"group":"g","key":"k","version":"1","schema":{}}]})",
           meta + R"("data":[{"component":"c","group":"g","key":"k","version":"1","schema":@}]})",
           meta + R"("data":[{"component":"c","group":"g","key":"k","version":"1","schema":{"properties":@}}]})",
           meta +
               R"("data":[{"component":"c","group":"g","key":"k","version":"1","schema":{"properties":{"p":@}}}]})"})) {
    docs.push_back(t);
  }
  auto others = [&](cstest::StoreDump dump) {
    for (auto& [table, rows] : dump) {
      std::erase_if(rows, [&](const std::string& row) { return row.find(id) != std::string::npos; });
    }
    return dump;
  };
  const cstest::StoreDump before = others(MaskedDump());
  for (const Text& t : docs) {
    SCOPED_TRACE(t.name);
    WriteFile(file, t.json);
    log_.Clear();
    const bool ok = ProcessSchemas({id});
    if (ok) {
      // An object where a schema is expected is a schema (unknown keywords are
      // ignored), and an object without metadata is left out: the only hostile
      // files that pass.
      EXPECT_THAT(t.name, HasSubstr("object of mistyped members"));
    } else if (log_.Contains("Processing schema file '" + id + ".json'.")) {
      EXPECT_TRUE(
          log_.Contains("[SchemaProcessor] Failed to process schema file: ", CSLogger::PRIO_ERROR) ||
          log_.Contains("[SchemaProcessor] Schema file has errors.", CSLogger::PRIO_ERROR) ||
          log_.Contains("[SchemaProcessor] Invalid format in schema file " + id + ".json", CSLogger::PRIO_ERROR));
    } else {
      EXPECT_TRUE(log_.Contains("[SchemaProcessor] Error processing schemas - '", CSLogger::PRIO_ERROR))
          << "an unparsable file cancels the pass";
    }
    EXPECT_EQ("", cstest::DiffStores(before, others(MaskedDump())));
  }
  Report("schema files", docs.size());
}

TEST_F(HostileDocumentTest, DefaultFilesFailTheirRunAndKeepTheDefaults) {
  const std::string file = "/etc/talvex/default-config/hostile-1.0.0_1.0.json";
  const std::string meta = R"({"metadata":{"kitname":"hostile","kitversion":"1.0.0_1.0"},)";
  const std::string element = R"({"component":"qor","group":"network","key":"dns","config":)";
  std::vector<Text> docs = Unparsable();
  for (const Text& t : AtEveryLevel({"@", meta + R"("data":@})", meta + R"("data":[@]})",
                                     meta + R"("data":[{"component":@,"group":"network","key":"dns","config":{}}]})",
                                     meta + R"("data":[)" + element + "@}]}", meta + R"("data":[)" + element + "[@]}]}",
                                     meta + R"("data":[)" + element + R"({"hostname":@}}]})"})) {
    docs.push_back(t);
  }
  const cstest::StoreDump before = MaskedDump();
  for (const Text& t : docs) {
    SCOPED_TRACE(t.name);
    WriteFile(file, t.json);
    log_.Clear();
    const bool ok = ProcessDefaultConfiguration(false);
    // A file without metadata is left out; any other hostile file fails the
    // run.
    if (log_.Contains("Processing default config from 'hostile-1.0.0_1.0.json'") || !ok) {
      EXPECT_FALSE(ok);
      EXPECT_TRUE(log_.Contains("DefaultConfiguration Failed ", CSLogger::PRIO_ERROR) ||
                  log_.Contains("Default configuration failed 'hostile-1.0.0_1.0.json'", CSLogger::PRIO_ERROR));
    }
    EXPECT_EQ("", cstest::DiffStores(before, MaskedDump()));
  }
  Report("default-configuration files", docs.size());
}

TEST_F(HostileDocumentTest, LoadStoreErrorFiles) {
  const std::string file = "/var/run/talvex/files/loadStoreErrors.json";
  struct Case {
    std::string name, json;
    int status;                       // of LoadStore
    std::vector<std::string> alerts;  // exactly, or one "Generic ConfigStore Failure: " prefix
  };
  const std::string generic = "Generic ConfigStore Failure: ";
  std::vector<Case> cases;
  for (const Text& t : Unparsable()) {
    cases.push_back({t.name, t.json, 1, {generic + "The JSON file " + Path(file) + " could not be read or parsed."}});
  }
  cases.insert(
      cases.end(),
      {
          {"root array", "[]", 1, {generic}},
          {"root number", "5", 1, {generic}},
          {"no zebs", "{}", 0, {}},
          {"zebs not an array", R"({"zebs":{"zebMsg":"m"}})", 0, {}},
          {"zeb not an object", R"({"zebs":[5]})", 1, {generic}},
          {"zebMsg missing", R"({"zebs":[{"zebArgs":[]}]})", 1, {generic}},
          {"zebMsg a number", R"({"zebs":[{"zebMsg":5,"zebArgs":[]}]})", 1, {generic}},
          {"zebArgs missing", R"({"zebs":[{"zebMsg":"m"}]})", 1, {generic}},
          {"zebArgs of numbers", R"({"zebs":[{"zebMsg":"m %s","zebArgs":[5]}]})", 1, {generic}},
          {"more arguments than placeholders", R"({"zebs":[{"zebMsg":"m %s","zebArgs":["a","b"]}]})", 1, {generic}},
          {"an argument holding a placeholder",
           R"({"zebs":[{"zebMsg":"%s and %s","zebArgs":["%s","b"]}]})",
           0,
           {"b and %s"}},
          {"quotes, backslashes and unicode",
           R"({"zebs":[{"zebMsg":"\"q\" \\ ü %s","zebArgs":["😀"]}]})",
           0,
           {"\"q\" \\ ü 😀"}},
          {"32 MB message",
           R"({"zebs":[{"zebMsg":)" + HugeString(32u << 20) + R"(,"zebArgs":[]}]})",
           0,
           {std::string(kMaxSysAlertLength, 'x')}},
          {"million arguments", R"({"zebs":[{"zebMsg":"%s","zebArgs":)" + HugeArray(1000000) + "}]}", 1, {generic}},
      });
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    WriteFile(file, c.json);
    Remove("/var/log/sysalerts.jsonl");
    const std::vector<std::string> before = ConfigObjects();
    EXPECT_EQ(LoadStore(false), c.status);
    EXPECT_EQ(ConfigObjects(), before);
    std::vector<std::string> alerts = RecordedAlerts();
    if (c.status == 1) {
      ASSERT_EQ(alerts.size(), 1u);
      EXPECT_THAT(alerts[0], StartsWith(c.alerts.at(0)));
    } else {
      EXPECT_TRUE(alerts == c.alerts) << alerts.size() << " alerts";
    }
    EXPECT_TRUE(Exists(file)) << "the file is left in place";
  }
  Report("load-store error files", cases.size());
}

// A FIFO, an endless device, a directory or a file past the cap in the place of
// each file a JSON reader reads: each is refused at once with the file's error
// and its cause, and nothing stored changes. (A FIFO used to block the reader
// for ever, an endless device to fill memory.)
TEST_F(HostileDocumentTest, FilesThatAreNotSmallRegularFilesAreRefusedAtOnce) {
  namespace fs = std::filesystem;
  struct Kind {
    std::string name, cause;
    std::function<void(const std::string&)> make;
  } kinds[] = {
      {"FIFO", "not a regular file", [](const std::string& p) { ASSERT_EQ(::mkfifo(p.c_str(), 0644), 0); }},
      {"endless device", "not a regular file", [](const std::string& p) { fs::create_symlink("/dev/zero", p); }},
      {"directory", "Is a directory", [](const std::string& p) { fs::create_directories(p); }},
      {"past the cap", "larger than " + std::to_string(Host::kMaxReadBytes) + " bytes",
       [](const std::string& p) {
         std::ofstream{p};
         fs::resize_file(p, Host::kMaxReadBytes + 1);  // sparse: no disk is used
       }},
  };
  struct Reader {
    std::string name, file;
    std::function<void()> read;
  } readers[] = {
      {"desired document", "/tmp/desired.json", [&] { CreateDocumentFromFile(Path("/tmp/desired.json")); }},
      {"schema file", "/usr/lib/talvex/configmanager/schemas/hostile-1.0.0_1.0.json",
       [] { EXPECT_FALSE(ProcessSchemas({"hostile-1.0.0_1.0"})); }},
      {"default-configuration file", "/etc/talvex/default-config/hostile-1.0.0_1.0.json",
       [] { EXPECT_FALSE(ProcessDefaultConfiguration(false)); }},
      {"boot document", "/etc/talvex/boot_configuration.json",
       [] {
         SetBootMode(BOOT_MODE_NEW_STORE);
         EXPECT_EQ(LoadStore(false), 0);
       }},
      {"load-store error file", "/var/run/talvex/files/loadStoreErrors.json", [] { EXPECT_EQ(LoadStore(false), 1); }},
  };
  for (const Reader& reader : readers) {
    for (const Kind& kind : kinds) {
      SCOPED_TRACE(reader.name + " is a " + kind.name);
      Remove(reader.file);
      fs::create_directories(fs::path(Path(reader.file)).parent_path());
      kind.make(Path(reader.file));
      const std::vector<std::string> before = ConfigObjects();
      log_.Clear();
      const std::string message =
          "The JSON file " + Path(reader.file) + " could not be read or parsed.: " + kind.cause;
      const std::string thrown = Thrown(reader.read);  // thrown to the caller, or logged by the boot step
      EXPECT_TRUE(thrown == "1081 " + message || log_.Contains(message, CSLogger::PRIO_ERROR)) << thrown;
      EXPECT_EQ(ConfigObjects(), before);
    }
    Remove(reader.file);
  }
  Report("files that are not small regular files", std::size(readers) * std::size(kinds));
  // The feature switches, read at every boot, fall back to their defaults.
  Remove("/etc/talvex/features");
  ASSERT_EQ(::mkfifo(Path("/etc/talvex/features").c_str(), 0644), 0);
  EXPECT_EQ(Host::FeatureState_IsEnabled(Host::FEATURE_SCHEMA_VERSIONING),
            Host::FeatureDefault(Host::FEATURE_SCHEMA_VERSIONING));
}

// A JSON string literal of `text`.
std::string Quoted(const std::string& text) {
  rapidjson::StringBuffer out;
  rapidjson::Writer<rapidjson::StringBuffer> writer(out);
  writer.String(text.c_str(), static_cast<rapidjson::SizeType>(text.size()));
  return out.GetString();
}

TEST_F(HostileDocumentTest, OddNamesTravelFromSchemaToConfigUnchanged) {
  const std::vector<std::string> names = {
      "with space",           "it's \"quoted\"", "back\\slash\\", "ünïcödé €😀", "semi; DROP TABLE Config; --",
      std::string(10000, 'k')};
  std::string elements, profile;
  for (const std::string& n : names) {
    const std::string q = Quoted(n);
    elements += (elements.empty() ? "" : ",") + std::string("{\"component\":") + q + ",\"group\":" + q +
                ",\"key\":" + q +
                R"(,"version":"1.0","dspIntegrated":true,"schema":{"type":"object","required":["id"],)" +
                R"("properties":{"id":{"type":"string","instanceId":true},"v":{"type":"string"}}}})";
    profile += (profile.empty() ? "" : ",") + q + ":{" + q + ":{" + q + ":[{\"id\":" + q + ",\"v\":" + q + "}]}}";
  }
  WriteFile("/usr/lib/talvex/configmanager/schemas/odd-1.0.0_1.0.json",
            R"({"metadata":{"kitname":"odd","kitversion":"1.0.0_1.0"},"data":[)" + elements + "]}");
  ProcessSchemas({"odd-1.0.0_1.0"});
  ASSERT_TRUE(log_.Contains("Processing schema file 'odd-1.0.0_1.0.json'."));

  auto doc = CreateDocumentFromString("{\"profile\":{" + profile + "}}");
  rapidjson::Document errors = DesiredDocumentErrors(*doc->document, QorSchemaStore::SchemaStore::GetCache());
  ASSERT_EQ(errors.Size(), 0u) << errors[0]["field"].GetString() << ": " << errors[0]["error"].GetString();
  SetDesiredUserConfig(*doc->document);
  ASSERT_EQ(LoadStore(false), 0);

  auto conn = GetDBConnection(DBStore::CONFIG_STORE, false);
  for (const std::string& n : names) {
    SCOPED_TRACE(n.substr(0, 40));
    std::vector<std::string> values = cstest::JoinedRows(
        conn, "SELECT UserValue FROM Config WHERE Component = ? AND ConfigGroup = ? AND Name = ? AND Identifier = ?",
        "NULL", n, n, n, n);
    ASSERT_EQ(values.size(), 1u);
    EXPECT_EQ(values[0], "{\"id\":" + Quoted(n) + ",\"v\":" + Quoted(n) + "}");
  }

  // Empty names are refused wherever they appear.
  WriteFile("/usr/lib/talvex/configmanager/schemas/odd-1.0.0_1.0.json",
            R"({"metadata":{"kitname":"odd","kitversion":"1.0.0_1.0"},"data":[{"component":"","group":"g","key":"k",)"
            R"("version":"1.0","schema":{"type":"object"}}]})");
  log_.Clear();
  EXPECT_FALSE(ProcessSchemas({"odd-1.0.0_1.0"}));
  EXPECT_TRUE(log_.Contains("is refused"));
  auto empty = CreateDocumentFromString(R"({"profile":{"qor":{"network":{"":{}}},"":{"g":{"k":{}}}}})");
  EXPECT_EQ(DesiredDocumentErrors(*empty->document, QorSchemaStore::SchemaStore::GetCache()).Size(), 2u);

  // Control characters in a name are shown as \xNN in the error: a NUL used to end its text.
  auto control = CreateDocumentFromString(R"({"profile":{"qor":{"network":{"a\u0000b\nc":{}}}}})");
  rapidjson::Document controlErrors = DesiredDocumentErrors(*control->document, QorSchemaStore::SchemaStore::GetCache());
  ASSERT_EQ(controlErrors.Size(), 1u);
  const rapidjson::Value& field = controlErrors[0]["field"];
  EXPECT_EQ(std::string(field.GetString(), field.GetStringLength()), R"(/profile/qor/network/a\x00b\x0ac)");
  EXPECT_STREQ(controlErrors[0]["error"].GetString(), R"(unknown member "a\x00b\x0ac")");

  // A string or name that is not UTF-8 is refused at its path; it used to be staged and printed as
  // invalid JSON.
  auto bad = CreateDocumentFromString("{\"profile\":{\"qor\":{\"network\":{\"dns\":{\"hostname\":\"a\xff\","
                                      "\"search_domains\":[\"\xc3\"]},\"nuk\xfe\":{}}}}}");
  std::vector<std::string> found;
  rapidjson::Document badErrors = DesiredDocumentErrors(*bad->document, QorSchemaStore::SchemaStore::GetCache());
  for (const auto& e : badErrors.GetArray()) {
    found.push_back(std::string(e["field"].GetString()) + ": " + e["error"].GetString());
  }
  EXPECT_THAT(found, testing::UnorderedElementsAre(R"(/profile/qor/network/nuk\xfe: unknown member "nuk\xfe")",
                                                   "/profile/qor/network/dns/hostname: invalid UTF-8",
                                                   "/profile/qor/network/dns/search_domains/0: invalid UTF-8",
                                                   R"(/profile/qor/network/nuk\xfe: invalid UTF-8 in the member name)"));
  auto badSmartnic = CreateDocumentFromString("{\"qor\":{\"network\":{\"dns\":{\"hostname\":\"a\xff\"}}}}");
  EXPECT_THAT(Thrown([&] { SetDesiredSmartnicConfiguration(*badSmartnic->document); }),
              StartsWith("2000 SetDesiredSmartnicConfiguration failed: Failed to validate"));
  EXPECT_TRUE(log_.Contains("Schema validation error at /hostname: invalid UTF-8", CSLogger::PRIO_ERROR));
}

}  // namespace
