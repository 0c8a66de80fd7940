// configstorectl [--root DIR] [-v] [--json] SUBCOMMAND [ARGS]
#include <cstdio>
#include <cstring>
#include <exception>
#include <map>

#include "configstore/frame/ConfigStoreException.h"
#include "platform/host/HostRoot.h"
#include "platform/logging/CSLogger.h"
#include "tools/configstorectl/Cli.h"

namespace cli {
namespace {

std::vector<Command>& Table() {
  static std::vector<Command> table;
  return table;
}

const char* kGlobalUsage =
    "usage: configstorectl [--root DIR] [-v] [--json] SUBCOMMAND [ARGS]\n"
    "\n"
    "  --root DIR   host root to work on (default: $TALVEX_ROOT, else /)\n"
    "  -v           log progress to standard error (-vv for detail)\n"
    "  --json       print results as JSON\n"
    "\n"
    "Run 'configstorectl SUBCOMMAND --help' for a subcommand's arguments.\n";

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

}  // namespace

Registrar::Registrar(Command command) { Table().push_back(std::move(command)); }

const std::vector<Command>& Commands() { return Table(); }

void PrintJson(const rapidjson::Value& value) {
  rapidjson::StringBuffer buf;
  rapidjson::PrettyWriter<rapidjson::StringBuffer> w(buf);
  w.SetIndent(' ', 2);
  value.Accept(w);
  std::printf("%s\n", buf.GetString());
}

bool TakeFlag(std::vector<std::string>& args, const std::string& flag) {
  for (auto it = args.begin(); it != args.end(); ++it) {
    if (*it == flag) {
      args.erase(it);
      return true;
    }
  }
  return false;
}

void ExpectNoMoreArgs(const std::vector<std::string>& args) {
  if (!args.empty()) throw UsageError("unexpected argument '" + args.front() + "'");
}

}  // namespace cli

int main(int argc, char** argv) {
  using namespace cli;
  std::vector<std::string> args(argv + 1, argv + argc);
  Invocation inv;
  int verbosity = 0;
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
        PrintCommandList(stdout);
        return 0;
      } else {
        throw UsageError("unknown option '" + a + "'");
      }
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

  const std::string name = args[i];
  inv.args.assign(args.begin() + static_cast<long>(i) + 1, args.end());
  const Command* command = nullptr;
  for (const auto& c : Commands()) {
    if (c.name == name) command = &c;
  }
  if (command == nullptr) {
    std::fprintf(stderr, "configstorectl: unknown subcommand '%s'\n\n", name.c_str());
    PrintCommandList(stderr);
    return 2;
  }
  if (TakeFlag(inv.args, "--help") || TakeFlag(inv.args, "-h")) {
    std::printf("usage: configstorectl [--root DIR] [-v] [--json] %s\n\n%s\n", command->usage.c_str(),
                command->help.empty() ? command->summary.c_str() : command->help.c_str());
    return 0;
  }
  CSLogger::SetStderrLevel(verbosity == 0 ? CSLogger::PRIO_ERROR : verbosity == 1 ? CSLogger::PRIO_INFO
                                                                                  : CSLogger::PRIO_DETAIL);
  try {
    return command->run(inv);
  } catch (const UsageError& e) {
    std::fprintf(stderr, "configstorectl %s: %s\nusage: configstorectl %s\n", name.c_str(), e.what(),
                 command->usage.c_str());
    return 2;
  } catch (const QorConfigStore::ConfigStoreException& e) {
    std::fprintf(stderr, "configstorectl %s: error %d: %s\n", name.c_str(), e.code(), e.what());
    return 1;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "configstorectl %s: error: %s\n", name.c_str(), e.what());
    return 1;
  }
}
