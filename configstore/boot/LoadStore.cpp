#include "configstore/boot/LoadStore.h"

#include <dirent.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "configstore/boot/BootApplyRecord.h"
#include "configstore/boot/BootDocument.h"
#include "configstore/boot/BootTimeApply.h"
#include "configstore/boot/StoreRestore.h"
#include "configstore/bootstate/BootState.h"
#include "configstore/bootstate/UpgradeDetection.h"
#include "configstore/frame/CallFrame.h"
#include "configstore/frame/Documents.h"
#include "configstore/maintenance/Cleanup.h"
#include "configstore/packages/PackageFiles.h"
#include "configstore/schema/SchemaProcessor.h"
#include "platform/host/Files.h"
#include "platform/host/HostRoot.h"
#include "platform/logging/Events.h"
#include "platform/upgrade/QorConfigUpgrade.h"
#include "platform/validator/ConfigStoreDocument.h"

namespace QorConfigStore {
namespace {

const char* kUpgradeMarker = "/tmp/config-upgrade-marker";
const char* kUpgradeModuleDir = "/usr/lib/talvex/configmanager/upgrade/lib";
const char* kNonSchemaFiles = "/var/run/nonSchemaFiles";
const char* kBackupList = "/var/run/talvex/files/backup-list";
const char* kLoadStoreErrors = "/var/run/talvex/files/loadStoreErrors.json";
const char* kDesiredConfigError = "zeb.user.cs.desired.config.error";

const char* kFoldDesiredValues =
    "UPDATE Config AS c SET UserValue = CASE WHEN DesiredValue IS NULL THEN UserValue ELSE DesiredValue END, "
    "DesiredValue = NULL, Success = (SELECT NoRestore FROM ss.ConfigSchema AS s WHERE s.Name = c.Name AND "
    "s.ConfigGroup = c.ConfigGroup AND s.Component = c.Component)";

// Times one stage for the boot report; costs nothing when no report is asked for.
class Stage {
 public:
  Stage(BootReport* report, const char* name) : report_(report), name_(name), start_(Clock::now()) {}
  ~Stage() {
    if (report_ == nullptr) return;
    std::chrono::duration<double, std::milli> elapsed = Clock::now() - start_;
    report_->stages.push_back({name_, elapsed.count(), detail_});
  }
  void Note(const std::string& detail) {
    if (report_ != nullptr) detail_ += (detail_.empty() ? "" : "; ") + detail;
  }
  bool Reporting() const { return report_ != nullptr; }

