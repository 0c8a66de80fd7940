// Small file helpers shared by the platform parts.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Host {

// Appends one line (a '\n' is added) to a resolved path, creating its directory. Best effort:
// returns false when the line could not be written.
bool AppendLine(const std::string& resolvedPath, const std::string& line);

// Largest file the library reads whole unless its reader says less (docs/formats.md, "Files the
// library reads"): documents, schema and default-configuration files.
constexpr size_t kMaxReadBytes = 64 * 1024 * 1024;

// Opens a resolved path with `flags` (O_RDONLY, or O_WRONLY with O_CREAT and O_TRUNC, mode 0644)
// only when it is a regular file: a FIFO, device, socket or directory is never read or written (a
// FIFO is opened without blocking, then refused). Returns a blocking descriptor, or -1 with errno
// set: the open's own error, EISDIR for a directory, EINVAL for any other file that is not regular.
[[nodiscard]] int OpenRegularFile(const std::string& resolvedPath, int flags = 0);

// The whole of a regular file of at most `maxBytes` bytes. On failure returns false with errno
// set (OpenRegularFile's codes, EFBIG when the file is larger) and, when `cause` is given, the
// reason in words: the system's text for the error, "not a regular file" or
// "larger than N bytes".
[[nodiscard]] bool ReadFile(const std::string& resolvedPath, std::string* content, std::string* cause = nullptr,
              size_t maxBytes = kMaxReadBytes);

// Replaces a resolved path's content so that a crash at any moment leaves either the old file or
// the new one whole: the text goes to "<path>.tmp" in the same directory (created when missing),
// which is flushed to disk and renamed over the path, and the directory is flushed. False (with
// `error` naming the file and the cause) when any of that fails; the temporary file is removed then.
[[nodiscard]] bool WriteFileAtomically(const std::string& resolvedPath, std::string_view content, std::string* error);

}  // namespace Host
