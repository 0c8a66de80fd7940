// The built plonsh and plonshd run as real processes on a sandbox root.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "platform/plon/Plon.h"
#include "tests/support/Sandbox.h"

namespace {

// Every wait below gives up after this many 10 ms steps, so a broken daemon fails the test
// instead of hanging it.
constexpr int kWaitSteps = 1000;

struct Outcome {
  int status = -1;  // exit status; -1 when the process did not exit normally
  std::string out;
  std::string err;
};

pid_t Spawn(const std::vector<std::string>& args, const std::string& in, const std::string& out,
            const std::string& err) {
  pid_t pid = ::fork();
  if (pid != 0) return pid;
  int inFd = ::open(in.c_str(), O_RDONLY);
  int outFd = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  int errFd = ::open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (inFd < 0 || outFd < 0 || errFd < 0) ::_exit(127);
  ::dup2(inFd, 0);
  ::dup2(outFd, 1);
  ::dup2(errFd, 2);
  std::vector<char*> argv;
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  ::execv(argv[0], argv.data());
  ::_exit(127);
}

int ExitStatus(int wstatus) { return WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1; }

class PlonshProcessTest : public cstest::SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    ASSERT_TRUE(PLON_WriteNodeFile("/system/bootMAC", "00:50:56:aa:bb:cc\n"));
    std::string record(256, '\0');
    record[0] = '\x05';
    record.replace(36, 6, "sb.tgz");
    ASSERT_TRUE(PLON_WriteNodeFile("/system/lumafs/inodes/5/stats", record));
    WriteFile("/stdin", "");
  }

  Outcome Shell(std::vector<std::string> args, const std::string& input = "",
                const std::string& program = "tools/plonsh/plonsh") {
    WriteFile("/stdin", input);
    args.insert(args.begin(), cstest::BinaryPath(program));
    pid_t pid = Spawn(args, Path("/stdin"), Path("/out"), Path("/err"));
    int wstatus = 0;
    EXPECT_EQ(::waitpid(pid, &wstatus, 0), pid);
    return {ExitStatus(wstatus), ReadFile("/out"), ReadFile("/err")};
  }
};

TEST_F(PlonshProcessTest, ShellRunsCommandsAndReportsFailureInItsStatus) {
  Outcome ok = Shell({"--root", root_, "-c", "cd /system; get bootMAC;pwd"});
  EXPECT_EQ(ok.status, 0) << ok.err;
  EXPECT_EQ(ok.out, "00:50:56:aa:bb:cc\n/system\n");
  EXPECT_EQ(ok.err, "");

  Outcome failed = Shell({"--root", root_, "-c", "get /system/nothing; pwd"});
  EXPECT_EQ(failed.status, 1);
  EXPECT_EQ(failed.out, "/\n");
  EXPECT_EQ(failed.err, "plonsh: unknown node: /system/nothing\n");

  // Commands on standard input, no prompt when it is not a terminal; quit stops reading.
  Outcome piped = Shell({"--root", root_}, "cd /system/lumafs\nls\nquit\nget /system/nothing\n");
  EXPECT_EQ(piped.status, 0) << piped.err;
  EXPECT_EQ(piped.out, "inodes/\nramdisks/\n");

  // Usage, the version and refused roots, alike in both tools ("TOOL" stands for each). The
  // daemon never gets as far as its socket in these.
  WriteFile("/file", "");
  const std::string socket = Path("/s");
  struct Case {
    std::vector<std::string> plonshArgs, plonshdArgs;
    int status;
    std::string out, errStart;
  } cases[] = {
      {{"--bogus"}, {"--bogus"}, 2, "", "TOOL: unknown argument: --bogus\nusage: TOOL "},
      {{"--root"}, {"--root"}, 2, "", "TOOL: --root needs a value\n"},
      {{"-c"}, {"--socket"}, 2, "", "TOOL: "},
      {{"--root", "/tmp/bad root", "-c", "pwd"}, {"--root", "/tmp/bad root", "--socket", socket}, 2, "",
       "TOOL: host root \"/tmp/bad root\" holds the character ' '"},
      {{"--root", root_ + "/none", "-c", "pwd"}, {"--root", root_ + "/none", "--socket", socket}, 2, "",
       "TOOL: host root \"" + root_ + "/none\" does not exist\n"},
      {{"--root", root_ + "/file"}, {"--root", root_ + "/file", "--socket", socket}, 2, "",
       "TOOL: host root \"" + root_ + "/file\" is not a directory\n"},
      {{"--help"}, {"--help"}, 0, "usage: TOOL [--root DIR] ", ""},
      {{"--version"}, {"--version"}, 0, "TOOL " CONFIGSTORE_VERSION "\n", ""},
  };
  for (const std::string tool : {"plonsh", "plonshd"}) {
    auto named = [&](std::string text) {
      for (size_t at; (at = text.find("TOOL")) != std::string::npos;) text.replace(at, 4, tool);
      return text;
    };
    for (const Case& c : cases) {
      const std::vector<std::string>& args = tool == "plonsh" ? c.plonshArgs : c.plonshdArgs;
      SCOPED_TRACE(tool + " " + testing::PrintToString(args));
      Outcome r = Shell(args, "", "tools/plonsh/" + tool);
      EXPECT_EQ(r.status, c.status) << r.err;
      EXPECT_EQ(r.out.substr(0, named(c.out).size()), named(c.out));
      EXPECT_TRUE(r.err.starts_with(named(c.errStart))) << r.err;
    }
  }
  EXPECT_EQ(Shell({"-c"}).err, "plonsh: -c needs a value\nusage: plonsh [--root DIR] [-c 'COMMAND; COMMAND...'] | --help | --version\n");
}

