// plan: what the next boot will change in the configuration, without changing anything.
#include <cstdio>
#include <string>
#include <vector>

#include "configstore/plan/NextBootPlan.h"
#include "tools/configstorectl/Changes.h"

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
  cli::AddChangesJson(d, plan, a);
  rapidjson::Value kept(rapidjson::kArrayType);
  for (const PlannedObject& o : plan.kept) kept.PushBack(cli::ObjectJson(o, cli::ChangeKind::Kept, a), a);
  d.AddMember("kept", kept, a);
  cli::PrintJson(d);
}

void PrintPlanText(const NextBootPlan& plan) {
  std::printf("next boot: boot mode %d, %s\n(%s)\n", static_cast<int>(plan.bootMode), BootModeName(plan.bootMode),
              kPlanAssumption);
  if (plan.failure) {
    std::printf("the boot-mode step fails (error %d: %s): the boot rolls it back and changes no configuration\n",
                plan.failureCode, cli::Printable(*plan.failure).c_str());
    return;
  }
  cli::PrintChangesText(plan);
  for (const PlannedObject& o : plan.kept) std::printf("= kept     %s\n", cli::ObjectName(o).c_str());
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
