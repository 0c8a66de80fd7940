// The boot-time rebuild of the configuration store, its boot report, and the file lists other boot
// tools read.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "errors/Json.h"

namespace QorConfigStore {

// What one stage of a boot load did, for the operator's boot report.
struct BootStage {
  std::string name;
  double milliseconds = 0;
  std::string detail;
};

// The failure that ended a load early; code 0 when the exception carried no error code.
struct BootFatalFailure {
  int code = 0;
  std::string message;
};

struct BootReport {
  std::string startTime;  // UTC, "2024-05-01T10:00:00Z"
  bool restore = false;   // the store was restored from its backup (not created new, not used as it stands)
  int status = 0;         // what LoadStore returned
  double totalMs = 0;     // the whole load, wall time
  std::vector<BootStage> stages;
  std::vector<std::string> recordedFailures;  // from the load-store error file, as raised
  std::optional<BootFatalFailure> fatal;
  std::vector<std::string> alerts;  // every system alert the load raised, in order
};

// Host path of the report of the last load (resolved against the host root).
inline constexpr const char* kLastBootReport = "/var/run/talvex/files/last-boot.json";

// Restores or creates the store (when `restoreStore`), registers package schemas when the boot
// image changed, removes auto-configuration values, runs upgrade modules on an upgrade boot, applies
// the staged configuration the boot mode selects, folds desired values, records "BOOT_INFO", removes
// upgrade leftovers without schema, raises the recorded boot failures as alerts and clears the apply
// record. 0 when it ran to its end; 1 after a fatal failure, which is raised as a system alert.
// Either way the boot report is written atomically to kLastBootReport and kept in the boot history
// (below); a report that cannot be written is logged and does not change the result.
int LoadStore(bool restoreStore);
// The same, also filling `report` (when not null) with what the report file holds.
int LoadStore(bool restoreStore, BootReport* report);

// The boot report as the JSON document that the report file and `configstorectl load --json` hold.
rapidjson::Document BootReportToJson(const BootReport& report);

// The report of the last load, read from kLastBootReport; nullopt when no load has written one.
// Throws InvalidArgumentException 1081 when the file cannot be read or is not JSON, and
// ConfigStoreException 2000 naming the member when it is not a boot report.
std::optional<BootReport> ReadLastBootReport();

// One report file read as ReadLastBootReport reads it; errors name `shownPath`.
BootReport ReadBootReport(const std::string& resolvedPath, const std::string& shownPath);

// What a report says of its boot, for listings. The kind: "restored" (from the backup), "new
// store" or "as it stands" (no restore), with ", upgrade" on an upgrade boot; "" when the load
// ended before its store was in place. The boot mode the load applied: nullopt when it did not get
// that far or the stored mode was not a number.
std::string BootKindOf(const BootReport& report);
std::optional<int> BootModeOf(const BootReport& report);

// The boot history: every load also keeps its report as "boot-NNNNNN.json" in kBootHistoryDir,
// numbered on from the highest number present, and removes the oldest beyond the history's size.
// The size is the environment variable TALVEX_BOOT_HISTORY of the load (0 keeps none; a value that
// is not a number from 0 to 1000 is logged and the default used), else kBootHistoryDefault.
inline constexpr const char* kBootHistoryDir = "/var/run/talvex/files/boot-history";
inline constexpr int kBootHistoryDefault = 10;

// Writes `reportText` (a serialized report) as the next history file, atomically, and prunes the
// history; temporary files a killed load left there are removed. Throws std::exception when the
// file cannot be written (the load logs it and goes on).
void KeepInBootHistory(const std::string& reportText);

struct BootHistoryEntry {
  int number = 0;                    // from the file name
  std::string file;                  // host path
  std::optional<BootReport> report;  // nullopt when the file cannot be read as a report
  std::string error;                 // why not
};
// The history, newest first; a file that cannot be read is listed with its error, never fatal.
std::vector<BootHistoryEntry> ReadBootHistory();
// The report of the `nth` newest boot of the history (1 the newest), read as ReadBootReport reads
// it. Throws ConfigStoreException 2000 when the history holds fewer boots.
BootReport ReadBootFromHistory(int nth);

enum FileType : int { FILE_TYPE_BACKUP_LIST = 0, FILE_TYPE_NON_SCHEMA_FILES = 1 };

// Replaces the list file of `type` with one path per line; an empty list leaves it untouched.
void TrackFiles(const std::vector<std::string>& files, FileType type);

}  // namespace QorConfigStore
