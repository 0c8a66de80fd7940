// The boot-time rebuild of the configuration store, and the file lists other boot tools read.
#pragma once

#include <string>
#include <vector>

namespace QorConfigStore {

// What one stage of a boot load did, for the operator's boot report.
struct BootStage {
  std::string name;
  double milliseconds = 0;
  std::string detail;
};

struct BootReport {
  std::vector<BootStage> stages;
};

// Restores or creates the store (when `restoreStore`), registers package schemas when the boot
// image changed, removes auto-configuration values, runs upgrade modules on an upgrade boot, applies
// the staged configuration the boot mode selects, folds desired values, records "BOOT_INFO", removes
// upgrade leftovers without schema, raises the recorded boot failures as alerts and clears the apply
// record. 0 when it ran to its end; 1 after a fatal failure, which is raised as a system alert.
int LoadStore(bool restoreStore);
// The same, filling `report` (when not null) with each stage's duration and what it did.
int LoadStore(bool restoreStore, BootReport* report);

enum FileType : int { FILE_TYPE_BACKUP_LIST = 0, FILE_TYPE_NON_SCHEMA_FILES = 1 };

// Replaces the list file of `type` with one path per line; an empty list leaves it untouched.
void TrackFiles(const std::vector<std::string>& files, FileType type);

}  // namespace QorConfigStore
