// The built plonsh and plonshd as real processes on a sandbox node tree.
// The hex dump, "-c" and a link out of the tree are also checked by the examples of docs/plonsh.md.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "platform/plon/Plon.h"
#include "tests/support/Ctl.h"
#include "tests/support/Sandbox.h"

namespace {

// Every wait below gives up after this many 10 ms steps, so a broken daemon fails the test
// instead of hanging it.
constexpr int kWaitSteps = 1000;

class PlonshTest : public cstest::SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    ASSERT_TRUE(PLON_WriteSignature());
    ASSERT_TRUE(PLON_WriteNodeFile("/system/bootMAC", "00:50:56:aa:bb:cc"));
    ASSERT_TRUE(PLON_WriteNodeFile("/system/lumafs/ramdisks/tmp/memUsageLimit", "80 95\n"));
    ASSERT_TRUE(PLON_WriteNodeFile("/system/lumafs/inodes/12/stats", std::string(256, '\0')));
    WriteFile("/stdin", "");
  }
  void TearDown() override {
    if (daemon_ > 0 && ::kill(daemon_, SIGKILL) == 0) ::waitpid(daemon_, nullptr, 0);
    SandboxTest::TearDown();
  }

  // Starts a tool of tools/plonsh with standard input from /stdin, output and errors to /TAG.out
  // and /TAG.err.
  pid_t Spawn(const std::string& tool, std::vector<std::string> args, const std::string& tag) {
    args.insert(args.begin(), cstest::BinaryPath("tools/plonsh/" + tool));
    pid_t pid = ::fork();
    if (pid != 0) return pid;
    int in = ::open(Path("/stdin").c_str(), O_RDONLY), out = ::creat(Path("/" + tag + ".out").c_str(), 0600),
        err = ::creat(Path("/" + tag + ".err").c_str(), 0600);
    if (in < 0 || out < 0 || err < 0 || ::dup2(in, 0) < 0 || ::dup2(out, 1) < 0 || ::dup2(err, 2) < 0) ::_exit(127);
    ::execv(args[0].c_str(), cstest::ExecPointers(args).data());
    ::_exit(127);
  }
  // Runs a tool to its end: its exit status (-1 when it did not exit), standard output and error.
  std::vector<std::string> Run(const std::string& tool, const std::vector<std::string>& args) {
    int wstatus = 0;
    EXPECT_GT(::waitpid(Spawn(tool, args, "run"), &wstatus, 0), 0);
    return {std::to_string(WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1), ReadFile("/run.out"), ReadFile("/run.err")};
  }

  // A client of the daemon on /s, retried while the daemon starts; -1 when it never listens.
  int Connect() {
    sockaddr_un addr{.sun_family = AF_UNIX};
    std::strncpy(addr.sun_path, Path("/s").c_str(), sizeof addr.sun_path - 1);
    for (int step = 0; step < kWaitSteps; ++step, ::usleep(10000)) {
      int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
      if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) return fd;
      ::close(fd);
    }
    return -1;
  }
  // Sends `request` (when not empty) and a newline, then reads one reply line without its newline;
  // "<eof>" when the daemon closed the connection.
  static std::string Ask(int fd, const std::string& request = "") {
    const std::string data = request + "\n";
    if (!request.empty() && ::send(fd, data.data(), data.size(), MSG_NOSIGNAL) != std::ssize(data)) return "<unsent>";
    std::string line;
    char c;
    for (pollfd p{fd, POLLIN, 0}; ::poll(&p, 1, kWaitSteps * 10) > 0; line += c) {
      if (::recv(fd, &c, 1, 0) <= 0) return line.empty() ? "<eof>" : line;
      if (c == '\n') return line;
    }
    return "<timeout>";
  }

  pid_t daemon_ = -1;
};

// Standard input without a terminal, then usage and refused roots, alike in both tools ("TOOL"
// stands for each). The daemon never gets as far as its socket in these.
TEST_F(PlonshTest, ToolsAnswerUsageAndRefuseBadRoots) {
  WriteFile("/stdin", "cd /system/lumafs\nls\nquit\nget /system/nothing\n");
  EXPECT_EQ(Run("plonsh", {"--root", root_}), (std::vector<std::string>{"0", "inodes/\nramdisks/\n", ""}))
      << "no prompt, and quit stops reading";
  WriteFile("/file", "");
  const struct {
    std::vector<std::string> args;
    int status;
    std::string start;  // of standard output, or of standard error when the tool fails
  } cases[] = {
      {{"--bogus"}, 2, "TOOL: unknown argument: --bogus\nusage: TOOL "},
      {{"--root", "/tmp/bad root"}, 2, "TOOL: host root \"/tmp/bad root\" holds the character ' '"},
      {{"--root", root_ + "/file"}, 2, "TOOL: host root \"" + root_ + "/file\" is not a directory\n"},
      {{"--help"}, 0, "usage: TOOL [--root DIR] "},
  };
  for (const std::string tool : {"plonsh", "plonshd"}) {
    for (const auto& c : cases) {
      std::vector<std::string> args = c.args;
      if (tool == "plonshd" && args.size() == 2) args.insert(args.end(), {"--socket", Path("/s")});
      std::vector<std::string> r = Run(tool, args);
      EXPECT_EQ(r[0], std::to_string(c.status)) << tool << " " << testing::PrintToString(args);
      EXPECT_TRUE(r[c.status == 0 ? 1 : 2].starts_with(std::regex_replace(c.start, std::regex("TOOL"), tool))) << r[2];
    }
  }
}

