#include "tools/plonsh/PlonCommands.h"

#include <limits.h>
#include <sys/stat.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <memory>
#include <set>

#include "platform/host/HostRoot.h"
#include "platform/plon/Plon.h"

namespace plonsh {
namespace {

constexpr const char* kHelp =
    "ls [PATH]               list a directory of the node tree\n"
    "cd PATH                 change the current directory\n"
    "pwd                     show the current directory\n"
    "get PATH [INSTANCE...]  read a node (text, or a hex dump of a binary record)\n"
    "set PATH VALUE...       set /system/sysAlert MESSAGE... or\n"
    "                        .../ramdisks/NAME/memUsageLimit WARNING ERROR\n"
    "help                    this text\n"
    "quit                    leave";

struct PathDeleter {
  void operator()(PLONSHPath* path) const { PLONSHPath_Delete(path); }
};
struct ListDeleter {
  void operator()(PLON_ParamList* list) const { PLON_ParamListDestroy(list); }
};
using PathPtr = std::unique_ptr<PLONSHPath, PathDeleter>;
using ListPtr = std::unique_ptr<PLON_ParamList, ListDeleter>;

Reply Ok(std::string text) { return {true, std::move(text), false}; }
Reply Error(std::string text) { return {false, std::move(text), false}; }

// Blank-separated words; quotes group. False for an unterminated quote.
bool SplitWords(std::string_view line, std::vector<std::string>* words) {
  words->clear();
  std::string word;
  bool inWord = false;
  char quote = 0;
  for (char c : line) {
    if (quote) {
      if (c == quote) {
        quote = 0;
      } else {
        word += c;
      }
    } else if (c == '\'' || c == '"') {
      quote = c;
      inWord = true;
    } else if (c == ' ' || c == '\t' || c == '\r' || c == '\n') {
      if (inWord) words->push_back(std::move(word));
      word.clear();
      inWord = false;
    } else {
      word += c;
      inWord = true;
    }
  }
  if (inWord) words->push_back(std::move(word));
  return quote == 0;
}

std::vector<std::string> Elements(std::string_view nodePath) {
  std::vector<std::string> out;
  size_t start = 0;
  while (start <= nodePath.size()) {
    size_t slash = nodePath.find('/', start);
    if (slash == std::string_view::npos) slash = nodePath.size();
    if (slash > start) out.emplace_back(nodePath.substr(start, slash - start));
    start = slash + 1;
  }
  return out;
}

std::string JoinPath(const std::vector<std::string>& elements) {
  std::string out;
  for (const auto& e : elements) out += "/" + e;
  return out.empty() ? "/" : out;
}

// The absolute node path `text` names from `cwd`; false (with the reason) for "..".
bool NormalizePath(const std::string& cwd, std::string_view text, std::string* out, std::string* error) {
  std::vector<std::string> elements;
  if (text.empty() || text.front() != '/') elements = Elements(cwd);
  for (std::string& e : Elements(text)) {
    if (e == "..") {
      *error = "'..' is not allowed in node paths: " + std::string(text);
      return false;
    }
    if (e != ".") elements.push_back(std::move(e));
  }
  *out = JoinPath(elements);
  return true;
}

std::string TreeDir() { return Host::Resolve("/sys/plon"); }
std::string HostPathOf(const std::string& nodePath) { return TreeDir() + (nodePath == "/" ? "" : nodePath); }

std::string RealPath(const std::string& path) {
  char buf[PATH_MAX];
  return ::realpath(path.c_str(), buf) ? std::string(buf) : std::string();
}

enum class Where { Dir, File, Missing, Outside };

// Where the node path's file is, symbolic links followed. When it does not exist, its nearest
// existing ancestor decides: a write there (ramdisk limits) must not leave the tree either.
// A dangling symbolic link cannot be checked and counts as outside.
Where Locate(const std::string& nodePath) {
  std::string tree = RealPath(TreeDir());
  if (tree.empty()) return Where::Missing;
  std::vector<std::string> elements = Elements(nodePath);
  for (size_t keep = elements.size() + 1; keep-- > 0;) {
    std::string host = HostPathOf(JoinPath({elements.begin(), elements.begin() + static_cast<long>(keep)}));
    struct stat st;
    if (::lstat(host.c_str(), &st) != 0) {
      if (errno == ENOENT || errno == ENOTDIR) continue;
      return Where::Outside;
    }
    std::string real = RealPath(host);
    if (real.empty() || (real != tree && real.compare(0, tree.size() + 1, tree + "/") != 0)) return Where::Outside;
    if (keep < elements.size()) return Where::Missing;
    return ::stat(host.c_str(), &st) == 0 && S_ISDIR(st.st_mode) ? Where::Dir : Where::File;
  }
  return Where::Missing;
}

// Known node patterns ("%" is an instance element) that lie below `nodePath`, split into elements.
// The path library is the authority on what a path names; this only lists before files exist.
std::vector<std::vector<std::string>> PatternsBelow(const std::string& nodePath) {
  std::vector<std::vector<std::string>> below;
  std::vector<std::string> path = Elements(nodePath);
  for (const std::string& known : PLONSHPath_KnownPatterns()) {
    std::vector<std::string> pattern = Elements(known);
    if (pattern.size() <= path.size()) continue;
    bool match = true;
    for (size_t i = 0; i < path.size() && match; ++i) match = pattern[i] == "%" || pattern[i] == path[i];
    if (match) below.push_back(std::move(pattern));
  }
  return below;
}

// Next elements of the known node paths below `nodePath`, directories with a trailing '/'.
std::set<std::string> KnownChildren(const std::string& nodePath) {
  std::set<std::string> names;
  size_t depth = Elements(nodePath).size();
  for (const auto& pattern : PatternsBelow(nodePath)) {
    const std::string& next = pattern[depth];
    if (next != "%") names.insert(next + (depth + 1 < pattern.size() ? "/" : ""));
  }
  return names;
}

bool IsKnownDirectory(const std::string& nodePath) { return !PatternsBelow(nodePath).empty(); }

bool NamesNode(const std::string& nodePath) {
  PLONSHPath* raw = nullptr;
  PathPtr path(PLONSHPath_Form(nodePath.c_str(), &raw) == NUK_OK ? raw : nullptr);
  return path != nullptr;
}

std::string OutsideText(const std::string& nodePath) { return "refused: " + nodePath + " leads out of the node tree"; }

// Text when the bytes before the first NUL are printable and only NULs follow; a trailing
// newline is dropped.
bool AsText(const std::vector<unsigned char>& record, std::string* text) {
  size_t end = 0;
  while (end < record.size() && record[end] != 0) {
    unsigned char c = record[end];
    if (c < 0x20 && c != '\n' && c != '\t') return false;
    if (c == 0x7f) return false;
    ++end;
  }
  for (size_t i = end; i < record.size(); ++i) {
    if (record[i] != 0) return false;
  }
  text->assign(record.begin(), record.begin() + static_cast<long>(end));
  if (!text->empty() && text->back() == '\n') text->pop_back();
  return true;
}

std::string HexDump(const std::vector<unsigned char>& record) {
  std::string out;
  char buf[32];
  for (size_t line = 0; line < record.size(); line += 16) {
    std::snprintf(buf, sizeof buf, "%08zx ", line);
    std::string hex = buf, ascii;
    for (size_t i = line; i < line + 16; ++i) {
      if (i < record.size()) {
        std::snprintf(buf, sizeof buf, " %02x", record[i]);
        hex += buf;
        ascii += record[i] >= 0x20 && record[i] < 0x7f ? static_cast<char>(record[i]) : '.';
      } else {
        hex += "   ";
      }
    }
    out += (out.empty() ? "" : "\n") + hex + "  |" + ascii + "|";
  }
  return out;
}

// Text for a failed node call.
std::string StatusText(NUK_ReturnStatus status, const std::string& nodePath, const char* verb) {
  switch (status) {
    case NUK_NOT_FOUND: return "node does not exist: " + nodePath;
    case NUK_BAD_PARAM: return "bad arguments for " + nodePath;
    case NUK_NOT_SUPPORTED: return std::string("node cannot be ") + verb + ": " + nodePath;
    case NUK_IO_ERROR: return std::string("cannot ") + (verb[0] == 'r' ? "read" : "set") + " node: " + nodePath;
    default: return nodePath + ": " + NUK_ReturnStatusToString(status);
  }
}

bool ParseInt(const std::string& text, int64_t* value) {
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), *value);
  return !text.empty() && ec == std::errc() && end == text.data() + text.size();
}

