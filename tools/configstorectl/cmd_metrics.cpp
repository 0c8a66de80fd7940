// metrics: how much data the store's Config table holds.
#include <cstdio>

#include "configstore/frame/Metrics.h"
#include "tools/configstorectl/Cli.h"

namespace {

// "component,group,key,vital,user,cached": component, group and key names hold no commas.
std::vector<std::string> SplitRow(const std::string& row) {
  std::vector<std::string> fields;
  size_t start = 0;
  for (size_t pos; (pos = row.find(',', start)) != std::string::npos; start = pos + 1) {
    fields.push_back(row.substr(start, pos - start));
  }
  fields.push_back(row.substr(start));
  return fields;
}

int RunMetrics(const cli::Invocation& inv) {
  std::vector<std::string> args = inv.args;
  bool rows = cli::TakeFlag(args, "--rows");
  cli::ExpectNoMoreArgs(args);

  int vital = QorConfigStore::GetVitalConfigSize();
  int user = QorConfigStore::GetUserConfigSize();
  int cached = QorConfigStore::GetCachedConfigSize();
  int count = QorConfigStore::GetConfigRowCount();
  std::vector<std::string> perRow;
  if (rows) perRow = QorConfigStore::GetConfigMetrics();

  if (inv.json) {
    rapidjson::Document d(rapidjson::kObjectType);
    auto& a = d.GetAllocator();
    d.AddMember("vitalSize", vital, a).AddMember("userSize", user, a).AddMember("cachedSize", cached, a);
    d.AddMember("rowCount", count, a);
    if (rows) {
      rapidjson::Value list(rapidjson::kArrayType);
      for (const auto& r : perRow) {
        std::vector<std::string> f = SplitRow(r);
        if (f.size() != 6) continue;
        rapidjson::Value row(rapidjson::kObjectType);
        row.AddMember("component", cli::JsonText(f[0], a), a);
        row.AddMember("group", cli::JsonText(f[1], a), a);
        row.AddMember("key", cli::JsonText(f[2], a), a);
        row.AddMember("vitalSize", static_cast<int64_t>(std::stoll(f[3])), a);
        row.AddMember("userSize", static_cast<int64_t>(std::stoll(f[4])), a);
        row.AddMember("cachedSize", static_cast<int64_t>(std::stoll(f[5])), a);
        list.PushBack(row, a);
      }
      d.AddMember("rows", list, a);
    }
    cli::PrintJson(d);
    return 0;
  }
  std::printf("rows:         %d\nuser bytes:   %d\nvital bytes:  %d\ncached bytes: %d\n", count, user, vital, cached);
  if (rows) {
    char heading[120];
    std::snprintf(heading, sizeof heading, "%-12s %-24s %-28s %8s %8s %8s", "COMPONENT", "GROUP", "KEY", "VITAL",
                  "USER", "CACHED");
    std::printf("\n%s\n", cli::Paint(cli::Style::Bold, heading).c_str());
    for (const auto& r : perRow) {
      std::vector<std::string> f = SplitRow(r);
      if (f.size() != 6) continue;
      for (std::string& field : f) field = cli::Printable(field);
      std::printf("%-12s %-24s %-28s %8s %8s %8s\n", f[0].c_str(), f[1].c_str(), f[2].c_str(), f[3].c_str(),
                  f[4].c_str(), f[5].c_str());
    }
  }
  return 0;
}

const cli::Registrar kMetrics({"metrics", "metrics [--rows]", "sizes of the user, vital and cached values and the row count",
                               "Prints the total bytes of the user, vital and cached values of the store's objects and\n"
                               "the number of objects. --rows adds one line per object with its three sizes.",
                               RunMetrics});

}  // namespace
