#include "tools/configstorectl/Changes.h"

#include <cstdio>

namespace cli {
namespace {

using QorConfigStore::PlannedObject;
using Allocator = rapidjson::Document::AllocatorType;

rapidjson::Value Names(const std::vector<std::string>& names, Allocator& a) {
  rapidjson::Value list(rapidjson::kArrayType);
  for (const auto& name : names) list.PushBack(JsonText(name, a), a);
  return list;
}

std::string Joined(const std::vector<std::string>& names) {
  std::string text;
  for (const auto& name : names) text += (text.empty() ? "" : ", ") + name;
  return text;
}

}  // namespace

std::string ObjectName(const PlannedObject& o) {
  return Printable(o.id.component + " " + o.id.group + " " + o.id.key + (o.id.id.empty() ? "" : " [" + o.id.id + "]"));
}

rapidjson::Value ObjectJson(const PlannedObject& o, ChangeKind kind, Allocator& a) {
  rapidjson::Value v(rapidjson::kObjectType);
  v.AddMember("component", JsonText(o.id.component, a), a);
  v.AddMember("group", JsonText(o.id.group, a), a);
  v.AddMember("key", JsonText(o.id.key, a), a).AddMember("identifier", JsonText(o.id.id, a), a);
  switch (kind) {
    case ChangeKind::Added: v.AddMember("userValue", StoredValueJson(o.newUserValue, a), a); break;
    case ChangeKind::Removed:
    case ChangeKind::Kept: v.AddMember("userValue", StoredValueJson(o.oldUserValue, a), a); break;
    case ChangeKind::Changed: {
      v.AddMember("columns", Names(o.changedColumns, a), a);
      rapidjson::Value members(rapidjson::kObjectType);
      members.AddMember("added", Names(o.membersAdded, a), a).AddMember("removed", Names(o.membersRemoved, a), a);
      members.AddMember("changed", Names(o.membersChanged, a), a);
      v.AddMember("members", members, a);
      v.AddMember("old", StoredValueJson(o.oldUserValue, a), a).AddMember("new", StoredValueJson(o.newUserValue, a), a);
      break;
    }
  }
  return v;
}

void AddChangesJson(rapidjson::Value& object, const QorConfigStore::ObjectChanges& changes, Allocator& a) {
  const std::pair<const char*, ChangeKind> lists[] = {
      {"added", ChangeKind::Added}, {"removed", ChangeKind::Removed}, {"changed", ChangeKind::Changed}};
  for (const auto& [name, kind] : lists) {
    const std::vector<PlannedObject>& objects = kind == ChangeKind::Added     ? changes.added
                                                : kind == ChangeKind::Removed ? changes.removed
                                                                              : changes.changed;
    rapidjson::Value list(rapidjson::kArrayType);
    for (const PlannedObject& o : objects) list.PushBack(ObjectJson(o, kind, a), a);
    object.AddMember(rapidjson::StringRef(name), list, a);
  }
}

void PrintChangesText(const QorConfigStore::ObjectChanges& changes) {
  for (const PlannedObject& o : changes.added) {
    std::printf("+ added    %s\n      new %s\n", ObjectName(o).c_str(), StoredValueText(o.newUserValue).c_str());
  }
  for (const PlannedObject& o : changes.removed) {
    std::printf("- removed  %s\n      old %s\n", ObjectName(o).c_str(), StoredValueText(o.oldUserValue).c_str());
  }
  for (const PlannedObject& o : changes.changed) {
    std::printf("~ changed  %s (%s)\n", ObjectName(o).c_str(), Joined(o.changedColumns).c_str());
    const std::pair<const char*, const std::vector<std::string>*> members[] = {
        {"added", &o.membersAdded}, {"removed", &o.membersRemoved}, {"changed", &o.membersChanged}};
    for (const auto& [what, names] : members) {
      if (!names->empty()) std::printf("      members %s: %s\n", what, Printable(Joined(*names)).c_str());
    }
    std::printf("      old %s\n      new %s\n", StoredValueText(o.oldUserValue).c_str(),
                StoredValueText(o.newUserValue).c_str());
  }
}

}  // namespace cli
