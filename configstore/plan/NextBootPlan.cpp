#include "configstore/plan/NextBootPlan.h"

#include <array>
#include <map>
#include <set>

#include "configstore/boot/BootTimeApply.h"
#include "configstore/bootstate/KeyValueAccess.h"
#include "configstore/frame/BootLock.h"
#include "configstore/frame/CallFrame.h"

namespace QorConfigStore {
namespace {

using Text = std::optional<std::string>;
using ObjectKey = ConfigObjectKey;
using KeyOfObjects = std::array<std::string, 3>;
using Row = ConfigRowValues;
using Snapshot = ConfigObjects;

KeyOfObjects KeyOf(const ObjectKey& object) { return {object[0], object[1], object[2]}; }

// Keys named by the staged rows, for a boot mode whose step applies them: the step rewrites those
// keys even where a row repeats the current value.
std::set<KeyOfObjects> StagedKeys(const DBStore::Connection& conn, BOOTMODE mode) {
  std::set<KeyOfObjects> keys;
  if (mode != BOOT_MODE_DESIRED_USER_CONFIG && mode != BOOT_MODE_SMARTNIC_CONFIG && mode != BOOT_MODE_HOSTAPI_CONFIG) {
    return keys;
  }
  auto collect = [&keys](const DBStore::Row& row) { keys.insert({row.String(0), row.String(1), row.String(2)}); };
  if (DBStore::QueryEach(conn, "SELECT DISTINCT Component, ConfigGroup, Name FROM DesiredUserConfig", collect) != 0) {
    throw ConfigStoreException(CS_ERR_GENERIC, "Failed to read the staged rows for the plan");
  }
  return keys;
}

std::vector<std::string> ChangedColumns(const Row& before, const Row& after) {
  std::vector<std::string> columns;
  if (before.user != after.user) columns.push_back("UserValue");
  if (before.vital != after.vital) columns.push_back("VitalValue");
  if (before.cached != after.cached) columns.push_back("CachedValue");
  return columns;
}

// Keys in which the step added, removed, changed or rewrote (a new revision or creation time) an object.
std::set<KeyOfObjects> KeysTouched(const Snapshot& before, const Snapshot& after) {
  std::set<KeyOfObjects> keys;
  for (const auto& [key, row] : before) {
    auto it = after.find(key);
    if (it == after.end() || !ChangedColumns(row, it->second).empty() || row.revision != it->second.revision ||
        row.creationTime != it->second.creationTime) {
      keys.insert(KeyOf(key));
    }
  }
  for (const auto& [key, row] : after) {
    if (!before.contains(key)) keys.insert(KeyOf(key));
  }
  return keys;
}

// A user value as a JSON object; null when it is absent, does not parse (or is too deep) or is no object.
std::shared_ptr<JsonDoc> ParseObject(const Text& value) {
  if (!value) return nullptr;
  try {
    std::shared_ptr<JsonDoc> doc = CreateDocumentFromString(*value);
    return doc->document->IsObject() ? doc : nullptr;
  } catch (const std::exception&) {
    return nullptr;
  }
}

void DiffMembers(PlannedObject& object) {
  std::shared_ptr<JsonDoc> oldDoc = ParseObject(object.oldUserValue);
  std::shared_ptr<JsonDoc> newDoc = ParseObject(object.newUserValue);
  if (!oldDoc || !newDoc) return;
  const rapidjson::Value& oldValue = *oldDoc->document;
  const rapidjson::Value& newValue = *newDoc->document;
  for (const auto& member : oldValue.GetObject()) {
    auto it = newValue.FindMember(member.name);
    if (it == newValue.MemberEnd()) object.membersRemoved.emplace_back(member.name.GetString());
    else if (it->value != member.value) object.membersChanged.emplace_back(member.name.GetString());
  }
  for (const auto& member : newValue.GetObject()) {
    if (!oldValue.HasMember(member.name)) object.membersAdded.emplace_back(member.name.GetString());
  }
}

PlannedObject Planned(const ObjectKey& key, const Row* before, const Row* after) {
  PlannedObject object;
  object.id.component = key[0];
  object.id.group = key[1];
  object.id.key = key[2];
  object.id.id = key[3];
  if (before != nullptr) object.oldUserValue = before->user;
  if (after != nullptr) object.newUserValue = after->user;
  return object;
}

// The objects that come through unchanged in a key the step touched or a staged row names
// (NextBootPlan::kept).
void ListKept(const Snapshot& before, const Snapshot& afterStep, const Snapshot& after, std::set<KeyOfObjects> touched,
              NextBootPlan& plan) {
  touched.merge(KeysTouched(before, afterStep));
  for (const auto& [key, row] : before) {
    auto it = after.find(key);
    if (it != after.end() && ChangedColumns(row, it->second).empty() && row.user && touched.contains(KeyOf(key))) {
      plan.kept.push_back(Planned(key, &row, &it->second));
    }
  }
}

// Runs part of the boot's transaction; a failure is the plan's answer, not an error of the plan:
// the boot rolls the whole transaction back and goes on, so nothing of the step or the fold stays.
template <typename Work>
bool RunAsTheBootDoes(NextBootPlan& plan, Work work) {
  try {
    work();
    return true;
  } catch (const std::exception& e) {
    const auto* coded = dynamic_cast<const ConfigStoreException*>(&e);
    plan.failureCode = coded != nullptr ? coded->code() : 0;
    plan.failure = e.what();
    return false;
  }
}

}  // namespace

ConfigObjects ReadConfigObjects(const DBStore::Connection& conn) {
  Snapshot rows;
  auto keep = [&rows](const DBStore::Row& row) {
    rows[ObjectKey{row.String(0), row.String(1), row.String(2), row.String(3)}] =
        Row{row.OptionalString(4), row.OptionalString(5), row.OptionalString(6), row.OptionalString(7),
            row.OptionalString(8)};
  };
  if (DBStore::QueryEach(conn,
                         "SELECT Component, ConfigGroup, Name, Identifier, UserValue, VitalValue, CachedValue, "
                         "Revision, CreationTime FROM Config",
                         keep) != 0) {
    ThrowStoreFailure("Failed to read the configuration");
  }
  return rows;
}

ObjectChanges CompareObjects(const ConfigObjects& before, const ConfigObjects& after) {
  ObjectChanges changes;
  for (const auto& [key, row] : before) {
    auto it = after.find(key);
    if (it == after.end()) {
      changes.removed.push_back(Planned(key, &row, nullptr));
      continue;
    }
    std::vector<std::string> columns = ChangedColumns(row, it->second);
    if (!columns.empty()) {
      PlannedObject object = Planned(key, &row, &it->second);
      object.changedColumns = std::move(columns);
      DiffMembers(object);
      changes.changed.push_back(std::move(object));
    }
  }
  for (const auto& [key, row] : after) {
    if (!before.contains(key)) changes.added.push_back(Planned(key, nullptr, &row));
  }
  return changes;
}

NextBootPlan PlanNextBoot() {
  BootLock lock(Host::FileLock::Mode::Shared);  // the store as a load leaves it, never one half-loaded
  NextBootPlan plan;
  DBStore::Connection conn = GetDBConnection(DBStore::CONFIG_STORE, true);
  DBStore::SchemaStoreAttachment ss(conn);
  if (ss.Attach() != 0) throw ConfigStoreException(CS_ERR_GENERIC, "Failed to attach schema store");
  // Rolled back on every way out, before anything else reads the store.
  DBStore::Transaction tx(conn);
  if (tx.Begin() != 0) ThrowStoreFailure("Failed to begin the plan's transaction");

  // Read inside the transaction, as the load reads it: the mode that goes with the staged rows.
  std::string modeText;
  plan.bootMode = ReadBootMode(conn, &modeText).value_or(kUnknownBootMode);

  Snapshot before = ReadConfigObjects(conn);
  std::set<KeyOfObjects> staged = StagedKeys(conn, plan.bootMode);
  if (!RunAsTheBootDoes(plan, [&] { ApplyBootModeStep(conn, plan.bootMode); })) return plan;
  Snapshot afterStep = ReadConfigObjects(conn);
  if (!RunAsTheBootDoes(plan, [&] { FoldDesiredValues(conn); })) return plan;
  Snapshot after = ReadConfigObjects(conn);
  if (tx.Rollback() != 0) {
    throw ConfigStoreException(CS_ERR_GENERIC, "Failed to roll back the plan's transaction");
  }
  static_cast<ObjectChanges&>(plan) = CompareObjects(before, after);
  ListKept(before, afterStep, after, std::move(staged), plan);
  return plan;
}

}  // namespace QorConfigStore
