#include "configstore/frame/Metrics.h"

#include <cstdlib>

#include "configstore/frame/CallFrame.h"

namespace QorConfigStore {
namespace {

DBStore::Connection MetricsConnection() {
  return ConnectOrThrow(DBStore::CONFIG_STORE, "Failed to connect to database.");
}

// Column 0 of the row, as it stands. SUM over no value is NULL: read as "0" (see Metrics.h).
int ScalarCallback(void* context, int /*argc*/, char** argv, char** /*columnNames*/) {
  *static_cast<std::string*>(context) = argv[0] ? argv[0] : "0";
  return 0;
}

// Columns: Component, ConfigGroup, Name, then the three sizes; a NULL column reads as "0".
int MetricsRowCallback(void* context, int argc, char** argv, char** /*columnNames*/) {
  if (argc != 6) return 1;
  auto text = [&](int i) { return std::string(argv[i] != nullptr ? argv[i] : "0"); };
  auto size = [&](int i) { return argv[i] != nullptr ? std::strtoll(argv[i], nullptr, 10) : int64_t{0}; };
  static_cast<std::vector<ConfigMetricsRow>*>(context)->push_back(
      {text(0), text(1), text(2), size(3), size(4), size(5)});
  return 0;
}

int QueryScalar(const char* sql, const char* failure) {
  DBStore::Connection conn = MetricsConnection();
  DBStore::Statement stmt = DBStore::internal::Prepare(conn, sql, DBStore::kTimeoutMs);
  std::string result;
  if (DBStore::ExecuteStmt(conn, stmt, ScalarCallback, &result, DBStore::kTimeoutMs) == 1) {
    throw ConfigStoreException(CS_ERR_GENERIC, failure);
  }
  return std::stoi(result, nullptr, 10);
}

}  // namespace

int GetVitalConfigSize() {
  return QueryScalar("SELECT SUM(LENGTH(VitalValue)) as VitalSize FROM Config",
                     "Failed to get data from GetVitalConfigSize");
}

int GetUserConfigSize() {
  return QueryScalar("SELECT SUM(LENGTH(UserValue)) as UserSize FROM Config",
                     "Failed to get data from GetUserConfigSize");
}

int GetCachedConfigSize() {
  return QueryScalar("SELECT SUM(LENGTH(CachedValue)) as CachedSize FROM Config",
                     "Failed to get data from GetCachedConfigSize");
}

int GetConfigRowCount() {
  return QueryScalar("SELECT COUNT(*) as RowCount FROM Config", "Failed to get data from GetConfigRowCount");
}

std::vector<ConfigMetricsRow> GetConfigMetricsRows() {
  static const char* kSql = R"(
      SELECT Component, ConfigGroup, Name, LENGTH (VitalValue) VitalConfigSize,
      LENGTH (UserValue) UserConfigSize, LENGTH (CachedValue) CachedConfigSize
      FROM Config)";
  DBStore::Connection conn = MetricsConnection();
  DBStore::Statement stmt = DBStore::internal::Prepare(conn, kSql, DBStore::kTimeoutMs);
  std::vector<ConfigMetricsRow> rows;
  if (DBStore::ExecuteStmt(conn, stmt, MetricsRowCallback, &rows, DBStore::kTimeoutMs) == 1) {
    throw ConfigStoreException(CS_ERR_GENERIC, "Failed to get data from GetConfigMetrics");
  }
  return rows;
}

std::vector<std::string> GetConfigMetrics() {
  std::vector<std::string> joined;
  for (const ConfigMetricsRow& r : GetConfigMetricsRows()) {
    joined.push_back(r.component + "," + r.group + "," + r.key + "," + std::to_string(r.vitalSize) + "," +
                     std::to_string(r.userSize) + "," + std::to_string(r.cachedSize));
  }
  return joined;
}

}  // namespace QorConfigStore
