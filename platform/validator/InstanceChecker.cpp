// CheckValue: walks a value along a compiled schema and lists every broken constraint.
#include <algorithm>
#include <cmath>
#include <cstdio>

#include "errors/Printable.h"
#include "platform/validator/CompiledSchema.h"
#include "platform/validator/ConfigStoreDocument.h"
#include "platform/validator/EcmaPattern.h"

namespace JsonValidator::detail {

using QorConfigStore::IsValidUtf8;
using QorConfigStore::Printable;
using rapidjson::Value;

namespace {

bool IsIntegral(const Value& v) { return v.IsInt64() || v.IsUint64(); }

// rapidjson keeps every integer literal that fits 64 bits as an integer; a whole double beyond
// that range can only come from a literal too big for 64 bits, so it counts as an integer too.
bool IsIntegerValue(const Value& v) {
  if (IsIntegral(v)) return true;
  if (!v.IsDouble()) return false;
  double d = v.GetDouble();
  return std::isfinite(d) && std::floor(d) == d && std::fabs(d) >= 9223372036854775808.0;
}

// -1, 0, 1; exact for 64-bit integers, as doubles otherwise.
int CompareNumbers(const Value& a, const Value& b) {
  if (IsIntegral(a) && IsIntegral(b)) {
    if (a.IsInt64() && b.IsInt64()) return a.GetInt64() < b.GetInt64() ? -1 : a.GetInt64() > b.GetInt64();
    if (a.IsUint64() && b.IsUint64()) return a.GetUint64() < b.GetUint64() ? -1 : a.GetUint64() > b.GetUint64();
    return a.IsInt64() ? -1 : 1;  // one is negative, the other beyond INT64_MAX
  }
  double x = a.GetDouble(), y = b.GetDouble();
  return x < y ? -1 : x > y;
}

bool IsMultipleOf(const Value& v, const Value& divisor) {
  if (IsIntegral(v) && divisor.IsUint64()) {
    uint64_t d = divisor.GetUint64();
    uint64_t magnitude = v.IsUint64() ? v.GetUint64() : static_cast<uint64_t>(-(v.GetInt64() + 1)) + 1;
    return magnitude % d == 0;
  }
  double x = v.GetDouble(), d = divisor.GetDouble();
  double quotient = x / d;
  if (!std::isfinite(quotient)) return std::fmod(x, d) == 0;
  return std::fabs(quotient - std::nearbyint(quotient)) <= 1e-9 * std::max(1.0, std::fabs(quotient));
}

size_t CodePoints(const Value& s) {
  size_t n = 0;
  const char* p = s.GetString();
  for (rapidjson::SizeType i = 0; i < s.GetStringLength(); ++i) {
    if ((static_cast<unsigned char>(p[i]) & 0xC0) != 0x80) ++n;
  }
  return n;
}

const char* TypeName(const Value& v) {
  switch (v.GetType()) {
    case rapidjson::kNullType: return "null";
    case rapidjson::kFalseType:
    case rapidjson::kTrueType: return "boolean";
    case rapidjson::kObjectType: return "object";
    case rapidjson::kArrayType: return "array";
    case rapidjson::kStringType: return "string";
    default: return IsIntegerValue(v) ? "integer" : "number";
  }
}

std::string TypeList(unsigned types) {
  static const std::pair<unsigned, const char*> kNames[] = {
      {kTypeObject, "object"}, {kTypeArray, "array"},     {kTypeString, "string"}, {kTypeInteger, "integer"},
      {kTypeNumber, "number"}, {kTypeBoolean, "boolean"}, {kTypeNull, "null"}};
  std::string text;
  for (auto& [bit, name] : kNames) {
    if ((types & bit) == 0) continue;
    if (!text.empty()) text += " or ";
    text += name;
  }
  return text;
}

bool TypeMatches(unsigned types, const Value& v) {
  switch (v.GetType()) {
    case rapidjson::kNullType: return types & kTypeNull;
    case rapidjson::kFalseType:
    case rapidjson::kTrueType: return types & kTypeBoolean;
    case rapidjson::kObjectType: return types & kTypeObject;
    case rapidjson::kArrayType: return types & kTypeArray;
    case rapidjson::kStringType: return types & kTypeString;
    default: return (types & kTypeNumber) || ((types & kTypeInteger) && IsIntegerValue(v));
  }
}

// What a value was, for "got ..." in messages: the value itself for scalars, the kind for containers.
std::string Got(const Value& v) {
  if (v.IsObject()) return "an object";
  if (v.IsArray()) return "an array";
  return Describe(v);
}

std::string Plural(uint64_t n, const char* word) { return std::to_string(n) + " " + word + (n == 1 ? "" : "s"); }

class Checker {
 public:
  Checker(const Checks& checks, std::vector<FieldError>* sink) : checks_(checks), sink_(sink) {}

