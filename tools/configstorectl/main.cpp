// configstorectl [--root DIR] [-v] [--json] SUBCOMMAND [ARGS]
//
// The rules every subcommand shares (options, help, --json, exit status, colour) live here; see Cli.h.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>

#include "configstore/frame/ConfigStoreException.h"
#include "configstore/frame/Documents.h"
#include "platform/host/HostRoot.h"
#include "platform/logging/CSLogger.h"
#include "tools/configstorectl/Cli.h"

namespace cli {
namespace {

std::vector<Command>& Table() {
  static std::vector<Command> table;
  return table;
}

bool g_colour = false;  // decided once in main, before the subcommand runs

const char* kGlobalUsage =
    "usage: configstorectl [--root DIR] [-v] [--json] SUBCOMMAND [ARGS]\n"
    "\n"
    "  --root DIR   host root to work on (default: $TALVEX_ROOT, else /)\n"
    "  -v           log progress to standard error (-vv for detail)\n"
    "  --json       print results as JSON; failures too, as {\"error\": {...}}\n"
    "  -h, --help   this list; 'configstorectl SUBCOMMAND --help' for a subcommand's arguments\n"
    "  --version    the library's version\n"
    "--root, -v and --json are taken before or after the subcommand.\n"
    "\n"
    "Exit status: 0 success, 1 failure (error code and message on standard error), 2 bad usage,\n"
    "3 nothing matched the names given (get, schemas).\n"
    "Colour only on a terminal and when NO_COLOR is unset.\n";

std::string UsageLine(const Command& c) {
  return "configstorectl [--root DIR] [-v] " + c.usage + (c.printsData ? " [--json]" : "");
}

void PrintCommandList(FILE* out) {
  std::fputs(kGlobalUsage, out);
  std::fputs("\nsubcommands:\n", out);
  for (const auto& c : Commands()) {
    if (c.usage.size() > 34) {
      std::fprintf(out, "  %s\n  %-34s %s\n", c.usage.c_str(), "", c.summary.c_str());
    } else {
      std::fprintf(out, "  %-34s %s\n", c.usage.c_str(), c.summary.c_str());
    }
  }
}

// The command list for scripts: name, usage, summary and whether --json is taken.
void PrintCommandListJson() {
  rapidjson::Document d(rapidjson::kArrayType);
  auto& a = d.GetAllocator();
  for (const auto& c : Commands()) {
    rapidjson::Value entry(rapidjson::kObjectType);
    entry.AddMember("name", JsonText(c.name, a), a).AddMember("usage", JsonText(c.usage, a), a);
    entry.AddMember("summary", JsonText(c.summary, a), a).AddMember("json", c.printsData, a);
    d.PushBack(entry, a);
  }
  PrintJson(d);
}

const Command* Find(const std::string& name) {
  for (const auto& c : Commands()) {
    if (c.name == name) return &c;
  }
  return nullptr;
}

bool g_printedJson = false;  // a JSON document went to standard output

// With --json, a failure that printed no document of its own writes one on standard output:
// {"error": {"code": N, "message": "...", "cause": "usage" | "failure"}}.
void PrintErrorJson(bool json, int code, const std::string& message, const char* cause) {
  if (!json || g_printedJson) return;
  rapidjson::Document d(rapidjson::kObjectType);
  auto& a = d.GetAllocator();
  rapidjson::Value error(rapidjson::kObjectType);
  error.AddMember("code", code, a).AddMember("message", JsonText(message, a), a);
  error.AddMember("cause", rapidjson::StringRef(cause), a);
  d.AddMember("error", error, a);
  PrintJson(d);
}

// A subcommand that answers with its exit status (diff: 1 means "they differ") fails with 2.
int Fail(const Command& command, bool json, int code, const std::string& message) {
  std::fprintf(stderr, "configstorectl %s: error %d: %s\n", command.name.c_str(), code, message.c_str());
  PrintErrorJson(json, code, message, "failure");
  return command.answersWithStatus ? 2 : 1;
}

// Bad usage before a subcommand is known, exit status 2: the message, and where to look unless the
// message is about the host root.
int GlobalUsageError(bool json, const std::string& message, bool pointToHelp = true) {
  std::fprintf(stderr, "configstorectl: %s\n%s", message.c_str(), pointToHelp ? "try 'configstorectl --help'\n" : "");
  PrintErrorJson(json, 2, message, "usage");
  return 2;
}

// Runs the subcommand under the shared rules for help, --json, exit status and colour.
int Dispatch(const Command& command, Invocation inv) {
  if (TakeFlag(inv.args, "--help") || TakeFlag(inv.args, "-h")) {
    std::printf("usage: %s\n\n%s\n", UsageLine(command).c_str(),
                command.help.empty() ? command.summary.c_str() : command.help.c_str());
    return 0;
  }
  try {
    if (inv.json && !command.printsData) throw UsageError("--json: this subcommand prints no result");
    g_colour = !inv.json && isatty(STDOUT_FILENO) == 1 && std::getenv("NO_COLOR") == nullptr;
    const int status = command.run(inv);
    if (status == 0 || command.answersWithStatus) return status;
    return Fail(command, inv.json, QorConfigStore::CS_ERR_GENERIC, "failed (see the output above; -v shows the log)");
  } catch (const UsageError& e) {
    std::fprintf(stderr, "configstorectl %s: %s\nusage: %s\n", command.name.c_str(), e.what(),
                 UsageLine(command).c_str());
    PrintErrorJson(inv.json, 2, e.what(), "usage");
    return 2;
  } catch (const NothingMatched& e) {
    std::fprintf(stderr, "configstorectl %s: nothing matches %s\n", command.name.c_str(), e.what());
    return 3;
  } catch (const QorConfigStore::ConfigStoreException& e) {
    return Fail(command, inv.json, e.code(), e.what());
  } catch (const std::exception& e) {
    return Fail(command, inv.json, QorConfigStore::CS_ERR_GENERIC, e.what());
  }
}

}  // namespace

Registrar::Registrar(Command command) { Table().push_back(std::move(command)); }

const std::vector<Command>& Commands() { return Table(); }

namespace {

// A copy of `value` in which every string and member name that is not UTF-8 is made Printable.
rapidjson::Value Utf8Copy(const rapidjson::Value& value, rapidjson::Document::AllocatorType& allocator) {
  auto text = [&](const rapidjson::Value& s) {
    std::string_view view(s.GetString(), s.GetStringLength());
    return JsonText(QorConfigStore::IsValidUtf8(view) ? std::string(view) : Printable(view), allocator);
  };
  if (value.IsString()) return text(value);
  if (value.IsArray()) {
    rapidjson::Value out(rapidjson::kArrayType);
    for (const auto& element : value.GetArray()) out.PushBack(Utf8Copy(element, allocator), allocator);
    return out;
  }
  if (value.IsObject()) {
    rapidjson::Value out(rapidjson::kObjectType);
    for (const auto& m : value.GetObject()) out.AddMember(text(m.name), Utf8Copy(m.value, allocator), allocator);
    return out;
  }
  return rapidjson::Value(value, allocator);
}

// True when every string and member name of `value` is UTF-8.
bool AllUtf8(const rapidjson::Value& value) {
  auto utf8 = [](const rapidjson::Value& s) {
    return QorConfigStore::IsValidUtf8(std::string_view(s.GetString(), s.GetStringLength()));
  };
  if (value.IsString()) return utf8(value);
  if (value.IsArray()) {
    for (const auto& element : value.GetArray()) {
      if (!AllUtf8(element)) return false;
    }
  } else if (value.IsObject()) {
    for (const auto& m : value.GetObject()) {
      if (!utf8(m.name) || !AllUtf8(m.value)) return false;
    }
  }
  return true;
}

}  // namespace

std::string PrettyJson(const rapidjson::Value& value) {
  // Text that is not UTF-8 (stored before staging refused it) is written with its bad bytes as
  // "\xNN", so that the output stays JSON.
  rapidjson::Document copy;
  rapidjson::Value safe;
  const bool utf8 = AllUtf8(value);
  if (!utf8) safe = Utf8Copy(value, copy.GetAllocator());
  rapidjson::StringBuffer buf;
  rapidjson::PrettyWriter<rapidjson::StringBuffer> w(buf);
  w.SetIndent(' ', 2);
  (utf8 ? value : safe).Accept(w);
  return std::string(buf.GetString(), buf.GetSize()) + '\n';
}

void PrintJson(const rapidjson::Value& value) {
  const std::string text = PrettyJson(value);
  std::fwrite(text.data(), 1, text.size(), stdout);
  g_printedJson = true;
}

rapidjson::Value JsonText(std::string_view text, rapidjson::Document::AllocatorType& allocator) {
  return rapidjson::Value(text.data(), static_cast<rapidjson::SizeType>(text.size()), allocator);
}

std::string CompactJson(const rapidjson::Value& value) {
  rapidjson::StringBuffer buf;
  rapidjson::Writer<rapidjson::StringBuffer> w(buf);
  value.Accept(w);
  return std::string(buf.GetString(), buf.GetSize());
}

rapidjson::Value StoredValueJson(const std::optional<std::string>& stored,
                                 rapidjson::Document::AllocatorType& allocator) {
  if (!stored || stored->empty()) return rapidjson::Value();
  try {
    return rapidjson::Value(*QorConfigStore::CreateDocumentFromString(*stored)->document, allocator);
  } catch (const QorConfigStore::ConfigStoreException&) {
    return JsonText(*stored, allocator);
  }
}

std::string StoredValueText(const std::optional<std::string>& stored) {
  if (!stored || stored->empty()) return "-";
  try {
    return CompactJson(*QorConfigStore::CreateDocumentFromString(*stored)->document);
  } catch (const QorConfigStore::ConfigStoreException&) {
    return Printable(*stored);
  }
}

std::string Paint(Style style, std::string_view text) {
  if (!g_colour) return std::string(text);
  const char* start = style == Style::Bold ? "\033[1m" : style == Style::Red ? "\033[31m"
                                                     : style == Style::Green ? "\033[32m"
                                                                             : "\033[33m";
  return start + std::string(text) + "\033[0m";
}

namespace {

// A word that asks for an option: "-x", "--name" ("-" alone is a value, such as standard input).
bool IsOption(const std::string& word) { return word.size() > 1 && word[0] == '-'; }

}  // namespace

// The first "--" of the arguments ends the options. It stays in place as they are taken (TakeArg
// takes the word after it), so it is always the first "--" left and a later one is a value.
bool TakeFlag(std::vector<std::string>& args, const std::string& flag) {
  for (auto it = args.begin(); it != args.end() && *it != "--"; ++it) {
    if (*it == flag) {
      args.erase(it);
      return true;
    }
  }
  return false;
}

std::optional<std::string> TakeOption(std::vector<std::string>& args, const std::string& flag) {
  for (auto it = args.begin(); it != args.end() && *it != "--"; ++it) {
    if (*it != flag) continue;
    if (it + 1 == args.end() || (it + 1)->empty()) throw UsageError(flag + " needs a value");
    std::string value = std::move(*(it + 1));
    args.erase(it, it + 2);
    return value;
  }
  return std::nullopt;
}

std::string TakeArg(std::vector<std::string>& args, const char* what, const char* otherwise) {
  const size_t at = !args.empty() && args.front() == "--" ? 1 : 0;
  if (at == args.size()) {
    if (otherwise != nullptr) return otherwise;
    throw UsageError(std::string("missing ") + what);
  }
  if (at == 0 && IsOption(args.front())) throw UsageError("unknown option '" + Printable(args.front()) + "'");
  std::string taken = std::move(args[at]);
  args.erase(args.begin() + static_cast<long>(at));
  return taken;
}

void ExpectNoMoreArgs(const std::vector<std::string>& args) {
  const std::vector<std::string> values = Positionals(args);
  if (!values.empty()) throw UsageError("unexpected argument '" + Printable(values.front()) + "'");
}

std::vector<std::string> Positionals(const std::vector<std::string>& args) {
  std::vector<std::string> values;
  bool optionsEnded = false;
  for (const std::string& a : args) {
    if (!optionsEnded && a == "--") {
      optionsEnded = true;
    } else if (!optionsEnded && IsOption(a)) {
      throw UsageError("unknown option '" + Printable(a) + "'");
    } else {
      values.push_back(a);
    }
  }
  return values;
}

void ExpectStored(const std::string& key, const std::string& stored, const std::string& wanted) {
  if (stored == wanted) return;
  throw QorConfigStore::ConfigStoreException(
      QorConfigStore::CS_ERR_GENERIC, key + " was not written: the store holds \"" + Printable(stored) +
                                          "\", not \"" + Printable(wanted) + "\" (the logged error says why)");
}

}  // namespace cli

