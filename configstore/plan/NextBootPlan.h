// What the next boot will change in the configuration (table Config), found without changing
// anything: the step the recorded boot mode selects and the desired-value fold run on the live
// store, on one connection, inside a transaction that is always rolled back. What the boot load does
// before that step (restore, schema registration, auto-configuration cleanup, upgrade modules) is
// not part of the plan: it assumes the next boot starts from this store and an unchanged boot image.
#pragma once

#include <array>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "configstore/bootstate/BootState.h"
#include "configstore/frame/Documents.h"

namespace DBStore {
struct StoreConnection;
}

namespace QorConfigStore {

// The plan's assumption, for the header of every rendering of it.
inline constexpr const char* kPlanAssumption =
    "assumes the next boot starts from this store with an unchanged boot image: the restore, schema "
    "registration, auto-configuration cleanup and upgrade modules that run before the boot-mode step are "
    "not part of the plan";

// One object (a Config row, keyed by component, group, key and identifier) of the plan.
struct PlannedObject {
  ConfigStoreObjectId id;
  // The user value before and after; nullopt when there is no row or its user value is NULL.
  std::optional<std::string> oldUserValue, newUserValue;
  // Changed objects: which of "UserValue", "VitalValue", "CachedValue" differ.
  std::vector<std::string> changedColumns;
  // Changed user values that are JSON objects on both sides: top-level member names, in document
  // order. Empty when either side is not a JSON object.
  std::vector<std::string> membersAdded, membersRemoved, membersChanged;
};

// The objects of a Config table, keyed by component, group, key and identifier (the order of every
// list below), with their values; nullopt stands for NULL.
struct ConfigRowValues {
  std::optional<std::string> user, vital, cached, revision, creationTime;
};
using ConfigObjectKey = std::array<std::string, 4>;
using ConfigObjects = std::map<ConfigObjectKey, ConfigRowValues>;

// Every Config row on `conn` (a DBStore::Connection; declared here without the store's header, which
// is not installed). Throws ConfigStoreException 2000 when the read fails.
ConfigObjects ReadConfigObjects(const std::shared_ptr<DBStore::StoreConnection>& conn);

// What differs from one set of objects to another: objects only in `after` (added), only in
// `before` (removed), and in both with a different user, vital or cached value (changed, with the
// columns and the top-level members of the user value that differ).
struct ObjectChanges {
  std::vector<PlannedObject> added, removed, changed;
};
ObjectChanges CompareObjects(const ConfigObjects& before, const ConfigObjects& after);

// The plan's boot mode when the stored one is not a number: the boot then runs no mode step.
inline constexpr BOOTMODE kUnknownBootMode = static_cast<BOOTMODE>(-1);

// The lists of ObjectChanges, from the store as it is to the store as the next boot leaves it.
struct NextBootPlan : ObjectChanges {
  BOOTMODE bootMode = BOOT_MODE_DEFAULT;
  // Set when the step or the fold fails: the boot then rolls its transaction back, so the lists
  // are empty (the load itself goes on).
  std::optional<std::string> failure;
  int failureCode = 0;
  // Objects the step could have replaced but that come through with the same user value: present
  // before and after, user value not NULL and unchanged, nothing else changed, in a key that a staged
  // row names (when the boot mode's step applies staged rows) or of which the step added, removed,
  // changed or rewrote another object. These are what the preservation rules (preserved instance ids,
  // solution-user accounts), staged rows repeating the current value, or a SmartNIC or host-API step
  // leave in place. So every object the step applies or could have replaced is in exactly one list.
  // A key that nothing staged names and whose objects all come through untouched shows none: from the
  // data alone it cannot be told from a key the step did not touch.
  std::vector<PlannedObject> kept;
};

// Plans the next boot as described above; every list is ordered by component, group, key and
// identifier. Afterwards Config, DesiredUserConfig and the key-value table hold what they held
// before. Throws ConfigStoreException 2000 when the store cannot be opened or read, the schema
// store cannot be attached, the transaction cannot be begun or rolled back, or the boot mode cannot be
// read. Waits, as staging does, while a boot load runs (BootLock.h).
NextBootPlan PlanNextBoot();

}  // namespace QorConfigStore
