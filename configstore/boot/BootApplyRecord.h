// The boot apply record: whether the configuration held by the store was applied completely at
// this boot, what the applying tool reported, and which entries could not be restored.
#pragma once

#include <string>
#include <vector>

#include "errors/Json.h"

namespace QorConfigStore {

// One configuration entry whose value could not be restored at boot.
struct FailureRecord {
  std::string Component;
  std::string ConfigGroup;
  std::string Name;
};

// "BOOT_APPLY_RESULT" = {"isBootComplete":false}. Write failures are ignored.
void clearBootApplyRecord();
// "BOOT_APPLY_RESULT" = {"isBootComplete":true,"bootApplyRecord":<record as a JSON string>}.
void setBootApplyRecord(std::string record);
// The stored record, parsed. Throws 2000 when it cannot be read, 1080 when it does not parse
// (a record never written included).
rapidjson::Document getBootApplyRecord();
// Entries with a user value whose restore failed, of schemas integrated with the data-plane
// processor and of schema type 0 or 2, in the order the store yields them.
std::vector<FailureRecord> GetBootTimeRestoreFailures();

}  // namespace QorConfigStore
