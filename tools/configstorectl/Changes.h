// The added/removed/changed form in which plan and diff show what differs, object by object.
#pragma once

#include <string>

#include "configstore/plan/NextBootPlan.h"
#include "tools/configstorectl/Cli.h"

namespace cli {

enum class ChangeKind { Added, Removed, Changed, Kept };

// "COMPONENT GROUP KEY [ID]", printable.
std::string ObjectName(const QorConfigStore::PlannedObject& o);

// {"component", "group", "key", "identifier"} and, by kind: "userValue" (the new one when added,
// else the old one); for a changed object "columns", "members" {"added", "removed", "changed"},
// "old" and "new".
rapidjson::Value ObjectJson(const QorConfigStore::PlannedObject& o, ChangeKind kind,
                            rapidjson::Document::AllocatorType& a);

// Adds the arrays "added", "removed" and "changed" to `object`.
void AddChangesJson(rapidjson::Value& object, const QorConfigStore::ObjectChanges& changes,
                    rapidjson::Document::AllocatorType& a);

// "+ added", "- removed" and "~ changed" lines with the values and the members that changed.
void PrintChangesText(const QorConfigStore::ObjectChanges& changes);

}  // namespace cli
