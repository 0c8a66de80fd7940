#include "platform/plon/Plon.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <new>

#include "errors/Json.h"
#include "errors/Printable.h"
#include "platform/host/Files.h"
#include "platform/host/HostRoot.h"
#include "platform/logging/CSLogger.h"
#include "platform/plon/PlonNodes.h"

namespace Plon {
namespace {

constexpr NodeDef kNodes[] = {
    {"/system/bootCmdLine", PLON_NODE_system_bootCmdLine, 0, ArgKind::None, 4096},
    {"/system/bootOption", PLON_NODE_system_bootOption, 0, ArgKind::None, 4},
    {"/system/bootMAC", PLON_NODE_system_bootMAC, 0, ArgKind::None, 21},
    {"/system/bootFsUUID", PLON_NODE_system_bootFsUUID, 0, ArgKind::None, 38},
    {"/system/sysAlert", PLON_NODE_system_sysAlert, 0, ArgKind::None, 0},
    {"/system/lumafs/ramdisks/%/memUsageLimit", PLON_NODE_system_lumafs_ramdisks_memUsageLimit, 1,
     ArgKind::String, 0},
    // The name of the archive holding the inode is NUL-terminated text from byte 36 of the record.
    {"/system/lumafs/inodes/%/stats", PLON_NODE_system_lumafs_inodes_stats, 1, ArgKind::Int, 256},
};

constexpr const char* kTreeRoot = "/sys/plon";
constexpr const char* kAlertLog = "/var/log/sysalerts.jsonl";

}  // namespace

std::span<const NodeDef> Nodes() { return kNodes; }

const NodeDef* FindNode(PLON_NodeId id) {
  for (const NodeDef& def : kNodes) {
    if (def.id == id) return &def;
  }
  return nullptr;
}

std::vector<std::string_view> SplitPath(std::string_view path) {
  std::vector<std::string_view> elements;
  if (path.empty() || path.front() != '/') return {std::string_view()};
  path.remove_prefix(1);
  for (;;) {
    auto slash = path.find('/');
    elements.push_back(path.substr(0, slash));
    if (slash == std::string_view::npos) break;
    path.remove_prefix(slash + 1);
  }
  return elements;
}

bool IsSafeElement(std::string_view element) {
  return !element.empty() && element.size() <= 255 && element != "." &&
         element.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos &&
         element.find("..") == std::string_view::npos;
}

std::string ParamText(const PlonParam& param) {
  if (const auto* text = std::get_if<std::string>(&param)) return *text;
  return std::to_string(std::get<int64_t>(param));
}

}  // namespace Plon

namespace {

using Plon::ArgKind;
using Plon::NodeDef;

// The public functions promise not to throw; an allocation failure or a failed JSON assertion
// becomes a status instead.
template <typename F>
NUK_ReturnStatus NoThrow(F&& body) {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return NUK_NO_MEMORY;
  } catch (...) {
    return NUK_IO_ERROR;
  }
}

// Checks the instance arguments against the node's definition and gives the resolved node file.
NUK_ReturnStatus NodeFile(const NodeDef& def, const PLON_ParamList* args, std::string* file) {
  size_t count = args ? args->params.size() : 0;
  if (count != static_cast<size_t>(def.instanceArgs)) return NUK_BAD_PARAM;
  std::string path = Plon::kTreeRoot;
  size_t next = 0;
  for (std::string_view element : Plon::SplitPath(def.pattern)) {
    path += '/';
    if (element != "%") {
      path += element;
      continue;
    }
    const PlonParam& arg = args->params[next++];
    const auto* text = std::get_if<std::string>(&arg);
    const auto* number = std::get_if<int64_t>(&arg);
    bool ok = def.argKind == ArgKind::String ? text && Plon::IsSafeElement(*text) : number && *number >= 0;
    if (!ok) return NUK_BAD_PARAM;
    path += Plon::ParamText(arg);
  }
  *file = Host::Resolve(path);
  return NUK_OK;
}