  bool truncated() const { return truncated_; }

  bool Check(const Node& node, const Value& value) {
    if (depth_ >= kMaxDepth) {
      Report("nested deeper than " + std::to_string(kMaxDepth) + " levels; not checked further");
      return false;
    }
    // A "$ref" hop stays at the same level (chains are finite: compile refuses cycles).
    if (node.ref != nullptr) return Check(*node.ref, value);
    Deeper deeper(depth_);

    bool ok = true;
    // Records a failure; true when the caller may stop (only the verdict is wanted).
    auto sub = [&](const Node& schema, const Value& v) {
      if (Check(schema, v)) return false;
      ok = false;
      return sink_ == nullptr;
    };

    if (checks_.types && node.types != 0 && !TypeMatches(node.types, value)) {
      if (Fail(ok, "must be of type " + TypeList(node.types) + ", got " + TypeName(value))) return false;
    }
    if (checks_.values && node.enumValues != nullptr) {
      bool found = std::any_of(node.enumValues->Begin(), node.enumValues->End(),
                               [&](const Value& e) { return JsonEqual(e, value); });
      if (!found && Fail(ok, "must be one of " + Describe(*node.enumValues, 120) + ", got " + Got(value))) return false;
    }
    bool valid = true;
    if (value.IsObject()) valid = CheckObject(node, value);
    else if (value.IsArray()) valid = CheckArray(node, value);
    else if (value.IsString()) valid = CheckString(node, value);
    else if (value.IsNumber()) valid = CheckNumber(node, value);
    if (!valid) {
      ok = false;
      if (sink_ == nullptr) return false;
    }

    for (const Node* part : node.allOf) {
      if (sub(*part, value)) return false;
    }
    if (checks_.types) {
      if (!node.anyOf.empty() &&
          std::none_of(node.anyOf.begin(), node.anyOf.end(), [&](const Node* n) { return Matches(*n, value); })) {
        if (Fail(ok, "matches none of the " + std::to_string(node.anyOf.size()) + " allowed alternatives (anyOf)")) return false;
      }
      if (!node.oneOf.empty()) {
        size_t matched = std::count_if(node.oneOf.begin(), node.oneOf.end(), [&](const Node* n) { return Matches(*n, value); });
        std::string how = matched == 0 ? "none" : std::to_string(matched);
        if (matched != 1 && Fail(ok, "matches " + how + " of the " + std::to_string(node.oneOf.size()) +
                                 " alternatives, must match exactly one (oneOf)")) {
          return false;
        }
      }
      if (node.notSchema != nullptr && Matches(*node.notSchema, value)) {
        if (Fail(ok, "must not match the schema under \"not\"")) return false;
      }
    }
    return ok;
  }

