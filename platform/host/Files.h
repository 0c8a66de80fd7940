// Small file helpers shared by the platform parts.
#pragma once

#include <string>

namespace Host {

// Appends one line (a '\n' is added) to a resolved path, creating its directory. Best effort:
// returns false when the line could not be written.
bool AppendLine(const std::string& resolvedPath, const std::string& line);

// Whole file as text; false when it cannot be read.
bool ReadFile(const std::string& resolvedPath, std::string* content);

}  // namespace Host
