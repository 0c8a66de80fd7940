// What the cleanups of this folder share: the data-file root, its removal routine and the way a
// statement is run.
#pragma once

#include <string>
#include <string_view>

#include "platform/dbstore/DBStore.h"

namespace QorConfigStore {

// Host path of the root under which each data-file key keeps one directory.
inline constexpr const char* kDataFileRoot = "/var/cache/datafiles";

// Removes a resolved path and everything below it (a symbolic link is removed, never followed);
// a path that does not exist is no error. A filesystem error is logged at error priority
// ("Datafile cleanup failed to remove <path> ") and swallowed, so a walk over many paths goes on.
void RemoveDataFilePath(const std::string& resolvedPath);

// Prepares `sql` and runs it to its end, calling `callback` (when given) per row. 0 on success,
// 1 on failure (a statement that cannot be prepared included).
int RunStatement(const DBStore::Connection& conn, std::string_view sql, DBStore::RowCallback callback = nullptr,
                 void* context = nullptr);

}  // namespace QorConfigStore