class PlonshdTest : public PlonshProcessTest {
 protected:
  void SetUp() override {
    PlonshProcessTest::SetUp();
    socket_ = Path("/run/plonsh.sock");
    ::mkdir(Path("/run").c_str(), 0700);
    Start({});
  }

  void TearDown() override {
    Stop();
    PlonshProcessTest::TearDown();
  }

  // (Re)starts the daemon with `options` added.
  void Start(const std::vector<std::string>& options) {
    Stop();
    std::vector<std::string> args = {cstest::BinaryPath("tools/plonsh/plonshd"), "--root", root_, "--socket", socket_};
    args.insert(args.end(), options.begin(), options.end());
    daemon_ = Spawn(args, Path("/stdin"), Path("/daemon.out"), Path("/daemon.err"));
    ASSERT_GT(daemon_, 0);
  }

  void Stop() {
    if (daemon_ > 0) {
      ::kill(daemon_, SIGKILL);
      ::waitpid(daemon_, nullptr, 0);
      ::unlink(socket_.c_str());
    }
    daemon_ = -1;
  }

  // A connected client, retried while the daemon starts; -1 when it never listens.
  int Connect() {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, socket_.c_str(), sizeof addr.sun_path - 1);
    for (int step = 0; step < kWaitSteps; ++step) {
      int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
      if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) return fd;
      ::close(fd);
      ::usleep(10000);
    }
    return -1;
  }

  static void Send(int fd, const std::string& data) {
    ASSERT_EQ(::send(fd, data.data(), data.size(), MSG_NOSIGNAL), static_cast<ssize_t>(data.size()));
  }

  // One reply line without its newline; "<eof>" when the daemon closed the connection,
  // "<timeout>" when nothing came.
  static std::string ReadLine(int fd) {
    std::string line;
    char c;
    for (;;) {
      pollfd p{fd, POLLIN, 0};
      if (::poll(&p, 1, kWaitSteps * 10) <= 0) return "<timeout>";
      ssize_t n = ::recv(fd, &c, 1, 0);
      if (n <= 0) return line.empty() ? "<eof>" : line;
      if (c == '\n') return line;
      line += c;
    }
  }

  std::string Ask(int fd, const std::string& request) {
    Send(fd, request + "\n");
    return ReadLine(fd);
  }

  std::string socket_;
  pid_t daemon_ = -1;
};

TEST_F(PlonshdTest, ServesClientsEachWithItsOwnDirectory) {
  int a = Connect();
  int b = Connect();
  ASSERT_GE(a, 0);
  ASSERT_GE(b, 0);

  struct stat st;
  ASSERT_EQ(::stat(socket_.c_str(), &st), 0);
  EXPECT_TRUE(S_ISSOCK(st.st_mode));
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  EXPECT_EQ(Ask(a, "cd /system"), "ok");
  EXPECT_EQ(Ask(b, "pwd"), "ok /");
  EXPECT_EQ(Ask(a, "pwd"), "ok /system");
  EXPECT_EQ(Ask(a, "get bootMAC"), "ok 00:50:56:aa:bb:cc");
  EXPECT_EQ(Ask(b, "get /system/nothing"), "error unknown node: /system/nothing");
  EXPECT_EQ(Ask(b, "ls /system/lumafs"), "ok inodes/\\nramdisks/");

  // A hex dump's lines arrive escaped on one reply line.
  std::string dump = Ask(b, "get /system/lumafs/inodes/stats 5");
  ASSERT_EQ(dump.substr(0, 13), "ok 00000000  ");
  EXPECT_NE(dump.find("\\n00000020  00 00 00 00 73 62 2e 74 67 7a"), std::string::npos) << dump;
  EXPECT_EQ(dump.find('\n'), std::string::npos);

  // Two requests in one write get two replies, in order.
  Send(a, "pwd\nset /system/sysAlert from the socket\n");
  EXPECT_EQ(ReadLine(a), "ok /system");
  EXPECT_EQ(ReadLine(a), "ok");
  EXPECT_EQ(RecordedAlerts(), std::vector<std::string>{"from the socket"});

  EXPECT_EQ(Ask(a, "quit"), "ok");
  EXPECT_EQ(ReadLine(a), "<eof>");
  EXPECT_EQ(Ask(b, "pwd"), "ok /");
  ::close(a);
  ::close(b);
}

