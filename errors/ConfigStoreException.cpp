#include "errors/ConfigStoreException.h"

namespace HostCtl::Lib {

HostCtlException::HostCtlException(const char* message)
    : storage_(std::make_shared<const std::string>(message ? message : "")) {
  message_ = storage_->c_str();
}

HostCtlException::~HostCtlException() = default;

}  // namespace HostCtl::Lib

namespace QorConfigStore {

ConfigStoreException::ConfigStoreException(int code, const char* message)
    : HostCtlException(message), code_(code) {}

ConfigStoreException::~ConfigStoreException() = default;

InvalidArgumentException::~InvalidArgumentException() = default;

void ThrowJsonAssertion(const char* file, int line, const char* expression) {
  std::string text = "JSON error:\"";
  text += file;
  text += "\":";
  text += std::to_string(line);
  text += ": ";
  text += expression;
  throw ConfigStoreException(CS_ERR_JSON_TYPE, text);
}

}  // namespace QorConfigStore