// Replaces the whole of a regular file (anything else is refused), creating its directory.
bool WriteWholeFile(const std::string& resolvedPath, const std::string& content) {
  if (!Host::MakeParentDirs(resolvedPath)) return false;
  int fd = Host::OpenRegularFile(resolvedPath, O_WRONLY | O_CREAT | O_TRUNC);
  if (fd < 0) return false;
  size_t done = 0;
  while (done < content.size()) {
    ssize_t n = ::write(fd, content.data() + done, content.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  return ::close(fd) == 0 && done == content.size();
}

// The alert log is JSON, so bytes that are not UTF-8 (a message cut inside a character, say)
// become U+FFFD; well-formed text passes unchanged.
std::string ValidUtf8(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    size_t n = QorConfigStore::Utf8Length(text, i);
    if (n == 0) {
      out += "\xEF\xBF\xBD";
      n = 1;
    } else {
      out.append(text.substr(i, n));
    }
    i += n;
  }
  return out;
}

NUK_ReturnStatus RaiseAlert(const PLON_ParamList* args, const PLON_ParamList* input) {
  if ((args && !args->params.empty()) || !input || input->params.size() != 1) return NUK_BAD_PARAM;
  const auto* message = std::get_if<std::string>(&input->params[0]);
  if (!message) return NUK_BAD_PARAM;
  std::string text = ValidUtf8(*message);

  rapidjson::StringBuffer buf;
  rapidjson::Writer<rapidjson::StringBuffer> w(buf);
  w.StartObject();
  w.Key("time");
  w.Int64(std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
              .count());
  w.Key("message");
  w.String(text.c_str(), static_cast<rapidjson::SizeType>(text.size()));
  w.EndObject();
  if (!Host::IsSandbox()) CSLogger::SystemLog(CSLogger::PRIO_ERROR, "%s", text.c_str());
  return Host::AppendLine(Host::Resolve(Plon::kAlertLog), buf.GetString()) ? NUK_OK : NUK_IO_ERROR;
}

NUK_ReturnStatus SetUsageLimits(const NodeDef& def, const PLON_ParamList* args, const PLON_ParamList* input) {
  std::string file;
  if (NUK_ReturnStatus status = NodeFile(def, args, &file); status != NUK_OK) return status;
  if (!input || input->params.size() != 2) return NUK_BAD_PARAM;
  const auto* warning = std::get_if<int64_t>(&input->params[0]);
  const auto* error = std::get_if<int64_t>(&input->params[1]);
  // Per cent of the ramdisk's maximum size; the warning comes no later than the error.
  if (!warning || !error || *warning < 0 || *warning > *error || *error > 100) return NUK_BAD_PARAM;
  return WriteWholeFile(file, std::to_string(*warning) + " " + std::to_string(*error) + "\n") ? NUK_OK
                                                                                              : NUK_IO_ERROR;
}

}  // namespace

const char* NUK_ReturnStatusToString(NUK_ReturnStatus status) {
  switch (status) {
    case NUK_OK: return "NUK_OK";
    case NUK_NOT_FOUND: return "NUK_NOT_FOUND";
    case NUK_BAD_PARAM: return "NUK_BAD_PARAM";
    case NUK_NO_MEMORY: return "NUK_NO_MEMORY";
    case NUK_IO_ERROR: return "NUK_IO_ERROR";
    case NUK_SIGNATURE_MISMATCH: return "NUK_SIGNATURE_MISMATCH";
    case NUK_NOT_SUPPORTED: return "NUK_NOT_SUPPORTED";
    case NUK_LIMIT_EXCEEDED: return "NUK_LIMIT_EXCEEDED";
  }
  return "NUK_UNKNOWN_STATUS";
}

PLON_ParamList* PLON_ParamListCreate(int capacity) {
  if (capacity < 0) return nullptr;
  auto* list = new (std::nothrow) PLON_ParamList;
  if (list) list->capacity = capacity;
  return list;
}

namespace {

// The value is constructed in place: moving a whole variant trips GCC 12's -Wmaybe-uninitialized
// at -O3 (a false positive about the alternative that is not held).
template <typename T>
NUK_ReturnStatus AddParam(PLON_ParamList* list, T&& value) {
  if (!list) return NUK_BAD_PARAM;
  if (list->params.size() >= static_cast<size_t>(list->capacity)) return NUK_LIMIT_EXCEEDED;
  list->params.emplace_back(std::forward<T>(value));
  return NUK_OK;
}

}  // namespace

