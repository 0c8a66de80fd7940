// A package's schema file, registered by a whole registration pass over the schema directory,
// which holds only this file. Its identifier (from its own metadata, when it has one) is passed as
// expected, so that its elements reach the schema store. The pass never throws; the schema store is
// put back afterwards. Odd-sized inputs register as the DPU variant.
#include <filesystem>

#include "configstore/frame/Documents.h"
#include "configstore/schema/SchemaFiles.h"
#include "configstore/schema/SchemaRegistration.h"
#include "fuzz/FuzzHost.h"

using namespace QorConfigStore;

namespace {
const std::string kInputFile = "input.json";
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  csfuzz::SetUpHost(csfuzz::HostKind::Booted);
  std::filesystem::remove_all(csfuzz::Path(kSchemaDir));
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  csfuzz::WriteHostFile(std::string(kSchemaDir) + "/" + kInputFile, data, size);
  std::vector<std::string> expected;
  csfuzz::Refused([&] {
    std::shared_ptr<JsonDoc> doc = CreateDocumentFromString(csfuzz::Text(data, size));
    std::string id = GetSchemaIDfromFile(kInputFile, *doc->document);
    if (!id.empty()) expected.push_back(id);
  });
  csfuzz::NoThrow([&] { ProcessSchemaFiles(expected, size % 2 == 1); }, "ProcessSchemaFiles");
  csfuzz::RestoreStores();
  csfuzz::TrimLogs();
  return 0;
}