// One daemon, a cap of three clients and a one-second idle time-out; the clients connect at their
// first row, and each has its own session whose current directory carries from row to row. An
// oversize request closes only its connection; a node that is not a regular file is an error at
// once (a FIFO used to block the whole daemon); past the cap a client is refused, and a place freed
// is taken by the next; an idle client is told and closed; SIGTERM removes the socket.
TEST_F(PlonshTest, DaemonServesClientsEachWithItsOwnSession) {
  for (const char* node : {"/sys/plon/system/bootCmdLine", "/sys/plon/system/lumafs/ramdisks/fifo/memUsageLimit"}) {
    std::filesystem::create_directories(std::filesystem::path(Path(node)).parent_path());
    ASSERT_EQ(::mkfifo(Path(node).c_str(), 0644), 0);
  }
  WriteFile("/etc/secret", "password");
  std::filesystem::create_symlink(Path("/nowhere"), Path("/sys/plon/system/lumafs/ramdisks/x"));
  const std::string ramdisks = "/system/lumafs/ramdisks/", limit = ramdisks + "tmp/memUsageLimit",
                    inodes = "/system/lumafs/inodes/", y(4000, 'y');
  daemon_ = Spawn("plonshd", {"--root", root_, "--socket", Path("/s"), "--max-clients", "3", "--idle-timeout", "1"},
                  "daemon");
  enum { a, b, big, refused, next };
  int fds[] = {-1, -1, -1, -1, -1};
  const struct {
    int client;
    std::string request, reply;  // "ok" or "error", then the text, its lines escaped on one line
  } cases[] = {
      {a, "ls", "ok system/"},  // the signature file is hidden
      {b, "pwd", "ok /"},
      {b, "get /" + y, "error unknown node: /" + y},  // long, still fits
      {big, "pwd", "ok /"},
      {refused, "", "error too many clients"},
      {refused, "", "<eof>"},
      {big, "get " + std::string(5000, 'x'), "error request longer than 4096 bytes"},
      {big, "", "<eof>"},
      {next, "pwd", "ok /"},
      // Files present plus the known nodes without files (sysAlert can only be set).
      {a, "ls /system", R"(ok bootCmdLine\nbootFsUUID\nbootMAC\nbootOption\nlumafs/\nsysAlert)"},
      {a, "cd system/./lumafs//inodes/", "ok"},
      {a, "ls 12", "ok stats"},
      {a, "cd 12/stats", "error not a directory: /system/lumafs/inodes/12/stats"},
      {a, "cd /system", "ok"},
      {a, "cd nowhere", "error no such directory in the node tree: /system/nowhere"},
      {a, "get bootCmdLine", "error cannot read node: /system/bootCmdLine"},
      {a, "set " + ramdisks + "fifo/memUsageLimit 70 90", "error cannot set node: " + ramdisks + "fifo/memUsageLimit"},
      {a, "set lumafs/ramdisks/x/memUsageLimit 1 2",
       "error refused: " + ramdisks + "x/memUsageLimit leads out of the node tree"},
      {a, "get bootMAC", "ok 00:50:56:aa:bb:cc"},
      {a, "set /system/sysAlert disk  \"almost full; act now\"\npwd", "ok"},  // two requests in one write
      {a, "", "ok /system"},
      {a, "set " + limit + " 70 90", "ok"},
      {a, "set " + limit + " 90 80",
       "error bad arguments: limits are 0..100 per cent with the warning not above the error"},
      {a, "set " + limit + " 80",
       "error bad arguments: memUsageLimit takes a warning and an error per cent (integers)"},
      {a, "set /system/bootMAC 00:11", "error node cannot be set: /system/bootMAC"},
      {a, "get /system/sysAlert", "error node cannot be read: /system/sysAlert (it can only be set)"},
      {a, "get " + inodes + "../../bootMAC", "error '..' is not allowed in node paths: " + inodes + "../../bootMAC"},
      {a, "get /etc/secret", "error unknown node: /etc/secret"},
      {a, "get " + inodes + "stats 1 2", "error unknown node: " + inodes + "stats with 2 instance argument(s)"},
      {a, "get " + inodes + "stats ../12", "error bad arguments: instance '../12' is not a single path element"},
      {a, "get /system/bootFsUUID", "error node does not exist: /system/bootFsUUID"},
      {a, std::string("get /system/boot\0MAC", 20), "error bad arguments: the command holds a NUL byte"},
      {a, "quit", "ok"},
      {a, "", "<eof>"},
      {b, "", "error idle time-out"},
      {b, "", "<eof>"},
  };
  for (const auto& c : cases) {
    fds[c.client] = fds[c.client] < 0 ? Connect() : fds[c.client];
    ASSERT_GE(fds[c.client], 0) << "the daemon does not listen";
    EXPECT_EQ(Ask(fds[c.client], c.request), c.reply) << c.request;
  }
  for (int fd : fds) ::close(fd);
  EXPECT_EQ(RecordedAlerts(), std::vector<std::string>{"disk almost full; act now"});
  EXPECT_EQ(ReadFile("/sys/plon" + limit), "70 90\n") << "the refused limits left the recorded ones alone";
  struct stat st;
  ASSERT_EQ(::stat(Path("/s").c_str(), &st), 0);
  EXPECT_TRUE(S_ISSOCK(st.st_mode) && (st.st_mode & 0777) == 0600);

  ASSERT_EQ(::kill(daemon_, SIGTERM), 0);
  int wstatus = -1;
  for (int step = 0; step < kWaitSteps && ::waitpid(daemon_, &wstatus, WNOHANG) == 0; ++step) ::usleep(10000);
  daemon_ = -1;
  EXPECT_TRUE(WIFEXITED(wstatus) && WEXITSTATUS(wstatus) == 0) << ReadFile("/daemon.err");
  EXPECT_FALSE(Exists("/s"));
}

}  // namespace
