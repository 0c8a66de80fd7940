#include "configstore/bootstate/UpgradeDetection.h"

#include <exception>

#include "configstore/bootstate/BootState.h"
#include "configstore/bootstate/KeyValueAccess.h"
#include "configstore/frame/CallFrame.h"
#include "platform/host/HostRoot.h"
#include "platform/logging/Events.h"
#include "platform/plon/Plon.h"

namespace QorConfigStore {
namespace {

// Record sizes of the kernel nodes read here.
constexpr size_t kCmdLineSize = 4096;
constexpr size_t kBootOptionSize = 4;
constexpr size_t kBootMacSize = 21;
constexpr size_t kBootFsUuidSize = 38;

// Reads a node into a zeroed buffer of `size` bytes and takes the text up to its first NUL; false
// when the read fails. A record that fills the whole buffer still ends at the string's own
// terminator, one past the buffer.
bool ReadNodeText(PLON_NodeId node, size_t size, std::string* text) {
  std::string buffer(size, '\0');
  if (PLON_Get(node, nullptr, buffer.data(), size) != NUK_OK) return false;
  text->assign(buffer.c_str());
  return true;
}

void CheckNodeSignature() {
  if (PLON_CheckSig() != NUK_OK) throw ConfigStoreException(CS_ERR_GENERIC, "Failed to invoke PLON_CheckSig");
}

std::string GetBootCmdLine() {
  std::string cmdLine;
  if (!ReadNodeText(PLON_NODE_system_bootCmdLine, kCmdLineSize, &cmdLine)) {
    throw ConfigStoreException(CS_ERR_GENERIC, "Failed to get boot command line");
  }
  return cmdLine;
}

// The installer marks its boots in the fourth byte of the boot option record.
bool IsInstallerBoot() {
  unsigned char option[kBootOptionSize] = {};
  if (PLON_Get(PLON_NODE_system_bootOption, nullptr, option, sizeof option) != NUK_OK) {
    throw ConfigStoreException(CS_ERR_GENERIC, "Failed to get PLON /system/bootOption");
  }
  return option[3] != 0;
}

// A network boot leaves the MAC address of the NIC it came through.
bool IsPxeBoot() {
  std::string mac;
  if (!ReadNodeText(PLON_NODE_system_bootMAC, kBootMacSize, &mac)) {
    throw ConfigStoreException(CS_ERR_GENERIC, "Failed to get boot nic mac address.");
  }
  return !mac.empty();
}

bool Contains(const std::string& text, const char* word) { return text.find(word) != std::string::npos; }

// The upgrade rules in the order they are tried; the first that matches decides.
bool DecideUpgrade() {
  CheckNodeSignature();
  std::string cmdLine = GetBootCmdLine();
  if (IsPxeBoot()) {
    CSLogger::Log(CSLogger::PRIO_INFO, "PXE boot, not considered upgrade.");
    return false;
  }
  if (IsInstallerBoot()) {
    CSLogger::Log(CSLogger::PRIO_INFO, "Installer boot, not considered upgrade.");
    return false;
  }
  if (Contains(cmdLine, "qorDDImage")) {
    CSLogger::Log(CSLogger::PRIO_INFO, "QOR DD image boot, not considered upgrade.");
    return false;
  }
  if (FileExists(Host::Resolve(FIRSTBOOT_FILE).c_str())) {
    CSLogger::Log(CSLogger::PRIO_INFO, "First boot, not considerd upgrade.");
    return false;
  }
  if (Contains(cmdLine, ferrinInstalled)) {
    CSLogger::Log(CSLogger::PRIO_INFO, "Ferrin installer upgrade: Config upgrade boot.");
    return true;
  }
  DBStore::Connection conn = GetStoreConnection();
  if (ReadKeyValueOrThrow(POST_LIVE_INSTALL_BOOT, conn) == TRUE_STR) {
    CSLogger::Log(CSLogger::PRIO_INFO, "Live install boot. No upgrade.");
    return false;
  }
  std::string current = GetBootFsUUID(false);
  CSLogger::Log(CSLogger::PRIO_INFO, "Current boot fs uuid: %s", current.c_str());
  std::string previous = ReadKeyValueOrThrow(BOOT_FS_UUID, conn);
  CSLogger::Log(CSLogger::PRIO_INFO, "Previous boot fs uuid: %s", previous.c_str());
  // Two empty UUIDs are equal here: a host that never recorded one is not taken for an upgrade.
  if (current != previous) {
    CSLogger::Log(CSLogger::PRIO_INFO, "Config upgrade boot");
    return true;
  }
  return false;
}

}  // namespace

bool IsUpgrade() {
  try {
    return DecideUpgrade();
  } catch (const std::exception& e) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Failed to check if upgrade: %s", e.what());
    DumpZeb("zeb.user.cs.upgrade.config.error", 0);
    return false;
  }
}

bool HasBootbankChanged() {
  CheckNodeSignature();
  std::string current = GetBootFsUUID(false);
  DBStore::Connection conn = GetStoreConnection();
  std::string previous = ReadKeyValueOrThrow(BOOT_FS_UUID, conn);
  // Unlike IsUpgrade, an unknown UUID on either side counts as a change.
  if (!current.empty() && !previous.empty() && current == previous) {
    CSLogger::Log(CSLogger::PRIO_INFO, "Bootbank did not change from previous boot.");
    return false;
  }
  CSLogger::Log(CSLogger::PRIO_INFO, "Bootbank changed %s!=%s", current.c_str(), previous.c_str());
  return true;
}

std::string GetBootFsUUID(bool checkSignature) {
  if (checkSignature) CheckNodeSignature();
  std::string uuid;
  if (!ReadNodeText(PLON_NODE_system_bootFsUUID, kBootFsUuidSize, &uuid)) {
    throw ConfigStoreException(CS_ERR_GENERIC, "Failed to get boot fs uuid.");
  }
  return uuid;
}

bool IsInstalled() {
  CheckNodeSignature();
  if (IsPxeBoot()) return false;
  return !IsInstallerBoot();
}

bool IsDebugUpgrade() {
  CheckNodeSignature();
  return Contains(GetBootCmdLine(), "no-configupgrade-zpan");
}

bool IsFerrinInstalled() {
  std::string cmdLine = GetBootCmdLine();
  CSLogger::Log(CSLogger::PRIO_INFO, "BootCmdLine: %s", cmdLine.c_str());
  return Contains(cmdLine, ferrinInstalled);
}

}  // namespace QorConfigStore
