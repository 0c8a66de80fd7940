// crash_driver ROOT FIRST OPS: runs OPS operations of the crash cycle on the
// host root ROOT, starting at cycle position FIRST, noting its progress in the
// progress file. The crash test kills it at random points.
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

namespace {

using crashcycle::Op;

void Note(int fd, char kind, long n) {
  std::string line = std::string(1, kind) + " " + std::to_string(n) + "\n";
  if (write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) std::exit(crashcycle::kDriverOpFailed);
}

// False when the operation reported a failure.
bool Run(Op op) {
  switch (op) {
    case Op::StageDesiredA:
    case Op::StageDesiredB: {
      auto doc = QorConfigStore::CreateDocumentFromFile(
          Host::Resolve(op == Op::StageDesiredA ? crashcycle::kDesiredA : crashcycle::kDesiredB));
      QorConfigStore::SetDesiredUserConfig(*doc->document);
      return true;
    }
    case Op::StageSmartnic: {
      auto doc = QorConfigStore::CreateDocumentFromFile(Host::Resolve(crashcycle::kSmartnic));
      QorConfigStore::SetDesiredSmartnicConfiguration(*doc->document);
      return true;
    }
    case Op::Boot:
      return QorConfigStore::LoadStore(false) == 0;
    case Op::RestoreBoot:
      return QorConfigStore::LoadStore(true) == 0;
    case Op::RegisterSchemas:
      return QorConfigStore::ProcessSchemas({});
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  // A group of its own, so that the kill also ends the copy or removal a step left running, as the
  // host's service manager ends a killed boot's children with it.
  setpgid(0, 0);
  if (argc != 4) {
    std::fprintf(stderr, "usage: crash_driver ROOT FIRST OPS\n");
    return crashcycle::kDriverUsage;
  }
  try {
    Host::SetRoot(argv[1]);
    const long first = std::atol(argv[2]);
    const long ops = std::atol(argv[3]);
    int fd = open(Host::Resolve(crashcycle::kProgress).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return crashcycle::kDriverOpFailed;
    for (long n = 0; n < ops; ++n) {
      Note(fd, 'B', n);
      if (!Run(crashcycle::kCycle[static_cast<size_t>(first + n) % crashcycle::kCycle.size()])) {
        return crashcycle::kDriverOpFailed;
      }
      Note(fd, 'E', n);
    }
    close(fd);
    return crashcycle::kDriverDone;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "crash_driver: %s\n", e.what());
    return crashcycle::kDriverOpFailed;
  }
}
