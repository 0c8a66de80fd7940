// The one rule for showing text that came from a document or the host (member names, values,
// file contents) in a message, a log line or on a terminal.
#pragma once

#include <string>
#include <string_view>

namespace QorConfigStore {

// `text` with every control byte (below 0x20, and 0x7f) written as "\xNN": a NUL no longer ends
// the text where it is passed on as a C string, and a newline or escape cannot forge a line.
std::string Printable(std::string_view text);

}  // namespace QorConfigStore
