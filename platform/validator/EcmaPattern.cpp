#include "platform/validator/EcmaPattern.h"

#include <cctype>
#include <cstdio>
#include <map>
#include <mutex>
#include <unordered_map>

namespace JsonValidator::detail {
namespace {

// ECMA 262 WhiteSpace and LineTerminator code points, as members of a character class.
constexpr const char* kEcmaSpaceMembers =
    "\\t\\n\\v\\f\\r \\x{a0}\\x{1680}\\x{2000}-\\x{200a}\\x{2028}\\x{2029}\\x{202f}\\x{205f}\\x{3000}\\x{feff}";

const std::map<std::string, std::string>& LongCategoryNames() {
  static const std::map<std::string, std::string> names = {
      {"Letter", "L"},          {"Lowercase_Letter", "Ll"}, {"Uppercase_Letter", "Lu"}, {"Titlecase_Letter", "Lt"},
      {"Modifier_Letter", "Lm"}, {"Other_Letter", "Lo"},     {"Mark", "M"},              {"Number", "N"},
      {"Decimal_Number", "Nd"}, {"digit", "Nd"},            {"Letter_Number", "Nl"},    {"Other_Number", "No"},
      {"Punctuation", "P"},     {"punct", "P"},             {"Symbol", "S"},            {"Separator", "Z"},
      {"Space_Separator", "Zs"}, {"Other", "C"},            {"Control", "Cc"},          {"cntrl", "Cc"},
  };
  return names;
}

bool IsHex(const std::string& s, size_t from, size_t count) {
  if (from + count > s.size()) return false;
  for (size_t i = from; i < from + count; ++i) {
    if (!std::isxdigit(static_cast<unsigned char>(s[i]))) return false;
  }
  return true;
}

std::string Translate(const std::string& p) {
  std::string out;
  out.reserve(p.size() + 16);
  bool inClass = false;
  for (size_t i = 0; i < p.size(); ++i) {
    char c = p[i];
    if (c == '[' && !inClass) {
      inClass = true;
      out += c;
      if (i + 1 < p.size() && p[i + 1] == '^') out += p[++i];
      // ECMA reads "[]" as an empty class and "[^]" as any character; RE2 reads ']' there as a member.
      if (i + 1 < p.size() && p[i + 1] == ']') {
        bool negated = out.back() == '^';
        out.resize(out.size() - (negated ? 2 : 1));
        out += negated ? "(?s:.)" : "[^\\x00-\\x{10ffff}]";
        ++i;
        inClass = false;
      }
      continue;
    }
    if (c == ']' && inClass) inClass = false;
    if (c != '\\' || i + 1 >= p.size()) {
      out += c;
      continue;
    }
    char e = p[++i];
    if (e == 's') {
      out += inClass ? std::string(kEcmaSpaceMembers) : "[" + std::string(kEcmaSpaceMembers) + "]";
    } else if (e == 'S' && !inClass) {
      out += "[^" + std::string(kEcmaSpaceMembers) + "]";
    } else if (e == 'c' && i + 1 < p.size() && std::isalpha(static_cast<unsigned char>(p[i + 1]))) {
      char code[8];
      std::snprintf(code, sizeof code, "\\x%02x", static_cast<unsigned>(p[++i]) % 32);
      out += code;
    } else if (e == 'u' && IsHex(p, i + 1, 4)) {
      out += "\\x{" + p.substr(i + 1, 4) + "}";
      i += 4;
    } else if (e == '0' && !(i + 1 < p.size() && std::isdigit(static_cast<unsigned char>(p[i + 1])))) {
      out += "\\x00";
    } else if ((e == 'p' || e == 'P') && i + 1 < p.size() && p[i + 1] == '{') {
      size_t close = p.find('}', i + 2);
      std::string name = close == std::string::npos ? std::string() : p.substr(i + 2, close - i - 2);
      auto it = LongCategoryNames().find(name);
      out += '\\';
      out += e;
      if (it != LongCategoryNames().end()) {
        out += "{" + it->second + "}";
        i = close;
      }
    } else {
      out += '\\';
      out += e;
    }
  }
  return out;
}

// More distinct patterns than a host's schemas hold: reaching it means patterns are made up per
// call; start afresh.
constexpr size_t kMaxCachedPatterns = 20000;

struct PatternCache {
  std::mutex mutex;
  std::unordered_map<std::string, std::shared_ptr<const RE2>> compiled;  // key: the ECMA source
};

PatternCache& ThePatternCache() {
  static PatternCache cache;
  return cache;
}

}  // namespace

std::shared_ptr<const RE2> CompileEcmaPattern(const std::string& pattern, std::string& error) {
  PatternCache& cache = ThePatternCache();
  {
    std::lock_guard<std::mutex> lock(cache.mutex);
    auto found = cache.compiled.find(pattern);
    if (found != cache.compiled.end()) return found->second;
  }
  RE2::Options options;
  options.set_log_errors(false);
  options.set_encoding(RE2::Options::EncodingUTF8);
  auto re = std::make_shared<const RE2>(Translate(pattern), options);
  if (!re->ok()) {
    error = re->error();
    return nullptr;
  }
  std::lock_guard<std::mutex> lock(cache.mutex);
  if (cache.compiled.size() >= kMaxCachedPatterns) cache.compiled.clear();
  cache.compiled.emplace(pattern, re);
  return re;
}

void ClearPatternCache() {
  PatternCache& cache = ThePatternCache();
  std::lock_guard<std::mutex> lock(cache.mutex);
  cache.compiled.clear();
}

bool PatternFinds(const RE2& re, const char* text, size_t length) {
  return RE2::PartialMatch(re2::StringPiece(text, length), re);
}

}  // namespace JsonValidator::detail
