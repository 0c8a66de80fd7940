#include "configstore/desired/Staging.h"

#include "configstore/frame/CallFrame.h"

namespace QorConfigStore::staging {

Rows Run(const DBStore::Connection& conn, std::string_view sql, const std::vector<Column>& params,
         const char* failure) {
  std::optional<Rows> rows = DBStore::Query(conn, sql, params);
  if (!rows) throw ConfigStoreException(CS_ERR_GENERIC, failure);
  return std::move(*rows);
}

void SetBootModeInTransaction(const DBStore::Connection& conn, BOOTMODE mode) {
  if (DBStore::WriteKeyValue("BOOT_MODE", Format("%d", static_cast<int>(mode)), conn) != 0) {
    throw ConfigStoreException(CS_ERR_GENERIC, "Failed to set next boot mode");
  }
  CSLogger::Log(CSLogger::PRIO_INFO, "Next boot mode set to %d", static_cast<int>(mode));
}

}  // namespace QorConfigStore::staging