NUK_ReturnStatus PLON_ParamListAddString(PLON_ParamList* list, const char* value) {
  if (!value) return NUK_BAD_PARAM;
  return NoThrow([&] { return AddParam(list, std::string(value)); });
}

NUK_ReturnStatus PLON_ParamListAddInt(PLON_ParamList* list, int64_t value) {
  return NoThrow([&] { return AddParam(list, value); });
}

void PLON_ParamListDestroy(PLON_ParamList* list) { delete list; }

int PLON_ParamListCount(const PLON_ParamList* list) { return list ? static_cast<int>(list->params.size()) : 0; }

std::string PLON_ParamListGetString(const PLON_ParamList* list, int index) {
  if (!list || index < 0 || static_cast<size_t>(index) >= list->params.size()) return "";
  try {
    return Plon::ParamText(list->params[static_cast<size_t>(index)]);
  } catch (...) {
    return "";
  }
}

NUK_ReturnStatus PLON_Get(PLON_NodeId node, const PLON_ParamList* instanceArgs, void* buffer, size_t size) {
  return NoThrow([&] {
    const NodeDef* def = Plon::FindNode(node);
    if (!def || (!buffer && size > 0)) return NUK_BAD_PARAM;
    if (def->outputSize == 0) return NUK_NOT_SUPPORTED;
    std::string file;
    if (NUK_ReturnStatus status = NodeFile(*def, instanceArgs, &file); status != NUK_OK) return status;
    // A node that is not a regular file (a FIFO would block the reader) is an I/O error.
    int fd = Host::OpenRegularFile(file);
    if (fd < 0) return errno == ENOENT || errno == ENOTDIR ? NUK_NOT_FOUND : NUK_IO_ERROR;
    auto* out = static_cast<char*>(buffer);
    size_t done = 0;
    NUK_ReturnStatus status = NUK_OK;
    while (done < size) {
      ssize_t n = ::read(fd, out + done, size - done);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) status = NUK_IO_ERROR;
      if (n <= 0) break;
      done += static_cast<size_t>(n);
    }
    ::close(fd);
    return status;
  });
}

NUK_ReturnStatus PLON_Set(PLON_NodeId node, const PLON_ParamList* instanceArgs, const PLON_ParamList* input) {
  return NoThrow([&] {
    const NodeDef* def = Plon::FindNode(node);
    if (!def) return NUK_BAD_PARAM;
    switch (node) {
      case PLON_NODE_system_sysAlert: return RaiseAlert(instanceArgs, input);
      case PLON_NODE_system_lumafs_ramdisks_memUsageLimit: return SetUsageLimits(*def, instanceArgs, input);
      default: return NUK_NOT_SUPPORTED;
    }
  });
}

NUK_ReturnStatus PLON_CheckSig() {
  return NoThrow([] {
    std::string content;
    if (!Host::ReadFile(Host::Resolve(std::string(Plon::kTreeRoot) + "/.signature"), &content)) {
      return NUK_SIGNATURE_MISMATCH;
    }
    if (!content.empty() && content.back() == '\n') content.pop_back();
    return content == kPlonSignature ? NUK_OK : NUK_SIGNATURE_MISMATCH;
  });
}

NUK_ReturnStatus PLON_LookupOutputTypeOfGet(PLON_NodeId node, PLON_Type** type) {
  if (!type) return NUK_BAD_PARAM;
  *type = nullptr;
  const NodeDef* def = Plon::FindNode(node);
  if (!def) return NUK_BAD_PARAM;
  if (def->outputSize == 0) return NUK_NOT_SUPPORTED;
  *type = new (std::nothrow) PLON_Type{def->outputSize};
  return *type ? NUK_OK : NUK_NO_MEMORY;
}

void PLON_ReleaseType(PLON_Type* type) { delete type; }

bool PLON_WriteNodeFile(const std::string& nodePath, const std::string& content) {
  try {
    for (std::string_view element : Plon::SplitPath(nodePath)) {
      if (!Plon::IsSafeElement(element)) return false;
    }
    return WriteWholeFile(Host::Resolve(Plon::kTreeRoot + nodePath), content);
  } catch (...) {
    return false;
  }
}

bool PLON_WriteSignature() { return PLON_WriteNodeFile("/.signature", std::string(kPlonSignature) + "\n"); }
