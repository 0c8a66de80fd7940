#include "configstore/boot/LoadStore.h"

#include <dirent.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <filesystem>
#include <unordered_set>
#include <memory>
#include <sstream>

#include "configstore/boot/BootApplyRecord.h"
#include "configstore/boot/BootDocument.h"
#include "configstore/boot/BootTimeApply.h"
#include "configstore/boot/StoreRestore.h"
#include "configstore/bootstate/BootState.h"
#include "configstore/bootstate/UpgradeDetection.h"
#include "configstore/bootstate/KeyValueAccess.h"
#include "configstore/frame/BootLock.h"
#include "configstore/frame/CallFrame.h"
#include "configstore/frame/Documents.h"
#include "errors/Printable.h"
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

using Clock = std::chrono::steady_clock;

double MillisecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// Times one stage for the boot report. A stage left by an exception is recorded too, marked failed.
class Stage {
 public:
  Stage(BootReport& report, const char* name)
      : report_(report), name_(name), start_(Clock::now()), exceptions_(std::uncaught_exceptions()) {}
  ~Stage() {
    if (std::uncaught_exceptions() > exceptions_) Note("failed");
    report_.stages.push_back({name_, MillisecondsSince(start_), detail_});
  }
  Stage(const Stage&) = delete;
  Stage& operator=(const Stage&) = delete;
  void Note(const std::string& detail) { detail_ += (detail_.empty() ? "" : "; ") + detail; }

 private:
  BootReport& report_;
  std::string name_;
  Clock::time_point start_;
  int exceptions_;
  std::string detail_;
};

// Every alert of the load goes through here, so that the boot report lists it.
void RaiseAlert(BootReport& report, const std::string& message) {
  SetLSSysAlert(message);
  report.alerts.push_back(message);
}

// A count for the boot report; -1 when it cannot be had (the report must never fail a boot).
long CountRows(const char* sql, bool attachSchemaStore = false) {
  try {
    DBStore::Connection conn = GetDBConnection(DBStore::CONFIG_STORE, false);
    if (!conn) return -1;
    DBStore::SchemaStoreAttachment ss(conn);
    if (attachSchemaStore && ss.Attach() != 0) return -1;
    long count = -1;
    auto keep = [&count](const DBStore::Row& row) { count = static_cast<long>(row.Int(0)); };
    // A failed count stays -1: the report shows it as unknown.
    (void)DBStore::QueryEach(conn, sql, keep);
    return count;
  } catch (const std::exception&) {
    return -1;
  }
}

long ConfigRows() { return CountRows("SELECT COUNT(*) FROM Config"); }

// SYSTEM-AS-IS: modules run in directory order, unsorted, as the host has always run them.
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
  std::string error;
  if (!Host::WriteFileAtomically(Host::Resolve(kUpgradeMarker), "", &error)) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "%s", error.c_str());
  }
  CSLogger::Log(CSLogger::PRIO_INFO, "Configuration upgrade started.");
  std::vector<std::string> modules = UpgradeModulePaths();
  if (QorConfigUpgrade::ExecuteBootTimeModules(modules, !IsDebugUpgrade()) != 0) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Configuration upgrade failed.");
    stage.Note(std::to_string(modules.size()) + " upgrade modules, some failed");
  } else {
    CSLogger::Log(CSLogger::PRIO_INFO, "Configuration upgrade completed successfully.");
    stage.Note(std::to_string(modules.size()) + " upgrade modules ran");
  }
  long before = ConfigRows();
  CleanupStore(true);
  stage.Note(std::to_string(before - ConfigRows()) + " objects without schema pruned");
}

// A stored boot mode that is not a number must not stop every boot of the host: no mode step runs,
// the mode is reset with the rest, and the operator is told.
void ReportUnknownBootMode(const std::string& text, BootReport& report, Stage& stage) {
  const std::string shown = Printable(text.size() > 40 ? text.substr(0, 40) + "..." : text);
  std::string message = "ConfigStore boot mode \"" + shown +
                        "\" is not a number: treated as an unknown mode, no staged configuration applied";
  CSLogger::Log(CSLogger::PRIO_ERROR, "%s", message.c_str());
  RaiseAlert(report, message);
  stage.Note("unknown boot mode \"" + shown + "\"");
}

