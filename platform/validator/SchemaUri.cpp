#include "platform/validator/SchemaUri.h"

#include <cctype>

namespace JsonValidator::detail {
namespace {

struct Uri {
  std::string scheme, authority, path, query, fragment;
  bool hasScheme = false, hasAuthority = false, hasQuery = false, hasFragment = false;
};

Uri Parse(const std::string& text) {
  Uri uri;
  std::string rest = text;
  if (size_t hash = rest.find('#'); hash != std::string::npos) {
    uri.hasFragment = true;
    uri.fragment = rest.substr(hash + 1);
    rest.resize(hash);
  }
  if (size_t question = rest.find('?'); question != std::string::npos) {
    uri.hasQuery = true;
    uri.query = rest.substr(question + 1);
    rest.resize(question);
  }
  // A scheme is letters, digits, '+', '-', '.' before the first ':', starting with a letter.
  size_t colon = rest.find(':');
  if (colon != std::string::npos && colon > 0 && std::isalpha(static_cast<unsigned char>(rest[0]))) {
    bool schemeChars = true;
    for (size_t i = 0; i < colon; ++i) {
      char c = rest[i];
      if (!std::isalnum(static_cast<unsigned char>(c)) && c != '+' && c != '-' && c != '.') schemeChars = false;
    }
    if (schemeChars) {
      uri.hasScheme = true;
      uri.scheme = rest.substr(0, colon);
      rest = rest.substr(colon + 1);
    }
  }
  if (rest.rfind("//", 0) == 0) {
    uri.hasAuthority = true;
    size_t slash = rest.find('/', 2);
    uri.authority = rest.substr(2, slash == std::string::npos ? std::string::npos : slash - 2);
    rest = slash == std::string::npos ? std::string() : rest.substr(slash);
  }
  uri.path = rest;
  return uri;
}

std::string RemoveDotSegments(std::string input) {
  std::string output;
  while (!input.empty()) {
    if (input.rfind("../", 0) == 0) {
      input.erase(0, 3);
    } else if (input.rfind("./", 0) == 0) {
      input.erase(0, 2);
    } else if (input.rfind("/./", 0) == 0) {
      input.erase(0, 2);
    } else if (input == "/.") {
      input = "/";
    } else if (input.rfind("/../", 0) == 0 || input == "/..") {
      input = input == "/.." ? "/" : input.substr(3);
      size_t last = output.rfind('/');
      output.resize(last == std::string::npos ? 0 : last);
    } else if (input == "." || input == "..") {
      input.clear();
    } else {
      size_t next = input.find('/', input[0] == '/' ? 1 : 0);
      output += input.substr(0, next);
      input = next == std::string::npos ? std::string() : input.substr(next);
    }
  }
  return output;
}

std::string Merge(const Uri& base, const std::string& path) {
  if (base.hasAuthority && base.path.empty()) return "/" + path;
  size_t slash = base.path.rfind('/');
  return slash == std::string::npos ? path : base.path.substr(0, slash + 1) + path;
}

std::string Compose(const Uri& uri) {
  std::string text;
  if (uri.hasScheme) text += uri.scheme + ":";
  if (uri.hasAuthority) text += "//" + uri.authority;
  text += uri.path;
  if (uri.hasQuery) text += "?" + uri.query;
  if (uri.hasFragment) text += "#" + uri.fragment;
  return text;
}

}  // namespace

std::string ResolveUri(const std::string& base, const std::string& reference) {
  Uri r = Parse(reference);
  if (base.empty() && !r.hasScheme) {
    r.path = RemoveDotSegments(r.path);
    return Compose(r);
  }
  Uri b = Parse(base);
  Uri t;
  if (r.hasScheme) {
    t = r;
    t.path = RemoveDotSegments(r.path);
  } else {
    if (r.hasAuthority) {
      t.hasAuthority = true;
      t.authority = r.authority;
      t.path = RemoveDotSegments(r.path);
      t.hasQuery = r.hasQuery;
      t.query = r.query;
    } else {
      if (r.path.empty()) {
        t.path = b.path;
        t.hasQuery = r.hasQuery || b.hasQuery;
        t.query = r.hasQuery ? r.query : b.query;
      } else {
        t.path = RemoveDotSegments(r.path[0] == '/' ? r.path : Merge(b, r.path));
        t.hasQuery = r.hasQuery;
        t.query = r.query;
      }
      t.hasAuthority = b.hasAuthority;
      t.authority = b.authority;
    }
    t.hasScheme = b.hasScheme;
    t.scheme = b.scheme;
  }
  t.hasFragment = r.hasFragment;
  t.fragment = r.fragment;
  return Compose(t);
}

void SplitFragment(const std::string& uri, std::string& document, std::string& fragment) {
  size_t hash = uri.find('#');
  document = uri.substr(0, hash);
  fragment = hash == std::string::npos ? std::string() : uri.substr(hash + 1);
}

std::string PercentDecode(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && std::isxdigit(static_cast<unsigned char>(text[i + 1])) &&
        std::isxdigit(static_cast<unsigned char>(text[i + 2]))) {
      out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

}  // namespace JsonValidator::detail