TEST_F(PlonshdTest, OversizeRequestClosesOnlyThatConnection) {
  int big = Connect();
  int other = Connect();
  ASSERT_GE(big, 0);
  ASSERT_GE(other, 0);
  Send(big, "get " + std::string(5000, 'x'));
  EXPECT_EQ(ReadLine(big), "error request longer than 4096 bytes");
  EXPECT_EQ(ReadLine(big), "<eof>");
  // A long request that still fits is answered.
  EXPECT_EQ(Ask(other, "get /" + std::string(4000, 'y')), "error unknown node: /" + std::string(4000, 'y'));
  ::close(big);
  ::close(other);
}

// A node file that is not a regular file is answered with an error at once; a FIFO used to block
// the whole daemon.
TEST_F(PlonshdTest, NodeThatIsNotARegularFileIsAnErrorAndOthersAreStillServed) {
  const std::string limits = "/sys/plon/system/lumafs/ramdisks/tmp/memUsageLimit";
  ASSERT_TRUE(PLON_WriteNodeFile("/system/lumafs/ramdisks/tmp/memUsageLimit", "80 95\n"));
  for (const std::string& node : {std::string("/sys/plon/system/bootMAC"), limits}) {
    Remove(node);
    ASSERT_EQ(::mkfifo(Path(node).c_str(), 0644), 0);
  }
  int a = Connect();
  int b = Connect();
  ASSERT_GE(a, 0);
  ASSERT_GE(b, 0);
  EXPECT_EQ(Ask(a, "get /system/bootMAC"), "error cannot read node: /system/bootMAC");
  EXPECT_EQ(Ask(b, "pwd"), "ok /");
  EXPECT_EQ(Ask(a, "set /system/lumafs/ramdisks/tmp/memUsageLimit 70 90"),
            "error cannot set node: /system/lumafs/ramdisks/tmp/memUsageLimit");
  EXPECT_EQ(Ask(b, "get /system/lumafs/inodes/stats 5").substr(0, 3), "ok ");
  ::close(a);
  ::close(b);
}

TEST_F(PlonshdTest, ClientsPastTheCapAreRefused) {
  Start({"--max-clients", "2"});
  int a = Connect();
  int b = Connect();
  ASSERT_GE(a, 0);
  ASSERT_GE(b, 0);
  EXPECT_EQ(Ask(a, "pwd"), "ok /");
  EXPECT_EQ(Ask(b, "pwd"), "ok /");
  int c = Connect();
  ASSERT_GE(c, 0);
  EXPECT_EQ(ReadLine(c), "error too many clients");
  EXPECT_EQ(ReadLine(c), "<eof>");
  // A place freed is taken by the next client.
  EXPECT_EQ(Ask(a, "quit"), "ok");
  EXPECT_EQ(ReadLine(a), "<eof>");
  int d = Connect();
  ASSERT_GE(d, 0);
  EXPECT_EQ(Ask(d, "pwd"), "ok /");
  for (int fd : {a, b, c, d}) ::close(fd);
}

TEST_F(PlonshdTest, IdleClientIsToldAndClosed) {
  Start({"--idle-timeout", "1"});
  int idle = Connect();
  ASSERT_GE(idle, 0);
  EXPECT_EQ(ReadLine(idle), "error idle time-out");
  EXPECT_EQ(ReadLine(idle), "<eof>");
  ::close(idle);
}

TEST_F(PlonshdTest, TerminationRemovesTheSocket) {
  int client = Connect();
  ASSERT_GE(client, 0);
  EXPECT_EQ(Ask(client, "pwd"), "ok /");
  ASSERT_EQ(::kill(daemon_, SIGTERM), 0);

  int wstatus = 0;
  pid_t done = 0;
  for (int step = 0; step < kWaitSteps && done == 0; ++step) {
    done = ::waitpid(daemon_, &wstatus, WNOHANG);
    if (done == 0) ::usleep(10000);
  }
  ASSERT_EQ(done, daemon_) << "plonshd did not stop on SIGTERM";
  daemon_ = -1;
  EXPECT_EQ(ExitStatus(wstatus), 0) << ReadFile("/daemon.err");
  EXPECT_FALSE(Exists("/run/plonsh.sock"));
  EXPECT_EQ(ReadLine(client), "<eof>");
  ::close(client);
}

}  // namespace
