// Boot-time store operations the host's boot scripts and tools call on their own: setup-ramdisk,
// refresh, apply-record and restore-failures.
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "configstore/boot/BootApplyRecord.h"
#include "configstore/boot/RamDisk.h"
#include "configstore/boot/StoreRestore.h"
#include "configstore/frame/ConfigStoreException.h"
#include "tools/configstorectl/Cli.h"

namespace {

using namespace QorConfigStore;

int RunSetupRamdisk(const cli::Invocation& inv) {
  cli::ExpectNoMoreArgs(inv.args);
  SetupStoreRamDisk();
  if (inv.json) {
    rapidjson::Document d(rapidjson::kObjectType);
    d.AddMember("mounted", true, d.GetAllocator());
    cli::PrintJson(d);
  }
  return 0;
}

// "--schema ID" and "--module NAME", each as often as needed, in any order.
int RunRefresh(const cli::Invocation& inv) {
  std::vector<std::string> args = inv.args;
  std::vector<std::string> schemaIds, modules;
  while (std::optional<std::string> id = cli::TakeOption(args, "--schema")) schemaIds.push_back(*id);
  while (std::optional<std::string> name = cli::TakeOption(args, "--module")) modules.push_back(*name);
  cli::ExpectNoMoreArgs(args);
  bool refreshed = RefreshConfigStore(schemaIds, modules);
  if (inv.json) {
    rapidjson::Document d(rapidjson::kObjectType);
    d.AddMember("refreshed", refreshed, d.GetAllocator());
    cli::PrintJson(d);
  }
  if (!refreshed) throw ConfigStoreException(CS_ERR_GENERIC, "the store was not refreshed (see the log, -v)");
  return 0;
}

int RunApplyRecord(const cli::Invocation& inv) {
  std::vector<std::string> args = inv.args;
  const std::string action = cli::TakeArg(args, "action (get, set or clear)");
  std::string record;
  if (action == "set") {
    record = cli::TakeArg(args, "record text");
  } else if (action != "get" && action != "clear") {
    throw cli::UsageError("unknown action '" + action + "'");
  }
  cli::ExpectNoMoreArgs(args);
  if (action == "set") setBootApplyRecord(record);
  if (action == "clear") clearBootApplyRecord();
  // The record is a JSON document either way; every action shows what is stored now.
  rapidjson::Document stored;  // null: no record stored
  try {
    stored = getBootApplyRecord();
  } catch (const ConfigStoreException& e) {
    if (action == "get" || e.code() != CS_ERR_JSON_PARSE_STRING) throw;  // a record never written
  }
  if (action != "get") {
    rapidjson::Document wanted(rapidjson::kObjectType);
    wanted.AddMember("isBootComplete", action == "set", wanted.GetAllocator());
    if (action == "set") wanted.AddMember("bootApplyRecord", cli::JsonText(record, wanted.GetAllocator()), wanted.GetAllocator());
    cli::ExpectStored("BOOT_APPLY_RESULT", stored.IsNull() ? "" : cli::CompactJson(stored), cli::CompactJson(wanted));
  }
  cli::PrintJson(stored);
  return 0;
}

int RunRestoreFailures(const cli::Invocation& inv) {
  cli::ExpectNoMoreArgs(inv.args);
  std::vector<FailureRecord> failures = GetBootTimeRestoreFailures();
  if (inv.json) {
    rapidjson::Document d(rapidjson::kArrayType);
    auto& a = d.GetAllocator();
    for (const FailureRecord& f : failures) {
      rapidjson::Value row(rapidjson::kObjectType);
      row.AddMember("component", cli::JsonText(f.Component, a), a);
      row.AddMember("group", cli::JsonText(f.ConfigGroup, a), a);
      row.AddMember("key", cli::JsonText(f.Name, a), a);
      d.PushBack(row, a);
    }
    cli::PrintJson(d);
    return 0;
  }
  for (const FailureRecord& f : failures) {
    std::printf("%s %s %s\n", cli::Printable(f.Component).c_str(), cli::Printable(f.ConfigGroup).c_str(),
                cli::Printable(f.Name).c_str());
  }
  return 0;
}

const cli::Registrar kSetupRamdisk({"setup-ramdisk", "setup-ramdisk", "mount the store and backup ramdisks",
                                    "Mounts the working store ramdisk, sets its usage limits (warning 80%, error 90%)\n"
                                    "and mounts the backup ramdisk. In a sandbox root the mounts are recorded in\n"
                                    "var/run/talvex/mounts.log instead of made.",
                                    RunSetupRamdisk});
const cli::Registrar kRefresh({"refresh", "refresh [--schema ID]... [--module NAME]...",
                               "register new schemas and run live-install upgrade modules",
                               "Re-registers the packages' schemas (with the expected schema ids given besides the\n"
                               "image's own) and runs the named live-install upgrade modules. Exit 1 when either\n"
                               "failed.",
                               RunRefresh});
const cli::Registrar kApplyRecord({"apply-record", "apply-record get|set TEXT|clear",
                                   "read, set or clear the boot apply record",
                                   "get prints the stored record; set TEXT marks the boot complete with TEXT as the\n"
                                   "applying tool's record; clear marks it incomplete. Each prints the record after.",
                                   RunApplyRecord});
const cli::Registrar kRestoreFailures({"restore-failures", "restore-failures",
                                       "entries whose user value could not be restored at boot",
                                       "One line per entry: component, group and key.", RunRestoreFailures});

}  // namespace
