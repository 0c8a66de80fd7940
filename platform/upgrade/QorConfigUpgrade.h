// The host side of configuration upgrade modules: loads each module, checks its ABI version, runs
// its entry point and unloads it (interface for module authors: platform/upgrade/UpgradeModule.h).
//
// Modules run one after another on the caller's thread, in the order given. A module that cannot
// be loaded, lacks the entry point or the ABI version, declares another ABI version, returns
// non-zero or lets a C++ exception escape counts as failed: it is logged at error priority with
// its path and the reason (dlerror() text, return code, exception text), and the remaining modules
// still run. Each module's start and its result with the time it took are logged at information
// priority. Nothing here throws; a module that crashes or exits takes the process with it.
#pragma once

#include <string>
#include <vector>

namespace QorConfigUpgrade {

// Host path of the live-install modules; a module named "x" is "<root>" + this + "/x.so".
inline constexpr const char* kLiveInstallModuleDir = "/usr/lib/talvex/configmanager/upgrade/live";

// Runs boot-time upgrade modules. `modulePaths` are absolute file paths, used as given (the root
// already applied); a relative path is refused, since the loader would search the system library
// path for it. `commit` false asks every module for a debugging run that changes nothing.
// Returns 0 when every module ran and returned 0 (also for an empty list), otherwise the number of
// failed modules (positive).
[[nodiscard]] int ExecuteBootTimeModules(const std::vector<std::string>& modulePaths, bool commit);

// Runs live-install modules, always committing. `modules` are module names, each resolved to
// "<root>/usr/lib/talvex/configmanager/upgrade/live/<name>.so"; a name that is empty, holds '/',
// ".." or a NUL character is refused (counts as failed) so that no name leaves that directory.
// Returns the number of modules run (0 for an empty list) when all succeeded, otherwise minus the
// number of failed or refused modules: zero or positive means success, negative failure.
[[nodiscard]] int ExecuteLiveInstallModules(const std::vector<std::string>& modules);

}  // namespace QorConfigUpgrade
