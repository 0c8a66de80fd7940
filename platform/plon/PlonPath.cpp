#include <charconv>
#include <new>

#include "platform/plon/Plon.h"
#include "platform/plon/PlonNodes.h"

struct PLONSHPath {
  const Plon::NodeDef* node;
  std::vector<PlonParam> args;
};

namespace {

// A decimal inode number: digits only, no sign, fits in int64_t.
bool ParseNumber(std::string_view text, int64_t* value) {
  if (text.empty() || text.front() < '0' || text.front() > '9') return false;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), *value);
  return ec == std::errc() && end == text.data() + text.size();
}

// The instance arguments of `text` when it names `node`; false when it names another node.
bool Match(const Plon::NodeDef& node, const std::vector<std::string_view>& elements, std::vector<PlonParam>* args) {
  std::vector<std::string_view> pattern = Plon::SplitPath(node.pattern);
  if (pattern.size() != elements.size()) return false;
  args->clear();
  for (size_t i = 0; i < pattern.size(); ++i) {
    if (pattern[i] != "%") {
      if (pattern[i] != elements[i]) return false;
    } else if (node.argKind == Plon::ArgKind::Int) {
      int64_t number;
      if (!ParseNumber(elements[i], &number)) return false;
      args->emplace_back(number);
    } else {
      if (!Plon::IsSafeElement(elements[i])) return false;
      args->emplace_back(std::string(elements[i]));
    }
  }
  return true;
}

}  // namespace

NUK_ReturnStatus PLONSHPath_Form(const char* text, PLONSHPath** path) {
  if (!text || !path) return NUK_BAD_PARAM;
  *path = nullptr;
  try {
    std::vector<std::string_view> elements = Plon::SplitPath(text);
    std::vector<PlonParam> args;
    for (const Plon::NodeDef& node : Plon::Nodes()) {
      if (!Match(node, elements, &args)) continue;
      *path = new PLONSHPath{&node, std::move(args)};
      return NUK_OK;
    }
    return NUK_NOT_FOUND;
  } catch (const std::bad_alloc&) {
    return NUK_NO_MEMORY;
  }
}

NUK_ReturnStatus PLONSHPath_GetLeafElement(const PLONSHPath* path, PLON_NodeId* node, size_t* outputSize) {
  if (!path || !node || !outputSize) return NUK_BAD_PARAM;
  *node = path->node->id;
  *outputSize = path->node->outputSize;
  return NUK_OK;
}

NUK_ReturnStatus PLONSHPath_GetInstArgs(const PLONSHPath* path, PLON_ParamList** args) {
  if (!path || !args) return NUK_BAD_PARAM;
  *args = nullptr;
  try {
    auto* list = new PLON_ParamList{static_cast<int>(path->args.size()), path->args};
    *args = list;
    return NUK_OK;
  } catch (const std::bad_alloc&) {
    return NUK_NO_MEMORY;
  }
}

void PLONSHPath_Delete(PLONSHPath* path) { delete path; }

std::vector<std::string> PLONSHPath_KnownPatterns() {
  std::vector<std::string> patterns;
  for (const Plon::NodeDef& node : Plon::Nodes()) patterns.emplace_back(node.pattern);
  return patterns;
}