// Reads the boot mode, applies what it selects, folds desired values and resets the mode, all in one
// write transaction: a staging committed before it is applied whole, one committed after it waits
// for the next boot, and a boot killed after the commit does not apply the mode again. Returns the
// boot type to record, or -1 when the schema store could not be attached (nothing is recorded then).
int ApplyDesiredConfiguration(BootReport& report, Stage& stage) {
  DBStore::Connection conn = GetDBConnection(DBStore::CONFIG_STORE, true);
  DBStore::SchemaStoreAttachment ss(conn);
  if (ss.Attach() != 0) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Failed to attach schema store");
    DumpZeb(kDesiredConfigError, 0);
    stage.Note("schema store not attached: nothing applied");
    return -1;
  }
  int bootType = 0;
  DBStore::Transaction tx(conn);
  if (tx.Begin() != 0) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Failed to begin desired configuration transaction");
    DumpZeb(kDesiredConfigError, 0);
    stage.Note("transaction not begun: nothing applied");
  } else {
    try {
      std::string text;
      std::optional<BOOTMODE> mode = ReadBootMode(conn, &text);
      if (mode) {
        CSLogger::Log(CSLogger::PRIO_INFO, "Generating desired user config: BootMode = %d", static_cast<int>(*mode));
        stage.Note("boot mode " + std::to_string(static_cast<int>(*mode)));
        bootType = ApplyBootModeStep(conn, *mode);
      } else {
        ReportUnknownBootMode(text, report, stage);
      }
      FoldDesiredValues(conn);
      if (DBStore::WriteKeyValue("BOOT_MODE", std::to_string(BOOT_MODE_DEFAULT), conn) != 0) {
        throw ConfigStoreException(CS_ERR_GENERIC, "Failed to reset the boot mode");
      }
      if (tx.Commit() != 0) {
        throw ConfigStoreException(CS_ERR_GENERIC, "Failed to commit desired configuration transaction");
      }
    } catch (const std::exception& e) {
      (void)tx.Rollback();  // before the log line and the event; a failed rollback logs itself
      CSLogger::Log(CSLogger::PRIO_ERROR, "GenerateDesiredConfiguration failed: %s", e.what());
      DumpZeb(kDesiredConfigError, 0);
      stage.Note(std::string("rolled back: ") + e.what());
    }
  }
  if (ss.Detach() != 0) {
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
  // The boot type is a note for tools that read it later; a boot never fails over it (the write logs
  // its own failure).
  (void)DBStore::WriteKeyValue("BOOT_INFO", text, GetDBConnection(DBStore::CONFIG_STORE, true));
}

