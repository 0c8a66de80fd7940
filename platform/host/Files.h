// Small file helpers shared by the platform parts.
#pragma once

#include <string>
#include <string_view>

namespace Host {

// Appends one line (a '\n' is added) to a resolved path, creating its directory. Best effort:
// returns false when the line could not be written.
bool AppendLine(const std::string& resolvedPath, const std::string& line);

// Whole file as text; false when it cannot be read.
bool ReadFile(const std::string& resolvedPath, std::string* content);

// Replaces a resolved path's content so that a crash at any moment leaves either the old file or
// the new one whole: the text goes to "<path>.tmp" in the same directory (created when missing),
// which is flushed to disk and renamed over the path, and the directory is flushed. False (with
// `error` naming the file and the cause) when any of that fails; the temporary file is removed then.
bool WriteFileAtomically(const std::string& resolvedPath, std::string_view content, std::string* error);

}  // namespace Host
