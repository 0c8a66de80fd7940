#include "configstore/boot/StoreRestore.h"

#include <filesystem>

#include "configstore/bootstate/BootState.h"
#include "configstore/frame/CallFrame.h"
#include "configstore/schema/SchemaProcessor.h"
#include "platform/host/HostRoot.h"
#include "platform/host/Process.h"
#include "platform/logging/Events.h"
#include "platform/upgrade/QorConfigUpgrade.h"

namespace QorConfigStore {
namespace {

constexpr const char* kBackupStore = "/var/lib/talvex/configstore/backup/current-store-1";
constexpr const char* kFirstBootBackupStore = "/var/lib/talvex/configstore/firstbootBackup/current-store-1";
constexpr const char* kBackupDataFileStore = "/var/lib/talvex/configstore/backup/datafile-store";
constexpr const char* kCopyBackupEvent = "zeb.user.cs.createstore.copy.backup.error";
constexpr const char* kDataFileRestoreEvent = "zeb.user.cs.dfs.restore.error";

// A rollback journal beside a store file belongs to that file: SQLite would play it back into any
// file that takes the name (a restored backup included), so it goes when the file is replaced.
void RemoveJournalOf(const std::string& store) {
  std::error_code ignored;
  std::filesystem::remove(store + "-journal", ignored);
}

// The host's shell commands take the resolved paths joined by single blanks, unquoted: the host
// root is absolute and limited to characters that need no quoting. A copy that fails (a full
// ramdisk, say) leaves no part of the file behind: a truncated store would be kept and opened as
// the store, and the new store that must replace it could not be created.
bool CopyFile(const std::string& source, const std::string& target) {
  if (Host::RunShell("/bin/cp " + source + " " + target) == 0) return true;
  std::error_code ec;
  std::filesystem::remove(target, ec);
  if (ec) CSLogger::Log(CSLogger::PRIO_ERROR, "Failed to remove the partial copy %s: %s", target.c_str(), ec.message().c_str());
  RemoveJournalOf(target);
  return false;
}

// The regular backup when it exists, else the first-boot one, else "".
std::string ConfigStoreBackup() {
  for (const char* hostPath : {kBackupStore, kFirstBootBackupStore}) {
    std::string path = Host::Resolve(hostPath);
    if (FileExists(path.c_str())) return path;
  }
  return "";
}

// True when the configuration store was copied from a sound backup.
bool RestoreConfigStore() {
  const std::string source = ConfigStoreBackup();
  if (source.empty()) {
    CSLogger::Log(CSLogger::PRIO_INFO, "ConfigStore backup not found %s", source.c_str());
    return false;
  }
  CSLogger::Log(CSLogger::PRIO_INFO, "Restore ConfigStore from %s", source.c_str());
  if (DBStore::Check(source) != 0) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "ConfigStore backup [%s] is inconsistent, creating new ConfigStore.",
                  source.c_str());
    DumpZeb(kCopyBackupEvent, 1, source.c_str());
    return false;
  }
  if (!CopyFile(source, DBStore::StorePath(DBStore::CONFIG_STORE))) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Cannot copy ConfigStore from backup [%s], creating new ConfigStore.",
                  source.c_str());
    DumpZeb(kCopyBackupEvent, 1, source.c_str());
    return false;
  }
  CSLogger::Log(CSLogger::PRIO_INFO, "ConfigStore restored successfully from backup");
  return true;
}

// Whatever happens here, a data-file store that is not restored is created empty afterwards.
void RestoreDataFileStore() {
  const std::string source = Host::Resolve(kBackupDataFileStore);
  if (!FileExists(source.c_str())) {
    CSLogger::Log(CSLogger::PRIO_INFO, "DataFileStore backup not found %s", source.c_str());
    return;
  }
  if (DBStore::Check(source) != 0) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "DataFileStore backup [%s] is inconsistent, will create new DataFileStore.",
                  source.c_str());
    DumpZeb(kDataFileRestoreEvent, 0);
    return;
  }
  CSLogger::Log(CSLogger::PRIO_INFO, "DataFileStore backup [%s] is valid.", source.c_str());
  RemoveJournalOf(DBStore::StorePath(DBStore::DATAFILE_STORE));
  if (!CopyFile(source, DBStore::StorePath(DBStore::DATAFILE_STORE))) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Cannot copy DataFileStore from backup [%s], will create new DataFileStore.",
                  source.c_str());
    DumpZeb(kDataFileRestoreEvent, 0);
    return;
  }
  CSLogger::Log(CSLogger::PRIO_INFO, "DataFileStore restored successfully from backup");
}

}  // namespace

bool RestoreOrCreateStore(bool restoreStore) {
  if (!restoreStore) return false;

  // A store file left on the ramdisk (it survives a restart of the boot scripts) must not shadow
  // the backup.
  const std::string store = DBStore::StorePath(DBStore::CONFIG_STORE);
  if (FileExists(store.c_str()) && Host::RunShell("/bin/rm -f " + store) != 0) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Error removing sticky ConfigStore file");
  }
  RemoveJournalOf(store);

  const bool isNewStore = !RestoreConfigStore();
  RestoreDataFileStore();

  if (DBStore::CreateDatabases() != 0) DumpZeb("zeb.user.cs.db.operation.error", 0);
  GetDBConnection(DBStore::CONFIG_STORE, true);  // a store that cannot be opened fails here, with its cause
  if (isNewStore) SetBootMode(BOOT_MODE_NEW_STORE);
  return isNewStore;
}

bool RefreshConfigStore(const std::vector<std::string>& schemaIds, const std::vector<std::string>& modules) {
  CSLogger::Log(CSLogger::PRIO_INFO, "Refresh Config Store");
  try {
    if (!ProcessSchemas(schemaIds)) return false;
    return QorConfigUpgrade::ExecuteLiveInstallModules(modules) >= 0;
  } catch (const ConfigStoreException& e) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "%s", e.what());
    return false;
  }
}

}  // namespace QorConfigStore
