#include "configstore/desired/Staging.h"

#include "configstore/frame/CallFrame.h"

namespace QorConfigStore::staging {
namespace {

int CollectRow(void* context, int argc, char** argv, char** /*columnNames*/) {
  std::vector<Column> row;
  row.reserve(static_cast<size_t>(argc));
  for (int i = 0; i < argc; ++i) row.push_back(argv[i] ? Column(argv[i]) : std::nullopt);
  static_cast<Rows*>(context)->push_back(std::move(row));
  return 0;
}

}  // namespace

Rows Run(const DBStore::Connection& conn, std::string_view sql, const std::vector<Column>& params,
         const char* failure) {
  // Kept on the connection: staging runs the same per-object INSERT once for every object.
  const DBStore::Statement* stmt = DBStore::internal::PrepareKept(conn, sql, DBStore::kTimeoutMs);
  if (stmt == nullptr) throw ConfigStoreException(CS_ERR_GENERIC, failure);
  int index = 1;
  for (const Column& param : params) {
    std::optional<std::string_view> value;
    if (param) value = *param;
    if (DBStore::internal::Bind(conn, *stmt, index, value) != 0) {
      sqlite3_clear_bindings(stmt->get());  // the kept statement starts its next use unbound
      throw ConfigStoreException(CS_ERR_GENERIC, failure);
    }
  }
  Rows rows;
  if (DBStore::ExecuteStmt(conn, *stmt, CollectRow, &rows, DBStore::kTimeoutMs) != 0) {
    throw ConfigStoreException(CS_ERR_GENERIC, failure);
  }
  return rows;
}

void SetBootModeInTransaction(const DBStore::Connection& conn, BOOTMODE mode) {
  if (DBStore::WriteKeyValue("BOOT_MODE", Format("%d", static_cast<int>(mode)), conn) != 0) {
    throw ConfigStoreException(CS_ERR_GENERIC, "Failed to set next boot mode");
  }
  CSLogger::Log(CSLogger::PRIO_INFO, "Next boot mode set to %d", static_cast<int>(mode));
}

}  // namespace QorConfigStore::staging
