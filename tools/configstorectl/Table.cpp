// Text tables for a terminal: columns as wide as a terminal shows their cells.
#include <algorithm>
#include <cstdio>

#include "tools/configstorectl/Cli.h"

namespace cli {
namespace {

struct Range {
  char32_t first, last;
};

// Combining marks and zero-width characters: drawn over or between their neighbours.
constexpr Range kZeroWidth[] = {{0x0300, 0x036F}, {0x0483, 0x0489}, {0x0591, 0x05BD}, {0x0610, 0x061A},
                                {0x064B, 0x065F}, {0x1AB0, 0x1AFF}, {0x1DC0, 0x1DFF}, {0x200B, 0x200F},
                                {0x2060, 0x2064}, {0x20D0, 0x20FF}, {0xFE00, 0xFE0F}, {0xFE20, 0xFE2F},
                                {0xFEFF, 0xFEFF}};
// East Asian wide and fullwidth characters and emoji: two columns each.
constexpr Range kWide[] = {{0x1100, 0x115F},   {0x2E80, 0x303E},   {0x3041, 0x33FF},  {0x3400, 0x4DBF},
                           {0x4E00, 0x9FFF},   {0xA000, 0xA4CF},   {0xAC00, 0xD7A3},  {0xF900, 0xFAFF},
                           {0xFE30, 0xFE4F},   {0xFF00, 0xFF60},   {0xFFE0, 0xFFE6},  {0x1F300, 0x1F64F},
                           {0x1F900, 0x1F9FF}, {0x20000, 0x2FFFD}, {0x30000, 0x3FFFD}};

template <size_t N>
bool In(const Range (&ranges)[N], char32_t c) {
  return std::any_of(ranges, ranges + N, [c](const Range& r) { return r.first <= c && c <= r.last; });
}

}  // namespace

size_t DisplayWidth(std::string_view text) {
  size_t width = 0;
  for (size_t i = 0; i < text.size();) {
    const auto lead = static_cast<unsigned char>(text[i]);
    const size_t length = lead < 0x80           ? 1
                          : (lead >> 5) == 0x6  ? 2
                          : (lead >> 4) == 0xE  ? 3
                          : (lead >> 3) == 0x1E ? 4
                                                : 0;
    char32_t c = length == 1 ? lead : lead & (0x7F >> length);  // the lead byte's bits of the character
    bool valid = length != 0 && i + length <= text.size();
    for (size_t k = 1; valid && k < length; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      valid = (next & 0xC0) == 0x80;
      c = (c << 6) | (next & 0x3F);
    }
    if (!valid) {  // a byte that starts no character: a terminal shows one replacement character
      width += 1;
      i += 1;
      continue;
    }
    width += In(kZeroWidth, c) ? 0 : In(kWide, c) ? 2 : 1;
    i += length;
  }
  return width;
}

void PrintTable(const std::vector<std::string>& heading, const std::vector<std::vector<std::string>>& rows) {
  std::vector<std::vector<std::string>> cells;
  for (const auto& r : rows) {
    std::vector<std::string> printable;
    for (const std::string& cell : r) printable.push_back(Printable(cell));
    cells.push_back(std::move(printable));
  }
  std::vector<size_t> widths;
  for (const std::string& h : heading) widths.push_back(DisplayWidth(h));
  for (const auto& r : cells) {
    for (size_t i = 0; i < r.size() && i < widths.size(); ++i) widths[i] = std::max(widths[i], DisplayWidth(r[i]));
  }
  auto line = [&](const std::vector<std::string>& r) {
    std::string text;
    for (size_t i = 0; i < r.size() && i < widths.size(); ++i) {
      text += r[i];
      if (i + 1 < r.size()) text += std::string(widths[i] - DisplayWidth(r[i]) + 2, ' ');
    }
    return text;
  };
  std::printf("%s\n", Paint(Style::Bold, line(heading)).c_str());
  for (const auto& r : cells) std::printf("%s\n", line(r).c_str());
}

}  // namespace cli
