#include "configstore/packages/PackageFiles.h"

#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <unordered_set>

#include "platform/host/HostRoot.h"
#include "platform/image/QorImage.h"
#include "platform/logging/CSLogger.h"
#include "platform/plon/Plon.h"
#include "platform/schemastore/SchemaStore.h"

namespace QorConfigStore {
namespace {

const char* const kCategories[] = {"vital", "cached", "config"};
const char* kSkipListFile = "/var/run/talvex/files/skip-backup-list";
const char* kInodeNodeRoot = "/system/lumafs/inodes";
constexpr size_t kArchiveNameOffset = 36;

// Declared files by category: process-wide and only ever added to, as the backup flow expects.
std::unordered_map<std::string, std::unordered_set<std::string>>& DeclaredFiles() {
  static std::unordered_map<std::string, std::unordered_set<std::string>> sets;
  return sets;
}

// Calls `visit(category, path)` for each declared file entry of the schema store.
template <typename Visit>
void ForEachDeclaredFile(Visit visit) {
  auto store = QorSchemaStore::SchemaStore::GetStore(false);
  for (const auto& object : store->GetSchemaObjects("files")) {
    bool isFile = false;
    std::string category, path;
    if (object->IsFileEntry(&isFile) != 0 || !isFile) continue;
    if (object->GetFileCategory(&category) != 0 || object->GetFilePath(&path) != 0) continue;
    visit(category, path);
  }
}

bool IsCategory(const std::string& category) {
  for (const char* c : kCategories) {
    if (category == c) return true;
  }
  return false;
}

// A host path as seen from inside the host root: "<root>/etc/x" -> "/etc/x".
std::string ToHostPath(const std::string& resolved) {
  const std::string& root = Host::Root();
  if (!root.empty() && resolved.compare(0, root.size(), root) == 0) {
    return resolved.size() == root.size() ? "/" : resolved.substr(root.size());
  }
  return resolved;
}

bool HasSymlinkOnPath(std::string path) {
  while (!path.empty()) {
    struct stat st{};
    if (lstat(Host::Resolve(path).c_str(), &st) == 0 && S_ISLNK(st.st_mode)) return true;
    path.erase(std::min(path.size(), path.find_last_of('/')));
  }
  return false;
}

bool ResolvesToDeclaredFile(const std::string& path) {
  char buffer[PATH_MAX];
  if (realpath(Host::Resolve(path).c_str(), buffer) == nullptr) return false;
  return IsDeclaredFile(ToHostPath(buffer));
}

std::string ShadowName(const std::string& path) {
  auto slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".#" + path;
  return path.substr(0, slash) + "/.#" + path.substr(slash + 1);
}

// The archive the in-memory filesystem maps an inode to; "" when none can be had.
std::string ArchiveOfInode(unsigned long inode) {
  char nodePath[128];
  std::snprintf(nodePath, sizeof nodePath, "%s/%lu/%s", kInodeNodeRoot, inode, "stats");
  PLONSHPath* path = nullptr;
  if (PLONSHPath_Form(nodePath, &path) != NUK_OK) return "";
  std::unique_ptr<PLONSHPath, decltype(&PLONSHPath_Delete)> pathOwner(path, &PLONSHPath_Delete);
  PLON_NodeId node = PLON_NODE_INVALID;
  size_t size = 0;
  if (PLONSHPath_GetLeafElement(path, &node, &size) != NUK_OK || size <= kArchiveNameOffset) return "";
  PLON_ParamList* args = nullptr;
  if (PLONSHPath_GetInstArgs(path, &args) != NUK_OK) return "";
  std::unique_ptr<PLON_ParamList, decltype(&PLON_ParamListDestroy)> argsOwner(args, &PLON_ParamListDestroy);
  PLON_Type* type = nullptr;
  if (PLON_LookupOutputTypeOfGet(node, &type) != NUK_OK) return "";
  PLON_ReleaseType(type);
  std::vector<char> record(size + 1, '\0');
  if (PLON_Get(node, args, record.data(), size) != NUK_OK) return "";
  return std::string(record.data() + kArchiveNameOffset);  // NUL-terminated within the record
}

bool InAllowedArchive(const std::string& path, const std::unordered_set<std::string>& allowed) {
  struct stat st{};
  if (stat(Host::Resolve(ShadowName(path)).c_str(), &st) != 0) {
    CSLogger::SystemLog(CSLogger::PRIO_ERROR, "File stat(%s) failed with error %d", path.c_str(), errno);
    return false;
  }
  if (PLON_CheckSig() != NUK_OK) CSLogger::SystemLog(CSLogger::PRIO_ERROR, "Failed to init plon");
  std::string archive = ArchiveOfInode(static_cast<unsigned long>(st.st_ino));
  if (archive.empty()) {
    CSLogger::SystemLog(CSLogger::PRIO_ERROR,
                        "File %s cannot be mapped to an archive, hence it should not be persisted.", path.c_str());
    return false;
  }
  if (allowed.count(archive) != 0) return true;
  CSLogger::SystemLog(CSLogger::PRIO_ERROR,
                      "File %s in archive %s does not belong to kit which allows persistence of sticky bit files",
                      path.c_str(), archive.c_str());
  return false;
}

bool MayPersist(const std::string& path, const std::unordered_set<std::string>& allowed) {
  if (path.rfind("/opt", 0) == 0 && path.find("vital") != std::string::npos) {
    return DeclaredFiles()["vital"].count(path) != 0 || InAllowedArchive(path, allowed);
  }
  if (IsDeclaredFile(path)) return true;
  if (HasSymlinkOnPath(path) && ResolvesToDeclaredFile(path)) return true;
  return InAllowedArchive(path, allowed);
}

}  // namespace

bool IsDeclaredFile(const std::string& path) {
  for (const char* category : kCategories) {
    if (DeclaredFiles()[category].count(path) != 0) return true;
  }
  return false;
}

std::unordered_map<std::string, std::vector<std::string>> GetKitFiles() {
  std::unordered_map<std::string, std::vector<std::string>> files;
  for (const char* category : kCategories) files[category];
  ForEachDeclaredFile([&](const std::string& category, const std::string& path) {
    if (IsCategory(category)) files[category].push_back(path);
  });
  return files;
}

std::vector<std::string> FilterStickyBitFiles(const std::vector<std::string>& files) {
  ForEachDeclaredFile([](const std::string& category, const std::string& path) {
    if (IsCategory(category)) DeclaredFiles()[category].insert(path);
  });
  std::unordered_set<std::string> allowed;
  auto image = QorImage::QorImage::GetQorImage();
  for (const auto& package : image->GetPackages()) {
    if (package.HasTag(QorImage::kRestrictStickyFilesTag)) continue;
    allowed.insert(package.archives.begin(), package.archives.end());
  }

  std::vector<std::string> kept, skipped;
  kept.reserve(files.size());
  for (const std::string& path : files) {
    if (MayPersist(path, allowed)) {
      kept.push_back(path);
    } else {
      CSLogger::SystemLog(CSLogger::PRIO_ERROR, "File %s will not be persisted.", path.c_str());
      skipped.push_back(path);
    }
  }
  if (!skipped.empty()) {
    std::string list = Host::Resolve(kSkipListFile);
    Host::MakeDirs(list.substr(0, list.find_last_of('/')));
    std::ofstream out(list, std::ios::trunc);
    for (const auto& path : skipped) out << path << '\n';
  }
  return kept;
}

}  // namespace QorConfigStore
