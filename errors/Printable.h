// The one rule for showing text that came from a document or the host (member names, values,
// file contents) in a message, a log line or on a terminal.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace QorConfigStore {

// Length of the well-formed UTF-8 sequence starting at `text[i]`, 0 when there is none (a stray
// continuation byte, a cut or overlong sequence, a surrogate, past U+10FFFF).
size_t Utf8Length(std::string_view text, size_t i);

// True when the whole of `text` is well-formed UTF-8.
bool IsValidUtf8(std::string_view text);

// `text` with every control byte (below 0x20, and 0x7f) and every byte that is not part of
// well-formed UTF-8 written as "\xNN": a NUL no longer ends the text where it is passed on as a C
// string, a newline or escape cannot forge a line, and the result is always valid UTF-8.
std::string Printable(std::string_view text);

}  // namespace QorConfigStore
