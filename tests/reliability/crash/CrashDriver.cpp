// crash_driver ROOT FIRST OPS: runs OPS operations of the crash cycle on the host root ROOT from
// cycle position FIRST, noting its progress. The crash test kills it at random points.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "configstore/boot/LoadStore.h"
#include "configstore/desired/DesiredConfig.h"
#include "configstore/frame/Documents.h"
#include "configstore/schema/SchemaProcessor.h"
#include "platform/host/HostRoot.h"
#include "tests/reliability/crash/CrashCycle.h"

using crashcycle::Op;

// False when the operation reported a failure.
bool Run(Op op) {
  switch (op) {
    case Op::Boot: return QorConfigStore::LoadStore(false) == 0;
    case Op::RestoreBoot: return QorConfigStore::LoadStore(true) == 0;
    case Op::RegisterSchemas: return QorConfigStore::ProcessSchemas({});
    default: {
      auto doc = QorConfigStore::CreateDocumentFromFile(Host::Resolve(crashcycle::kDocuments[static_cast<int>(op)]));
      if (op == Op::StageSmartnic) {
        QorConfigStore::SetDesiredSmartnicConfiguration(*doc->document);
      } else {
        QorConfigStore::SetDesiredUserConfig(*doc->document);
      }
      return true;
    }
  }
}

int main(int argc, char** argv) {
  // A group of its own, so that the kill also ends the copy or removal a step left running, as the
  // host's service manager ends a killed boot's children with it.
  setpgid(0, 0);
  if (argc != 4) return std::fprintf(stderr, "usage: crash_driver ROOT FIRST OPS\n"), 2;
  try {
    Host::SetRoot(argv[1]);
    const long first = std::atol(argv[2]), ops = std::atol(argv[3]);
    int fd = open(Host::Resolve(crashcycle::kProgress).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    for (long n = 0; fd >= 0 && n < ops; ++n) {
      std::string begin = "B " + std::to_string(n) + "\n", end = "E " + std::to_string(n) + "\n";
      if (write(fd, begin.data(), begin.size()) != static_cast<ssize_t>(begin.size()) ||
          !Run(crashcycle::kCycle[static_cast<size_t>(first + n) % crashcycle::kCycle.size()]) ||
          write(fd, end.data(), end.size()) != static_cast<ssize_t>(end.size())) {
        return crashcycle::kDriverFailed;
      }
    }
    return fd >= 0 ? crashcycle::kDriverDone : crashcycle::kDriverFailed;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "crash_driver: %s\n", e.what());
    return crashcycle::kDriverFailed;
  }
}
