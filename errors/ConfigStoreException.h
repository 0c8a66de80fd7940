// Exceptions of the configuration store (their codes and templates: ErrorTable.h).
//
// The message lives in shared, reference-counted storage: copying an exception while it
// propagates (or across threads) is cheap and what() stays valid for every copy.
#pragma once

#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "errors/ErrorTable.h"

namespace HostCtl::Lib {

class HostCtlException : public std::exception {
 public:
  explicit HostCtlException(const char* message);
  ~HostCtlException() override;
  const char* what() const noexcept override { return message_; }

 private:
  const char* message_;                   // points into storage_
  std::shared_ptr<const std::string> storage_;
};

}  // namespace HostCtl::Lib

namespace QorConfigStore {

class ConfigStoreException : public HostCtl::Lib::HostCtlException {
 public:
  ConfigStoreException(int code, const char* message);
  ConfigStoreException(int code, const std::string& message) : ConfigStoreException(code, message.c_str()) {}
  ~ConfigStoreException() override;
  int code() const { return code_; }

 private:
  int code_;
  std::vector<std::string> args_;
};

// Bad caller input (unparsable documents, bad record contents); built exactly like its base.
class InvalidArgumentException : public ConfigStoreException {
 public:
  using ConfigStoreException::ConfigStoreException;
  ~InvalidArgumentException() override;
};

// Thrown by rapidjson's assertion hook (see Json.h): code 1082, "JSON error:"<file>:<line>: <expr>.
[[noreturn]] void ThrowJsonAssertion(const char* file, int line, const char* expression);

}  // namespace QorConfigStore
