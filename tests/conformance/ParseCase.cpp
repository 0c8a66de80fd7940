#include "tests/conformance/ParseCase.h"

#include "configstore/frame/Documents.h"
#include "platform/host/Files.h"

namespace conformance {

ParseOutcome ParseCase(const std::string& path, ParseSource source) {
  ParseOutcome outcome;
  try {
    if (source == ParseSource::kString) {
      std::string text;
      if (!Host::ReadFile(path, &text)) return ParseOutcome{false, "cannot read " + path};
      QorConfigStore::CreateDocumentFromString(text);
    } else {
      QorConfigStore::CreateDocumentFromFile(path);
    }
    outcome.accepted = true;
  } catch (const QorConfigStore::InvalidArgumentException& e) {
    // The documented refusals: 1080 for a text, 1081 for a file.
    int expected = source == ParseSource::kString ? QorConfigStore::CS_ERR_JSON_PARSE_STRING
                                                  : QorConfigStore::CS_ERR_JSON_PARSE_FILE;
    outcome.error = e.code() == expected ? "refused with " + std::to_string(e.code())
                                         : "refused with the wrong code " + std::to_string(e.code());
    outcome.wrongCode = e.code() != expected;
  } catch (const std::exception& e) {
    outcome.error = std::string("unexpected error: ") + e.what();
    outcome.wrongCode = true;
  }
  return outcome;
}

const char* SourceName(ParseSource source) { return source == ParseSource::kString ? "string" : "file"; }

}  // namespace conformance
