#include <exception>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "configstore/frame/CallFrame.h"
#include "configstore/maintenance/Cleanup.h"
#include "configstore/maintenance/CleanupSupport.h"
#include "configstore/maintenance/RowSetSql.h"
#include "platform/host/HostRoot.h"

namespace QorConfigStore {
namespace {

// Runs `sql`, collecting the first column of each row into `rows`. 0 on success, 1 on failure.
int CollectFirstColumn(const DBStore::Connection& conn, std::string_view sql, std::vector<std::string>& rows) {
  // A row without a directory name has no directory to remove.
  auto keep = [&rows](const DBStore::Row& row) {
    if (!row.IsNull(0)) rows.push_back(row.String(0));
  };
  return DBStore::QueryEach(conn, sql, keep);
}

// A name taken from the store must stay one level below the data-file root: an empty name, ".",
// ".." or one holding '/' would make the recursive removal reach the root itself or beyond it.
bool IsPlainName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

// Configuration rows whose key has no schema: "DELETE FROM Config WHERE (Component, ConfigGroup, Name)
// NOT IN (SELECT Component, ConfigGroup, Name FROM ss.ConfigSchema)", run as NOT EXISTS.
constexpr const char* kOrphanConfigReferenceSql =
    "DELETE FROM Config WHERE (Component, ConfigGroup, Name) NOT IN "
    "(SELECT Component, ConfigGroup, Name FROM ss.ConfigSchema)";
const std::string& OrphanConfigSql() {
  static const std::string sql =
      "DELETE FROM Config WHERE " + NotInRowSet({{"Config.Component", "s.Component"},
                                                 {"Config.ConfigGroup", "s.ConfigGroup"},
                                                 {"Config.Name", "s.Name"}},
                                                "ss.ConfigSchema AS s", "");
  return sql;
}

// Data-file records whose key has no data-file schema, as in "... WHERE (Component, KEY) NOT IN
// (SELECT Component, KEY FROM ss.DataFileSchema)".
constexpr const char* kOrphanDirsReferenceSql =
    "SELECT DISTINCT DirName FROM DataFileMetadata WHERE (Component, KEY) NOT IN "
    "(SELECT Component, KEY FROM ss.DataFileSchema)";
constexpr const char* kOrphanDataFilesReferenceSql =
    "DELETE FROM DataFileMetadata WHERE (Component, KEY) NOT IN (SELECT Component, KEY FROM ss.DataFileSchema)";
const std::string& OrphanDataFileTerm() {
  static const std::string term = NotInRowSet(
      {{"DataFileMetadata.Component", "s.Component"}, {"DataFileMetadata.KEY", "s.KEY"}}, "ss.DataFileSchema AS s", "");
  return term;
}
const std::string& OrphanDirsSql() {
  static const std::string sql = "SELECT DISTINCT DirName FROM DataFileMetadata WHERE " + OrphanDataFileTerm();
  return sql;
}
const std::string& OrphanDataFilesSql() {
  static const std::string sql = "DELETE FROM DataFileMetadata WHERE " + OrphanDataFileTerm();
  return sql;
}

void DetachLogged(DBStore::SchemaStoreAttachment& ss) {
  if (ss.Detach() != 0) CSLogger::Log(CSLogger::PRIO_ERROR, "Failed to detach schema store");
}

void CleanupConfigRows() {
  CSLogger::Log(CSLogger::PRIO_INFO, "Cleanup config store");
  DBStore::Connection conn = GetDBConnection(DBStore::CONFIG_STORE, false);
  if (!conn) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "ConfigStore cleanup failed: could not connect");
    return;
  }
  DBStore::SchemaStoreAttachment ss(conn);
  if (ss.Attach() == 1) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "ConfigStore cleanup failed: could not attach to SchemaStore");
    return;
  }
  int rc = DBStore::Exec(conn, OrphanConfigSql());
  DetachLogged(ss);
  if (rc == 1) CSLogger::Log(CSLogger::PRIO_ERROR, "ConfigStore cleanup failed: SQL command unsuccessful");
  CSLogger::Log(CSLogger::PRIO_INFO, "Cleanup config store completed");
}

