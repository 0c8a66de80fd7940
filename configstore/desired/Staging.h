// Helpers shared by the staging operations of this folder only: statements that throw, the boot
// mode written inside a staging transaction, and the preservation rules that desired documents run.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "configstore/bootstate/BootState.h"
#include "errors/Json.h"
#include "platform/dbstore/DBStore.h"
#include "platform/schemastore/SchemaStore.h"

namespace QorConfigStore::staging {

// A bound parameter or a column as SQLite hands it; nullopt is SQL NULL.
using Column = std::optional<std::string>;
using Rows = std::vector<DBStore::Values>;

inline constexpr const char* kDeleteDefault = "DELETE_DEFAULT";

// The advanced options of the network virtualization agent (qor advanced_options user_vars, by
// identifier) that every desired staging carries over from the host. A document that names one
// cannot be staged: the carried-over row collides with the document's.
inline constexpr const char* kCarriedOverUserVars[] = {
    "ZTN_ScxCpuSize", "ZTN_ScxMemSize", "ZTN_IP", "ZTN_Thumbprint", "ZTN_Token", "ZTN_NodeUUID",
    "ZTN_ValidateManagerCert", "ZTN_OptionalServices"};
inline bool IsCarriedOverFromTheHost(const std::string& component, const std::string& group, const std::string& key,
                                     const std::string& id) {
  if (component != "qor" || group != "advanced_options" || key != "user_vars") return false;
  for (const char* carried : kCarriedOverUserVars) {
    if (id == carried) return true;
  }
  return false;
}

// DBStore::Query that throws: the rows of `sql` with `params` bound in order (columns in the order
// the statement selects them). A failed statement throws ConfigStoreException 2000 with `failure`.
Rows Run(const DBStore::Connection& conn, std::string_view sql, const std::vector<Column>& params,
         const char* failure);

// Writes the next boot mode on `conn`, so that it commits or rolls back with the staged rows.
// (SetBootMode opens a connection of its own, which would wait on this transaction's write lock
// and then fail silently.) Throws ConfigStoreException 2000 "Failed to set next boot mode" when
// the write fails.
void SetBootModeInTransaction(const DBStore::Connection& conn, BOOTMODE mode);

// Calls fn(component, group, key, value) for every key of {component: {group: {key: value}}}, in
// document order. A component or group that is not an object throws ConfigStoreException 2000
// naming it; `root` itself must be an object.
template <typename Fn>
void ForEachKey(rapidjson::Value& root, Fn&& fn) {
  for (auto& comp : root.GetObject()) {
    const char* component = comp.name.GetString();
    if (!comp.value.IsObject()) {
      throw ConfigStoreException(CS_ERR_GENERIC,
                                 std::string("Desired configuration of component ") + component + " is not an object");
    }
    for (auto& grp : comp.value.GetObject()) {
      const char* group = grp.name.GetString();
      if (!grp.value.IsObject()) {
        throw ConfigStoreException(CS_ERR_GENERIC, std::string("Desired configuration of component ") + component +
                                                       " group " + group + " is not an object");
      }
      for (auto& key : grp.value.GetObject()) fn(component, group, key.name.GetString(), key.value);
    }
  }
}

// "null" for an absent column, for log lines.
inline const char* OrNull(const Column& column) { return column ? column->c_str() : "null"; }

// Preservation rules (each runs inside the staging transaction and throws ConfigStoreException
// 2000 with its own message on failure).

// Stages the current permissions of solution users ("svc-zpl-*" and the user-accounts schema's
// solution-user instances other than "zcmuser" and "kcon") with INSERT OR REPLACE.
void PreserveSolutionUserPermissions(const std::shared_ptr<QorSchemaStore::SchemaObjectCache>& cache,
                                     const DBStore::Connection& conn);

// Copies the current nuknic's distributed-switch port identity into a desired nuknic object that
// is connected to a distributed switch ("port_connection_type": "ZSW"). Strings added to `desired`
// come from `alloc`.
void PreserveNuknicSwitchPort(rapidjson::Value& desired, const std::string& instanceId,
                              rapidjson::MemoryPoolAllocator<>& alloc, const DBStore::Connection& conn);

}  // namespace QorConfigStore::staging
