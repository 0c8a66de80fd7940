// Removal of one configuration key at the next boot, on behalf of the host management interface.
#include "configstore/desired/DesiredConfig.h"
#include "configstore/desired/Staging.h"
#include "configstore/frame/BootLock.h"
#include "configstore/frame/CallFrame.h"

namespace QorConfigStore {
namespace {

constexpr const char* kWriteDelete =
    "INSERT INTO DesiredUserConfig (Component, ConfigGroup, Name, BootAction) VALUES (?, ?, ?, ?);";

// Writes the "DELETE" row; a statement that cannot be prepared, bound or run throws 1005.
void WriteDeleteRow(const DBStore::Connection& conn, const char* component, const char* group, const char* key) {
  if (DBStore::Exec(conn, kWriteDelete, component, group, key, "DELETE") != 0) {
    throw ConfigStoreException(
        CS_ERR_DESIRED_CONFIG_NOT_FOUND,
        Format("desired configuration for component %s group %s key %s", component, group, key));
  }
}

}  // namespace

void DeleteHostAPIConfiguration(const char* component, const char* group, const char* key) {
  if (component == nullptr || group == nullptr || key == nullptr) {
    throw InvalidArgumentException(CS_ERR_GENERIC, "DeleteHostAPIConfiguration needs a component, group and key");
  }
  // Only a key that some schema describes can be removed.
  auto store = QorSchemaStore::SchemaStore::GetStore(false);
  if (!QorSchemaStore::GetSchema(component, group, key, store)) {
    throw ConfigStoreException(
        CS_ERR_DESIRED_CONFIG_NOT_FOUND,
        Format("desired configuration for component %s group %s key %s", component, group, key));
  }

  BootLock lock(Host::FileLock::Mode::Shared);  // staged wholly before or wholly after a boot load
  DBStore::Connection conn = GetDBConnection(DBStore::CONFIG_STORE, true);
  DBStore::Transaction tx(conn);
  if (tx.Begin() != 0) ThrowStoreFailure("Failed to start Delete HostAPI transaction");
  try {
    WriteDeleteRow(conn, component, group, key);
    // The boot mode commits with the row: a row the next boot would not apply is never left behind.
    staging::SetBootModeInTransaction(conn, BOOT_MODE_HOSTAPI_CONFIG);
    if (tx.Commit() != 0) {
      throw ConfigStoreException(CS_ERR_HOSTAPI_DELETE_NOT_ALLOWED,
                                 Format("for component %s group %s key %s in Delete HostAPI", component, group, key));
    }
  } catch (const std::exception&) {
    (void)tx.Rollback();  // before the log line; a failed rollback logs itself
    RethrowFromOperation("");
  }
}

bool CheckDesiredObjectExists(const ConfigStoreObjectId& id, const std::shared_ptr<DBStore::StoreConnection>& conn) {
  bool found = false;
  if (DBStore::QueryEach(conn, "SELECT 1 FROM DesiredUserConfig WHERE Name = ? AND ConfigGroup = ? AND Component = ? LIMIT 1",
                         [&found](const DBStore::Row&) { found = true; }, id.key, id.group, id.component) != 0) {
    throw ConfigStoreException(CS_ERR_GENERIC, "Check Instance failed for: " + id.toString());
  }
  return found;
}

}  // namespace QorConfigStore
