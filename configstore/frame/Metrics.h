// Size metrics of the store's Config table, for the host's tools. Read-only; every failure throws.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace QorConfigStore {

// Totals of the three value columns as SQL's LENGTH counts them (characters of text: "ééé" is 3),
// and the row count. A table that is empty or whose column holds only NULLs has a NULL sum, read
// as "0": the figure is 0, never an exception. A total above 2147483647 throws std::out_of_range
// ("stoi").
int GetVitalConfigSize();
int GetUserConfigSize();
int GetCachedConfigSize();
int GetConfigRowCount();

// One object's names and sizes, sizes counted as the totals are; a NULL column reads as "0" or 0.
struct ConfigMetricsRow {
  std::string component, group, key;
  int64_t vitalSize = 0, userSize = 0, cachedSize = 0;
};

// Every row of Config, in the table's own order, with its names as stored.
std::vector<ConfigMetricsRow> GetConfigMetricsRows();

// The same rows joined: "component,group,key,vitalSize,userSize,cachedSize", unquoted, so a name
// holding a comma cannot be split back; tools read GetConfigMetricsRows instead.
std::vector<std::string> GetConfigMetrics();

}  // namespace QorConfigStore
