// Boot-state entries of the configuration store's key-value table: facts carried from one boot, or
// from a live operation, to the next boot. Every value is stored as text; booleans are "true" and
// "false".
//
// Unless a function says otherwise it connects with GetDBConnection(CONFIG_STORE, true), which throws
// ConfigStoreException 2000 "Failed to connect to database" when the store cannot be opened, and a
// failed key read throws ConfigStoreException 2000 "Failed to read value for key <key>".
#pragma once

#include <string>

namespace QorConfigStore {

// What the next boot's load must do once the store is open. The numbers are stored as decimal text
// under "BOOT_MODE" across a reboot, so they never change. Any number outside 1..4 means no
// mode-specific work.
enum BOOTMODE : int {
  BOOT_MODE_DEFAULT = 0,
  BOOT_MODE_DESIRED_USER_CONFIG = 1,
  BOOT_MODE_NEW_STORE = 2,
  BOOT_MODE_SMARTNIC_CONFIG = 3,
  BOOT_MODE_HOSTAPI_CONFIG = 4,
};

inline constexpr const char* POST_LIVE_INSTALL_BOOT = "POST_LIVE_INSTALL_BOOT";
inline constexpr const char* BOOT_FS_UUID = "BOOT_FS_UUID";
inline constexpr const char* kInstallInfoKey = "CS_INST_INFO_KEY";
inline constexpr const char* TRUE_STR = "true";

// Writes the mode as "%d" under "BOOT_MODE". A failed write is not reported. Waits while a boot
// load runs (configstore/frame/BootLock.h) and throws ConfigStoreException 2000 naming the lock file
// when it cannot have the lock.
void SetBootMode(BOOTMODE mode);

// The stored "BOOT_MODE"; 0 when nothing was stored. Text is converted like std::stoi: trailing
// characters are ignored, text without a leading number throws std::invalid_argument, a number
// outside the 32-bit range throws std::out_of_range.
BOOTMODE GetBootMode();

// "IS_BOOT" = "true" while an automatic configuration pass runs, "" after it. These do not check the
// connection: on a missing store the write fails silently.
void StartAutoConf();
void EndAutoConf();
// True exactly when "IS_BOOT" holds "true". Throws when the read fails (a missing store included).
bool IsAutoConf();

// "NOTIFY_NEXD" = "true" or "false". Unchecked connection; a failed write is not reported.
void EnableNexdNotification(bool enable);

// Marks whether the next boot follows a live install: "true" stores "true", any other text stores
// "false" (the comparison is exact). A null status returns 1 and touches nothing; otherwise returns
// the write's status (0 on success).
int SetLiveInstallBoot(const char* status);

// Run once the boot's load has finished: records the booted filesystem's UUID under "BOOT_FS_UUID"
// when it differs from the stored one, and turns a "true" live-install marker back to "false".
// Throws the node-read errors of GetBootFsUUID(true) before anything is written; writes that fail
// are not reported.
void CleanupBootState();

// Opaque install information under "CS_INST_INFO_KEY", stored as given. These connect with
// GetStoreConnection (failure text "Failed to connect to database."). A failed write is not reported.
void SetInstallInfo(const std::string& info);
std::string GetInstallInfo();

}  // namespace QorConfigStore
