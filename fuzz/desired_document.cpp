// The desired configuration document, as set-desired takes it: every validation error against the
// registered schemas first, then the staging. Staging refuses with a ConfigStoreException and then
// leaves the store exactly as it was; a document without validation errors must be staged.
#include "configstore/desired/DesiredConfig.h"
#include "fuzz/FuzzHost.h"

using namespace QorConfigStore;

namespace {
std::shared_ptr<QorSchemaStore::SchemaObjectCache> registered;
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  csfuzz::SetUpHost(csfuzz::HostKind::Booted);
  registered = QorSchemaStore::SchemaStore::GetCache();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::shared_ptr<JsonDoc> doc = csfuzz::ParsedInput(data, size);
  if (!doc) return 0;
  rapidjson::Document errors;
  csfuzz::NoThrow([&] { errors = DesiredDocumentErrors(*doc->document, registered); }, "DesiredDocumentErrors");
  csfuzz::CheckValidationErrors(errors);

  std::string why;
  if (csfuzz::Refused([&] { SetDesiredUserConfig(*doc->document); }, {}, &why)) {
    if (errors.Empty()) csfuzz::Finding("a document without validation errors was not staged: " + why);
    if (!csfuzz::StoresPristine()) csfuzz::Finding("a refused document changed the store: " + why);
  }
  csfuzz::RestoreStores();
  csfuzz::TrimLogs();
  return 0;
}