  // Reports every string and member name that is not well-formed UTF-8: what is stored and
  // printed is JSON, which is UTF-8 text. An explicit stack: any nesting depth is safe.
  void CheckEncoding(const Value& root) {
    auto utf8 = [](const Value& s) { return IsValidUtf8(std::string_view(s.GetString(), s.GetStringLength())); };
    const size_t base = steps_.size();
    struct Frame {
      const Value* container;
      rapidjson::SizeType next;
      size_t pathLength;  // steps of the container's own field
    };
    std::vector<Frame> stack;
    if (root.IsString() && !utf8(root)) Report("invalid UTF-8");
    if (root.IsArray() || root.IsObject()) stack.push_back({&root, 0, base});
    while (!stack.empty()) {
      Frame& frame = stack.back();
      const Value& container = *frame.container;
      const rapidjson::SizeType count = container.IsArray() ? container.Size() : container.MemberCount();
      if (frame.next == count) {
        stack.pop_back();
        continue;
      }
      const rapidjson::SizeType i = frame.next++;
      steps_.resize(frame.pathLength);
      const Value* child;
      if (container.IsArray()) {
        steps_.push_back({nullptr, i});
        child = &container[i];
      } else {
        const auto member = container.MemberBegin() + i;
        steps_.push_back({member->name.GetString(), member->name.GetStringLength()});
        if (!utf8(member->name)) Report("invalid UTF-8 in the member name");
        child = &member->value;
      }
      if (child->IsString() && !utf8(*child)) Report("invalid UTF-8");
      if (child->IsArray() || child->IsObject()) stack.push_back({child, 0, steps_.size()});
    }
    steps_.resize(base);
  }

 private:
  struct Deeper {
    int& depth;
    explicit Deeper(int& d) : depth(d) { ++depth; }
    ~Deeper() { --depth; }
  };

  // One step of the field path: a member name, or an array index when `name` is null. The path's
  // text is made only for a reported error.
  struct PathStep {
    const char* name;
    size_t lengthOrIndex;
  };

  // The field path of the value being checked, "/nics/2/mtu": names made Printable, "~" and "/" escaped.
  std::string Path() const {
    std::string path;
    for (const PathStep& step : steps_) {
      path += '/';
      if (step.name == nullptr) {
        path += std::to_string(step.lengthOrIndex);
        continue;
      }
      for (char c : Printable(std::string_view(step.name, step.lengthOrIndex))) {
        if (c == '~') path += "~0";
        else if (c == '/') path += "~1";
        else path += c;
      }
    }
    return path;
  }

  // Adds one step to the field path while it lives.
  class Step {
   public:
    Step(Checker& c, const char* name, size_t length) : steps_(c.steps_) { steps_.push_back({name, length}); }
    Step(Checker& c, size_t index) : steps_(c.steps_) { steps_.push_back({nullptr, index}); }
    ~Step() { steps_.pop_back(); }

   private:
    std::vector<PathStep>& steps_;
  };

  // Records a failed check in `ok` and the sink; true when only the verdict is wanted (no sink),
  // so the caller may stop at the first failure.
  bool Fail(bool& ok, const std::string& message) {
    ok = false;
    Report(message);
    return sink_ == nullptr;
  }

  void Report(const std::string& message) {
    if (sink_ == nullptr) return;
    if (sink_->size() < kMaxErrors) sink_->push_back({Path(), message});
    else truncated_ = true;
  }

  // The verdict of a branch of anyOf/oneOf/not, without its errors. Outside draft-04 mode a
  // branch is always judged on types, required members and values, whatever the caller selected:
  // leaving those out would flip the verdict of "not" and "oneOf".
  bool Matches(const Node& node, const Value& value) {
    Checks saved = checks_;
    std::vector<FieldError>* savedSink = sink_;
    if (!checks_.draft) checks_.types = checks_.required = checks_.values = true;
    sink_ = nullptr;
    bool matched = Check(node, value);
    checks_ = saved;
    sink_ = savedSink;
    return matched;
  }

