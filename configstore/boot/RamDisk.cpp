#include "configstore/boot/RamDisk.h"

#include <memory>

#include "configstore/frame/CallFrame.h"
#include "platform/host/Features.h"
#include "platform/host/Mounts.h"
#include "platform/plon/Plon.h"

namespace QorConfigStore {
namespace {

constexpr const char* kStoreMountPoint = "/etc/talvex/configstore";
constexpr const char* kBackupMountPoint = "/var/lib/talvex/configstore/backup";
constexpr const char* kStoreRamdiskName = "configstore";
// reserve MB, maximum MB, three unused fields, root mode (octal), ramdisk name.
constexpr const char* kStoreSpec = "32,32,0,0,0,00644,configstore";
constexpr const char* kBackupSpec = "32,32,0,0,0,00644,configstorebkp";
constexpr const char* kBackupReducedSpec = "0,32,0,0,0,00644,configstorebkp";
constexpr int kWarningLimit = 80;
constexpr int kErrorLimit = 90;

[[noreturn]] void Fail(const char* operation, const std::string& message) {
  CSLogger::Log(CSLogger::PRIO_ERROR, "CONFIGSTORE:%s:%s", operation, message.c_str());
  throw ConfigStoreException(CS_ERR_GENERIC, message.c_str());
}

void MountRamdisk(const char* mountPoint, const char* spec, const char* failure) {
  std::string cause;
  if (Host::Mount("none", mountPoint, "lumafs", 0, spec, &cause) != 0) {
    Fail("SetupStoreRamDisk", std::string(failure) + ": " + cause);
  }
}

using ParamList = std::unique_ptr<PLON_ParamList, decltype(&PLON_ParamListDestroy)>;

}  // namespace

int SetupStoreRamDisk() {
  MountRamdisk(kStoreMountPoint, kStoreSpec, "Failed to reserve memory for ConfigStore");
  SetupStoreRamdiskUsageLimits(kStoreRamdiskName);
  const char* backupSpec =
      Host::FeatureState_IsEnabled(Host::FEATURE_REDUCED_BACKUP_RESERVATION) ? kBackupReducedSpec : kBackupSpec;
  MountRamdisk(kBackupMountPoint, backupSpec, "Failed to reserve memory for ConfigStore backup");
  return 0;
}

void SetupStoreRamdiskUsageLimits(const std::string& ramdiskName) {
  const char* operation = "SetupStoreRamdiskUsageLimits";
  if (PLON_CheckSig() != NUK_OK) Fail(operation, "PLON_CheckSig Failed");

  // Both lists are released on every path out, the throws included.
  ParamList instance(PLON_ParamListCreate(1), &PLON_ParamListDestroy);
  ParamList limits(PLON_ParamListCreate(2), &PLON_ParamListDestroy);
  NUK_ReturnStatus status = PLON_ParamListAddString(instance.get(), ramdiskName.c_str());
  if (status != NUK_OK) {
    Fail(operation, "Failed to add ramdisk(" + ramdiskName + ") to PLON_ParamList: " + NUK_ReturnStatusToString(status));
  }
  status = PLON_ParamListAddInt(limits.get(), kWarningLimit);
  if (status != NUK_OK) {
    Fail(operation, "Failed to add warning limit to ramdisk(" + ramdiskName + "): " + NUK_ReturnStatusToString(status));
  }
  status = PLON_ParamListAddInt(limits.get(), kErrorLimit);
  if (status != NUK_OK) {
    Fail(operation, "Failed to add error limit to ramdisk(" + ramdiskName + "): " + NUK_ReturnStatusToString(status));
  }
  if (PLON_Set(PLON_NODE_system_lumafs_ramdisks_memUsageLimit, instance.get(), limits.get()) != NUK_OK) {
    Fail(operation, "Failed to set warning and error usage limits");
  }
}

}  // namespace QorConfigStore
