// A package's default-configuration file, loaded by a whole default-configuration run over its
// directory, which holds only this file, against the sample host's registered schemas. The run
// reports failure by its result and never throws; the store is put back afterwards. Odd-sized
// inputs load as the DPU variant ("qorio_config").
#include <filesystem>

#include "configstore/defaults/DefaultConfig.h"
#include "configstore/defaults/DefaultConfigSteps.h"
#include "fuzz/FuzzHost.h"

using namespace QorConfigStore;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  csfuzz::SetUpHost(csfuzz::HostKind::Booted);
  std::filesystem::remove_all(csfuzz::Path(kDefaultConfigDir));
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  csfuzz::WriteHostFile(std::string(kDefaultConfigDir) + "/input.json", data, size);
  csfuzz::NoThrow([&] { ProcessDefaultConfiguration(size % 2 == 1); }, "ProcessDefaultConfiguration");
  csfuzz::RestoreStores();
  csfuzz::TrimLogs();
  return 0;
}
