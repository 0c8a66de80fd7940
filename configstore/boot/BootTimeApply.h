// Boot-time application of the configuration staged in DesiredUserConfig, one routine per boot mode.
//
// Every routine works on the caller's connection and inside the caller's transaction: none begins,
// commits or rolls back, so the boot load commits what they did and a dry run rolls it back. The
// SmartNIC and generation routines read the schema store, which must be attached as "ss".
// Statements run in a fixed order; the first that fails throws ConfigStoreException 2000 with that
// step's message, leaving what the earlier steps wrote in the open transaction for the caller to
// roll back.
#pragma once

#include <vector>

#include "configstore/bootstate/BootState.h"
#include "configstore/frame/Documents.h"
#include "platform/dbstore/DBStore.h"

namespace QorConfigStore {

// The step of the next boot that `mode` selects: boot mode 1 GenerateDesiredUserConfiguration,
// 2 ProcessBootConfigurationDocument (BootDocument.h), 3 ApplySmartnicBootConfiguration,
// 4 ApplyHostApiBootConfiguration; any other mode runs nothing. The boot load and the dry run of
// the command line both dispatch through here. Returns the boot type the load records in
// "BOOT_INFO": 1 once a desired configuration was generated, else 0. Throws what the step throws.
int ApplyBootModeStep(const DBStore::Connection& conn, BOOTMODE mode);

// Every object's desired value becomes its user value (objects without one keep theirs), desired
// values are cleared and each object's success flag is reset to its schema's NoRestore (NULL for
// an object without schema). Runs after the boot-mode step. Throws ConfigStoreException 2000
// "Failed to reset success flag for configuration".
void FoldDesiredValues(const DBStore::Connection& conn);

// Boot mode 4: applies the staged host-API actions. DELETE_INSTANCE removes the named instance;
// DELETE removes every instance of the key; SET writes the named instances and removes the
// key's other instances; SET_DEFAULT replaces the key's instances with its DefaultConfig rows.
// Rows whose user value is NULL are never removed. DesiredUserConfig is left as it is.
void ApplyHostApiBootConfiguration(const DBStore::Connection& conn);

// Boot mode 3: replaces the objects shared with the SmartNIC ("qor-shared" in ss.SmartnicSchema)
// by the staged ones. DELETE and SET_DEFAULT keys lose every instance (SET_DEFAULT keys get their
// defaults back); SET rows are inserted or update the existing shared instance; instances of
// shared non-singleton keys that no SET row names are removed. A SET row that collides with an
// existing non-shared object fails the insert step. DesiredUserConfig is left as it is.
void ApplySmartnicBootConfiguration(const DBStore::Connection& conn);

// Boot mode 1: the staged configuration replaces the whole user configuration of the keys that
// take part in the desired-state process (ss.ConfigSchema.DSPIntegrated = 1). Their user values
// are dropped, except for the preserved instances (ListPreservedUserObjects), solution-user
// accounts and, for PreserveNonUser keys, the object itself (its user value becomes NULL). Staged
// rows are then inserted or merged into existing rows, and DesiredUserConfig is emptied.
void GenerateDesiredUserConfiguration(const DBStore::Connection& conn);

// The objects whose user value survives a desired configuration: for every instanced key of the
// attached schema store whose instance id is not generated, one object per identifier that its
// PreservedInstanceIds lists, ordered by component, group, key and list position.
// Throws ConfigStoreException 2000 "Failed to read preserved instance ids" when the read fails
// (a malformed stored list included).
std::vector<ConfigStoreObjectId> ListPreservedUserObjects(const DBStore::Connection& conn);

}  // namespace QorConfigStore
