#include "configstore/bootstate/BootState.h"

#include <cstring>
#include <stdexcept>

#include "configstore/bootstate/KeyValueAccess.h"
#include "configstore/bootstate/UpgradeDetection.h"
#include "configstore/frame/BootLock.h"
#include "configstore/frame/CallFrame.h"

namespace QorConfigStore {

std::string ReadKeyValueOrThrow(const std::string& key, const DBStore::Connection& conn) {
  std::string value;
  if (DBStore::ReadKeyValue(key, &value, conn) != 0) {
    throw ConfigStoreException(CS_ERR_GENERIC, "Failed to read value for key " + key);
  }
  return value;
}

DBStore::Connection GetStoreConnection() {
  return ConnectOrThrow(DBStore::CONFIG_STORE, "Failed to connect to database.");
}

void SetBootMode(BOOTMODE mode) {
  BootLock lock(Host::FileLock::Mode::Shared);  // never between a load's read of the mode and its reset
  DBStore::Connection conn = GetDBConnection(DBStore::CONFIG_STORE, true);
  IgnoreStatus(DBStore::WriteKeyValue("BOOT_MODE", Format("%d", static_cast<int>(mode)), conn));
  CSLogger::Log(CSLogger::PRIO_INFO, "Next boot mode set to %d", static_cast<int>(mode));
}

BOOTMODE GetBootMode() {
  DBStore::Connection conn = GetDBConnection(DBStore::CONFIG_STORE, true);
  std::string text = ReadKeyValueOrThrow("BOOT_MODE", conn);
  if (text.empty()) return BOOT_MODE_DEFAULT;
  // BOOTMODE has int as its underlying type, so every number stoi can return is a valid value.
  return static_cast<BOOTMODE>(std::stoi(text, nullptr, 10));
}

std::optional<BOOTMODE> ReadBootMode(const DBStore::Connection& conn, std::string* text) {
  *text = ReadKeyValueOrThrow("BOOT_MODE", conn);
  if (text->empty()) return BOOT_MODE_DEFAULT;
  try {
    return static_cast<BOOTMODE>(std::stoi(*text, nullptr, 10));
  } catch (const std::logic_error&) {  // invalid_argument and out_of_range
    return std::nullopt;
  }
}

// The auto-configuration writers and EnableNexdNotification take the connection unchecked: on a
// missing store the write fails and is ignored, so a boot tool never stops over these flags.
void StartAutoConf() {
  CSLogger::Log(CSLogger::PRIO_INFO, "ConfigStore autoconf start");
  DBStore::Connection conn = GetDBConnection(DBStore::CONFIG_STORE, false);
  IgnoreStatus(DBStore::WriteKeyValue("IS_BOOT", TRUE_STR, conn));
}

void EndAutoConf() {
  CSLogger::Log(CSLogger::PRIO_INFO, "ConfigStore endconf end");
  DBStore::Connection conn = GetDBConnection(DBStore::CONFIG_STORE, false);
  IgnoreStatus(DBStore::WriteKeyValue("IS_BOOT", "", conn));
}

bool IsAutoConf() {
  DBStore::Connection conn = GetDBConnection(DBStore::CONFIG_STORE, false);
  return ReadKeyValueOrThrow("IS_BOOT", conn) == TRUE_STR;
}

void EnableNexdNotification(bool enable) {
  DBStore::Connection conn = GetDBConnection(DBStore::CONFIG_STORE, false);
  IgnoreStatus(DBStore::WriteKeyValue("NOTIFY_NEXD", enable ? TRUE_STR : "false", conn));
  CSLogger::Log(CSLogger::PRIO_INFO, "ConfigStore nexd notification enabled = %d", enable ? 1 : 0);
}

int SetLiveInstallBoot(const char* status) {
  if (status == nullptr) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Live install marker not set, since input status was not provided.");
    return 1;
  }
  DBStore::Connection conn = GetDBConnection(DBStore::CONFIG_STORE, true);
  if (std::strcmp(status, TRUE_STR) == 0) {
    int rc = DBStore::WriteKeyValue(POST_LIVE_INSTALL_BOOT, TRUE_STR, conn);
    CSLogger::Log(CSLogger::PRIO_INFO, "POST_LIVE_INSTALL_BOOT=true completed with rc = %d", rc);
    return rc;
  }
  if (std::strcmp(status, "false") != 0) {
    CSLogger::Log(CSLogger::PRIO_INFO, "Set POST_LIVE_INSTALL_BOOT=false, since the inputvalue is not valid value %s",
                  status);
  }
  int rc = DBStore::WriteKeyValue(POST_LIVE_INSTALL_BOOT, "false", conn);
  CSLogger::Log(CSLogger::PRIO_INFO, "POST_LIVE_INSTALL_BOOT=false completed with rc = %d", rc);
  return rc;
}

void CleanupBootState() {
  DBStore::Connection conn = GetDBConnection(DBStore::CONFIG_STORE, true);
  std::string recorded = ReadKeyValueOrThrow(BOOT_FS_UUID, conn);
  std::string current = GetBootFsUUID(true);
  if (recorded != current) {
    IgnoreStatus(DBStore::WriteKeyValue(BOOT_FS_UUID, current, conn));
    CSLogger::Log(CSLogger::PRIO_INFO, "Setting %s to %s.", BOOT_FS_UUID, current.c_str());
  }
  if (ReadKeyValueOrThrow(POST_LIVE_INSTALL_BOOT, conn) == TRUE_STR) {
    IgnoreStatus(DBStore::WriteKeyValue(POST_LIVE_INSTALL_BOOT, "false", conn));
    CSLogger::Log(CSLogger::PRIO_INFO, "Setting %s back to %s.", POST_LIVE_INSTALL_BOOT, "false");
  }
}

void SetInstallInfo(const std::string& info) {
  DBStore::Connection conn = GetStoreConnection();
  IgnoreStatus(DBStore::WriteKeyValue(kInstallInfoKey, info, conn));
}

std::string GetInstallInfo() {
  DBStore::Connection conn = GetStoreConnection();
  return ReadKeyValueOrThrow(kInstallInfoKey, conn);
}

}  // namespace QorConfigStore
