// consumer ROOT: boots the host root ROOT (a copy of examples/host) with the installed library and
// prints what it finds; every line is checked by the project's install test.
//   c++ -std=c++20 main.cpp $(pkg-config --cflags --libs configstore)
#include <cstdio>
#include <cstdlib>

#include "configstore/boot/LoadStore.h"
#include "configstore/boot/RamDisk.h"
#include "configstore/bootstate/BootState.h"
#include "configstore/frame/Documents.h"
#include "configstore/frame/Metrics.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: consumer ROOT\n");
    return 2;
  }
  setenv("TALVEX_ROOT", argv[1], 1);  // the library resolves every host path against it

  std::printf("ramdisk %d\n", QorConfigStore::SetupStoreRamDisk());
  QorConfigStore::BootReport report;
  std::printf("load %d\n", QorConfigStore::LoadStore(true, &report));
  std::printf("stages %s\n", report.stages.empty() ? "none" : "recorded");
  QorConfigStore::SetInstallInfo("installed by the consumer");
  std::printf("install info %s\n", QorConfigStore::GetInstallInfo().c_str());
  std::printf("rows %s\n", QorConfigStore::GetConfigRowCount() > 0 ? "some" : "none");

  // The library's exceptions cross into the caller with their type and code.
  try {
    QorConfigStore::CreateDocumentFromString("{not json");
    std::printf("bad document accepted\n");
  } catch (const QorConfigStore::ConfigStoreException& e) {
    std::printf("bad document refused with %d\n", e.code());
  }
  return 0;
}
