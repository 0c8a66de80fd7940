// The host root: every fixed host path ("/etc/talvex/...") is resolved against it.
//
// "/" on a real host; any directory in tests, the demo and benchmarks. The root comes from
// SetRoot (the CLI's --root) or else from the environment variable TALVEX_ROOT (empty or unset: "/").
// Some commands run through the shell, so a root holding a character outside [A-Za-z0-9_./+-]
// is refused.
#pragma once

#include <string>
#include <string_view>

namespace Host {

// The current root without a trailing slash ("" stands for "/"), read from TALVEX_ROOT on first use.
// Throws std::invalid_argument when TALVEX_ROOT holds a refused character.
const std::string& Root();

// Replaces the root. A relative root is made absolute against the working directory. Throws
// std::invalid_argument for an empty root (say "/" for the live host) and naming the first refused
// character.
void SetRoot(const std::string& root);

// Throws std::invalid_argument "host root \"DIR\" does not exist" (or "... is not a directory") unless
// the current root is an existing directory. Every tool calls it once its root is set, so a mistyped
// root is named as the cause before any work, the same way in every tool.
void RequireRootDirectory();

// True when the root is not "/": mounts and system-log lines are then recorded under the root.
bool IsSandbox();

// "/etc/talvex/x" -> "<root>/etc/talvex/x". A relative path is returned unchanged.
std::string Resolve(std::string_view hostPath);

// True when a resolved path lies strictly inside the root once the links of its directories are
// followed (its last element is not: a link there is removed, not followed). Always true on "/".
// Whatever the library removes is checked with this first.
bool InsideRoot(const std::string& resolvedPath);

// Creates a directory and its parents (mode 0755); true when it exists afterwards.
[[nodiscard]] bool MakeDirs(const std::string& resolvedPath);

// MakeDirs of the directory that holds a resolved file path; true when there is none to make.
[[nodiscard]] bool MakeParentDirs(const std::string& resolvedPath);

}  // namespace Host