// "/system/lumafs/inodes/stats" with {"12"} -> "/system/lumafs/inodes/12/stats"; "" when no known
// node has that many instance elements around those names.
std::string FillInstances(const std::string& nodePath, const std::vector<std::string>& instances) {
  std::vector<std::string> path = Elements(nodePath);
  for (const std::string& known : PLONSHPath_KnownPatterns()) {
    std::vector<std::string> pattern = Elements(known);
    if (pattern.size() != path.size() + instances.size()) continue;
    std::vector<std::string> filled;
    size_t p = 0, n = 0;
    bool match = true;
    for (const std::string& e : pattern) {
      if (e == "%") {
        if (n == instances.size()) break;
        filled.push_back(instances[n++]);
      } else if (p < path.size() && path[p] == e) {
        filled.push_back(path[p++]);
      } else {
        match = false;
        break;
      }
    }
    if (match && p == path.size() && n == instances.size()) return JoinPath(filled);
  }
  return "";
}

class Runner {
 public:
  explicit Runner(std::string* cwd) : cwd_(*cwd) {}

  Reply Run(const std::vector<std::string>& words) {
    const std::string& cmd = words[0];
    std::vector<std::string> args(words.begin() + 1, words.end());
    if (cmd == "ls") return Ls(args);
    if (cmd == "cd") return Cd(args);
    if (cmd == "pwd") return args.empty() ? Ok(cwd_) : Error("bad arguments: pwd takes none");
    if (cmd == "get") return Get(args);
    if (cmd == "set") return Set(args);
    if (cmd == "help") return Ok(kHelp);
    if (cmd == "quit" || cmd == "exit") {
      if (!args.empty()) return Error("bad arguments: quit takes none");
      return {true, "", true};
    }
    return Error("unknown command: " + cmd + " (try help)");
  }