// Removes the files an upgrade left behind that no installed package declares any more.
void RemoveFilesWithoutSchema(Stage& stage) {
  std::string listPath = Host::Resolve(kNonSchemaFiles);
  if (!FileExists(listPath.c_str())) {
    CSLogger::Log(CSLogger::PRIO_INFO, "Upgrade delete file not found.");
    return;
  }
  try {
    std::string list, cause;
    if (!Host::ReadFile(listPath, &list, &cause)) throw std::runtime_error(listPath + ": " + cause);
    std::istringstream in(list);
    // Every path a package declares, in any category: one lookup per listed file.
    std::unordered_set<std::string> declaredPaths;
    for (const auto& [category, paths] : GetKitFiles()) declaredPaths.insert(paths.begin(), paths.end());
    std::vector<std::string> removals;
    for (std::string word; in >> word;) {
      std::string path = "/" + word;
      if (declaredPaths.contains(path)) {
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
void RaiseRecordedFailures(BootReport& report, Stage& stage) {
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
    report.recordedFailures.push_back(message);
    RaiseAlert(report, message);
    ++raised;
  }
  stage.Note(std::to_string(raised) + " alerts raised");
}

int RunLoadStore(bool restoreStore, BootReport& report) {
  // Detached however the load ends: a load that throws must not leave every later line of the
  // process going to the boot log.
  std::unique_ptr<void, void (*)(CSLogger::FileLoggerHandle)> logger(CSLogger::AddFileLogger("configstore-boot"),
                                                                      CSLogger::RemoveFileLogger);
  CSLogger::Log(CSLogger::PRIO_INFO, "LoadStore Start.");
  {
    Stage stage(report, "restore");
    bool created = RestoreOrCreateStore(restoreStore);
    report.restore = restoreStore && !created;
    stage.Note(!restoreStore ? "store on the ramdisk used as it stands"
                             : created ? "new store created" : "store restored from backup");
  }
  {
    Stage stage(report, "schemas");
    if (HasBootbankChanged() || IsFerrinInstalled()) {
      std::string failure;
      bool ok = ProcessSchemas({}, &failure);
      stage.Note(std::to_string(CountRows("SELECT COUNT(*) FROM ss.ConfigSchema", true)) + " schemas registered, " +
                 std::to_string(CountRows("SELECT COUNT(*) FROM DefaultConfig")) + " default instances" +
                 (ok ? "" : ", with failures"));
      // The schemas of the installed image were not registered at all: the boot goes on with the
      // schemas the store already held, and says so.
      if (!failure.empty()) {
        stage.Note("schemas not processed: " + failure);
        RaiseAlert(report, "Error processing schemas - '" + failure + "'.");
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
    int bootType = ApplyDesiredConfiguration(report, stage);
    if (bootType >= 0) {
      RecordBootType(bootType);
      CSLogger::Log(CSLogger::PRIO_INFO, "Desired user config generated successfully.");
    }
    stage.Note("boot type " + (bootType >= 0 ? std::to_string(bootType) : std::string("not recorded")));
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
    RaiseRecordedFailures(report, stage);
  }
  clearBootApplyRecord();
  return 0;
}

std::string UtcNow() {
  std::time_t now = std::time(nullptr);
  std::tm utc{};
  gmtime_r(&now, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

// Never throws: a report that cannot be kept must not fail the boot. Runs under the boot lock, so
// no other load writes the report or the history at the same time.
void SaveBootReport(const BootReport& report) {
  try {
    std::string text;
    ConfigStoreDocument::SerializeValue(BootReportToJson(report), text);
    text += '\n';
    std::string error;
    if (!Host::WriteFileAtomically(Host::Resolve(kLastBootReport), text, &error)) throw std::runtime_error(error);
    KeepInBootHistory(text);
  } catch (const std::exception& e) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Failed to save the boot report: %s", e.what());
  }
}

// A member of a boot report read from `file` (as shown in errors), of the type `is` checks.
const rapidjson::Value& Member(const std::string& file, const rapidjson::Value& object, const char* name,
                               bool (rapidjson::Value::*is)() const) {
  auto it = object.FindMember(name);
  if (it == object.MemberEnd() || !(it->value.*is)()) {
    throw ConfigStoreException(CS_ERR_GENERIC, Format("Boot report %s: member \"%s\" is missing or of the wrong type",
                                                      file.c_str(), name));
  }
  return it->value;
}

std::vector<std::string> Strings(const std::string& file, const rapidjson::Value& object, const char* name) {
  std::vector<std::string> strings;
  for (const auto& item : Member(file, object, name, &rapidjson::Value::IsArray).GetArray()) {
    if (!item.IsString()) {
      throw ConfigStoreException(CS_ERR_GENERIC, Format("Boot report %s: member \"%s\" holds a non-string",
                                                        file.c_str(), name));
    }
    strings.emplace_back(item.GetString(), item.GetStringLength());
  }
  return strings;
}

// The stage of that name in the report, null when the load did not reach it.
const BootStage* StageOf(const BootReport& report, const char* name) {
  for (const BootStage& stage : report.stages) {
    if (stage.name == name) return &stage;
  }
  return nullptr;
}

}  // namespace

int LoadStore(bool restoreStore) { return LoadStore(restoreStore, nullptr); }

int LoadStore(bool restoreStore, BootReport* callerReport) {
  BootReport ownReport;
  BootReport& report = callerReport != nullptr ? *callerReport : ownReport;
  report = BootReport{};
  report.startTime = UtcNow();
  Clock::time_point start = Clock::now();
  std::optional<BootLock> lock;  // held until the report is saved
  try {
    lock.emplace(Host::FileLock::Mode::Exclusive);
    if (!lock->Unavailable().empty()) RaiseAlert(report, "ConfigStore boot load ran without its lock: " + lock->Unavailable());
    report.status = RunLoadStore(restoreStore, report);
  } catch (const std::exception& e) {
    std::string message = std::string("Generic ConfigStore Failure: ") + e.what();
    RaiseAlert(report, message);
    CSLogger::SystemLog(CSLogger::PRIO_ERROR, "Generic ConfigStore Failure: %s", e.what());
    const auto* coded = dynamic_cast<const ConfigStoreException*>(&e);
    report.fatal = BootFatalFailure{coded != nullptr ? coded->code() : 0, e.what()};
    report.status = 1;
  }
  report.totalMs = MillisecondsSince(start);
  SaveBootReport(report);
  return report.status;
}

rapidjson::Document BootReportToJson(const BootReport& report) {
  rapidjson::Document d(rapidjson::kObjectType);
  auto& a = d.GetAllocator();
  auto text = [&a](const std::string& s) {
    return rapidjson::Value(s.c_str(), static_cast<rapidjson::SizeType>(s.size()), a);
  };
  auto list = [&](const std::vector<std::string>& items) {
    rapidjson::Value array(rapidjson::kArrayType);
    for (const auto& item : items) array.PushBack(text(item), a);
    return array;
  };
  rapidjson::Value stages(rapidjson::kArrayType);
  for (const auto& s : report.stages) {
    rapidjson::Value stage(rapidjson::kObjectType);
    stage.AddMember("stage", text(s.name), a).AddMember("ms", s.milliseconds, a).AddMember("detail", text(s.detail), a);
    stages.PushBack(stage, a);
  }
  rapidjson::Value fatal;
  if (report.fatal) {
    fatal.SetObject();
    fatal.AddMember("code", report.fatal->code, a).AddMember("message", text(report.fatal->message), a);
  }
  d.AddMember("startTime", text(report.startTime), a).AddMember("restore", report.restore, a);
  d.AddMember("status", report.status, a).AddMember("totalMs", report.totalMs, a);
  d.AddMember("stages", stages, a).AddMember("recordedFailures", list(report.recordedFailures), a);
  d.AddMember("fatal", fatal, a).AddMember("alerts", list(report.alerts), a);
  return d;
}

BootReport ReadBootReport(const std::string& resolvedPath, const std::string& shownPath) {
  auto doc = CreateDocumentFromFile(resolvedPath);
  const rapidjson::Value& root = *doc->document;
  const std::string& file = shownPath;
  if (!root.IsObject()) {
    throw ConfigStoreException(CS_ERR_GENERIC, Format("Boot report %s is not a JSON object", file.c_str()));
  }
  using V = rapidjson::Value;
  BootReport report;
  report.startTime = Member(file, root, "startTime", &V::IsString).GetString();
  report.restore = Member(file, root, "restore", &V::IsBool).GetBool();
  report.status = Member(file, root, "status", &V::IsInt).GetInt();
  report.totalMs = Member(file, root, "totalMs", &V::IsNumber).GetDouble();
  for (const auto& s : Member(file, root, "stages", &V::IsArray).GetArray()) {
    if (!s.IsObject()) {
      throw ConfigStoreException(CS_ERR_GENERIC, Format("Boot report %s: a stage is not an object", file.c_str()));
    }
    report.stages.push_back({Member(file, s, "stage", &V::IsString).GetString(),
                             Member(file, s, "ms", &V::IsNumber).GetDouble(),
                             Member(file, s, "detail", &V::IsString).GetString()});
  }
  report.recordedFailures = Strings(file, root, "recordedFailures");
  report.alerts = Strings(file, root, "alerts");
  auto fatal = root.FindMember("fatal");
  if (fatal != root.MemberEnd() && !fatal->value.IsNull()) {
    const V& f = Member(file, root, "fatal", &V::IsObject);
    report.fatal = BootFatalFailure{Member(file, f, "code", &V::IsInt).GetInt(),
                                    Member(file, f, "message", &V::IsString).GetString()};
  }
  return report;
}

std::optional<BootReport> ReadLastBootReport() {
  std::string path = Host::Resolve(kLastBootReport);
  if (!FileExists(path.c_str())) return std::nullopt;
  return ReadBootReport(path, kLastBootReport);
}

// The notes below are those RunLoadStore writes into its "restore", "upgrade" and "desired
// configuration" stages.
std::string BootKindOf(const BootReport& report) {
  const BootStage* restore = StageOf(report, "restore");
  if (restore == nullptr || restore->detail.ends_with("failed")) return "";
  std::string kind = restore->detail == "new store created"           ? "new store"
                     : restore->detail == "store restored from backup" ? "restored"
                                                                       : "as it stands";
  const BootStage* upgrade = StageOf(report, "upgrade");
  if (upgrade != nullptr && upgrade->detail != "not an upgrade boot") kind += ", upgrade";
  return kind;
}

std::optional<int> BootModeOf(const BootReport& report) {
  const BootStage* desired = StageOf(report, "desired configuration");
  const char* prefix = "boot mode ";
  if (desired == nullptr || !desired->detail.starts_with(prefix)) return std::nullopt;
  try {
    return std::stoi(desired->detail.substr(std::strlen(prefix)));
  } catch (const std::exception&) {
    return std::nullopt;
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
  std::string text, error;
  for (const auto& file : files) text += file + '\n';
  if (!Host::WriteFileAtomically(Host::Resolve(target), text, &error)) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Failed to open file for tracking: %s", error.c_str());
  }
}

}  // namespace QorConfigStore
