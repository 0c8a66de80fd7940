// What the cleanups of this folder share: the data-file root and its removal routine.
#pragma once

#include <string>

namespace QorConfigStore {

// Host path of the root under which each data-file key keeps one directory.
inline constexpr const char* kDataFileRoot = "/var/cache/datafiles";

// Removes a resolved path and everything below it (a symbolic link is removed, never followed);
// a path that does not exist is no error. A filesystem error is logged at error priority
// ("Datafile cleanup failed to remove <path> ") and swallowed, so a walk over many paths goes on.
void RemoveDataFilePath(const std::string& resolvedPath);

}  // namespace QorConfigStore
