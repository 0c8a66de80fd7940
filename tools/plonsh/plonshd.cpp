// plonshd [--root DIR] [--max-clients N] [--idle-timeout SECONDS] --socket PATH | --help | --version:
// serves the plonsh commands on a local socket. Without --socket it serves the one listening socket
// systemd hands it (socket activation: LISTEN_PID is this process, LISTEN_FDS is 1, the socket is
// descriptor 3), and leaves the socket file to systemd.
//
// Protocol: a UNIX stream socket, created with mode 0600. A client sends one command per line
// ('\n'-terminated, at most kMaxRequest bytes before the newline) and gets one reply line per
// request, in order: "ok" or "error", then, when the reply has text, a space and the text with
// '\\' written as "\\\\", newline as "\\n" and carriage return as "\\r", then '\n'.
// A longer request gets "error request longer than 4096 bytes" and the connection is closed;
// "quit" is answered with "ok" and the connection is closed. Each connection has its own current
// directory. SIGTERM or SIGINT: the socket file is removed and the daemon exits with 0.
// At most --max-clients connections (default 32) are served at once: one more is answered
// "error too many clients" and closed. A connection that sends nothing for --idle-timeout seconds
// (default 300) is answered "error idle time-out" and closed (dropped when it does not take that
// reply within another period). When the daemon runs out of descriptors it stops accepting for a
// moment instead of retrying at once; waiting connections stay queued.
// Exit status 1 when the socket cannot be set up, 2 for bad usage.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
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
// Pause of the accepting side after accept failed for want of descriptors or memory.
constexpr auto kAcceptBackOff = std::chrono::milliseconds(200);

using Clock = std::chrono::steady_clock;

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
  Clock::time_point lastHeard = Clock::now();
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

// The listening socket systemd passed, or -1 when none was passed to this process.
int ActivatedSocket() {
  const char* pid = std::getenv("LISTEN_PID");
  const char* fds = std::getenv("LISTEN_FDS");
  if (pid == nullptr || fds == nullptr || std::string(fds) != "1" || std::to_string(::getpid()) != pid) return -1;
  constexpr int kFirstPassedFd = 3;
  if (::fcntl(kFirstPassedFd, F_SETFD, FD_CLOEXEC) != 0 || ::fcntl(kFirstPassedFd, F_SETFL, O_NONBLOCK) != 0) {
    return -1;
  }
  return kFirstPassedFd;
}

constexpr const char* kUsage =
    "usage: plonshd [--root DIR] [--max-clients N] [--idle-timeout SECONDS] --socket PATH | --help | --version\n"
    "       (without --socket under socket activation: serves the socket systemd passes)\n";

}  // namespace

int main(int argc, char** argv) {
  std::string root, socketPath;
  bool haveRoot = false;
  long maxClients = 32, idleSeconds = 300;
  auto positive = [](const char* text, long* value) {
    char* end = nullptr;
    errno = 0;
    long v = std::strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || v < 1 || v > 1000000) return false;
    *value = v;
    return true;
  };
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--root" || arg == "--socket") {
      if (i + 1 == argc) {
        std::cerr << "plonshd: " << arg << " needs a value\n" << kUsage;
        return 2;
      }
      (arg == "--root" ? root : socketPath) = argv[++i];
      if (arg == "--root") haveRoot = true;
    } else if (arg == "--max-clients" && i + 1 < argc && positive(argv[i + 1], &maxClients)) {
      ++i;
    } else if (arg == "--idle-timeout" && i + 1 < argc && positive(argv[i + 1], &idleSeconds)) {
      ++i;
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
  int activatedFd = socketPath.empty() ? ActivatedSocket() : -1;
  if (socketPath.empty() && activatedFd < 0) {
    std::cerr << "plonshd: --socket PATH is required (or a socket passed by systemd)\n" << kUsage;
    return 2;
  }
  const auto idleTimeout = std::chrono::seconds(idleSeconds);
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

  int listenFd = activatedFd >= 0 ? activatedFd : Listen(socketPath);
  if (listenFd < 0) return 1;

  std::map<int, Client> clients;
  Clock::time_point acceptPausedUntil{};
  bool running = true;
  while (running) {
    const Clock::time_point now = Clock::now();
    const bool accepting = now >= acceptPausedUntil;
    // Wake for the nearest idle deadline or the end of an accept pause.
    Clock::time_point wake = Clock::time_point::max();
    if (!accepting) wake = acceptPausedUntil;
    std::vector<pollfd> fds = {{g_signalPipe[0], POLLIN, 0}, {listenFd, static_cast<short>(accepting ? POLLIN : 0), 0}};
    for (auto& [fd, client] : clients) {
      short events = 0;
      if (!client.closing && client.out.size() < kMaxPendingReplies) events |= POLLIN;
      if (!client.out.empty()) events |= POLLOUT;
      fds.push_back({fd, events, 0});
      wake = std::min(wake, client.lastHeard + idleTimeout);
    }
    int timeoutMs = -1;
    if (wake != Clock::time_point::max()) {
      auto left = std::chrono::ceil<std::chrono::milliseconds>(wake - now).count();
      timeoutMs = static_cast<int>(std::clamp<long long>(left, 0, 60 * 60 * 1000));
    }
    if (::poll(fds.data(), fds.size(), timeoutMs) < 0) {
      if (errno == EINTR) continue;
      std::cerr << "plonshd: poll: " << std::strerror(errno) << "\n";
      break;
    }
    if (fds[0].revents) running = false;
    // Clients first, so that a place freed by a client that left goes to the next one waiting.
    for (size_t i = 2; i < fds.size(); ++i) {
      int fd = fds[i].fd;
      Client& client = clients[fd];
      bool drop = false;
      if (fds[i].revents & (POLLIN | POLLHUP | POLLERR)) {
        char buf[4096];
        ssize_t n = ::recv(fd, buf, sizeof buf, 0);
        if (n > 0) {
          client.lastHeard = Clock::now();
          client.in.append(buf, static_cast<size_t>(n));
          Serve(client);
        } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
          drop = true;
        }
      }
      if (Clock::now() >= client.lastHeard + idleTimeout) {
        // Told once; a client that does not even take that reply within another period is dropped.
        drop = client.closing;
        client.out += ReplyLine(false, "idle time-out");
        client.closing = true;
        client.lastHeard = Clock::now();
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
    if (fds[1].revents & POLLIN) {
      int fd = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
      if (fd < 0 && (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM)) {
        // Retrying at once would spin: the connection waits in the queue until a descriptor is free.
        acceptPausedUntil = Clock::now() + kAcceptBackOff;
      } else if (fd >= 0 && clients.size() >= static_cast<size_t>(maxClients)) {
        const std::string refusal = ReplyLine(false, "too many clients");
        (void)!::send(fd, refusal.data(), refusal.size(), MSG_NOSIGNAL);
        ::close(fd);
      } else if (fd >= 0) {
        clients[fd];
      }
    }
  }

  for (auto& [fd, client] : clients) ::close(fd);
  ::close(listenFd);
  if (activatedFd < 0) ::unlink(socketPath.c_str());
  return 0;
}
