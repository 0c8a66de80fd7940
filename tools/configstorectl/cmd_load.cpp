// load: the boot-time rebuild of the store, with a report of what each stage did.
// last-boot: the report the last load kept.
// kit-files, filter-sticky, track-files: the file lists the backup tools read.
#include <cstdio>
#include <filesystem>
#include <iostream>

#include "configstore/boot/LoadStore.h"
#include "configstore/frame/BootLock.h"
#include "configstore/packages/PackageFiles.h"
#include "platform/host/HostRoot.h"
#include "platform/logging/CSLogger.h"
#include "tools/configstorectl/Cli.h"

namespace {

void PrintReport(const QorConfigStore::BootReport& report) {
  // Whether the store was restored, created or used as it stands is the restore stage's line.
  std::printf("boot load, started %s\n", report.startTime.c_str());
  for (const auto& s : report.stages) {
    std::printf("  %-24s %9.1f ms  %s\n", s.name.c_str(), s.milliseconds, cli::Printable(s.detail).c_str());
  }
  std::printf("  %-24s %9.1f ms  status %d%s\n", "total", report.totalMs, report.status,
              report.status == 0 ? "" : " (failed: see the system alert)");
  if (report.fatal) std::printf("fatal failure: error %d: %s\n", report.fatal->code,
                                 cli::Printable(report.fatal->message).c_str());
  for (const auto& [title, lines] : {std::pair{"recorded boot failures", &report.recordedFailures},
                                     std::pair{"system alerts raised", &report.alerts}}) {
    if (lines->empty()) continue;
    std::printf("%s:\n", title);
    for (const auto& line : *lines) std::printf("  %s\n", cli::Printable(line).c_str());
  }
}

// The load's report in the run-time directory, which every reboot empties, says that a load already
// ran in this boot of the host. Loading again would replace the live store with the backup (or
// re-apply the boot mode to it) and lose what was staged or changed since, so it takes --force.
void RefuseSecondLoad() {
  std::error_code ec;
  const std::string report = Host::Resolve(QorConfigStore::kLastBootReport);
  if (!std::filesystem::exists(report, ec)) return;
  throw QorConfigStore::ConfigStoreException(
      QorConfigStore::CS_ERR_GENERIC,
      "a load already ran in this boot of the host (its report is " + std::string(QorConfigStore::kLastBootReport) +
          "): loading again replaces the live store and loses what was staged or changed since; give --force to "
          "load anyway");
}

int RunLoad(const cli::Invocation& inv) {
  std::vector<std::string> args = inv.args;
  bool restore = !cli::TakeFlag(args, "--no-restore");
  bool force = cli::TakeFlag(args, "--force");
  cli::ExpectNoMoreArgs(args);
  // Checked under the boot lock that the load then holds: of two loads started together, the
  // second waits for the first and then sees its report.
  QorConfigStore::BootLock lock(Host::FileLock::Mode::Exclusive);
  if (!force) RefuseSecondLoad();
  QorConfigStore::BootReport report;
  int status = QorConfigStore::LoadStore(restore, &report);
  if (inv.json) {
    cli::PrintJson(QorConfigStore::BootReportToJson(report));
  } else {
    PrintReport(report);
  }
  if (status == 0) return 0;
  // The report is printed either way; the failure goes to standard error with its own code.
  if (report.fatal) throw QorConfigStore::ConfigStoreException(report.fatal->code, report.fatal->message);
  throw QorConfigStore::ConfigStoreException(QorConfigStore::CS_ERR_GENERIC, "The boot load failed");
}

int RunLastBoot(const cli::Invocation& inv) {
  std::vector<std::string> args = inv.args;
  const std::string nth = cli::TakeArg(args, "N", "");
  cli::ExpectNoMoreArgs(args);
  std::optional<QorConfigStore::BootReport> report;
  if (nth.empty()) {
    report = QorConfigStore::ReadLastBootReport();
  } else {
    if (nth.find_first_not_of("0123456789") != std::string::npos || nth.size() > 4 || std::stoi(nth) < 1) {
      throw cli::UsageError("N must be a boot's number in the list 'boots' gives (1 the newest), not '" +
                            cli::Printable(nth) + "'");
    }
    report = QorConfigStore::ReadBootFromHistory(std::stoi(nth));
  }
  if (!report) {
    throw QorConfigStore::ConfigStoreException(QorConfigStore::CS_ERR_GENERIC,
                                               "No boot report: no load has run on this host since it started");
  }
  if (inv.json) {
    cli::PrintJson(QorConfigStore::BootReportToJson(*report));  // the file's document, read once
  } else {
    PrintReport(*report);
  }
  return 0;
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

constexpr const char* kSkipList = "/var/run/talvex/files/skip-backup-list";

int RunFilterSticky(const cli::Invocation& inv) {
  std::vector<std::string> files = cli::Positionals(inv.args);
  if (files.empty()) {
    for (std::string line; std::getline(std::cin, line);) {
      if (!line.empty()) files.push_back(line);
    }
  }
  // A refused file is the filter's answer, not a failure. The library gives its reasons to the
  // system log as errors; standard error shows them only with -v, and gets one line per refused file.
  const int shown = CSLogger::SetStderrLevel(-1);
  if (shown > CSLogger::PRIO_ERROR) CSLogger::SetStderrLevel(shown);
  std::vector<std::string> kept;
  try {
    kept = QorConfigStore::FilterStickyBitFiles(files);
  } catch (...) {
    CSLogger::SetStderrLevel(shown);
    throw;
  }
  CSLogger::SetStderrLevel(shown);
  if (inv.json) {
    rapidjson::Document d(rapidjson::kArrayType);
    for (const auto& f : kept) d.PushBack(cli::JsonText(f, d.GetAllocator()), d.GetAllocator());
    cli::PrintJson(d);
  } else {
    for (const auto& f : kept) std::printf("%s\n", f.c_str());
  }
  std::fflush(stdout);  // the list, then the refusals, whatever the streams are
  size_t next = 0;      // kept is in input order
  for (const auto& f : files) {
    if (next < kept.size() && kept[next] == f) {
      ++next;
    } else {
      std::fprintf(stderr, "configstorectl filter-sticky: %s: not persisted, listed in %s (the system log says why)\n",
                   cli::Printable(f).c_str(), kSkipList);
    }
  }
  return 0;
}

int RunTrackFiles(const cli::Invocation& inv) {
  std::vector<std::string> args = cli::Positionals(inv.args);
  if (args.empty()) throw cli::UsageError("which list: backup or nonschema");
  QorConfigStore::FileType type;
  if (args[0] == "backup") type = QorConfigStore::FILE_TYPE_BACKUP_LIST;
  else if (args[0] == "nonschema") type = QorConfigStore::FILE_TYPE_NON_SCHEMA_FILES;
  else throw cli::UsageError("unknown list '" + args[0] + "'");
  args.erase(args.begin());
  QorConfigStore::TrackFiles(args, type);
  return 0;
}

const cli::Registrar kLoad({"load", "load [--no-restore] [--force]",
                            "rebuild the store as a boot does, and report each stage",
                            "Runs the boot-time load: restore or create the store (unless --no-restore), register\n"
                            "schemas when the boot image changed, clean up, run upgrade modules on an upgrade boot,\n"
                            "apply what the boot mode selects, remove files without schema and raise recorded\n"
                            "failures. Prints each stage with its duration and what it did. Exit status 1 when the\n"
                            "load failed. Once per boot of the host: a second load (its report is already in\n"
                            "/var/run/talvex/files/last-boot.json) is refused unless --force is given.",
                            RunLoad});
const cli::Registrar kLastBoot(
    {"last-boot", "last-boot [N]", "the report of the last load, or of the Nth newest in the boot history",
     "Prints the report the last load kept in /var/run/talvex/files/last-boot.json, or with N the\n"
     "report of the Nth newest boot of the history 'boots' lists (1 the newest): when it started,\n"
     "whether it restored the store, each stage with its duration and what it did, the status and total\n"
     "time, the recorded boot failures it raised, the fatal failure that ended it early (code and\n"
     "message) and every system alert it raised. --json prints the file's document. Exit status 1 when\n"
     "no load has written a report yet, or the history holds no boot N.",
     RunLastBoot});
const cli::Registrar kKitFiles({"kit-files", "kit-files", "files installed packages declare, by category", "", RunKitFiles});
const cli::Registrar kFilterSticky({"filter-sticky", "filter-sticky [FILE...]",
                                    "print the sticky-bit files that may be persisted (others go to the skip list)",
                                    "Reads the candidate files from the arguments, or one per line from standard input.\n"
                                    "Prints those that may be persisted; the refused ones are written to\n"
                                    "/var/run/talvex/files/skip-backup-list, each with a line on standard error\n"
                                    "(the reasons go to the system log; -v shows them too).",
                                    RunFilterSticky});
const cli::Registrar kTrackFiles({"track-files", "track-files backup|nonschema FILE...",
                                  "replace the backup list or the list of files without schema", "", RunTrackFiles,
                                  /*printsData=*/false});

}  // namespace
