// The call frame: exceptions, formatting, connections, files, processes and alerts.
#include <gmock/gmock.h>

#include <thread>

#include "configstore/frame/BootLock.h"
#include "configstore/frame/CallFrame.h"
#include "configstore/frame/Documents.h"
#include "platform/host/HostRoot.h"
#include "platform/plon/Plon.h"
#include "tests/support/Sandbox.h"

namespace QorConfigStore {
namespace {

using cstest::SandboxTest;
using FrameTest = SandboxTest;

TEST(ExceptionTest, MessageSurvivesCopiesAndThreadsAndTheKindIsKept) {
  std::vector<std::string> seen(4);
  try {
    ThrowException<ConfigStoreException, const char*>(CS_ERR_JSON_PARSE_FILE, "/etc/a.json");
  } catch (const ConfigStoreException& e) {
    ConfigStoreException copy = e;
    EXPECT_EQ(copy.what(), e.what()) << "copies share the message storage";
    std::vector<std::thread> threads;
    for (size_t i = 0; i < seen.size(); ++i) {
      threads.emplace_back([copy, &seen, i] { seen[i] = ConfigStoreException(copy).what(); });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(copy.code(), CS_ERR_JSON_PARSE_FILE);
  }
  for (const auto& s : seen) EXPECT_THAT(s, testing::HasSubstr("/etc/a.json"));

  try {
    ThrowException<InvalidArgumentException>(CS_ERR_JSON_PARSE_STRING);
    ADD_FAILURE() << "no throw";
  } catch (const ConfigStoreException& e) {
    EXPECT_EQ(e.code(), 1080);
    EXPECT_NE(dynamic_cast<const InvalidArgumentException*>(&e), nullptr);
    EXPECT_STREQ(e.what(), ErrorMessageForId(1080));
  }
}

TEST(FormatTest, FormatsToExactLength) {
  EXPECT_EQ(Format("%s-%d", "abc", 42), "abc-42");
  std::string big(10000, 'x');
  EXPECT_EQ(Format("[%s]", big.c_str()).size(), 10002u);
  EXPECT_EQ(Format("plain"), "plain");
}

TEST(JsonPolicyTest, WrongTypeThrows1082InsteadOfAborting) {
  auto doc = CreateDocumentFromString("[1, 2]");
  try {
    (void)(*doc->document)["name"];
    FAIL() << "no throw";
  } catch (const ConfigStoreException& e) {
    EXPECT_EQ(e.code(), CS_ERR_JSON_TYPE);
    EXPECT_THAT(e.what(), testing::StartsWith("JSON error:\""));
    EXPECT_THAT(e.what(), testing::HasSubstr("IsObject()"));
  }
  auto str = CreateDocumentFromString("{\"a\": 5}");
  try {
    (void)(*str->document)["a"].GetString();
    FAIL() << "no throw";
  } catch (const ConfigStoreException& e) {
    EXPECT_THAT(e.what(), testing::EndsWith(": IsString()"));
  }
}

TEST_F(FrameTest, ConnectionToMissingStore) {
  EXPECT_FALSE(GetDBConnection(DBStore::CONFIG_STORE, false));
  try {
    GetDBConnection(DBStore::CONFIG_STORE, true);
    FAIL() << "no throw";
  } catch (const ConfigStoreException& e) {
    EXPECT_EQ(e.code(), 2000);
    EXPECT_EQ(e.what(), "Failed to connect to database: " + Path("/etc/talvex/configstore/current-store-1") +
                            " does not exist");
  }
  ASSERT_EQ(DBStore::CreateDatabases(), 0);
  EXPECT_TRUE(GetDBConnection(DBStore::CONFIG_STORE, true));
  EXPECT_TRUE(GetDBConnection(DBStore::DATAFILE_STORE, false));
}

TEST_F(FrameTest, FileExistsAndRemoveFile) {
  WriteFile("/tmp/f", "x");
  EXPECT_TRUE(FileExists(Path("/tmp/f").c_str()));
  EXPECT_TRUE(FileExists(Path("/tmp").c_str())) << "any file type";
  EXPECT_TRUE(RemoveFile(Path("/tmp/f").c_str()));
  EXPECT_TRUE(log_.Contains("[" + Path("/tmp/f") + "] file removed."));
  EXPECT_FALSE(FileExists(Path("/tmp/f").c_str()));

  EXPECT_FALSE(RemoveFile(Path("/tmp/f").c_str()));
  EXPECT_TRUE(log_.Contains("Failed to remove: " + Path("/tmp/f") + ", err: 2", CSLogger::PRIO_ERROR));
}

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

TEST_F(FrameTest, ExecCommandReportsHowTheChildEnded) {
  const char* ok[] = {"/bin/true", nullptr};
  EXPECT_TRUE(ExecCommand(ok));

  const char* three[] = {"/bin/sh", "-c", "exit 3", nullptr};
  EXPECT_FALSE(ExecCommand(three));
  EXPECT_TRUE(log_.Contains("[1104] " + Format(ErrorMessageForId(1104), 3), CSLogger::PRIO_ERROR));

  const char* missing[] = {"/nonexistent/program", nullptr};
  EXPECT_FALSE(ExecCommand(missing));
  EXPECT_TRUE(log_.Contains("[1102]", CSLogger::PRIO_ERROR));

  // The child runs without a shell: the argument is not interpreted.
  WriteFile("/tmp/marker", "");
  std::string arg = "; rm " + Path("/tmp/marker");
  const char* echo[] = {"/bin/echo", arg.c_str(), nullptr};
  EXPECT_TRUE(ExecCommand(echo));
  EXPECT_TRUE(Exists("/tmp/marker"));
}

TEST_F(FrameTest, SysAlertIsCutTo2048Bytes) {
  std::string message(5000, 'a');
  message[2047] = 'Z';
  SetLSSysAlert(message);
  SetLSSysAlert("short \"quoted\" alert");
  auto alerts = RecordedAlerts();
  ASSERT_EQ(alerts.size(), 2u);
  EXPECT_EQ(alerts[0].size(), 2048u);
  EXPECT_EQ(alerts[0].back(), 'Z');
  EXPECT_EQ(alerts[1], "short \"quoted\" alert");
}

}  // namespace
}  // namespace QorConfigStore