 private:
  Reply Ls(const std::vector<std::string>& args) {
    if (args.size() > 1) return Error("bad arguments: ls takes at most one path");
    std::string path, error;
    if (!NormalizePath(cwd_, args.empty() ? std::string(".") : args[0], &path, &error)) return Error(error);
    std::set<std::string> names;
    switch (Locate(path)) {
      case Where::Outside: return Error(OutsideText(path));
      case Where::File: return Ok(Elements(path).empty() ? path : Elements(path).back());
      case Where::Missing:
        if (!IsKnownDirectory(path)) {
          return Error(NamesNode(path) ? "not a directory: " + path : "no such directory in the node tree: " + path);
        }
        break;
      case Where::Dir: {
        std::error_code ec;
        for (const auto& entry : std::filesystem::directory_iterator(HostPathOf(path), ec)) {
          std::string name = entry.path().filename().string();
          if (name.empty() || name[0] == '.') continue;
          std::error_code dirEc;
          names.insert(name + (entry.is_directory(dirEc) ? "/" : ""));
        }
        if (ec) return Error("cannot list " + path + ": " + ec.message());
        break;
      }
    }
    names.merge(KnownChildren(path));
    std::string text;
    for (const auto& name : names) text += (text.empty() ? "" : "\n") + name;
    return Ok(text);
  }

  Reply Cd(const std::vector<std::string>& args) {
    if (args.size() != 1) return Error("bad arguments: cd takes one path");
    std::string path, error;
    if (!NormalizePath(cwd_, args[0], &path, &error)) return Error(error);
    Where where = Locate(path);
    if (where == Where::Outside) return Error(OutsideText(path));
    if (where == Where::Dir || (where == Where::Missing && IsKnownDirectory(path))) {
      cwd_ = path;
      return Ok("");
    }
    if (where == Where::File || NamesNode(path)) return Error("not a directory: " + path);
    return Error("no such directory in the node tree: " + path);
  }

  // The node a get or set names, with its instance arguments.
  bool Resolve(const std::string& text, const std::vector<std::string>& instances, std::string* nodePath,
               PathPtr* node, std::string* error) {
    if (!NormalizePath(cwd_, text, nodePath, error)) return false;
    if (!instances.empty()) {
      for (const auto& inst : instances) {
        if (inst.empty() || inst == "." || inst.find('/') != std::string::npos || inst.find("..") != std::string::npos) {
          *error = "bad arguments: instance '" + inst + "' is not a single path element";
          return false;
        }
      }
      std::string filled = FillInstances(*nodePath, instances);
      if (filled.empty()) {
        *error = "unknown node: " + *nodePath + " with " + std::to_string(instances.size()) + " instance argument(s)";
        return false;
      }
      *nodePath = filled;
    }
    PLONSHPath* raw = nullptr;
    if (PLONSHPath_Form(nodePath->c_str(), &raw) != NUK_OK || !raw) {
      *error = "unknown node: " + *nodePath;
      return false;
    }
    node->reset(raw);
    if (Locate(*nodePath) == Where::Outside) {
      *error = OutsideText(*nodePath);
      return false;
    }
    return true;
  }

