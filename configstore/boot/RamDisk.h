// The two in-memory filesystems the configuration store lives on: the working store under
// "/etc/talvex/configstore" and its backup under "/var/lib/talvex/configstore/backup".
#pragma once

#include <string>

namespace QorConfigStore {

// Mounts the working store ramdisk, puts the usage limits on it, then mounts the backup ramdisk
// (reserving no memory up front when FEATURE_REDUCED_BACKUP_RESERVATION is on). Returns 0.
// All or nothing for the caller: every failure is logged as "CONFIGSTORE:SetupStoreRamDisk:<why>"
// (or by SetupStoreRamdiskUsageLimits) and thrown as ConfigStoreException 2000; what was mounted
// before the failure stays mounted.
int SetupStoreRamDisk();

// Sets the warning (80) and error (90) memory usage limits, in per cent of its maximum size, of the
// named ramdisk. Throws ConfigStoreException 2000 with the reason ("PLON_CheckSig Failed", ...)
// after logging it as "CONFIGSTORE:SetupStoreRamdiskUsageLimits:<reason>".
void SetupStoreRamdiskUsageLimits(const std::string& ramdiskName);

}  // namespace QorConfigStore
