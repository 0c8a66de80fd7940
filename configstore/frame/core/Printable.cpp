#include "configstore/frame/core/Printable.h"

#include <cstdio>

namespace QorConfigStore {

std::string Printable(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (char ch : text) {
    unsigned char c = static_cast<unsigned char>(ch);
    if (c < 0x20 || c == 0x7f) {
      char esc[5];
      std::snprintf(esc, sizeof esc, "\\x%02x", c);
      out += esc;
    } else {
      out += ch;
    }
  }
  return out;
}

}  // namespace QorConfigStore
