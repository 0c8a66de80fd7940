// The validator and the JSON reading against public test suites kept in ../shared/conformance:
// every draft-04 case of the JSON Schema Test Suite (one test per suite file) and every JSONTestSuite
// parsing case (one test per case file, read both from a string and from a file). A failure must be
// listed in expected-failures.json with its reason, and a listed failure that now passes fails too.
// Run the program whole to get the per-file table of docs/conformance.md.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <set>

#include "errors/Json.h"
#include "platform/validator/ConfigStoreDocument.h"
#include "platform/validator/JsonValidator.h"
#include "tests/conformance/ParseCase.h"
#include "tests/support/Sandbox.h"

namespace fs = std::filesystem;

namespace {

const std::string kSuiteDir = std::string(CONFORMANCE_DIR) + "/json-schema-test-suite";
const std::string kParsingDir = std::string(CONFORMANCE_DIR) + "/json-test-suite/test_parsing";
const std::string kRemotePrefix = "http://localhost:1234/";
const std::string kMetaSchemaUri = "http://json-schema.org/draft-04/schema";

std::unique_ptr<rapidjson::Document> ReadJson(const std::string& path) {
  auto doc = std::make_unique<rapidjson::Document>();
  std::ifstream in(path, std::ios::binary);
  rapidjson::IStreamWrapper stream(in);
  doc->ParseStream(stream);
  if (!in.good() && !in.eof()) doc->SetNull();
  return doc;
}

std::string Text(const rapidjson::Value& v) {
  std::string text;
  ConfigStoreDocument::SerializeValue(v, text);
  return text.size() > 300 ? text.substr(0, 300) + "..." : text;
}

std::string Member(const rapidjson::Value& object, const char* name) {
  auto m = object.FindMember(name);
  return m != object.MemberEnd() && m->value.IsString() ? m->value.GetString() : std::string();
}

// Accepted failures: "schema" entries {file, case, reason}, "parsing" entries {file, source, reason}.
struct ExpectedFailures {
  std::set<std::pair<std::string, std::string>> schema;   // (file, "group / test")
  std::set<std::pair<std::string, std::string>> parsing;  // (case file, "string" or "file")
  std::string problem;                                    // the list itself is broken
};

const ExpectedFailures& Expected() {
  static const ExpectedFailures expected = [] {
    ExpectedFailures e;
    auto doc = ReadJson(std::string(CONFORMANCE_DATA_DIR) + "/expected-failures.json");
    if (doc->HasParseError() || !doc->IsObject()) {
      e.problem = "expected-failures.json is not a JSON object";
      return e;
    }
    for (const char* list : {"schema", "parsing"}) {
      auto entries = doc->FindMember(list);
      if (entries == doc->MemberEnd() || !entries->value.IsArray()) {
        e.problem = std::string("expected-failures.json has no array \"") + list + "\"";
        continue;
      }
      for (auto& entry : entries->value.GetArray()) {
        bool schema = std::string(list) == "schema";
        std::string file = entry.IsObject() ? Member(entry, "file") : "";
        std::string what = entry.IsObject() ? Member(entry, schema ? "case" : "source") : "";
        if (file.empty() || what.empty() || Member(entry, "reason").empty()) {
          e.problem = "an entry of \"" + std::string(list) + "\" lacks file, " + (schema ? "case" : "source") + " or reason";
          continue;
        }
        (schema ? e.schema : e.parsing).emplace(file, what);
      }
    }
    return e;
  }();
  return expected;
}

// Remote schemas: the suite's remotes/ folder stands for http://localhost:1234/, and the draft-04
// meta-schema is kept beside this program. Nothing goes to the network.
const rapidjson::Value* ResolveRemote(const std::string& uri) {
  static std::mutex mutex;
  static std::map<std::string, std::unique_ptr<rapidjson::Document>> loaded;
  std::string path;
  if (uri.rfind(kRemotePrefix, 0) == 0) path = kSuiteDir + "/remotes/" + uri.substr(kRemotePrefix.size());
  else if (uri == kMetaSchemaUri) path = std::string(CONFORMANCE_DATA_DIR) + "/draft-04-schema.json";
  else return nullptr;
  std::lock_guard<std::mutex> lock(mutex);
  auto& doc = loaded[path];
  if (!doc) doc = ReadJson(path);
  return doc->HasParseError() ? nullptr : doc.get();
}

// Per-file figures, printed as a table when the program ends.
struct Row {
  int run = 0, passed = 0, expectedFailures = 0, unexpected = 0;
};
std::map<std::string, Row>& Rows() {
  static std::map<std::string, Row> rows;
  return rows;
}

class TablePrinter : public ::testing::Environment {
 public:
  void TearDown() override {
    if (Rows().empty()) return;
    Row total;
    std::printf("\n| Suite file | Cases | Passed | Failed (listed) | Failed (not listed) |\n|---|---:|---:|---:|---:|\n");
    for (auto& [file, row] : Rows()) {
      std::printf("| %s | %d | %d | %d | %d |\n", file.c_str(), row.run, row.passed, row.expectedFailures, row.unexpected);
      total.run += row.run;
      total.passed += row.passed;
      total.expectedFailures += row.expectedFailures;
      total.unexpected += row.unexpected;
    }
    std::printf("| **total** | %d | %d | %d | %d |\n\n", total.run, total.passed, total.expectedFailures, total.unexpected);
  }
};
const auto* const kTablePrinter = ::testing::AddGlobalTestEnvironment(new TablePrinter);

std::vector<std::string> ListSchemaSuiteFiles() {
  std::vector<std::string> files;
  for (const char* dir : {"draft4", "draft4/optional"}) {
    std::error_code ec;
    for (auto& entry : fs::directory_iterator(kSuiteDir + "/tests/" + dir, ec)) {
      if (entry.is_regular_file() && entry.path().extension() == ".json") {
        files.push_back(std::string(dir) + "/" + entry.path().filename().string());
      }
    }
  }
  std::sort(files.begin(), files.end());
  return files;
}

std::vector<std::string> ListParsingCaseFiles() {
  std::vector<std::string> files;
  std::error_code ec;
  for (auto& entry : fs::directory_iterator(kParsingDir, ec)) {
    if (entry.is_regular_file() && entry.path().extension() == ".json") files.push_back(entry.path().filename().string());
  }
  std::sort(files.begin(), files.end());
  return files;
}

const std::vector<std::string>& SchemaSuiteFiles() {
  static const std::vector<std::string> files = ListSchemaSuiteFiles();
  return files;
}

const std::vector<std::string>& ParsingCaseFiles() {
  static const std::vector<std::string> files = ListParsingCaseFiles();
  return files;
}

// A test name GoogleTest accepts (case files use '-', '+', '.', '#'); the position in the sorted
// list makes it unique.
std::string TestName(const ::testing::TestParamInfo<std::string>& info) {
  std::string name;
  for (char c : info.param) name += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
  return name + "_" + std::to_string(info.index);
}

TEST(ConformanceData, SuitesAndExpectedFailuresArePresent) {
  EXPECT_TRUE(fs::is_directory(kSuiteDir)) << kSuiteDir << " is missing: shared/ must sit beside the checkout";
  EXPECT_GT(SchemaSuiteFiles().size(), 25u);
  EXPECT_GT(ParsingCaseFiles().size(), 300u);
  EXPECT_EQ(Expected().problem, "");
  const std::vector<std::string>& schemaFiles = SchemaSuiteFiles();
  const std::vector<std::string>& parsingFiles = ParsingCaseFiles();
  for (auto& [file, caseName] : Expected().schema) {
    EXPECT_NE(std::find(schemaFiles.begin(), schemaFiles.end(), file), schemaFiles.end()) << "listed: " << file;
  }
  for (auto& [file, source] : Expected().parsing) {
    EXPECT_NE(std::find(parsingFiles.begin(), parsingFiles.end(), file), parsingFiles.end()) << "listed: " << file;
    EXPECT_TRUE(source == "string" || source == "file") << file << ": source must be \"string\" or \"file\"";
  }
}

class SchemaSuite : public cstest::SandboxTest, public ::testing::WithParamInterface<std::string> {};

TEST_P(SchemaSuite, EveryCaseGetsTheExpectedVerdict) {
  const std::string file = GetParam();
  JsonValidator::SetRemoteResolver(ResolveRemote);
  auto suite = ReadJson(kSuiteDir + "/tests/" + file);
  ASSERT_FALSE(suite->HasParseError()) << file;
  ASSERT_TRUE(suite->IsArray()) << file;

  Row& row = Rows()[file];
  std::set<std::string> seen;
  for (rapidjson::SizeType g = 0; g < suite->Size(); ++g) {
    const rapidjson::Value& group = (*suite)[g];
    for (auto& test : group["tests"].GetArray()) {
      std::string caseName = Member(group, "description") + " / " + Member(test, "description");
      rapidjson::Document errors;
      JsonValidator::Validate(group["schema"], test["data"], errors, {2}, file + "#" + std::to_string(g));
      ASSERT_TRUE(errors.IsArray());
      bool valid = errors.Empty();
      bool passed = valid == test["valid"].GetBool();
      bool listed = Expected().schema.count({file, caseName}) != 0;
      seen.insert(caseName);
      ++row.run;
      if (passed) ++row.passed;
      if (passed && listed) {
        ADD_FAILURE() << file << ": \"" << caseName << "\" passes now; remove it from expected-failures.json";
      } else if (!passed && listed) {
        ++row.expectedFailures;
      } else if (!passed) {
        ++row.unexpected;
        ADD_FAILURE() << file << ": \"" << caseName << "\" expected " << (valid ? "invalid" : "valid") << "\n  schema: "
                      << Text(group["schema"]) << "\n  data: " << Text(test["data"]) << "\n  errors: " << Text(errors);
      }
    }
  }
  for (auto& [listedFile, caseName] : Expected().schema) {
    if (listedFile == file && seen.count(caseName) == 0) {
      ADD_FAILURE() << file << ": expected-failures.json lists \"" << caseName << "\", which this file does not hold";
    }
  }
}

INSTANTIATE_TEST_SUITE_P(JsonSchemaTestSuite, SchemaSuite, ::testing::ValuesIn(SchemaSuiteFiles()), TestName);

class ParsingCase : public cstest::SandboxTest, public ::testing::WithParamInterface<std::string> {};

// y_ must be accepted, n_ refused, i_ either way; read from a string and from a file alike.
TEST_P(ParsingCase, VerdictMatchesTheCaseName) {
  const std::string file = GetParam();
  char kind = file[0];
  for (conformance::ParseSource source : {conformance::ParseSource::kString, conformance::ParseSource::kFile}) {
    conformance::ParseOutcome outcome = conformance::ParseCase(kParsingDir + "/" + file, source);
    std::string rowName = std::string("JSONTestSuite ") + kind + "_ cases, from a " + conformance::SourceName(source);
    Row& row = Rows()[rowName];
    ++row.run;
    // Whatever the verdict, a refusal must carry the reader's own code: anything else is a fault.
    bool passed = !outcome.wrongCode && (kind == 'i' || (kind == 'y') == outcome.accepted);
    bool listed = Expected().parsing.count({file, conformance::SourceName(source)}) != 0;
    if (passed) ++row.passed;
    if (passed && listed) {
      ADD_FAILURE() << file << " (" << conformance::SourceName(source)
                    << ") passes now; remove it from expected-failures.json";
    } else if (!passed && listed) {
      ++row.expectedFailures;
    } else if (!passed) {
      ++row.unexpected;
      ADD_FAILURE() << file << " (" << conformance::SourceName(source) << ") was "
                    << (outcome.accepted ? "accepted" : "refused: " + outcome.error);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(JSONTestSuite, ParsingCase, ::testing::ValuesIn(ParsingCaseFiles()), TestName);

}  // namespace
