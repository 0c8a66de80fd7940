// The call frame: exceptions, connections, files, the boot lock, processes and alerts.
#include <gmock/gmock.h>

#include "configstore/frame/BootLock.h"
#include "configstore/frame/CallFrame.h"
#include "configstore/frame/Documents.h"
#include "platform/host/HostRoot.h"
#include "tests/support/Sandbox.h"

namespace QorConfigStore {
namespace {

using FrameTest = cstest::SandboxTest;

TEST_F(FrameTest, ErrorsConnectionsAndFileRemoval) {
  // A wrong JSON type throws 1082 instead of aborting.
  auto doc = CreateDocumentFromString("[1, 2]");
  EXPECT_THAT(cstest::Thrown([&] { (void)(*doc->document)["name"]; }),
              testing::AllOf(testing::StartsWith("1082 JSON error:\""), testing::HasSubstr("IsObject()")));

  EXPECT_FALSE(GetDBConnection(DBStore::CONFIG_STORE, false));
  EXPECT_EQ(cstest::Thrown([] { GetDBConnection(DBStore::CONFIG_STORE, true); }),
            "2000 Failed to connect to database: " + Path("/etc/talvex/configstore/current-store-1") +
                " does not exist");

  WriteFile("/tmp/f", "x");
  EXPECT_TRUE(FileExists(Path("/tmp").c_str())) << "any file type";
  EXPECT_TRUE(RemoveFile(Path("/tmp/f").c_str()));
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

TEST_F(FrameTest, ExecCommandReportsHowTheChildEndedAndAlertsAreCut) {
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

  SetLSSysAlert(std::string(2047, 'a') + "Z" + std::string(3000, 'b'));
  EXPECT_EQ(RecordedAlerts(), std::vector<std::string>{std::string(2047, 'a') + "Z"});
}

}  // namespace
}  // namespace QorConfigStore
