// load: the boot-time rebuild of the store, with a report of what each stage did.
// kit-files, filter-sticky, track-files: the file lists the backup tools read.
#include <cstdio>
#include <iostream>

#include "configstore/boot/LoadStore.h"
#include "configstore/packages/PackageFiles.h"
#include "tools/configstorectl/Cli.h"

namespace {

int RunLoad(const cli::Invocation& inv) {
  std::vector<std::string> args = inv.args;
  bool restore = !cli::TakeFlag(args, "--no-restore");
  cli::ExpectNoMoreArgs(args);
  QorConfigStore::BootReport report;
  int status = QorConfigStore::LoadStore(restore, &report);
  double total = 0;
  for (const auto& s : report.stages) total += s.milliseconds;
  if (inv.json) {
    rapidjson::Document d(rapidjson::kObjectType);
    auto& a = d.GetAllocator();
    rapidjson::Value stages(rapidjson::kArrayType);
    for (const auto& s : report.stages) {
      rapidjson::Value stage(rapidjson::kObjectType);
      stage.AddMember("stage", rapidjson::Value(s.name.c_str(), a), a);
      stage.AddMember("ms", s.milliseconds, a);
      stage.AddMember("detail", rapidjson::Value(s.detail.c_str(), a), a);
      stages.PushBack(stage, a);
    }
    d.AddMember("status", status, a).AddMember("totalMs", total, a).AddMember("stages", stages, a);
    cli::PrintJson(d);
  } else {
    std::printf("boot load (%s)\n", restore ? "restore from backup" : "store on the ramdisk as it stands");
    for (const auto& s : report.stages) {
      std::printf("  %-24s %9.1f ms  %s\n", s.name.c_str(), s.milliseconds, s.detail.c_str());
    }
    std::printf("  %-24s %9.1f ms  status %d%s\n", "total", total, status,
                status == 0 ? "" : " (failed: see the system alert)");
  }
  return status == 0 ? 0 : 1;
}

int RunKitFiles(const cli::Invocation& inv) {
  cli::ExpectNoMoreArgs(inv.args);
  auto files = QorConfigStore::GetKitFiles();
  if (inv.json) {
    rapidjson::Document d(rapidjson::kObjectType);
    auto& a = d.GetAllocator();
    for (const char* category : {"vital", "cached", "config"}) {
      rapidjson::Value list(rapidjson::kArrayType);
      for (const auto& f : files[category]) list.PushBack(rapidjson::Value(f.c_str(), a), a);
      d.AddMember(rapidjson::StringRef(category), list, a);
    }
    cli::PrintJson(d);
    return 0;
  }
  for (const char* category : {"vital", "cached", "config"}) {
    for (const auto& f : files[category]) std::printf("%s %s\n", category, f.c_str());
  }
  return 0;
}

int RunFilterSticky(const cli::Invocation& inv) {
  std::vector<std::string> files = inv.args;
  if (files.empty()) {
    for (std::string line; std::getline(std::cin, line);) {
      if (!line.empty()) files.push_back(line);
    }
  }
  for (const auto& f : QorConfigStore::FilterStickyBitFiles(files)) std::printf("%s\n", f.c_str());
  return 0;
}

int RunTrackFiles(const cli::Invocation& inv) {
  std::vector<std::string> args = inv.args;
  if (args.empty()) throw cli::UsageError("which list: backup or nonschema");
  QorConfigStore::FileType type;
  if (args[0] == "backup") type = QorConfigStore::FILE_TYPE_BACKUP_LIST;
  else if (args[0] == "nonschema") type = QorConfigStore::FILE_TYPE_NON_SCHEMA_FILES;
  else throw cli::UsageError("unknown list '" + args[0] + "'");
  args.erase(args.begin());
  QorConfigStore::TrackFiles(args, type);
  return 0;
}

const cli::Registrar kLoad({"load", "load [--no-restore]", "rebuild the store as a boot does, and report each stage",
                            "Runs the boot-time load: restore or create the store (unless --no-restore), register\n"
                            "schemas when the boot image changed, clean up, run upgrade modules on an upgrade boot,\n"
                            "apply what the boot mode selects, remove files without schema and raise recorded\n"
                            "failures. Prints each stage with its duration and what it did. Exit status 1 when the\n"
                            "load failed.",
                            RunLoad});
const cli::Registrar kKitFiles({"kit-files", "kit-files", "files installed packages declare, by category", "", RunKitFiles});
const cli::Registrar kFilterSticky({"filter-sticky", "filter-sticky [FILE...]",
                                    "print the sticky-bit files that may be persisted (others go to the skip list)",
                                    "Reads the candidate files from the arguments, or one per line from standard input.\n"
                                    "Prints those that may be persisted; the refused ones are written to\n"
                                    "/var/run/talvex/files/skip-backup-list.",
                                    RunFilterSticky});
const cli::Registrar kTrackFiles({"track-files", "track-files backup|nonschema FILE...",
                                  "replace the backup list or the list of files without schema", "", RunTrackFiles});

}  // namespace
