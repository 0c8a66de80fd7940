// Statement preparation and binding underneath DBStore::Run. Private to platform/dbstore: callers
// elsewhere run statements through Exec, Query and QueryEach (DBStore.h), which reset what they use.
#pragma once

#include <sqlite3.h>

#include "platform/dbstore/DBStore.h"

namespace DBStore::internal {

// Prepares one statement; an empty handle on failure (the error is logged). Text holding more than
// one statement is refused rather than cut short. The statement belongs to `conn`: release it
// before the connection's last handle goes. Prepare counts for fault injection, PrepareNow not.
Statement Prepare(const Connection& conn, std::string_view sql, int timeoutMs);
Statement PrepareNow(const Connection& conn, std::string_view sql, int timeoutMs);

// As Prepare, but the statement stays with `conn` and the same text gets the same statement back
// (preparing costs more than running a small statement, and loops run the same few). The pointer is
// borrowed: valid while `conn` lives. Each call counts as a Prepare for fault injection and fails
// like one: null, logged.
const Statement* PrepareKept(const Connection& conn, std::string_view sql, int timeoutMs);

// Binds the next parameter at `index` (1-based, advanced past what was bound). 0 on success;
// non-zero on an empty handle or an index out of range. Values are always copied
// (SQLITE_TRANSIENT). A nullopt binds NULL; an empty string binds "". A vector binds its elements
// in order and stops at the first failure.
int Bind(const Connection& conn, const Statement& stmt, int& index, std::string_view value);
int Bind(const Connection& conn, const Statement& stmt, int& index, const std::optional<std::string_view>& value);
int Bind(const Connection& conn, const Statement& stmt, int& index, int64_t value);
int Bind(const Connection& conn, const Statement& stmt, int& index, const std::vector<std::string>& values);
int Bind(const Connection& conn, const Statement& stmt, int& index, const std::vector<std::string_view>& values);

}  // namespace DBStore::internal
