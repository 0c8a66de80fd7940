#include "configstore/packages/PackageFiles.h"

#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <unordered_set>

#include "platform/host/Files.h"
#include "platform/host/HostRoot.h"
#include "platform/image/QorImage.h"
#include "platform/logging/CSLogger.h"
#include "platform/plon/Plon.h"
#include "platform/schemastore/SchemaStore.h"

namespace QorConfigStore {
namespace {

const char* const kCategories[] = {"vital", "cached", "config"};
const char* kSkipListFile = "/var/run/talvex/files/skip-backup-list";
constexpr size_t kArchiveNameOffset = 36;

// SYSTEM-AS-IS: declared files by category are process-wide and only ever added to (never
// emptied, whatever the host root), as the single boot or backup flow that calls the filter expects.
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

// What the archive check of undeclared files needs, worked out once per FilterStickyBitFiles.
struct ArchiveCheck {
  std::unordered_set<std::string> allowed;  // archives of kits that do not restrict sticky files
  std::optional<bool> signatureOk;          // the node tree's signature, read by the first check
  size_t recordSize = 0;                    // of the inode stats node; 0 when it cannot be read
};

size_t InodeRecordSize() {
  PLON_Type* type = nullptr;
  if (PLON_LookupOutputTypeOfGet(PLON_NODE_system_lumafs_inodes_stats, &type) != NUK_OK) return 0;
  size_t size = type->size;
  PLON_ReleaseType(type);
  return size;
}

// The archive the in-memory filesystem maps an inode to; "" when none can be had.
std::string ArchiveOfInode(unsigned long inode, size_t recordSize) {
  // The node takes the inode number as its instance argument (".../inodes/<ino>/stats").
  if (recordSize <= kArchiveNameOffset || inode > static_cast<unsigned long>(INT64_MAX)) return "";
  std::unique_ptr<PLON_ParamList, decltype(&PLON_ParamListDestroy)> args(PLON_ParamListCreate(1),
                                                                          &PLON_ParamListDestroy);
  if (!args || PLON_ParamListAddInt(args.get(), static_cast<int64_t>(inode)) != NUK_OK) return "";
  std::string record(recordSize + 1, '\0');
  if (PLON_Get(PLON_NODE_system_lumafs_inodes_stats, args.get(), record.data(), recordSize) != NUK_OK) return "";
  return std::string(record.c_str() + kArchiveNameOffset);  // NUL-terminated within the record
}

bool InAllowedArchive(const std::string& path, ArchiveCheck& check) {
  struct stat st{};
  if (stat(Host::Resolve(ShadowName(path)).c_str(), &st) != 0) {
    CSLogger::SystemLog(CSLogger::PRIO_ERROR, "File stat(%s) failed with error %d", path.c_str(), errno);
    return false;
  }
  if (!check.signatureOk) check.signatureOk = PLON_CheckSig() == NUK_OK;
  if (!*check.signatureOk) CSLogger::SystemLog(CSLogger::PRIO_ERROR, "Failed to init plon");
  std::string archive = ArchiveOfInode(static_cast<unsigned long>(st.st_ino), check.recordSize);
  if (archive.empty()) {
    CSLogger::SystemLog(CSLogger::PRIO_ERROR,
                        "File %s cannot be mapped to an archive, hence it should not be persisted.", path.c_str());
    return false;
  }
  if (check.allowed.count(archive) != 0) return true;
  CSLogger::SystemLog(CSLogger::PRIO_ERROR,
                      "File %s in archive %s does not belong to kit which allows persistence of sticky bit files",
                      path.c_str(), archive.c_str());
  return false;
}

bool MayPersist(const std::string& path, ArchiveCheck& check) {
  if (path.rfind("/opt", 0) == 0 && path.find("vital") != std::string::npos) {
    return DeclaredFiles()["vital"].count(path) != 0 || InAllowedArchive(path, check);
  }
  if (IsDeclaredFile(path)) return true;
  if (HasSymlinkOnPath(path) && ResolvesToDeclaredFile(path)) return true;
  return InAllowedArchive(path, check);
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
  ArchiveCheck check;
  auto image = QorImage::QorImage::GetQorImage();
  for (const auto& package : image->GetPackages()) {
    if (package.HasTag(QorImage::kRestrictStickyFilesTag)) continue;
    check.allowed.insert(package.archives.begin(), package.archives.end());
  }
  check.recordSize = InodeRecordSize();

  std::vector<std::string> kept, skipped;
  kept.reserve(files.size());
  for (const std::string& path : files) {
    if (MayPersist(path, check)) {
      kept.push_back(path);
    } else {
      CSLogger::SystemLog(CSLogger::PRIO_ERROR, "File %s will not be persisted.", path.c_str());
      skipped.push_back(path);
    }
  }
  if (!skipped.empty()) {
    std::string text, error;
    for (const auto& path : skipped) text += path + '\n';
    if (!Host::WriteFileAtomically(Host::Resolve(kSkipListFile), text, &error)) {
      CSLogger::SystemLog(CSLogger::PRIO_ERROR, "%s", error.c_str());
    }
  }
  return kept;
}

}  // namespace QorConfigStore
