#include "errors/Printable.h"

#include <cstdint>
#include <cstdio>

namespace QorConfigStore {

size_t Utf8Length(std::string_view s, size_t i) {
  auto c = static_cast<unsigned char>(s[i]);
  if (c < 0x80) return 1;
  size_t n;
  uint32_t cp;
  if ((c & 0xE0) == 0xC0) {
    n = 2, cp = c & 0x1F;
  } else if ((c & 0xF0) == 0xE0) {
    n = 3, cp = c & 0x0F;
  } else if ((c & 0xF8) == 0xF0) {
    n = 4, cp = c & 0x07;
  } else {
    return 0;
  }
  if (i + n > s.size()) return 0;
  for (size_t k = 1; k < n; ++k) {
    auto b = static_cast<unsigned char>(s[i + k]);
    if ((b & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (b & 0x3F);
  }
  constexpr uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};  // shorter forms are overlong
  if (cp < kSmallest[n] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
  return n;
}

bool IsValidUtf8(std::string_view text) {
  for (size_t i = 0; i < text.size();) {
    // ASCII runs are the common case.
    if (static_cast<unsigned char>(text[i]) < 0x80) {
      ++i;
      continue;
    }
    size_t n = Utf8Length(text, i);
    if (n == 0) return false;
    i += n;
  }
  return true;
}

std::string Printable(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    size_t n = Utf8Length(text, i);
    if (n == 0 || c < 0x20 || c == 0x7f) {
      char esc[5];
      std::snprintf(esc, sizeof esc, "\\x%02x", c);
      out += esc;
      n = 1;
    } else {
      out.append(text.substr(i, n));
    }
    i += n;
  }
  return out;
}

}  // namespace QorConfigStore
