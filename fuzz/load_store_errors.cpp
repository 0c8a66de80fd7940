// The load-store error file that earlier boot steps leave for the boot's load, which raises one
// system alert per recorded failure. Read by an ordinary boot of the sample host; the load answers
// 0 or 1, never throws, and detaches its boot log however it ends. The store is put back afterwards.
#include <filesystem>

#include "configstore/boot/LoadStore.h"
#include "fuzz/FuzzHost.h"
#include "platform/logging/CSLogger.h"

using namespace QorConfigStore;

namespace {
// Where the boot's load looks for the file (kept in LoadStore.cpp), and the log it writes.
constexpr const char* kLoadStoreErrors = "/var/run/talvex/files/loadStoreErrors.json";
constexpr const char* kBootLog = "/var/log/configstore-boot.log";

uintmax_t BootLogSize() {
  std::error_code ec;
  uintmax_t size = std::filesystem::file_size(csfuzz::Path(kBootLog), ec);
  return ec ? 0 : size;
}
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  csfuzz::SetUpHost(csfuzz::HostKind::Booted);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  csfuzz::WriteHostFile(kLoadStoreErrors, data, size);
  int result = -1;
  csfuzz::NoThrow([&] { result = LoadStore(false); }, "LoadStore");
  if (result != 0 && result != 1) csfuzz::Finding("LoadStore answered " + std::to_string(result));
  const uintmax_t bootLog = BootLogSize();
  CSLogger::Log(CSLogger::PRIO_INFO, "after the load");
  if (BootLogSize() != bootLog) csfuzz::Finding("the load left its boot log attached");
  csfuzz::RestoreStores();
  csfuzz::TrimLogs();
  return 0;
}