 private:
  using Clock = std::chrono::steady_clock;
  BootReport* report_;
  std::string name_;
  Clock::time_point start_;
  std::string detail_;
};

// A count for the boot report; -1 when it cannot be had (the report must never fail a boot).
long CountRows(const char* sql, bool attachSchemaStore = false) {
  try {
    DBStore::Connection conn = GetDBConnection(DBStore::CONFIG_STORE, false);
    if (!conn || (attachSchemaStore && DBStore::AttachSchemaStore(conn) != 0)) return -1;
    long count = -1;
    auto stmt = DBStore::internal::Prepare(conn, sql, DBStore::kTimeoutMs);
    DBStore::ExecuteStmt(
        conn, stmt,
        [](void* ctx, int, char** argv, char**) {
          *static_cast<long*>(ctx) = argv[0] ? std::stol(argv[0]) : 0;
          return 0;
        },
        &count, DBStore::kTimeoutMs);
    if (attachSchemaStore) DBStore::DetachSchemaStore(conn);
    return count;
  } catch (const std::exception&) {
    return -1;
  }
}

long ConfigRows() { return CountRows("SELECT COUNT(*) FROM Config"); }

std::vector<std::string> UpgradeModulePaths() {
  std::vector<std::string> paths;
  std::string dir = Host::Resolve(kUpgradeModuleDir);
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return paths;
  while (dirent* entry = readdir(d)) {
    if (std::filesystem::path(entry->d_name).extension() == ".so") paths.push_back(dir + "/" + entry->d_name);
  }
  closedir(d);
  return paths;
}

void RunUpgrade(Stage& stage) {
  Host::MakeDirs(Host::Resolve("/tmp"));  // present on a real host; a sandbox root may lack it
  { std::ofstream marker(Host::Resolve(kUpgradeMarker), std::ios::trunc); }
  CSLogger::Log(CSLogger::PRIO_INFO, "Configuration upgrade started.");
  std::vector<std::string> modules = UpgradeModulePaths();
  if (QorConfigUpgrade::ExecuteBootTimeModules(modules, !IsDebugUpgrade()) != 0) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Configuration upgrade failed.");
    stage.Note(std::to_string(modules.size()) + " upgrade modules, some failed");
  } else {
    CSLogger::Log(CSLogger::PRIO_INFO, "Configuration upgrade completed successfully.");
    stage.Note(std::to_string(modules.size()) + " upgrade modules ran");
  }
  long before = stage.Reporting() ? ConfigRows() : 0;
  CleanupStore(true);
  if (stage.Reporting()) stage.Note(std::to_string(before - ConfigRows()) + " objects without schema pruned");
}

// Applies what the boot mode selects and folds desired values, in one transaction. Returns the boot
// type to record, or -1 when the schema store could not be attached (nothing is recorded then).
int ApplyDesiredConfiguration(BOOTMODE mode) {
  DBStore::Connection conn = GetDBConnection(DBStore::CONFIG_STORE, true);
  if (DBStore::AttachSchemaStore(conn) != 0) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Failed to attach schema store");
    DumpZeb(kDesiredConfigError, 0);
    return -1;
  }
  int bootType = 0;
  if (DBStore::BeginTransaction(conn) != 0) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Failed to begin desired configuration transaction");
    DumpZeb(kDesiredConfigError, 0);
  } else {
    try {
      switch (mode) {
        case BOOT_MODE_DESIRED_USER_CONFIG:
          GenerateDesiredUserConfiguration(conn);
          bootType = 1;
          break;
        case BOOT_MODE_NEW_STORE: ProcessBootConfigurationDocument(conn); break;
        case BOOT_MODE_SMARTNIC_CONFIG: ApplySmartnicBootConfiguration(conn); break;
        case BOOT_MODE_HOSTAPI_CONFIG: ApplyHostApiBootConfiguration(conn); break;
        default: break;
      }
      if (DBStore::Execute(conn, kFoldDesiredValues, {}, {}, DBStore::kTimeoutMs) != 0) {
        throw ConfigStoreException(CS_ERR_GENERIC, "Failed to reset success flag for configuration");
      }
      if (DBStore::CommitTransaction(conn) != 0) {
        throw ConfigStoreException(CS_ERR_GENERIC, "Failed to commit desired configuration transaction");
      }
    } catch (const std::exception& e) {
      DBStore::CancelTransaction(conn);
      CSLogger::Log(CSLogger::PRIO_ERROR, "GenerateDesiredConfiguration failed: %s", e.what());
      DumpZeb(kDesiredConfigError, 0);
    }
  }
  if (DBStore::DetachSchemaStore(conn) != 0) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Failed to detach schema store");
    DumpZeb(kDesiredConfigError, 0);
  }
  return bootType;
}

void RecordBootType(int bootType) {
  rapidjson::Document info(rapidjson::kObjectType);
  info.AddMember("type", static_cast<unsigned>(bootType), info.GetAllocator());
  std::string text;
  ConfigStoreDocument::SerializeValue(info, text);
  DBStore::WriteKeyValue("BOOT_INFO", text, GetDBConnection(DBStore::CONFIG_STORE, true));
}

// Removes the files an upgrade left behind that no installed package declares any more.
void RemoveFilesWithoutSchema(Stage& stage) {
  std::string listPath = Host::Resolve(kNonSchemaFiles);
  if (!FileExists(listPath.c_str())) {
    CSLogger::Log(CSLogger::PRIO_INFO, "Upgrade delete file not found.");
    return;
  }
  try {
    std::ifstream in(listPath);
    auto kitFiles = GetKitFiles();
    std::vector<std::string> removals;
    for (std::string word; in >> word;) {
      std::string path = "/" + word;
      bool declared = false;
      for (const auto& [category, paths] : kitFiles) {
        if (std::find(paths.begin(), paths.end(), path) != paths.end()) declared = true;
      }
      if (declared) {
        CSLogger::Log(CSLogger::PRIO_INFO, "[%s] file has schema.", word.c_str());
      } else {
        CSLogger::Log(CSLogger::PRIO_INFO, "[%s] file does not have schema.", word.c_str());
        removals.push_back(path);
      }
    }
    int removed = 0;
    for (const auto& path : removals) {
      std::string resolved = Host::Resolve(path);
      if (FileExists(resolved.c_str()) && RemoveFile(resolved.c_str())) ++removed;
    }
    stage.Note(std::to_string(removed) + " files without schema removed");
  } catch (const std::exception& e) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Failed to get file schemas: %s", e.what());
  }
}

