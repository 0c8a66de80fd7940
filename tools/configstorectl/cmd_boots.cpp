// boots: the boot history, one line per kept load report.
#include <cstdio>

#include "configstore/boot/LoadStore.h"
#include "tools/configstorectl/Cli.h"

namespace {

using namespace QorConfigStore;

int RunBoots(const cli::Invocation& inv) {
  cli::ExpectNoMoreArgs(inv.args);
  std::vector<BootHistoryEntry> history = ReadBootHistory();
  rapidjson::Document d(rapidjson::kObjectType);
  auto& a = d.GetAllocator();
  rapidjson::Value boots(rapidjson::kArrayType), unreadable(rapidjson::kArrayType);
  std::vector<std::vector<std::string>> rows;
  int nth = 0;
  for (const BootHistoryEntry& entry : history) {
    ++nth;  // an unreadable file keeps its place: 'last-boot N' counts files
    if (!entry.report) {
      // Reported and skipped: one bad file must not hide the others.
      std::fprintf(stderr, "configstorectl boots: skipped %s: %s\n", cli::Printable(entry.file).c_str(),
                   cli::Printable(entry.error).c_str());
      rapidjson::Value bad(rapidjson::kObjectType);
      bad.AddMember("n", nth, a).AddMember("file", cli::JsonText(entry.file, a), a);
      bad.AddMember("error", cli::JsonText(entry.error, a), a);
      unreadable.PushBack(bad, a);
      continue;
    }
    const BootReport& r = *entry.report;
    const std::optional<int> mode = BootModeOf(r);
    const std::string kind = BootKindOf(r);
    rapidjson::Value boot(rapidjson::kObjectType);
    boot.AddMember("n", nth, a).AddMember("file", cli::JsonText(entry.file, a), a);
    boot.AddMember("startTime", cli::JsonText(r.startTime, a), a).AddMember("kind", cli::JsonText(kind, a), a);
    boot.AddMember("bootMode", mode ? rapidjson::Value(*mode) : rapidjson::Value(), a);
    boot.AddMember("status", r.status, a).AddMember("totalMs", r.totalMs, a);
    boot.AddMember("alerts", static_cast<unsigned>(r.alerts.size()), a);
    boots.PushBack(boot, a);
    char ms[32];
    std::snprintf(ms, sizeof ms, "%.1f ms", r.totalMs);
    rows.push_back({std::to_string(nth), r.startTime, kind.empty() ? "-" : kind, mode ? std::to_string(*mode) : "-",
                    r.status == 0 ? cli::Paint(cli::Style::Green, "ok") : cli::Paint(cli::Style::Red, "failed"), ms,
                    std::to_string(r.alerts.size())});
  }
  if (inv.json) {
    d.AddMember("boots", boots, a).AddMember("unreadable", unreadable, a);
    cli::PrintJson(d);
  } else if (history.empty()) {
    std::printf("no boot in the history (%s)\n", kBootHistoryDir);
  } else {
    cli::PrintTable({"N", "STARTED", "KIND", "MODE", "STATUS", "DURATION", "ALERTS"}, rows);
  }
  return 0;
}

const cli::Registrar kBoots(
    {"boots", "boots", "the boot history: one line per kept load report, newest first",
     "Lists the reports the last loads kept in /var/run/talvex/files/boot-history (the last 10 unless\n"
     "the load's TALVEX_BOOT_HISTORY says otherwise), newest first: N (what 'last-boot N' takes),\n"
     "the start time (UTC), the kind of boot (restored, new store, or as it stands without restore;\n"
     "', upgrade' on an upgrade boot), the boot mode applied, the status, the duration and the number\n"
     "of system alerts raised. A file that cannot be read is named on standard error and skipped.\n"
     "--json: {\"boots\": [{\"n\", \"file\", \"startTime\", \"kind\", \"bootMode\", \"status\", \"totalMs\",\n"
     "\"alerts\"}], \"unreadable\": [{\"n\", \"file\", \"error\"}]}.",
     RunBoots});

}  // namespace
