// Schema patterns ("pattern", "patternProperties") are ECMA 262 regular expressions; they run on
// RE2. Internal to the validator.
#pragma once

#include <re2/re2.h>

#include <memory>
#include <string>

namespace JsonValidator::detail {

// Compiles an ECMA 262 pattern for RE2 after rewriting the cheap differences: \s and \S get the
// ECMA white-space set (RE2's is ASCII only), \cX, \uXXXX and \0 become RE2 escapes, and long
// Unicode category names (\p{Letter}, \p{digit}) become RE2's short ones. \d and \w are ASCII in
// both. Returns null and sets `error` when RE2 refuses the pattern (look-arounds and
// back-references, for instance). Never throws for a bad pattern.
// Compiled patterns are shared by source text across schemas for the life of the process (the
// hosts' schemas repeat a handful of patterns thousands of times, and compiling a bounded repetition
// such as {1,253} costs far more than matching it); a shared RE2 is only matched, which RE2 allows
// from any thread. ClearPatternCache drops them.
std::shared_ptr<const RE2> CompileEcmaPattern(const std::string& pattern, std::string& error);
void ClearPatternCache();

// Unanchored search, as ECMA's RegExp.prototype.test.
bool PatternFinds(const RE2& re, const char* text, size_t length);

}  // namespace JsonValidator::detail
