// Internals shared by the node functions and the path library: the table of known nodes,
// parameter storage and the path-element rules. Not for use outside platform/plon.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "platform/plon/Plon.h"

using PlonParam = std::variant<std::string, int64_t>;

struct PLON_ParamList {
  int capacity = 0;
  std::vector<PlonParam> params;
};

namespace Plon {

enum class ArgKind { None, String, Int };

struct NodeDef {
  const char* pattern;  // node path; each "%" element takes one instance argument, in order
  PLON_NodeId id;
  int instanceArgs;
  ArgKind argKind;      // kind of every instance argument of the node
  size_t outputSize;    // record size of a get; 0 for a node that can only be set
};

std::span<const NodeDef> Nodes();
// nullptr for an id outside the table.
const NodeDef* FindNode(PLON_NodeId id);

// "/a/b/c" -> {"a", "b", "c"}; "" or "/a//b" give empty elements, which no rule accepts.
std::vector<std::string_view> SplitPath(std::string_view path);

// A path element that stays where it is put: not empty, at most 255 bytes, no '/', no NUL,
// no "..", not ".".
bool IsSafeElement(std::string_view element);

// Text of a parameter as it appears in a node path or record: ints in decimal.
std::string ParamText(const PlonParam& param);

}  // namespace Plon