void CleanupDataFileRows(bool atBoot) {
  CSLogger::Log(CSLogger::PRIO_INFO, "Cleanup data file store");
  DBStore::Connection conn = GetDBConnection(DBStore::DATAFILE_STORE, false);
  if (!conn) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Datafile store cleanup failed: could not connect");
    return;
  }
  DBStore::SchemaStoreAttachment ss(conn);
  if (ss.Attach() == 1) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Datafile store cleanup failed: could not attach to data file schemas");
    return;
  }
  // Read before the rows go: afterwards nothing tells which directories were orphaned.
  std::vector<std::string> orphanedDirs;
  if (!atBoot && CollectFirstColumn(conn, OrphanDirsSql(), orphanedDirs) == 1) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Datafile live cleanup failed: read dir SQL command unsuccessful");
    DetachLogged(ss);
    return;
  }
  int rc = DBStore::Exec(conn, OrphanDataFilesSql());
  DetachLogged(ss);
  if (rc == 1) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Datafile cleanup failed: SQL command unsuccessful");
    return;
  }
  const std::string root = Host::Resolve(kDataFileRoot);
  for (const std::string& name : orphanedDirs) {
    CSLogger::Log(CSLogger::PRIO_INFO, "Cleanup datafile directory: %s", name.c_str());
    if (!IsPlainName(name)) {
      CSLogger::Log(CSLogger::PRIO_ERROR, "Datafile cleanup skipped directory name [%s]: not a plain name", name.c_str());
      continue;
    }
    RemoveDataFilePath(root + "/" + name);
  }
  CSLogger::Log(CSLogger::PRIO_INFO, "Cleanup data file store completed");
}

// The boundary of a best-effort half: nothing it meets reaches the caller.
template <typename Half>
void RunLogged(Half half) {
  try {
    half();
  } catch (const std::exception& e) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "%s", e.what());
  }
}

}  // namespace

void RemoveDataFilePath(const std::string& resolvedPath) {
  if (!Host::InsideRoot(resolvedPath)) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Datafile cleanup refused to remove %s: it lies outside the host root",
                  resolvedPath.c_str());
    return;
  }
  std::error_code ec;
  std::filesystem::remove_all(resolvedPath, ec);
  if (ec) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Datafile cleanup failed to remove %s ",
                  std::filesystem::path(resolvedPath).generic_string().c_str());
  }
}

std::vector<EquivalentStatement> CleanupEquivalentStatements() {
  auto text = [](std::string sql) -> EquivalentStatement::Run {
    return [sql](const DBStore::Connection& conn, std::vector<std::string>& rows) {
      return CollectFirstColumn(conn, sql, rows);
    };
  };
  return {
      {"orphan config rows", text(kOrphanConfigReferenceSql), text(OrphanConfigSql())},
      {"orphan data-file directories", text(kOrphanDirsReferenceSql), text(OrphanDirsSql())},
      {"orphan data-file rows", text(kOrphanDataFilesReferenceSql), text(OrphanDataFilesSql())},
  };
}

void CleanupStore(bool atBoot) {
  RunLogged([] { CleanupConfigRows(); });
  RunLogged([atBoot] { CleanupDataFileRows(atBoot); });
}

void CleanupAutoConfig() {
  CSLogger::Log(CSLogger::PRIO_INFO, "Cleanup auto configurations");
  DBStore::Connection conn = GetDBConnection(DBStore::CONFIG_STORE, false);
  if (!conn) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Cleanup failed: could not connect to ConfigStore");
    return;
  }
  if (DBStore::Exec(conn, "UPDATE Config SET AutoConfValue=NULL") == 1) {
    throw ConfigStoreException(CS_ERR_GENERIC, "Error removing auto configuration value.");
  }
  if (DBStore::Exec(conn,
                    "DELETE FROM Config WHERE UserValue IS NULL AND VitalValue IS NULL AND CachedValue IS NULL "
                    "AND DesiredValue IS NULL") == 1) {
    throw ConfigStoreException(CS_ERR_GENERIC, "Error cleaning up config.");
  }
}

}  // namespace QorConfigStore
