// The call frame, the boot lock and documents.
#include <gmock/gmock.h>

#include "configstore/frame/BootLock.h"
#include "configstore/frame/CallFrame.h"
#include "configstore/frame/Documents.h"
#include "platform/host/HostRoot.h"
#include "tests/support/Sandbox.h"

namespace QorConfigStore {
namespace {

using FrameTest = cstest::SandboxTest;

// Another process's hold is waited for, then refused by name; this process's own holds nest freely.
TEST_F(FrameTest, BootLockWaitsForOthersAndNestsInItsOwnProcess) {
  const std::string path = Host::Resolve(kBootLockFile);
  {
    Host::FileLock other(path, Host::FileLock::Mode::Exclusive, 0);  // a lock of its own, as another process's
    EXPECT_THAT(cstest::Thrown([] { BootLock lock(Host::FileLock::Mode::Shared, 20); }),
                testing::AllOf(testing::HasSubstr("A boot load is running: "), testing::HasSubstr(path)));
  }
  {
    BootLock load(Host::FileLock::Mode::Exclusive, 0);
    BootLock staging(Host::FileLock::Mode::Shared, 0);  // the load's own schema registration
    EXPECT_THROW(Host::FileLock(path, Host::FileLock::Mode::Shared, 0), Host::LockBusy);
  }
  {
    BootLock staging(Host::FileLock::Mode::Shared, 0);
    Host::FileLock otherStaging(path, Host::FileLock::Mode::Shared, 0);  // staging does not exclude staging
    EXPECT_THAT(cstest::Thrown([] { BootLock load(Host::FileLock::Mode::Exclusive, 0); }),
                testing::HasSubstr("cannot start inside a staging operation"));
  }
  Host::FileLock free(path, Host::FileLock::Mode::Exclusive, 0);  // every hold was given back
}

TEST_F(FrameTest, ExecCommandReportsHowTheChildEndedAndAlertsAreCut) {
  const char* three[] = {"/bin/sh", "-c", "exit 3", nullptr};
  EXPECT_FALSE(ExecCommand(three));
  EXPECT_TRUE(log_.Contains("[1104] " + Format(ErrorMessageForId(1104), 3), CSLogger::PRIO_ERROR));
  // The child runs without a shell: the argument is not interpreted.
  WriteFile("/tmp/marker", "");
  std::string arg = "; rm " + Path("/tmp/marker");
  const char* echo[] = {"/bin/echo", arg.c_str(), nullptr};
  EXPECT_TRUE(ExecCommand(echo));
  EXPECT_TRUE(Exists("/tmp/marker"));

  SetLSSysAlert(std::string(2047, 'a') + "Z" + std::string(3000, 'b'));
  EXPECT_EQ(RecordedAlerts(), std::vector<std::string>{std::string(2047, 'a') + "Z"});
}

using DocumentsTest = cstest::SandboxTest;

std::shared_ptr<JsonDoc> Parse(const std::string& text) { return CreateDocumentFromString(text); }

// A network interface list: "name" identifies, "mac" is vital, "stats" cached, the rest user's.
const char* kNicSchema = R"({"type": "object", "properties": {
    "name": {"type": "string", "instanceId": true}, "mtu": {"type": "integer"}, "mac": {"type": "string", "vital": true},
    "stats": {"type": "object", "cached": true, "properties": {"rx": {"type": "integer"}}},
    "off": {"type": "boolean", "vital": false}, "tags": {"type": "array", "items": {"type": "string"}},
    "ports": {"type": "array", "items": {"type": "object", "properties": {
        "id": {"type": "string", "instanceId": true}, "speed": {"type": "integer"}, "pci": {"type": "string", "vital": true}}}}}})";

