#include "platform/host/HostRoot.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <optional>
#include <stdexcept>

namespace Host {
namespace {

std::mutex gRootMutex;
std::optional<std::string> gRoot;

// A relative root is made absolute against the working directory, so that no resolved path (and no
// argument of the host's shell commands) can begin with '-' and be read as an option.
std::string Checked(const std::string& given) {
  std::string root = given;
  if (!root.empty() && root.front() != '/') {
    std::error_code ec;
    std::filesystem::path cwd = std::filesystem::current_path(ec);
    if (ec) throw std::invalid_argument("host root \"" + given + "\" is relative and the working directory is unknown: " + ec.message());
    root = (cwd / root).lexically_normal().string();
  }
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
  // An explicit empty root is most often an unset variable in a script; it must not mean the live host.
  if (root.empty()) throw std::invalid_argument("empty host root given; use \"/\" for the live host");
  std::string checked = Checked(root);
  std::lock_guard lock(gRootMutex);
  gRoot = std::move(checked);
}

void RequireRootDirectory() {
  const std::string root = Root().empty() ? "/" : Root();
  struct stat st{};
  if (stat(root.c_str(), &st) != 0) {
    const std::string why = errno == ENOENT ? "does not exist" : "cannot be read: " + std::string(std::strerror(errno));
    throw std::invalid_argument("host root \"" + root + "\" " + why);
  }
  if (!S_ISDIR(st.st_mode)) throw std::invalid_argument("host root \"" + root + "\" is not a directory");
}

bool IsSandbox() { return !Root().empty(); }

std::string Resolve(std::string_view hostPath) {
  if (hostPath.empty() || hostPath.front() != '/') return std::string(hostPath);
  return Root() + std::string(hostPath);
}

bool InsideRoot(const std::string& resolvedPath) {
  const std::string& root = Root();
  if (root.empty()) return true;
  namespace fs = std::filesystem;
  std::error_code ec;
  // The last element is what would be removed (a link is removed, not followed); every directory
  // above it is followed, since a linked directory moves the path elsewhere.
  fs::path path = fs::path(resolvedPath).lexically_normal();
  fs::path parent = fs::weakly_canonical(path.parent_path(), ec);
  if (ec) return false;
  fs::path realRoot = fs::weakly_canonical(root, ec);
  if (ec) return false;
  fs::path candidate = parent / path.filename();
  auto [rootEnd, candidateAt] = std::mismatch(realRoot.begin(), realRoot.end(), candidate.begin(), candidate.end());
  return rootEnd == realRoot.end() && candidate != realRoot && path.filename() != "..";
}

bool MakeParentDirs(const std::string& path) {
  auto slash = path.find_last_of('/');
  return slash == std::string::npos || slash == 0 || MakeDirs(path.substr(0, slash));
}

bool MakeDirs(const std::string& path) {
  struct stat st{};
  if (path.empty() || stat(path.c_str(), &st) == 0) return S_ISDIR(st.st_mode) || path.empty();
  auto slash = path.find_last_of('/');
  if (slash != std::string::npos && slash > 0 && !MakeDirs(path.substr(0, slash))) return false;
  return mkdir(path.c_str(), 0755) == 0 || errno == EEXIST;
}

}  // namespace Host
