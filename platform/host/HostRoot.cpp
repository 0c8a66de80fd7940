#include "platform/host/HostRoot.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <stdexcept>

namespace Host {
namespace {

std::mutex gRootMutex;
std::optional<std::string> gRoot;

std::string Checked(const std::string& root) {
  for (char c : root) {
    bool ok = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' ||
              c == '.' || c == '/' || c == '+' || c == '-';
    if (!ok) {
      throw std::invalid_argument("host root \"" + root + "\" holds the character '" + std::string(1, c) +
                                  "'; only [A-Za-z0-9_./+-] are allowed");
    }
  }
  std::string r = root;
  while (!r.empty() && r.back() == '/') r.pop_back();
  return r;
}

}  // namespace

const std::string& Root() {
  std::lock_guard lock(gRootMutex);
  if (!gRoot) {
    const char* env = std::getenv("TALVEX_ROOT");
    gRoot = Checked(env ? env : "");
  }
  return *gRoot;
}

void SetRoot(const std::string& root) {
  std::string checked = Checked(root);
  std::lock_guard lock(gRootMutex);
  gRoot = std::move(checked);
}

bool IsSandbox() { return !Root().empty(); }

std::string Resolve(std::string_view hostPath) {
  if (hostPath.empty() || hostPath.front() != '/') return std::string(hostPath);
  return Root() + std::string(hostPath);
}

bool MakeDirs(const std::string& path) {
  struct stat st{};
  if (path.empty() || stat(path.c_str(), &st) == 0) return S_ISDIR(st.st_mode) || path.empty();
  auto slash = path.find_last_of('/');
  if (slash != std::string::npos && slash > 0 && !MakeDirs(path.substr(0, slash))) return false;
  return mkdir(path.c_str(), 0755) == 0 || errno == EEXIST;
}

}  // namespace Host