// One system alert per failure recorded by earlier boot steps; "%s" placeholders are filled in order.
void RaiseRecordedFailures(Stage& stage) {
  std::string path = Host::Resolve(kLoadStoreErrors);
  if (!FileExists(path.c_str())) return;
  auto doc = CreateDocumentFromFile(path);
  const rapidjson::Value& root = *doc->document;
  if (!root.HasMember("zebs") || !root["zebs"].IsArray()) return;
  int raised = 0;
  for (const auto& zeb : root["zebs"].GetArray()) {
    std::string message = zeb["zebMsg"].GetString();
    for (const auto& arg : zeb["zebArgs"].GetArray()) {
      // More arguments than placeholders: replace() at npos throws, which fails the boot.
      message.replace(message.find("%s"), 2, arg.GetString());
    }
    SetLSSysAlert(message);
    ++raised;
  }
  stage.Note(std::to_string(raised) + " alerts raised");
}

int RunLoadStore(bool restoreStore, BootReport* report) {
  CSLogger::FileLoggerHandle logger = CSLogger::AddFileLogger("configstore-boot");
  CSLogger::Log(CSLogger::PRIO_INFO, "LoadStore Start.");
  {
    Stage stage(report, "restore");
    bool created = RestoreOrCreateStore(restoreStore);
    stage.Note(!restoreStore ? "store on the ramdisk used as it stands"
                             : created ? "new store created" : "store restored from backup");
  }
  {
    Stage stage(report, "schemas");
    if (HasBootbankChanged() || IsFerrinInstalled()) {
      bool ok = ProcessSchemas({});
      if (stage.Reporting()) {
        stage.Note(std::to_string(CountRows("SELECT COUNT(*) FROM ss.ConfigSchema", true)) + " schemas registered, " +
                   std::to_string(CountRows("SELECT COUNT(*) FROM DefaultConfig")) + " default instances" +
                   (ok ? "" : ", with failures"));
      }
    } else {
      stage.Note("boot image unchanged: not processed");
    }
  }
  {
    Stage stage(report, "auto-config cleanup");
    CleanupAutoConfig();
  }
  {
    Stage stage(report, "upgrade");
    if (IsUpgrade()) {
      RunUpgrade(stage);
    } else {
      stage.Note("not an upgrade boot");
    }
  }
  {
    Stage stage(report, "desired configuration");
    BOOTMODE mode = GetBootMode();
    CSLogger::Log(CSLogger::PRIO_INFO, "Generating desired user config: BootMode = %d", static_cast<int>(mode));
    int bootType = ApplyDesiredConfiguration(mode);
    if (bootType >= 0) {
      RecordBootType(bootType);
      CSLogger::Log(CSLogger::PRIO_INFO, "Desired user config generated successfully.");
    }
    stage.Note("boot mode " + std::to_string(static_cast<int>(mode)) + " applied, boot type " +
               (bootType >= 0 ? std::to_string(bootType) : "not recorded"));
  }
  StartAutoConf();
  SetBootMode(BOOT_MODE_DEFAULT);
  {
    Stage stage(report, "files without schema");
    RemoveFilesWithoutSchema(stage);
  }
  CSLogger::Log(CSLogger::PRIO_INFO, "LoadStore End.");
  {
    Stage stage(report, "recorded failures");
    RaiseRecordedFailures(stage);
  }
  clearBootApplyRecord();
  CSLogger::RemoveFileLogger(logger);
  return 0;
}

}  // namespace

int LoadStore(bool restoreStore) { return LoadStore(restoreStore, nullptr); }

int LoadStore(bool restoreStore, BootReport* report) {
  try {
    return RunLoadStore(restoreStore, report);
  } catch (const std::exception& e) {
    std::string message = std::string("Generic ConfigStore Failure: ") + e.what();
    SetLSSysAlert(message);
    CSLogger::SystemLog(CSLogger::PRIO_ERROR, "Generic ConfigStore Failure: %s", e.what());
    return 1;
  }
}

void TrackFiles(const std::vector<std::string>& files, FileType type) {
  if (files.empty()) return;
  const char* target = type == FILE_TYPE_BACKUP_LIST        ? kBackupList
                       : type == FILE_TYPE_NON_SCHEMA_FILES ? kNonSchemaFiles
                                                            : nullptr;
  if (target == nullptr) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Invalid file type specified.");
    return;
  }
  std::ofstream out(Host::Resolve(target), std::ios::trunc);
  if (!out) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Failed to open file for tracking");
    return;
  }
  for (const auto& file : files) out << file << '\n';
}

}  // namespace QorConfigStore