  bool CheckObject(const Node& node, const Value& object) {
    bool ok = true;
    auto has = [&](const std::string& name) {
      return object.FindMember(Value(rapidjson::StringRef(name.data(), name.size()))) != object.MemberEnd();
    };
    if (checks_.required) {
      for (const std::string& name : node.required) {
        if (!has(name) && Fail(ok, "missing required member \"" + Printable(name) + "\"")) return false;
      }
    }
    for (const Dependency& d : node.dependencies) {
      if (!has(d.member)) continue;
      if (checks_.required) {
        for (const std::string& name : d.requiredMembers) {
          if (!has(name) && Fail(ok, "member \"" + Printable(d.member) + "\" requires member \"" + Printable(name) + "\"")) return false;
        }
      }
      if (d.schema != nullptr && !Check(*d.schema, object)) {
        ok = false;
        if (sink_ == nullptr) return false;
      }
    }
    if (checks_.values) {
      uint64_t n = object.MemberCount();
      if (node.minProperties && n < *node.minProperties &&
          Fail(ok, "must have at least " + Plural(*node.minProperties, "member") + ", got " + std::to_string(n))) {
        return false;
      }
      if (node.maxProperties && n > *node.maxProperties &&
          Fail(ok, "must have at most " + Plural(*node.maxProperties, "member") + ", got " + std::to_string(n))) {
        return false;
      }
    }
    bool refuseUndescribed = node.additionalProperties == Extra::kRefused ? (checks_.draft || checks_.unknownRefused)
                             : node.additionalProperties == Extra::kUnspecified
                                 ? checks_.unknownRefused && node.describesMembers
                                 : false;
    for (auto& m : object.GetObject()) {
      const char* name = m.name.GetString();
      size_t length = m.name.GetStringLength();
      Step step(*this, name, length);
      bool described = false;
      if (const Node* property = node.properties.Find(std::string_view(name, length))) {
        described = true;
        if (!Check(*property, m.value)) {
          ok = false;
          if (sink_ == nullptr) return false;
        }
      }
      for (const PatternSchema& p : node.patternProperties) {
        if (!PatternFinds(*p.re, name, length)) continue;
        described = true;
        if (!Check(*p.schema, m.value)) {
          ok = false;
          if (sink_ == nullptr) return false;
        }
      }
      if (described) continue;
      if (node.additionalProperties == Extra::kSchema) {
        if (!Check(*node.additionalPropertiesSchema, m.value)) {
          ok = false;
          if (sink_ == nullptr) return false;
        }
      } else if (refuseUndescribed && Fail(ok, "unknown member \"" + Printable(std::string_view(name, length)) + "\"")) {
        return false;
      }
    }
    if (!node.instanceIdMember.empty() && (checks_.idAlways || (checks_.idUnlessGenerated && !node.instanceIdGenerated))) {
      const std::string& id = node.instanceIdMember;
      auto member = object.FindMember(Value(rapidjson::StringRef(id.data(), id.size())));
      if (member == object.MemberEnd()) {
        // Already reported when "required" lists it.
        bool reported = checks_.required && std::find(node.required.begin(), node.required.end(), id) != node.required.end();
        if (!reported && Fail(ok, "missing instance identifier \"" + Printable(id) + "\"")) return false;
      } else if (!member->value.IsString() || member->value.GetStringLength() == 0) {
        Step step(*this, id.data(), id.size());
        if (Fail(ok, "instance identifier \"" + Printable(id) + "\" must be a non-empty string, got " + Got(member->value))) return false;
      }
    }
    return ok;
  }

  bool CheckArray(const Node& node, const Value& array) {
    bool ok = true;
    uint64_t n = array.Size();
    if (checks_.values) {
      if (node.minItems && n < *node.minItems &&
          Fail(ok, "must have at least " + Plural(*node.minItems, "element") + ", got " + std::to_string(n))) {
        return false;
      }
      if (node.maxItems && n > *node.maxItems &&
          Fail(ok, "must have at most " + Plural(*node.maxItems, "element") + ", got " + std::to_string(n))) {
        return false;
      }
      if (node.uniqueItems) {
        std::string duplicate = FindDuplicate(array);
        if (!duplicate.empty() && Fail(ok, "must not repeat elements: " + duplicate)) return false;
      }
    }
    for (rapidjson::SizeType i = 0; i < array.Size(); ++i) {
      const Node* schema = nullptr;
      if (!node.itemsIsTuple) {
        schema = node.items;
      } else if (i < node.tupleItems.size()) {
        schema = node.tupleItems[i];
      } else if (node.additionalItems == Extra::kSchema) {
        schema = node.additionalItemsSchema;
      } else if (node.additionalItems == Extra::kRefused && (checks_.draft || checks_.unknownRefused)) {
        Step step(*this, i);
        if (Fail(ok, "unexpected element: at most " + Plural(node.tupleItems.size(), "element") + " allowed")) return false;
        continue;
      }
      if (schema == nullptr) {
        if (node.itemsIsTuple) break;  // nothing describes the remaining elements
        continue;
      }
      Step step(*this, i);
      if (!Check(*schema, array[i])) {
        ok = false;
        if (sink_ == nullptr) return false;
      }
    }
    return ok;
  }

