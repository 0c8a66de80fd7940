// What kind of boot this is, told from the kernel's information nodes (boot command line, boot
// option record, boot NIC MAC address, boot filesystem UUID), the boot-state entries and the
// first-boot marker file. Nothing is cached: every call re-reads the nodes and the store.
//
// Failures throw ConfigStoreException 2000 with the failing step's text:
//   "Failed to invoke PLON_CheckSig", "Failed to get boot command line",
//   "Failed to get PLON /system/bootOption", "Failed to get boot nic mac address.",
//   "Failed to get boot fs uuid.", "Failed to connect to database.",
//   "Failed to read value for key <key>".
#pragma once

#include <string>

namespace QorConfigStore {

// Command-line word the installer leaves when it has just upgraded the host.
inline constexpr const char* ferrinInstalled = "ferrinInstalled";
// Present on the first boot after installation (a host path).
inline constexpr const char* FIRSTBOOT_FILE = "/var/lib/talvex/firstboot/current-store-1";

// True on a configuration upgrade boot. Never throws a standard exception: on any failure it logs
// "Failed to check if upgrade: <what>", raises "zeb.user.cs.upgrade.config.error" and answers false.
bool IsUpgrade();

// True when the booted filesystem's UUID differs from "BOOT_FS_UUID" recorded at the previous boot;
// an empty UUID on either side counts as a change. Throws on failure.
bool HasBootbankChanged();

// UUID of the booted filesystem (the node text up to its first NUL); checks the node signature
// first when asked. Throws on failure.
std::string GetBootFsUUID(bool checkSignature);

// True when booted neither from the network nor by the installer. Throws on failure.
bool IsInstalled();

// True when the boot command line holds "no-configupgrade-zpan". Throws on failure.
bool IsDebugUpgrade();

// True when the boot command line holds "ferrinInstalled"; logs the whole line. Throws on failure.
bool IsFerrinInstalled();

}  // namespace QorConfigStore
