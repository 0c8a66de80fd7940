// The SmartNIC configuration document, staged as set-smartnic takes it. Staging refuses with a
// ConfigStoreException and then leaves the store exactly as it was.
#include "configstore/desired/DesiredConfig.h"
#include "fuzz/FuzzHost.h"

using namespace QorConfigStore;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  csfuzz::SetUpHost(csfuzz::HostKind::Booted);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::shared_ptr<JsonDoc> doc = csfuzz::ParsedInput(data, size);
  if (!doc) return 0;
  std::string why;
  if (csfuzz::Refused([&] { SetDesiredSmartnicConfiguration(*doc->document); }, {}, &why) &&
      !csfuzz::StoresPristine()) {
    csfuzz::Finding("a refused SmartNIC document changed the store: " + why);
  }
  csfuzz::RestoreStores();
  csfuzz::TrimLogs();
  return 0;
}
