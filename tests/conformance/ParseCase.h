// How the conformance program reads one JSONTestSuite parsing case: the one place that decides
// whether a JSON text is accepted, both from memory and from a file.
#pragma once

#include <string>

namespace conformance {

enum class ParseSource { kString, kFile };

struct ParseOutcome {
  bool accepted = false;
  std::string error;        // why it was refused
  bool wrongCode = false;   // refused, but not with the reader's documented code
};

// Reads the file at `path` with the library's document readers, either after reading its bytes
// into a string (the whole length, embedded NULs included) or as a file. Never throws.
ParseOutcome ParseCase(const std::string& path, ParseSource source);

const char* SourceName(ParseSource source);

}  // namespace conformance
