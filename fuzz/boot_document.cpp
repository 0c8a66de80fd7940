// The boot configuration document, read from its host path into Config inside the caller's
// transaction. Bad parts are logged and skipped; the documented refusals are 1081 (not JSON) and
// 2000. The document must neither commit nor end the caller's transaction: after the rollback the
// store holds exactly what it held.
#include "configstore/boot/BootDocument.h"
#include "configstore/frame/CallFrame.h"
#include "fuzz/FuzzHost.h"

using namespace QorConfigStore;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  csfuzz::SetUpHost(csfuzz::HostKind::Booted);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  csfuzz::WriteHostFile(kBootConfigurationDocument, data, size);
  {
    DBStore::Connection conn = GetDBConnection(DBStore::CONFIG_STORE, true);
    if (DBStore::BeginTransaction(conn) != 0) csfuzz::Finding("cannot begin a transaction on the sample store");
    csfuzz::Refused([&] { ProcessBootConfigurationDocument(conn); }, {CS_ERR_JSON_PARSE_FILE, CS_ERR_GENERIC});
    if (DBStore::CancelTransaction(conn) != 0) csfuzz::Finding("the caller's transaction cannot be rolled back");
  }
  if (!csfuzz::StoresPristine()) {
    csfuzz::RestoreStores();
    csfuzz::Finding("the boot document changed the store outside the caller's transaction");
  }
  csfuzz::TrimLogs();
  return 0;
}
