#include <exception>
#include <filesystem>
#include <set>
#include <string>
#include <system_error>
#include <unordered_map>
#include <vector>

#include "configstore/frame/CallFrame.h"
#include "configstore/maintenance/Cleanup.h"
#include "configstore/maintenance/CleanupSupport.h"
#include "platform/host/HostRoot.h"
#include "platform/logging/Events.h"

namespace fs = std::filesystem;

namespace QorConfigStore {
namespace {

constexpr const char* kCleanupEvent = "zeb.user.cs.dfs.cleanup.error";

// Directory name -> names of the files recorded in it. The disk walk takes out every file it finds,
// leaving the rows whose file is missing.
using DataFileMap = std::unordered_map<std::string, std::set<std::string>>;

void Fail(const char* message) {
  CSLogger::Log(CSLogger::PRIO_ERROR, "%s", message);
  DumpZeb(kCleanupEvent, 0);
}

// "'a','b'"
std::string QuotedList(const std::set<std::string>& names) {
  std::string text;
  for (const std::string& name : names) {
    if (!text.empty()) text += ',';
    text += '\'' + name + '\'';
  }
  return text;
}

// The entries directly inside `dir`, in directory order, listed before anything is removed so that
// removals do not disturb the iteration. False (with `ec` set) when the listing fails.
bool ListEntries(const fs::path& dir, std::vector<fs::directory_entry>* entries, std::error_code& ec) {
  fs::directory_iterator it(dir, ec);
  for (; !ec && it != fs::directory_iterator(); it.increment(ec)) entries->push_back(*it);
  return !ec;
}

// Not following links: a link is removed as a file, never walked into.
bool IsRealDirectory(const fs::directory_entry& entry) {
  std::error_code ec;
  return entry.symlink_status(ec).type() == fs::file_type::directory;
}

void RemoveUnrecordedFiles(const fs::path& dir, DataFileMap& map, const std::string& dirName) {
  const std::string dirPath = dir.generic_string();
  CSLogger::Log(CSLogger::PRIO_INFO, "DataDir found: %s", dirPath.c_str());
  std::vector<fs::directory_entry> entries;
  std::error_code ec;
  if (!ListEntries(dir, &entries, ec)) {
    // Without the listing nothing tells which recorded files are there: the directory and its
    // rows are left as they are for a later run.
    CSLogger::Log(CSLogger::PRIO_ERROR, "CleanupDataFiles failed to read data directory %s: %s", dirPath.c_str(),
                  ec.message().c_str());
    map.erase(dirName);
    return;
  }
  std::set<std::string>& recorded = map[dirName];
  for (const fs::directory_entry& entry : entries) {
    if (recorded.erase(entry.path().filename().string()) > 0) continue;
    CSLogger::Log(CSLogger::PRIO_INFO, "Datafile not in store, remove: %s", entry.path().generic_string().c_str());
    RemoveDataFilePath(entry.path().string());
  }
}

// Deletes the rows of `dirName` whose file was not found. 0 on success.
int DeleteMissingRows(const DBStore::Connection& conn, const std::string& dirName, const std::set<std::string>& files) {
  std::string sql = "DELETE FROM DataFileMetadata WHERE DirName=? AND FileName IN (";
  for (size_t i = 0; i < files.size(); ++i) sql += i == 0 ? "?" : ",?";
  sql += ")";
  return DBStore::Exec(conn, sql, dirName, std::vector<std::string>(files.begin(), files.end()));
}

void Reconcile() {
  DBStore::Connection conn = GetDBConnection(DBStore::DATAFILE_STORE, false);
  if (!conn) {
    Fail("Datafile store cleanup failed: could not connect");
    return;
  }
  DataFileMap map;
  auto collect = [&map](const DBStore::Row& row) {
    // A row without a directory or file name records nothing that can be on disk.
    if (!row.IsNull(0) && !row.IsNull(1)) map[row.String(0)].insert(row.String(1));
  };
  if (DBStore::QueryEach(conn, "SELECT DirName, FileName FROM DataFileMetadata", collect) != 0) {
    Fail("CleanupDataFiles read sql command failed");
    return;
  }
  CSLogger::Log(CSLogger::PRIO_INFO, "DataFileMap:");
  for (const auto& [dirName, files] : map) {
    if (!files.empty()) CSLogger::Log(CSLogger::PRIO_DETAIL, "%s : %s", dirName.c_str(), QuotedList(files).c_str());
  }

  const fs::path root = Host::Resolve(kDataFileRoot);
  std::error_code ec;
  if (!fs::is_directory(root, ec)) {
    // No recorded file can exist without the root.
    if (DBStore::Exec(conn, "DELETE FROM DataFileMetadata") != 0) Fail("CleanupDataFiles clear sql command failed");
    return;
  }
  std::vector<fs::directory_entry> entries;
  if (!ListEntries(root, &entries, ec)) {
    // Deleting rows now would drop records of files that were never looked at.
    CSLogger::Log(CSLogger::PRIO_ERROR, "CleanupDataFiles failed to read %s: %s", root.generic_string().c_str(),
                  ec.message().c_str());
    DumpZeb(kCleanupEvent, 0);
    return;
  }
  for (const fs::directory_entry& entry : entries) {
    const std::string name = entry.path().filename().string();
    const std::string path = entry.path().generic_string();
    if (!IsRealDirectory(entry)) {
      CSLogger::Log(CSLogger::PRIO_DETAIL, "Delete illegal file at datafiles root: %s", path.c_str());
      RemoveDataFilePath(entry.path().string());
    } else if (map.count(name) == 0) {
      CSLogger::Log(CSLogger::PRIO_INFO, "Datafile directory not in store, remove: %s", path.c_str());
      RemoveDataFilePath(entry.path().string());
    } else {
      RemoveUnrecordedFiles(entry.path(), map, name);
    }
  }

  for (const auto& [dirName, missing] : map) {
    if (missing.empty()) continue;
    if (DeleteMissingRows(conn, dirName, missing) != 0) {
      Fail("CleanupDataFiles failed to clearup metadata");
      return;
    }
  }
  CSLogger::Log(CSLogger::PRIO_INFO, "CleanupDataFiles completed");
}

}  // namespace

void CleanupDataFiles() {
  try {
    Reconcile();
  } catch (const std::exception& e) {
    Fail(e.what());
  }
}

}  // namespace QorConfigStore
