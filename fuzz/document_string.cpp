// Documents from text and from files: both readers must agree, refuse only with their documented
// errors, and what they accept must read back the same after serialization. Numbers with a fraction
// or an exponent may come back a few units in the last place off: rapidjson's number reading is not
// exact (its exact mode misreads zeros such as "0e308" in version 1.1, so the library does not use it).
#include <cmath>

#include "configstore/frame/Documents.h"
#include "fuzz/FuzzHost.h"
#include "platform/validator/ConfigStoreDocument.h"

using namespace QorConfigStore;

namespace {

constexpr int kMaxUlps = 4;

bool CloseDoubles(double a, double b) {
  if (a == b) return std::signbit(a) == std::signbit(b);
  for (int i = 0; i < kMaxUlps; ++i) a = std::nextafter(a, b);
  return a == b;
}

// Equal values, doubles within kMaxUlps. Recursion is bounded by the readers' depth limit.
bool SameValue(const rapidjson::Value& a, const rapidjson::Value& b) {
  if (a.IsDouble() || b.IsDouble()) return a.IsDouble() && b.IsDouble() && CloseDoubles(a.GetDouble(), b.GetDouble());
  if (a.GetType() != b.GetType()) return false;
  if (a.IsObject()) {
    if (a.MemberCount() != b.MemberCount()) return false;
    for (auto i = a.MemberBegin(), j = b.MemberBegin(); i != a.MemberEnd(); ++i, ++j) {
      if (i->name != j->name || !SameValue(i->value, j->value)) return false;
    }
    return true;
  }
  if (a.IsArray()) {
    if (a.Size() != b.Size()) return false;
    for (rapidjson::SizeType i = 0; i < a.Size(); ++i) {
      if (!SameValue(a[i], b[i])) return false;
    }
    return true;
  }
  return a == b;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  csfuzz::SetUpHost(csfuzz::HostKind::Empty);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text = csfuzz::Text(data, size);
  std::shared_ptr<JsonDoc> fromString, fromFile;
  bool stringRefused = csfuzz::Refused([&] { fromString = CreateDocumentFromString(text); }, {CS_ERR_JSON_PARSE_STRING});
  csfuzz::WriteHostFile("/doc.json", data, size);
  bool fileRefused =
      csfuzz::Refused([&] { fromFile = CreateDocumentFromFile(csfuzz::Path("/doc.json")); }, {CS_ERR_JSON_PARSE_FILE});
  if (stringRefused != fileRefused) csfuzz::Finding("the text and file readers disagree on the document");
  if (stringRefused) return 0;
  std::string serialized, serializedFromFile;
  ConfigStoreDocument::SerializeValue(*fromString->document, serialized);
  ConfigStoreDocument::SerializeValue(*fromFile->document, serializedFromFile);
  if (serialized != serializedFromFile) csfuzz::Finding("the text and file readers read different documents");

  std::shared_ptr<JsonDoc> again;
  if (csfuzz::Refused([&] { again = CreateDocumentFromString(serialized); }, {CS_ERR_JSON_PARSE_STRING})) {
    csfuzz::Finding("serialized document does not parse again: " + serialized.substr(0, 200));
  }
  if (!SameValue(*fromString->document, *again->document)) {
    csfuzz::Finding("the document changed through serialization: " + serialized.substr(0, 200));
  }
  return 0;
}