  // The node a formed path names, its record size and its instance arguments.
  static bool Leaf(const PathPtr& path, PLON_NodeId* id, size_t* size, ListPtr* instArgs) {
    PLON_ParamList* raw = nullptr;
    bool ok = PLONSHPath_GetLeafElement(path.get(), id, size) == NUK_OK &&
              PLONSHPath_GetInstArgs(path.get(), &raw) == NUK_OK;
    instArgs->reset(raw);
    return ok;
  }

  Reply Get(const std::vector<std::string>& args) {
    if (args.empty()) return Error("bad arguments: get takes a path and its instance arguments");
    std::string nodePath, error;
    PathPtr path;
    if (!Resolve(args[0], {args.begin() + 1, args.end()}, &nodePath, &path, &error)) return Error(error);
    PLON_NodeId id;
    size_t size = 0;
    ListPtr instArgs;
    if (!Leaf(path, &id, &size, &instArgs)) return Error("unknown node: " + nodePath);
    if (size == 0) return Error("node cannot be read: " + nodePath + " (it can only be set)");
    std::vector<unsigned char> record(size, 0);
    NUK_ReturnStatus status = PLON_Get(id, instArgs.get(), record.data(), record.size());
    if (status != NUK_OK) return Error(StatusText(status, nodePath, "read"));
    std::string text;
    return Ok(AsText(record, &text) ? text : HexDump(record));
  }

  Reply Set(const std::vector<std::string>& args) {
    if (args.size() < 2) return Error("bad arguments: set takes a path and a value");
    std::string nodePath, error;
    PathPtr path;
    if (!Resolve(args[0], {}, &nodePath, &path, &error)) return Error(error);
    PLON_NodeId id;
    size_t size = 0;
    ListPtr instArgs;
    if (!Leaf(path, &id, &size, &instArgs)) return Error("unknown node: " + nodePath);
    ListPtr input(PLON_ParamListCreate(2));
    if (!input) return Error("out of memory");
    if (id == PLON_NODE_system_sysAlert) {
      std::string message;
      for (size_t i = 1; i < args.size(); ++i) message += (i > 1 ? " " : "") + args[i];
      if (PLON_ParamListAddString(input.get(), message.c_str()) != NUK_OK) return Error("out of memory");
    } else if (id == PLON_NODE_system_lumafs_ramdisks_memUsageLimit) {
      int64_t warning = 0, err = 0;
      if (args.size() != 3 || !ParseInt(args[1], &warning) || !ParseInt(args[2], &err)) {
        return Error("bad arguments: memUsageLimit takes a warning and an error per cent (integers)");
      }
      if (PLON_ParamListAddInt(input.get(), warning) != NUK_OK || PLON_ParamListAddInt(input.get(), err) != NUK_OK) {
        return Error("out of memory");
      }
    } else {
      return Error("node cannot be set: " + nodePath);
    }
    NUK_ReturnStatus status = PLON_Set(id, instArgs.get(), input.get());
    if (status == NUK_BAD_PARAM && id == PLON_NODE_system_lumafs_ramdisks_memUsageLimit) {
      return Error("bad arguments: limits are 0..100 per cent with the warning not above the error");
    }
    if (status != NUK_OK) return Error(StatusText(status, nodePath, "set"));
    return Ok("");
  }

  std::string& cwd_;
};

}  // namespace

Reply Session::Execute(std::string_view line) {
  try {
    if (line.find('\0') != std::string_view::npos) return Error("bad arguments: the command holds a NUL byte");
    std::vector<std::string> words;
    if (!SplitWords(line, &words)) return Error("bad arguments: unterminated quote");
    if (words.empty()) return Ok("");
    return Runner(&cwd_).Run(words);
  } catch (const std::exception& e) {
    return Error(std::string("internal error: ") + e.what());
  } catch (...) {
    return Error("internal error");
  }
}

std::vector<std::string> SplitCommands(std::string_view text) {
  std::vector<std::string> commands(1);
  char quote = 0;
  for (char c : text) {
    if (quote) {
      if (c == quote) quote = 0;
    } else if (c == '\'' || c == '"') {
      quote = c;
    } else if (c == ';') {
      commands.emplace_back();
      continue;
    }
    commands.back() += c;
  }
  return commands;
}

}  // namespace plonsh