  // "elements 0 and 3 are equal", or "" when all differ. Hashes first: O(n log n), not O(n^2).
  static std::string FindDuplicate(const Value& array) {
    std::vector<std::pair<size_t, rapidjson::SizeType>> hashed;
    hashed.reserve(array.Size());
    for (rapidjson::SizeType i = 0; i < array.Size(); ++i) hashed.emplace_back(JsonHash(array[i]), i);
    std::sort(hashed.begin(), hashed.end());
    std::pair<rapidjson::SizeType, rapidjson::SizeType> best{0, 0};
    for (size_t a = 0; a < hashed.size(); ++a) {
      for (size_t b = a + 1; b < hashed.size() && hashed[b].first == hashed[a].first; ++b) {
        if (!JsonEqual(array[hashed[a].second], array[hashed[b].second])) continue;
        std::pair<rapidjson::SizeType, rapidjson::SizeType> pair{hashed[a].second, hashed[b].second};
        if (best.second == 0 || pair < best) best = pair;
        break;
      }
    }
    if (best.second == 0) return std::string();
    return "elements " + std::to_string(best.first) + " and " + std::to_string(best.second) + " are equal";
  }

  bool CheckString(const Node& node, const Value& s) {
    if (!checks_.values) return true;
    bool ok = true;
    if (node.minLength || node.maxLength) {
      size_t n = CodePoints(s);
      if (node.minLength && n < *node.minLength &&
          Fail(ok, "must be at least " + Plural(*node.minLength, "character") + " long, got " + std::to_string(n))) {
        return false;
      }
      if (node.maxLength && n > *node.maxLength &&
          Fail(ok, "must be at most " + Plural(*node.maxLength, "character") + " long, got " + std::to_string(n))) {
        return false;
      }
    }
    if (node.pattern && !PatternFinds(*node.pattern, s.GetString(), s.GetStringLength()) &&
        Fail(ok, "does not match pattern " + node.patternSource)) {
      return false;
    }
    return ok;
  }

  bool CheckNumber(const Node& node, const Value& v) {
    if (!checks_.values) return true;
    bool ok = true;
    if (node.minimum != nullptr) {
      int c = CompareNumbers(v, *node.minimum);
      if (node.exclusiveMinimum ? c <= 0 : c < 0) {
        if (Fail(ok, std::string(node.exclusiveMinimum ? "must be greater than " : "must be at least ") +
                 Describe(*node.minimum) + ", got " + Describe(v))) {
          return false;
        }
      }
    }
    if (node.maximum != nullptr) {
      int c = CompareNumbers(v, *node.maximum);
      if (node.exclusiveMaximum ? c >= 0 : c > 0) {
        if (Fail(ok, std::string(node.exclusiveMaximum ? "must be less than " : "must be at most ") +
                 Describe(*node.maximum) + ", got " + Describe(v))) {
          return false;
        }
      }
    }
    if (node.multipleOf != nullptr && !IsMultipleOf(v, *node.multipleOf) &&
        Fail(ok, "must be a multiple of " + Describe(*node.multipleOf) + ", got " + Describe(v))) {
      return false;
    }
    return ok;
  }

