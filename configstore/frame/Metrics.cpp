#include "configstore/frame/Metrics.h"

#include "configstore/frame/BootLock.h"
#include "configstore/frame/CallFrame.h"

namespace QorConfigStore {
namespace {

DBStore::Connection MetricsConnection() {
  return ConnectOrThrow(DBStore::CONFIG_STORE, "Failed to connect to database.");
}

// Column 0 of the one row. SUM over no value is NULL: read as "0" (see Metrics.h).
int QueryScalar(const char* sql, const char* failure) {
  BootLock lock(BootLock::Reader{});  // never a store a load is still restoring
  DBStore::Connection conn = MetricsConnection();
  std::string result;
  auto keep = [&result](const DBStore::Row& row) { result = row.IsNull(0) ? "0" : row.String(0); };
  if (DBStore::QueryEach(conn, sql, keep) != 0) throw ConfigStoreException(CS_ERR_GENERIC, failure);
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
  BootLock lock(BootLock::Reader{});  // never a store a load is still restoring
  DBStore::Connection conn = MetricsConnection();
  std::vector<ConfigMetricsRow> rows;
  // Columns: Component, ConfigGroup, Name, then the three sizes; a NULL column reads as "0".
  auto keep = [&rows](const DBStore::Row& row) {
    auto text = [&](int i) { return row.IsNull(i) ? std::string("0") : row.String(i); };
    rows.push_back({text(0), text(1), text(2), row.Int(3), row.Int(4), row.Int(5)});
  };
  if (DBStore::QueryEach(conn, kSql, keep) != 0) {
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
