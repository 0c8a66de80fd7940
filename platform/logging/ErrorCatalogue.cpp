// Message templates of the error codes the store raises or logs.
#include <map>

#include "platform/logging/CSLogger.h"

const char* ErrorMessageForId(int code) {
  static const std::map<int, const char*> kCatalogue = {
      {1005, "The requested object does not exist: %s."},
      {1012, "The operation is not allowed %s."},
      {1032, "Instance identifier property '%s' is missing or not a string."},
      {1080, "The JSON text could not be parsed."},
      {1081, "The JSON file %s could not be read or parsed."},
      {1082, "A JSON value has the wrong type: %s"},
      {1083, "Schema validation error at %s: %s"},
      {1102, "Failed to start the child process: %s"},
      {1103, "Failed to wait for child process %d: %s"},
      {1104, "The child process exited with status %d."},
      {2000, "ConfigStore operation failed: %s"},
  };
  auto it = kCatalogue.find(code);
  return it != kCatalogue.end() ? it->second : "Unknown configuration store error.";
}