TEST_F(DocumentsTest, SplitSeparatesUserVitalAndCachedParts) {
  // value, then its user, vital and cached parts ("" when a part is reduced to the identifier alone)
  const std::vector<std::vector<std::string>> cases = {
      {R"({"name":"nic0","mac":"00:11","mtu":1500})", R"({"name":"nic0","mtu":1500})", R"({"name":"nic0","mac":"00:11"})",
       ""},
      {R"({"name":"nic0","off":true,"stats":{"rx":5}})", R"({"name":"nic0"})", R"({"name":"nic0","off":true})",
       R"({"name":"nic0","stats":{"rx":5}})"},
      {R"({"name":"n","tags":["a"],"ports":[{"id":"p1","speed":10,"pci":"0:1"},{"id":"p2","speed":20}]})",
       R"({"name":"n","tags":["a"],"ports":[{"id":"p1","speed":10},{"id":"p2","speed":20}]})",
       R"({"name":"n","ports":[{"id":"p1","pci":"0:1"}]})", ""},
      {"[]", "[]", "", ""},
  };
  auto schema = Parse(kNicSchema);
  for (const auto& c : cases) {
    SCOPED_TRACE(c[0]);
    auto value = Parse(c[0]);
    auto parts = SplitConfig(*value->document, *schema->document);
    EXPECT_EQ(parts, (std::unordered_map<std::string, std::string>{{"user", c[1]}, {"vital", c[2]}, {"cached", c[3]}}));
    EXPECT_TRUE(*value->document == *Parse(c[0])->document) << "the input is left alone";
  }
  EXPECT_EQ(cstest::Thrown([&] { SplitConfig(*Parse(R"({"name":"nic0","unknown":1})")->document, *schema->document); })
                .substr(0, 4),
            "1082");
}

// Refusals of bad text in general are the conformance and hostile-document suites'; these are the limits.
TEST_F(DocumentsTest, ParsingRefusesTextPastTheLimits) {
  const std::string depth(kMaxJsonDepth, '[');
  const std::pair<std::string, bool> cases[] = {
      {depth + std::string(kMaxJsonDepth, ']'), true},
      {"[\"" + std::string(5000, '[') + "\"]", true},  // brackets inside strings do not count
      {"[{\"mtu\":21e308}]", false},                    // past the double range: would be read as infinity
  };
  for (const auto& [text, ok] : cases) {
    EXPECT_EQ(cstest::Thrown([&] { CreateDocumentFromString(text); }).substr(0, 4), ok ? "no e" : "1080")
        << text.substr(0, 40);
  }
  EXPECT_THAT(cstest::Thrown([&] { CreateDocumentFromFile(Path("/etc/none.json")); }),
              testing::AllOf(testing::StartsWith("1081 "), testing::HasSubstr(Path("/etc/none.json"))));
}

TEST_F(DocumentsTest, NavigationFollowsMembersAndInstances) {
  auto doc = Parse(R"({"qor":{"network":{"nics":[{"name":"a","mtu":1},{"name":"b","mtu":2}]}}})");
  doc->path = {{"qor", "", ""}, {"network", "", ""}, {"nics", "name", "b"}};
  EXPECT_EQ((*doc->GetJsonValuePtr())["mtu"].GetInt(), 2);
  doc->path.back().value = "z";
  EXPECT_EQ(cstest::Thrown([&] { doc->GetJsonValuePtr(); }), "2000 Subobject instance does not exists.");
  doc->path = {{"qor", "", ""}, {"storage", "", ""}};
  EXPECT_EQ(cstest::Thrown([&] { doc->GetJsonValuePtr(); }), "2000 Subobject does not exists.");
}

TEST_F(DocumentsTest, ValidationLogsEveryErrorAndPassesOnlyTheDeleteMarker) {
  auto schema = Parse(R"({"type":"object","properties":{"mtu":{"type":"integer","maximum":9000},
      "mode":{"type":"string","enum":["a","b"]}}})");
  EXPECT_FALSE(ValidateUserObject(*schema->document, *Parse(R"({"mtu":12000,"mode":"c"})")->document, "k", false));
  EXPECT_EQ(log_.Count("[1083]"), 2u) << "both errors are logged, not only the first";
  auto marker = Parse(R"("DELETE_DEFAULT")");
  EXPECT_TRUE(ValidateUserObject(*schema->document, *marker->document, "k", true));
  EXPECT_FALSE(ValidateUserObject(*schema->document, *Parse(R"("DELETE")")->document, "k", true));
  EXPECT_FALSE(ValidateUserObject(*schema->document, *marker->document, "k", false))
      << "without the flag a string is validated like any value";
}

}  // namespace
}  // namespace QorConfigStore
