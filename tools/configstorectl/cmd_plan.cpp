// plan: what the next boot will change in the configuration, without changing anything.
#include <cstdio>
#include <string>
#include <vector>

#include "configstore/plan/NextBootPlan.h"
#include "tools/configstorectl/Cli.h"

namespace {

using namespace QorConfigStore;
using Allocator = rapidjson::Document::AllocatorType;

const char* BootModeName(BOOTMODE mode) {
  switch (mode) {
    case BOOT_MODE_DESIRED_USER_CONFIG: return "staged desired configuration";
    case BOOT_MODE_NEW_STORE: return "boot configuration document of a new store";
    case BOOT_MODE_SMARTNIC_CONFIG: return "staged SmartNIC configuration";
    case BOOT_MODE_HOSTAPI_CONFIG: return "staged host-API changes";
    default: return "no boot-mode step; desired values folded";
  }
}

rapidjson::Value Names(const std::vector<std::string>& names, Allocator& a) {
  rapidjson::Value list(rapidjson::kArrayType);
  for (const auto& name : names) list.PushBack(cli::JsonText(name, a), a);
  return list;
}

enum class Kind { Added, Removed, Changed, Kept };

rapidjson::Value ObjectJson(const PlannedObject& o, Kind kind, Allocator& a) {
  rapidjson::Value v(rapidjson::kObjectType);
  v.AddMember("component", cli::JsonText(o.id.component, a), a);
  v.AddMember("group", cli::JsonText(o.id.group, a), a);
  v.AddMember("key", cli::JsonText(o.id.key, a), a).AddMember("identifier", cli::JsonText(o.id.id, a), a);
  switch (kind) {
    case Kind::Added: v.AddMember("userValue", cli::StoredValueJson(o.newUserValue, a), a); break;
    case Kind::Removed:
    case Kind::Kept: v.AddMember("userValue", cli::StoredValueJson(o.oldUserValue, a), a); break;
    case Kind::Changed: {
      v.AddMember("columns", Names(o.changedColumns, a), a);
      rapidjson::Value members(rapidjson::kObjectType);
      members.AddMember("added", Names(o.membersAdded, a), a).AddMember("removed", Names(o.membersRemoved, a), a);
      members.AddMember("changed", Names(o.membersChanged, a), a);
      v.AddMember("members", members, a);
      v.AddMember("old", cli::StoredValueJson(o.oldUserValue, a), a).AddMember("new", cli::StoredValueJson(o.newUserValue, a), a);
      break;
    }
  }
  return v;
}

void PrintPlanJson(const NextBootPlan& plan) {
  rapidjson::Document d(rapidjson::kObjectType);
  auto& a = d.GetAllocator();
  d.AddMember("bootMode", static_cast<int>(plan.bootMode), a);
  d.AddMember("assumption", rapidjson::StringRef(kPlanAssumption), a);
  rapidjson::Value failure;
  if (plan.failure) {
    failure.SetObject();
    failure.AddMember("code", plan.failureCode, a).AddMember("message", cli::JsonText(*plan.failure, a), a);
  }
  d.AddMember("failure", failure, a);
  const std::pair<const char*, Kind> lists[] = {
      {"added", Kind::Added}, {"removed", Kind::Removed}, {"changed", Kind::Changed}, {"kept", Kind::Kept}};
  for (const auto& [name, kind] : lists) {
    const std::vector<PlannedObject>& objects = kind == Kind::Added     ? plan.added
                                                : kind == Kind::Removed ? plan.removed
                                                : kind == Kind::Changed ? plan.changed
                                                                        : plan.kept;
    rapidjson::Value list(rapidjson::kArrayType);
    for (const PlannedObject& o : objects) list.PushBack(ObjectJson(o, kind, a), a);
    d.AddMember(rapidjson::StringRef(name), list, a);
  }
  cli::PrintJson(d);
}

std::string Name(const PlannedObject& o) {
  return cli::Printable(o.id.component + " " + o.id.group + " " + o.id.key +
                        (o.id.id.empty() ? "" : " [" + o.id.id + "]"));
}

std::string Joined(const std::vector<std::string>& names) {
  std::string text;
  for (const auto& name : names) text += (text.empty() ? "" : ", ") + name;
  return text;
}

void PrintPlanText(const NextBootPlan& plan) {
  std::printf("next boot: boot mode %d, %s\n(%s)\n", static_cast<int>(plan.bootMode), BootModeName(plan.bootMode),
              kPlanAssumption);
  if (plan.failure) {
    std::printf("the boot-mode step fails (error %d: %s): the boot rolls it back and changes no configuration\n",
                plan.failureCode, cli::Printable(*plan.failure).c_str());
    return;
  }
  for (const PlannedObject& o : plan.added) {
    std::printf("+ added    %s\n      new %s\n", Name(o).c_str(), cli::StoredValueText(o.newUserValue).c_str());
  }
  for (const PlannedObject& o : plan.removed) {
    std::printf("- removed  %s\n      old %s\n", Name(o).c_str(), cli::StoredValueText(o.oldUserValue).c_str());
  }
  for (const PlannedObject& o : plan.changed) {
    std::printf("~ changed  %s (%s)\n", Name(o).c_str(), Joined(o.changedColumns).c_str());
    const std::pair<const char*, const std::vector<std::string>*> members[] = {
        {"added", &o.membersAdded}, {"removed", &o.membersRemoved}, {"changed", &o.membersChanged}};
    for (const auto& [what, names] : members) {
      if (!names->empty()) std::printf("      members %s: %s\n", what, cli::Printable(Joined(*names)).c_str());
    }
    std::printf("      old %s\n      new %s\n", cli::StoredValueText(o.oldUserValue).c_str(), cli::StoredValueText(o.newUserValue).c_str());
  }
  for (const PlannedObject& o : plan.kept) std::printf("= kept     %s\n", Name(o).c_str());
  std::printf("%zu added, %zu removed, %zu changed, %zu kept\n", plan.added.size(), plan.removed.size(),
              plan.changed.size(), plan.kept.size());
}

int RunPlan(const cli::Invocation& inv) {
  std::vector<std::string> args = inv.args;
  cli::ExpectNoMoreArgs(args);
  NextBootPlan plan = PlanNextBoot();
  if (inv.json) PrintPlanJson(plan);
  else PrintPlanText(plan);
  // The plan is printed either way; the failure also goes to standard error with its own code.
  if (plan.failure) throw ConfigStoreException(plan.failureCode, *plan.failure);
  return 0;
}

const cli::Registrar kPlan(
    {"plan", "plan", "show what the next boot will change, changing nothing",
     "Runs the step the recorded boot mode selects (staged desired configuration, SmartNIC\n"
     "configuration, host-API changes, or a new store's boot configuration document) and the fold of\n"
     "desired values on the live store, inside a transaction that is always rolled back, and lists\n"
     "the configuration objects the next boot adds, removes and changes (with the top-level members of\n"
     "the user value that change), and those it keeps in place although the step replaced their key.\n"
     "The store, the staged rows and the boot mode are left exactly as they were. The plan assumes the\n"
     "next boot starts from this store with an unchanged boot image: the restore, schema registration,\n"
     "auto-configuration cleanup and upgrade modules that run before the step are not part of it.\n"
     "Exit status 1 when the step would fail (the boot then rolls it back and changes nothing).",
     RunPlan});

}  // namespace
