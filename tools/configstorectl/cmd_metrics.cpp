// metrics: how much data the store's Config table holds.
#include <cstdio>
#include <stdexcept>
#include <string>

#include "configstore/frame/Metrics.h"
#include "tools/configstorectl/Cli.h"

namespace {

// One total; a total past the 32-bit range the library reports in is named, not left as "stoi".
int Total(const char* figure, int (*query)()) {
  try {
    return query();
  } catch (const std::out_of_range& e) {
    throw std::runtime_error(std::string(figure) + ": the total is beyond 2147483647 (" + e.what() + ")");
  }
}

int RunMetrics(const cli::Invocation& inv) {
  std::vector<std::string> args = inv.args;
  bool rows = cli::TakeFlag(args, "--rows");
  cli::ExpectNoMoreArgs(args);

  int vital = Total("vital characters", QorConfigStore::GetVitalConfigSize);
  int user = Total("user characters", QorConfigStore::GetUserConfigSize);
  int cached = Total("cached characters", QorConfigStore::GetCachedConfigSize);
  int count = Total("rows", QorConfigStore::GetConfigRowCount);
  std::vector<QorConfigStore::ConfigMetricsRow> perRow;
  if (rows) perRow = QorConfigStore::GetConfigMetricsRows();

  if (inv.json) {
    rapidjson::Document d(rapidjson::kObjectType);
    auto& a = d.GetAllocator();
    d.AddMember("vitalSize", vital, a).AddMember("userSize", user, a).AddMember("cachedSize", cached, a);
    d.AddMember("rowCount", count, a);
    if (rows) {
      rapidjson::Value list(rapidjson::kArrayType);
      for (const auto& r : perRow) {
        rapidjson::Value row(rapidjson::kObjectType);
        row.AddMember("component", cli::JsonText(r.component, a), a);
        row.AddMember("group", cli::JsonText(r.group, a), a);
        row.AddMember("key", cli::JsonText(r.key, a), a);
        row.AddMember("vitalSize", r.vitalSize, a).AddMember("userSize", r.userSize, a);
        row.AddMember("cachedSize", r.cachedSize, a);
        list.PushBack(row, a);
      }
      d.AddMember("rows", list, a);
    }
    cli::PrintJson(d);
    return 0;
  }
  std::printf("rows:              %d\nuser characters:   %d\nvital characters:  %d\ncached characters: %d\n", count,
              user, vital, cached);
  if (rows) {
    std::vector<std::vector<std::string>> cells;
    for (const auto& r : perRow) {
      cells.push_back({r.component, r.group, r.key, std::to_string(r.vitalSize), std::to_string(r.userSize),
                       std::to_string(r.cachedSize)});
    }
    std::printf("\n");
    cli::PrintTable({"COMPONENT", "GROUP", "KEY", "VITAL", "USER", "CACHED"}, cells);
  }
  return 0;
}

const cli::Registrar kMetrics(
    {"metrics", "metrics [--rows]", "sizes of the user, vital and cached values and the row count",
     "Prints the total size of the user, vital and cached values of the store's objects and the\n"
     "number of objects. Sizes are SQL's LENGTH: characters of text (\"ééé\" is 3), not bytes.\n"
     "--rows adds one line per object (component, group, key and its three sizes), every object\n"
     "whatever its names hold. A total beyond 2147483647 fails, naming the total.",
     RunMetrics});

}  // namespace
