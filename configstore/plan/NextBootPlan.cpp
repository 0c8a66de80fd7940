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

int SnapshotRow(void* context, int argc, char** argv, char**) {
  try {
    auto text = [&](int i) { return i < argc && argv[i] != nullptr ? Text(argv[i]) : Text(); };
    ObjectKey key{text(0).value_or(""), text(1).value_or(""), text(2).value_or(""), text(3).value_or("")};
    (*static_cast<Snapshot*>(context))[key] = Row{text(4), text(5), text(6), text(7), text(8)};
    return 0;
  } catch (...) {
    return 1;  // no exception may cross SQLite's C frames
  }
}

KeyOfObjects KeyOf(const ObjectKey& object) { return {object[0], object[1], object[2]}; }

// Keys named by the staged rows, for a boot mode whose step applies them: the step rewrites those
// keys even where a row repeats the current value.
std::set<KeyOfObjects> StagedKeys(const DBStore::Connection& conn, BOOTMODE mode) {
  std::set<KeyOfObjects> keys;
  if (mode != BOOT_MODE_DESIRED_USER_CONFIG && mode != BOOT_MODE_SMARTNIC_CONFIG && mode != BOOT_MODE_HOSTAPI_CONFIG) {
    return keys;
  }
  DBStore::Statement stmt = DBStore::internal::Prepare(
      conn, "SELECT DISTINCT Component, ConfigGroup, Name FROM DesiredUserConfig", DBStore::kTimeoutMs);
  auto collect = [](void* context, int argc, char** argv, char**) {
    try {
      if (argc != 3) return 1;
      static_cast<std::set<KeyOfObjects>*>(context)->insert(
          {argv[0] ? argv[0] : "", argv[1] ? argv[1] : "", argv[2] ? argv[2] : ""});
      return 0;
    } catch (...) {
      return 1;  // no exception may cross SQLite's C frames
    }
  };
  if (!stmt || DBStore::ExecuteStmt(conn, stmt, collect, &keys, DBStore::kTimeoutMs) != 0) {
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
  DBStore::Statement stmt = DBStore::internal::Prepare(
      conn,
      "SELECT Component, ConfigGroup, Name, Identifier, UserValue, VitalValue, CachedValue, Revision, CreationTime "
      "FROM Config",
      DBStore::kTimeoutMs);
  if (!stmt || DBStore::ExecuteStmt(conn, stmt, SnapshotRow, &rows, DBStore::kTimeoutMs) != 0) {
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
  if (DBStore::AttachSchemaStore(conn) != 0) {
    throw ConfigStoreException(CS_ERR_GENERIC, "Failed to attach schema store");
  }
  if (DBStore::BeginTransaction(conn) != 0) {
    ThrowStoreFailure("Failed to begin the plan's transaction");
  }
  // Rolls back on every way out; the connection's own destructor would roll back too, this one
  // just does it before anything else reads the store.
  struct RollBack {
    const DBStore::Connection& conn;
    ~RollBack() { DBStore::CancelTransaction(conn); }
  } rollBack{conn};

  // Read inside the transaction, as the load reads it: the mode that goes with the staged rows.
  std::string modeText;
  plan.bootMode = ReadBootMode(conn, &modeText).value_or(kUnknownBootMode);

  Snapshot before = ReadConfigObjects(conn);
  std::set<KeyOfObjects> staged = StagedKeys(conn, plan.bootMode);
  if (!RunAsTheBootDoes(plan, [&] { ApplyBootModeStep(conn, plan.bootMode); })) return plan;
  Snapshot afterStep = ReadConfigObjects(conn);
  if (!RunAsTheBootDoes(plan, [&] { FoldDesiredValues(conn); })) return plan;
  Snapshot after = ReadConfigObjects(conn);
  if (DBStore::CancelTransaction(conn) != 0) {
    throw ConfigStoreException(CS_ERR_GENERIC, "Failed to roll back the plan's transaction");
  }
  static_cast<ObjectChanges&>(plan) = CompareObjects(before, after);
  ListKept(before, afterStep, after, std::move(staged), plan);
  return plan;
}

}  // namespace QorConfigStore
