// The call frame every exported operation stands on: connections, formatted errors, and the small
// file, process and alert routines.
#pragma once

#include <cstdio>
#include <string>

#include "configstore/frame/ConfigStoreException.h"
#include "platform/dbstore/DBStore.h"
#include "platform/logging/CSLogger.h"

namespace QorConfigStore {

// printf-style formatting into a string of exactly the needed length.
template <typename... Args>
std::string Format(const char* fmt, Args... args) {
  int n = std::snprintf(nullptr, 0, fmt, args...);
  if (n <= 0) return std::string();
  std::string text(static_cast<size_t>(n) + 1, '\0');
  std::snprintf(text.data(), text.size(), fmt, args...);
  text.resize(static_cast<size_t>(n));
  return text;
}

template <>
inline std::string Format<>(const char* fmt) {
  return fmt;
}

// Throws E(code, Format(ErrorMessageForId(code), args...)). Never returns.
template <typename E, typename... Args>
[[noreturn]] void ThrowException(int code, Args... args) {
  throw E(code, Format(ErrorMessageForId(code), args...).c_str());
}

// Throws ConfigStoreException(2000) with `message` followed by the cause DBStore kept for the
// failure just seen (DBStore::LastError: the file and SQLite's error text), so that the one line a
// caller prints says what went wrong and where. Call it right after the DBStore call that failed.
[[noreturn]] void ThrowStoreFailure(const std::string& message);

// Always asks DBStore::GetConnection(type, true). An empty result throws
// ConfigStoreException(2000, "Failed to connect to database" and the cause) when mustConnect is
// set, and is returned for the caller to test otherwise.
DBStore::Connection GetDBConnection(DBStore::Type type, bool mustConnect);

// DBStore::GetConnection(type, readWrite), or ThrowStoreFailure(message): for the operations whose
// failure text differs from GetDBConnection's, and for readers (readWrite false).
DBStore::Connection ConnectOrThrow(DBStore::Type type, const char* message, bool readWrite = true);

// What an exported operation lets out when it fails; call it inside its catch block. Logs the
// caught exception's what() at error priority, then rethrows: a ConfigStoreException keeps its code
// and kind (1032, 1082 and the rest stay what they are); any other exception becomes
// ConfigStoreException(2000). `prefix` (the operation's own "SetDesiredUserConfig failed: ", or "")
// goes before the text. Undo (rollback, detach) belongs to the scope guards the try block holds.
[[noreturn]] void RethrowFromOperation(const char* prefix);

// True when stat() of the path succeeds (any file type). `path` is a resolved path.
bool FileExists(const char* path);

// remove(), retried while interrupted. Logs "[%s] file removed." or, at error priority,
// "Failed to remove: %s, err: %d". `path` is a resolved path; one outside the host root
// (Host::InsideRoot) is never removed: false, logged.
bool RemoveFile(const char* path);

// Runs argv[0] with the NULL-terminated argv, no shell; true only when it exits with status 0.
// Logs 1102 (start failed), 1103 (wait failed) or 1104 (non-zero exit status).
bool ExecCommand(const char** argv);

// Raises a host system alert (cut to its first 2048 bytes). Failures are logged and swallowed.
void SetLSSysAlert(std::string message);

// Maximum length of a system alert message.
constexpr size_t kMaxSysAlertLength = 2048;

}  // namespace QorConfigStore
