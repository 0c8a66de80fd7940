#include "configstore/plan/StoreListing.h"

#include "configstore/frame/BootLock.h"
#include "configstore/frame/CallFrame.h"

namespace QorConfigStore {
namespace {

constexpr const char* kSelectObjects =
    "SELECT c.Component, c.ConfigGroup, c.Name, c.Identifier, c.Version, CAST(c.Revision AS INTEGER), "
    "c.CreationTime, c.UserValue, c.VitalValue, c.CachedValue, d.Value "
    "FROM Config AS c LEFT JOIN DefaultConfig AS d "
    "ON d.Component = c.Component AND d.ConfigGroup = c.ConfigGroup AND d.Name = c.Name "
    "AND d.Identifier = c.Identifier";
// Filter columns in the order of the arguments; only the given ones go into the WHERE clause, so
// a lookup uses the primary key.
constexpr const char* kFilterColumns[] = {"c.Component", "c.ConfigGroup", "c.Name", "c.Identifier"};
constexpr const char* kOrder = " ORDER BY c.Component, c.ConfigGroup, c.Name, c.Identifier";

constexpr const char* kSelectDefaults =
    "SELECT Component, ConfigGroup, Name, Identifier, Version, Value, VitalValue, CachedValue FROM DefaultConfig "
    "ORDER BY Component, ConfigGroup, Name, Identifier";

}  // namespace

std::vector<ConfigObjectListing> ListConfigObjects(const std::vector<std::string>& filters) {
  if (filters.size() > std::size(kFilterColumns)) {
    throw InvalidArgumentException(CS_ERR_GENERIC, "at most a component, group, key and instance id filter objects");
  }
  BootLock lock(BootLock::Reader{});  // never a store a load is still restoring
  DBStore::Connection conn =
      ConnectOrThrow(DBStore::CONFIG_STORE, "cannot open the configuration store", /*readWrite=*/false);
  std::string sql = kSelectObjects;
  for (size_t i = 0; i < filters.size(); ++i) {
    sql += (i == 0 ? " WHERE " : " AND ");
    sql += kFilterColumns[i];
    sql += " = ?";
  }
  sql += kOrder;
  std::vector<ConfigObjectListing> objects;
  auto keep = [&objects](const DBStore::Row& row) {
    objects.push_back({row.String(0), row.String(1), row.String(2), row.String(3), row.OptionalString(4),
                       row.OptionalString(5), row.OptionalString(6), row.OptionalString(7), row.OptionalString(8),
                       row.OptionalString(9), row.OptionalString(10)});
  };
  if (DBStore::QueryEach(conn, sql, keep, filters) != 0) ThrowStoreFailure("cannot read the configuration objects");
  return objects;
}

std::vector<std::vector<std::string>> ListDefaultConfig() {
  BootLock lock(BootLock::Reader{});  // never a store a load is still restoring
  DBStore::Connection conn = GetDBConnection(DBStore::CONFIG_STORE, true);
  std::vector<std::vector<std::string>> rows;
  auto keep = [&rows](const DBStore::Row& row) {
    std::vector<std::string>& values = rows.emplace_back();
    for (int i = 0; i < row.Columns(); ++i) values.push_back(row.String(i));
  };
  if (DBStore::QueryEach(conn, kSelectDefaults, keep) != 0) {
    throw ConfigStoreException(CS_ERR_GENERIC, std::string("Failed to read ") + kSelectDefaults);
  }
  return rows;
}

}  // namespace QorConfigStore
