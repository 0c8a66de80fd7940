// Files that installed packages declare for persistence, and the filter of sticky-bit files.
#pragma once

#include <string>
#include <unordered_map>
#include <vector>

namespace QorConfigStore {

// "vital", "cached" and "config" -> the host paths packages declare in that category, in the
// order the schema store lists them. Schema store failures propagate.
std::unordered_map<std::string, std::vector<std::string>> GetKitFiles();

// The candidate sticky-bit files (host paths) that may be persisted, in input order. Declared files
// always may; any other only when the in-memory filesystem maps its persistent copy to an archive of
// a kit that does not restrict sticky files. Refused files are written to
// "/var/run/talvex/files/skip-backup-list". Messages go to the system log. The node tree's
// signature is read once per call, by the first file that needs an archive; when it does not
// match, each such file still logs that and is looked up all the same.
std::vector<std::string> FilterStickyBitFiles(const std::vector<std::string>& files);

// True when the path was declared in any category by an earlier FilterStickyBitFiles of this process.
bool IsDeclaredFile(const std::string& path);

}  // namespace QorConfigStore
