// URI references of schema identifiers ("id") and references ("$ref"), resolved as RFC 3986 says.
// Internal to the validator.
#pragma once

#include <string>

namespace JsonValidator::detail {

// `reference` resolved against `base` (either may be relative or empty; an empty base leaves the
// reference as it is, with its dot segments removed).
std::string ResolveUri(const std::string& base, const std::string& reference);

// Splits "doc#fragment" at the first '#'; `fragment` excludes the '#' ("doc#" and "doc" both give
// an empty fragment).
void SplitFragment(const std::string& uri, std::string& document, std::string& fragment);

// "%25" -> "%", ... A malformed escape is kept as written.
std::string PercentDecode(const std::string& text);

}  // namespace JsonValidator::detail