// The global options (--root DIR, -v, -vv, --json) are taken anywhere before "--", before or
// after the subcommand; -h, --help and --version only before it (after it they are the subcommand's).
int main(int argc, char** argv) {
  using namespace cli;
  std::vector<std::string> args(argv + 1, argv + argc);
  Invocation inv;
  std::optional<std::string> name;
  int verbosity = 0;
  bool help = false, version = false, optionsEnded = false;
  for (const std::string& a : args) {
    if (a == "--json" && !optionsEnded) inv.json = true;  // known before any error is reported
    if (a == "--") optionsEnded = true;
  }
  try {
    optionsEnded = false;
    for (size_t i = 0; i < args.size(); ++i) {
      const std::string& a = args[i];
      if (optionsEnded || a.size() < 2 || a[0] != '-') {
        if (name) inv.args.push_back(a);
        else name = a;
      } else if (a == "--root") {
        if (i + 1 >= args.size()) throw UsageError("--root needs a directory");
        Host::SetRoot(args[++i]);
      } else if (a == "-v" || a == "-vv") {
        verbosity += static_cast<int>(a.size()) - 1;
      } else if (a == "--json") {
        // taken above
      } else if (name) {
        if (a == "--") optionsEnded = true;
        inv.args.push_back(a);  // the subcommand's own (Dispatch and the argument helpers)
      } else if (a == "-h" || a == "--help") {
        help = true;
      } else if (a == "--version") {
        version = true;
      } else {
        throw UsageError("unknown option '" + Printable(a) + "'");
      }
    }
    if (help) {
      if (inv.json) {
        PrintCommandListJson();
      } else {
        PrintCommandList(stdout);
      }
      return 0;
    }
    if (version) {
      std::printf("configstorectl " CONFIGSTORE_VERSION "\n");
      return 0;
    }
    if (!name) throw UsageError("no subcommand given");
    Host::RequireRootDirectory();  // a missing or mistyped root is named before any work
  } catch (const UsageError& e) {
    return GlobalUsageError(inv.json, e.what());
  } catch (const std::invalid_argument& e) {  // the host root (HostRoot.h)
    return GlobalUsageError(inv.json, e.what(), false);
  }

  const Command* command = Find(*name);
  if (command == nullptr) return GlobalUsageError(inv.json, "unknown subcommand '" + Printable(*name) + "'");
  CSLogger::SetStderrLevel(verbosity == 0 ? CSLogger::PRIO_ERROR : verbosity == 1 ? CSLogger::PRIO_INFO
                                                                                  : CSLogger::PRIO_DETAIL);
  return Dispatch(*command, std::move(inv));
}
