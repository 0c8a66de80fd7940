#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cerrno>

#include "platform/host/Process.h"
#include "tests/support/Sandbox.h"

namespace {

using ProcessTest = cstest::SandboxTest;

TEST_F(ProcessTest, SpawnedProgramReportsItsExitStatus) {
  const std::pair<const char*, int> cases[] = {{"/bin/true", 0}, {"/bin/false", 1}};
  for (auto [program, code] : cases) {
    SCOPED_TRACE(program);
    const char* argv[] = {program, nullptr};
    pid_t pid = -1;
    ASSERT_EQ(Host::SpawnProcess(argv, &pid), 0);
    ASSERT_GT(pid, 0);
    int status = -1;
    ASSERT_EQ(Host::WaitProcess(pid, &status), 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), code);
    EXPECT_EQ(Host::WaitProcess(pid, &status), -1);  // already reaped
  }
}

TEST_F(ProcessTest, ArgumentsReachTheProgram) {
  std::string marker = Path("/marker");
  const char* argv[] = {"/bin/sh", "-c", "echo \"$0\" > \"$1\"", "hello", marker.c_str(), nullptr};
  pid_t pid = -1;
  ASSERT_EQ(Host::SpawnProcess(argv, &pid), 0);
  int status = -1;
  ASSERT_EQ(Host::WaitProcess(pid, &status), 0);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(ReadFile("/marker"), "hello\n");
}

TEST_F(ProcessTest, MissingProgramIsNotStarted) {
  std::string missing = Path("/no/such/program");
  const char* argv[] = {missing.c_str(), nullptr};
  pid_t pid = -1;
  EXPECT_EQ(Host::SpawnProcess(argv, &pid), ENOENT);
  // A bare name is not searched in PATH.
  const char* bare[] = {"true", nullptr};
  EXPECT_EQ(Host::SpawnProcess(bare, &pid), ENOENT);
  const char* empty[] = {nullptr};
  EXPECT_EQ(Host::SpawnProcess(empty, &pid), EINVAL);
  EXPECT_EQ(Host::SpawnProcess(nullptr, &pid), EINVAL);
}

TEST_F(ProcessTest, ShellReturnsExitCodes) {
  EXPECT_EQ(Host::RunShell("true"), 0);
  EXPECT_EQ(Host::RunShell("exit 3"), 3);
  EXPECT_EQ(Host::RunShell("false || exit 7"), 7);
  EXPECT_EQ(Host::RunShell("kill -9 $$"), -1);  // killed by a signal
  EXPECT_EQ(Host::RunShell("echo written > " + Path("/shell-out")), 0);
  EXPECT_EQ(ReadFile("/shell-out"), "written\n");
}

}  // namespace
