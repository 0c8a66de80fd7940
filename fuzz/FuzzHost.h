// What every fuzz target stands on: one sandbox host root per process, made once, and the cheap
// resets an input needs afterwards (store files put back byte for byte, log files kept small).
//
// Everything here aborts on a failure of its own: a fuzz run without its host proves nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>

#include "configstore/frame/Documents.h"

namespace csfuzz {

enum class HostKind {
  Empty,   // an empty root: log lines and events stay under it instead of reaching the real host
  Booted,  // examples/host after a first boot and its clean-up: schemas registered, default
           // configuration and the boot document loaded; the next load is an ordinary boot
};

// Makes the sandbox root under $TMPDIR (mkdtemp), sets it as the host root and, for Booted, runs the
// first boot and keeps the bytes of the three store files. Call once, from LLVMFuzzerInitialize.
// The root is removed at exit.
void SetUpHost(HostKind kind);

// "<root>" + hostPath.
std::string Path(const std::string& hostPath);

// Replaces the file at hostPath (directories made) with the input's bytes.
void WriteHostFile(const std::string& hostPath, const uint8_t* data, size_t size);

// Whether each store file (configuration, data-file and schema store) holds exactly its bytes after
// the first boot; RestoreStores puts back those that do not. SQLite connections are not kept between
// library calls, so rewriting a file between inputs is safe.
bool StoresPristine();
void RestoreStores();

// Truncates the log and event files under the root once they pass a size, so that a long run does
// not fill the disk. Cheap enough to call after every input.
void TrimLogs();

// An input broke a contract: prints why and aborts, so that libFuzzer keeps the input as a crash.
[[noreturn]] void Finding(const std::string& what);

// Checks the validator's answer (JsonValidator.h): an array of at most 1001 {"field", "error"}
// strings, each field a JSON Pointer, and no entry saying that the validator itself failed.
void CheckValidationErrors(const rapidjson::Value& errors);

// The input as text (embedded NUL bytes kept).
inline std::string Text(const uint8_t* data, size_t size) { return std::string(reinterpret_cast<const char*>(data), size); }

// The input read as a JSON document by CreateDocumentFromString; null when the reader refuses it
// with its parse error (any other exception is a finding).
std::shared_ptr<QorConfigStore::JsonDoc> ParsedInput(const uint8_t* data, size_t size);

// Runs `call`. A QorConfigStore::ConfigStoreException with one of `codes` (any code when the list is
// empty) is the library's documented refusal of the input and gives true (with its description in
// *why when asked); success gives false; any other exception is a finding.
template <typename Call>
bool Refused(Call&& call, std::initializer_list<int> codes = {}, std::string* why = nullptr);

// Runs `call`, which by its contract never throws: any exception is a finding.
template <typename Call>
void NoThrow(Call&& call, const char* what);

// The exception being handled, described as "<type>: <what>" (for findings and refusals).
std::string CurrentException();
// The code of the ConfigStoreException being handled, or -1 for any other exception.
int CurrentExceptionCode();

template <typename Call>
bool Refused(Call&& call, std::initializer_list<int> codes, std::string* why) {
  try {
    call();
    return false;
  } catch (...) {
    int code = CurrentExceptionCode();
    bool allowed = code >= 0 && codes.size() == 0;
    for (int c : codes) allowed = allowed || c == code;
    if (!allowed) Finding("undocumented exception " + CurrentException());
    if (why != nullptr) *why = CurrentException();
    return true;
  }
}

template <typename Call>
void NoThrow(Call&& call, const char* what) {
  try {
    call();
  } catch (...) {
    Finding(std::string(what) + " must not throw, threw " + CurrentException());
  }
}

}  // namespace csfuzz