  Checks checks_;
  std::vector<FieldError>* sink_;  // null: only the verdict is wanted; stop at the first failure
  std::vector<PathStep> steps_;    // field of the value being checked
  int depth_ = 0;
  bool truncated_ = false;
};

}  // namespace

std::vector<FieldError> CheckValue(const CompiledSchema& schema, const Value& value, const Checks& checks) {
  std::vector<FieldError> errors;
  Checker checker(checks, &errors);
  checker.Check(*schema.root, value);
  checker.CheckEncoding(value);
  if (checker.truncated()) {
    errors.push_back({"", "more than " + std::to_string(kMaxErrors) + " errors; the rest are not listed"});
  }
  return errors;
}

bool JsonEqual(const Value& a, const Value& b) {
  std::vector<std::pair<const Value*, const Value*>> pending{{&a, &b}};
  while (!pending.empty()) {
    auto [x, y] = pending.back();
    pending.pop_back();
    if (x->IsNumber() && y->IsNumber()) {
      if (CompareNumbers(*x, *y) != 0) return false;
      continue;
    }
    bool sameKind = x->GetType() == y->GetType() || (x->IsBool() && y->IsBool());
    if (!sameKind) return false;
    if (x->IsBool()) {
      if (x->GetBool() != y->GetBool()) return false;
    } else if (x->IsString()) {
      if (x->GetStringLength() != y->GetStringLength() ||
          std::char_traits<char>::compare(x->GetString(), y->GetString(), x->GetStringLength()) != 0) {
        return false;
      }
    } else if (x->IsArray()) {
      if (x->Size() != y->Size()) return false;
      for (rapidjson::SizeType i = 0; i < x->Size(); ++i) pending.emplace_back(&(*x)[i], &(*y)[i]);
    } else if (x->IsObject()) {
      if (x->MemberCount() != y->MemberCount()) return false;
      for (auto& m : x->GetObject()) {
        auto other = y->FindMember(m.name);
        if (other == y->MemberEnd()) return false;
        pending.emplace_back(&m.value, &other->value);
      }
    }
  }
  return true;
}

size_t JsonHash(const Value& value) {
  // Looks 8 levels deep at most (equality decides the rest); member order does not count.
  struct Hasher {
    static size_t Of(const Value& v, int depth) {
      std::hash<std::string_view> text;
      switch (v.GetType()) {
        case rapidjson::kNullType: return 0x9e3779b9u;
        case rapidjson::kFalseType: return 0x85ebca6bu;
        case rapidjson::kTrueType: return 0xc2b2ae35u;
        case rapidjson::kStringType: return text(std::string_view(v.GetString(), v.GetStringLength()));
        case rapidjson::kNumberType: {
          double d = v.GetDouble();
          return d == 0 ? 0x27d4eb2fu : std::hash<double>()(d);
        }
        case rapidjson::kArrayType: {
          size_t h = 0x165667b1u + v.Size();
          if (depth < 8) {
            for (auto& e : v.GetArray()) h = h * 1099511628211u ^ Of(e, depth + 1);
          }
          return h;
        }
        default: {
          size_t h = 0xd3a2646cu + v.MemberCount();
          if (depth < 8) {
            for (auto& m : v.GetObject()) {
              h += text(std::string_view(m.name.GetString(), m.name.GetStringLength())) * 31 + Of(m.value, depth + 1);
            }
          }
          return h;
        }
      }
    }
  };
  return Hasher::Of(value, 0);
}

bool DepthExceeds(const Value& value, int limit) {
  std::vector<std::pair<const Value*, int>> pending{{&value, 1}};
  while (!pending.empty()) {
    auto [v, depth] = pending.back();
    pending.pop_back();
    if (!v->IsObject() && !v->IsArray()) continue;
    if (depth > limit) return true;
    if (v->IsObject()) {
      for (auto& m : v->GetObject()) pending.emplace_back(&m.value, depth + 1);
    } else {
      for (auto& e : v->GetArray()) pending.emplace_back(&e, depth + 1);
    }
  }
  return false;
}

std::string Describe(const Value& value, size_t maxLength) {
  std::string text;
  ConfigStoreDocument::SerializeValue(value, text);
  if (text.size() > maxLength) {
    size_t cut = maxLength;
    while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;  // keep UTF-8 whole
    text = text.substr(0, cut) + "...";
  }
  return text;
}

}  // namespace JsonValidator::detail
