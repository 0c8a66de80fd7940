// plonsh [--root DIR] [-c 'COMMANDS'] | --help | --version: operator shell over the kernel node tree.
//
// With -c the commands are separated by ';'. Otherwise commands are read one per line from
// standard input, with the prompt "plonsh:PATH> " when it is a terminal. Replies go to standard
// output, errors to standard error. Exit status: 0 when every command succeeded, 1 otherwise,
// 2 for bad usage.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <iostream>
#include <stdexcept>
#include <string>

#include "platform/host/HostRoot.h"
#include "tools/plonsh/PlonCommands.h"

namespace {

constexpr const char* kUsage = "usage: plonsh [--root DIR] [-c 'COMMAND; COMMAND...'] | --help | --version\n";

// Runs one command and prints its reply; false when it failed.
bool RunOne(plonsh::Session& session, const std::string& line, bool* quit) {
  plonsh::Reply reply = session.Execute(line);
  *quit = reply.quit;
  if (!reply.ok) {
    std::cerr << "plonsh: " << reply.text << std::endl;
  } else if (!reply.text.empty()) {
    std::cout << reply.text << std::endl;
  }
  return reply.ok;
}

}  // namespace

int main(int argc, char** argv) {
  std::string root;
  std::string commands;
  bool haveRoot = false, haveCommands = false;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--root" || arg == "-c") {
      if (i + 1 == argc) {
        std::cerr << "plonsh: " << arg << " needs a value\n" << kUsage;
        return 2;
      }
      (arg == "--root" ? root : commands) = argv[++i];
      (arg == "--root" ? haveRoot : haveCommands) = true;
    } else if (arg == "-h" || arg == "--help") {
      std::cout << kUsage;
      return 0;
    } else if (arg == "--version") {
      std::cout << "plonsh " CONFIGSTORE_VERSION "\n";
      return 0;
    } else {
      std::cerr << "plonsh: unknown argument: " << arg << "\n" << kUsage;
      return 2;
    }
  }
  try {
    if (haveRoot) Host::SetRoot(root);
    Host::RequireRootDirectory();
  } catch (const std::invalid_argument& e) {
    std::cerr << "plonsh: " << e.what() << "\n";
    return 2;
  }

  plonsh::Session session;
  bool allOk = true, quit = false;
  if (haveCommands) {
    for (const std::string& command : plonsh::SplitCommands(commands)) {
      allOk = RunOne(session, command, &quit) && allOk;
      if (quit) break;
    }
    return allOk ? 0 : 1;
  }

  bool interactive = ::isatty(STDIN_FILENO) == 1;
  std::string line;
  for (;;) {
    if (interactive) std::cout << "plonsh:" << session.Cwd() << "> " << std::flush;
    if (!std::getline(std::cin, line)) break;
    allOk = RunOne(session, line, &quit) && allOk;
    if (quit) break;
  }
  if (interactive && !quit) std::cout << std::endl;
  return allOk ? 0 : 1;
}
