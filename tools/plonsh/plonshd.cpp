// plonshd [--root DIR] --socket PATH | --help | --version: serves the plonsh commands on a local socket.
//
// Protocol: a UNIX stream socket, created with mode 0600. A client sends one command per line
// ('\n'-terminated, at most kMaxRequest bytes before the newline) and gets one reply line per
// request, in order: "ok" or "error", then, when the reply has text, a space and the text with
// '\\' written as "\\\\", newline as "\\n" and carriage return as "\\r", then '\n'.
// A longer request gets "error request longer than 4096 bytes" and the connection is closed;
// "quit" is answered with "ok" and the connection is closed. Each connection has its own current
// directory. SIGTERM or SIGINT: the socket file is removed and the daemon exits with 0.
// Exit status 1 when the socket cannot be set up, 2 for bad usage.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/host/HostRoot.h"
#include "tools/plonsh/PlonCommands.h"

namespace {

constexpr size_t kMaxRequest = 4096;
// A client that does not read its replies is not read from until they drain below this.
constexpr size_t kMaxPendingReplies = 64 * 1024;

int g_signalPipe[2] = {-1, -1};

void OnSignal(int) {
  int saved = errno;
  char c = 1;
  (void)!::write(g_signalPipe[1], &c, 1);
  errno = saved;
}

std::string Escape(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\r') {
      out += "\\r";
    } else {
      out += c;
    }
  }
  return out;
}

std::string ReplyLine(bool ok, const std::string& text) {
  return std::string(ok ? "ok" : "error") + (text.empty() ? "" : " " + Escape(text)) + "\n";
}

struct Client {
  plonsh::Session session;
  std::string in;
  std::string out;
  bool closing = false;  // close once `out` is sent
};

// Answers every complete request in the client's input.
void Serve(Client& client) {
  while (!client.closing) {
    size_t newline = client.in.find('\n');
    if (newline == std::string::npos) {
      if (client.in.size() > kMaxRequest) {
        client.out += ReplyLine(false, "request longer than " + std::to_string(kMaxRequest) + " bytes");
        client.closing = true;
      }
      return;
    }
    if (newline > kMaxRequest) {
      client.out += ReplyLine(false, "request longer than " + std::to_string(kMaxRequest) + " bytes");
      client.closing = true;
      return;
    }
    std::string request = client.in.substr(0, newline);
    client.in.erase(0, newline + 1);
    plonsh::Reply reply = client.session.Execute(request);
    client.out += ReplyLine(reply.ok, reply.text);
    if (reply.quit) client.closing = true;
  }
}

// Listening socket at `path` with mode 0600; -1 (and a message) on failure.
int Listen(const std::string& path) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof addr.sun_path) {
    std::cerr << "plonshd: socket path is empty or too long: " << path << "\n";
    return -1;
  }
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    std::cerr << "plonshd: socket: " << std::strerror(errno) << "\n";
    return -1;
  }
  mode_t old = ::umask(077);
  int bound = ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  int bindErrno = errno;
  ::umask(old);
  if (bound != 0 || ::chmod(path.c_str(), 0600) != 0 || ::listen(fd, 16) != 0 ||
      ::fcntl(fd, F_SETFL, O_NONBLOCK) != 0) {
    std::cerr << "plonshd: cannot listen on " << path << ": " << std::strerror(bound != 0 ? bindErrno : errno)
              << "\n";
    if (bound == 0) ::unlink(path.c_str());
    ::close(fd);
    return -1;
  }
  return fd;
}

constexpr const char* kUsage = "usage: plonshd [--root DIR] --socket PATH | --help | --version\n";

}  // namespace

int main(int argc, char** argv) {
  std::string root, socketPath;
  bool haveRoot = false;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--root" || arg == "--socket") {
      if (i + 1 == argc) {
        std::cerr << "plonshd: " << arg << " needs a value\n" << kUsage;
        return 2;
      }
      (arg == "--root" ? root : socketPath) = argv[++i];
      if (arg == "--root") haveRoot = true;
    } else if (arg == "-h" || arg == "--help") {
      std::cout << kUsage;
      return 0;
    } else if (arg == "--version") {
      std::cout << "plonshd " CONFIGSTORE_VERSION "\n";
      return 0;
    } else {
      std::cerr << "plonshd: unknown argument: " << arg << "\n" << kUsage;
      return 2;
    }
  }
  if (socketPath.empty()) {
    std::cerr << "plonshd: --socket PATH is required\n" << kUsage;
    return 2;
  }
  try {
    if (haveRoot) Host::SetRoot(root);
    Host::RequireRootDirectory();
  } catch (const std::invalid_argument& e) {
    std::cerr << "plonshd: " << e.what() << "\n";
    return 2;
  }

  if (::pipe2(g_signalPipe, O_CLOEXEC | O_NONBLOCK) != 0) return 1;
  struct sigaction sa{};
  sa.sa_handler = OnSignal;
  ::sigemptyset(&sa.sa_mask);
  ::sigaction(SIGTERM, &sa, nullptr);
  ::sigaction(SIGINT, &sa, nullptr);
  ::signal(SIGPIPE, SIG_IGN);

  int listenFd = Listen(socketPath);
  if (listenFd < 0) return 1;

  std::map<int, Client> clients;
  bool running = true;
  while (running) {
    std::vector<pollfd> fds = {{g_signalPipe[0], POLLIN, 0}, {listenFd, POLLIN, 0}};
    for (auto& [fd, client] : clients) {
      short events = 0;
      if (!client.closing && client.out.size() < kMaxPendingReplies) events |= POLLIN;
      if (!client.out.empty()) events |= POLLOUT;
      fds.push_back({fd, events, 0});
    }
    if (::poll(fds.data(), fds.size(), -1) < 0) {
      if (errno == EINTR) continue;
      std::cerr << "plonshd: poll: " << std::strerror(errno) << "\n";
      break;
    }
    if (fds[0].revents) running = false;
    if (fds[1].revents & POLLIN) {
      int fd = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
      if (fd >= 0) clients[fd];
    }
    for (size_t i = 2; i < fds.size(); ++i) {
      int fd = fds[i].fd;
      Client& client = clients[fd];
      bool drop = false;
      if (fds[i].revents & (POLLIN | POLLHUP | POLLERR)) {
        char buf[4096];
        ssize_t n = ::recv(fd, buf, sizeof buf, 0);
        if (n > 0) {
          client.in.append(buf, static_cast<size_t>(n));
          Serve(client);
        } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
          drop = true;
        }
      }
      if (!drop && !client.out.empty()) {
        ssize_t n = ::send(fd, client.out.data(), client.out.size(), MSG_NOSIGNAL);
        if (n > 0) {
          client.out.erase(0, static_cast<size_t>(n));
        } else if (n < 0 && errno != EAGAIN && errno != EINTR) {
          drop = true;
        }
      }
      if (drop || (client.closing && client.out.empty())) {
        ::close(fd);
        clients.erase(fd);
      }
    }
  }

  for (auto& [fd, client] : clients) ::close(fd);
  ::close(listenFd);
  ::unlink(socketPath.c_str());
  return 0;
}
