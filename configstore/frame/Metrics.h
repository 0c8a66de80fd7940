// Size metrics of the store's Config table, for the host's tools. Read-only; every failure throws.
#pragma once

#include <string>
#include <vector>

namespace QorConfigStore {

// Totals in bytes of the three value columns, and the row count. A table that is empty or whose
// column holds only NULLs has a NULL sum, read as "0": the figure is 0, never an exception.
// A total above 2147483647 throws std::out_of_range ("stoi").
int GetVitalConfigSize();
int GetUserConfigSize();
int GetCachedConfigSize();
int GetConfigRowCount();

// One string per row: "component,group,key,vitalSize,userSize,cachedSize" (NULL sizes as "0").
std::vector<std::string> GetConfigMetrics();

}  // namespace QorConfigStore
