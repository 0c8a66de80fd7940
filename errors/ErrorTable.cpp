#include "errors/ErrorTable.h"

const char* ErrorMessageForId(int code) {
  auto it = QorConfigStore::kErrorTemplates.find(code);
  return it != QorConfigStore::kErrorTemplates.end() ? it->second : "Unknown configuration store error.";
}
