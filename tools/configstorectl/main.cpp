// configstorectl [--root DIR] [-v] [--json] SUBCOMMAND [ARGS]
//
// The rules every subcommand shares (options, help, --json, exit status, colour) live here; see Cli.h.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>

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
    "  --json       print results as JSON (also accepted after the subcommand)\n"
    "  -h, --help   this list; 'configstorectl SUBCOMMAND --help' for a subcommand's arguments\n"
    "\n"
    "Exit status: 0 success, 1 failure (error code and message on standard error), 2 bad usage.\n"
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

int Fail(const Command& command, int code, const char* message) {
  std::fprintf(stderr, "configstorectl %s: error %d: %s\n", command.name.c_str(), code, message);
  return command.answersWithStatus ? 2 : 1;
}

// Runs the subcommand under the shared rules for help, --json, exit status and colour.
int Dispatch(const Command& command, Invocation inv) {
  if (TakeFlag(inv.args, "--help") || TakeFlag(inv.args, "-h")) {
    std::printf("usage: %s\n\n%s\n", UsageLine(command).c_str(),
                command.help.empty() ? command.summary.c_str() : command.help.c_str());
    return 0;
  }
  while (TakeFlag(inv.args, "--json")) inv.json = true;
  try {
    if (inv.json && !command.printsData) throw UsageError("--json: this subcommand prints no result");
    g_colour = !inv.json && isatty(STDOUT_FILENO) == 1 && std::getenv("NO_COLOR") == nullptr;
    const int status = command.run(inv);
    if (status == 0 || command.answersWithStatus) return status;
    return Fail(command, QorConfigStore::CS_ERR_GENERIC, "failed (see the output above; -v shows the log)");
  } catch (const UsageError& e) {
    std::fprintf(stderr, "configstorectl %s: %s\nusage: %s\n", command.name.c_str(), e.what(),
                 UsageLine(command).c_str());
    return 2;
  } catch (const QorConfigStore::ConfigStoreException& e) {
    return Fail(command, e.code(), e.what());
  } catch (const std::exception& e) {
    return Fail(command, QorConfigStore::CS_ERR_GENERIC, e.what());
  }
}

}  // namespace

Registrar::Registrar(Command command) { Table().push_back(std::move(command)); }

const std::vector<Command>& Commands() { return Table(); }

std::string PrettyJson(const rapidjson::Value& value) {
  rapidjson::StringBuffer buf;
  rapidjson::PrettyWriter<rapidjson::StringBuffer> w(buf);
  w.SetIndent(' ', 2);
  value.Accept(w);
  return std::string(buf.GetString(), buf.GetSize()) + '\n';
}

void PrintJson(const rapidjson::Value& value) {
  const std::string text = PrettyJson(value);
  std::fwrite(text.data(), 1, text.size(), stdout);
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

std::string Printable(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (char ch : text) {
    unsigned char c = static_cast<unsigned char>(ch);
    if (c < 0x20 || c == 0x7f) {
      char esc[5];
      std::snprintf(esc, sizeof esc, "\\x%02x", c);
      out += esc;
    } else {
      out += ch;
    }
  }
  return out;
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

int main(int argc, char** argv) {
  using namespace cli;
  std::vector<std::string> args(argv + 1, argv + argc);
  Invocation inv;
  int verbosity = 0;
  bool help = false;
  size_t i = 0;
  try {
    for (; i < args.size() && args[i].size() > 1 && args[i][0] == '-'; ++i) {
      const std::string& a = args[i];
      if (a == "--root") {
        if (i + 1 >= args.size()) throw UsageError("--root needs a directory");
        Host::SetRoot(args[++i]);
      } else if (a == "-v" || a == "-vv") {
        verbosity += static_cast<int>(a.size()) - 1;
      } else if (a == "--json") {
        inv.json = true;
      } else if (a == "-h" || a == "--help") {
        help = true;
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
    if (i >= args.size()) throw UsageError("no subcommand given");
    Host::Root();  // a bad TALVEX_ROOT is refused before any work
  } catch (const UsageError& e) {
    std::fprintf(stderr, "configstorectl: %s\n\n", e.what());
    PrintCommandList(stderr);
    return 2;
  } catch (const std::invalid_argument& e) {
    std::fprintf(stderr, "configstorectl: %s\n", e.what());
    return 2;
  }

  const Command* command = Find(args[i]);
  if (command == nullptr) {
    std::fprintf(stderr, "configstorectl: unknown subcommand '%s'\n\n", Printable(args[i]).c_str());
    PrintCommandList(stderr);
    return 2;
  }
  inv.args.assign(args.begin() + static_cast<long>(i) + 1, args.end());
  CSLogger::SetStderrLevel(verbosity == 0 ? CSLogger::PRIO_ERROR : verbosity == 1 ? CSLogger::PRIO_INFO
                                                                                  : CSLogger::PRIO_DETAIL);
  return Dispatch(*command, std::move(inv));
}
