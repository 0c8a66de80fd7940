// Compile: reads the schema where it lies (remote schemas it refers to are copied for the
// compile only), resolves "$ref" and compiles the patterns, once per cache key. What the checks
// need of the schema (member names, enums, bounds) is copied into the compiled result, so it owes
// nothing to the caller's value. Locations and "id" base URIs are worked out only for an error
// message or a "$ref".
#include <algorithm>
#include <cmath>
#include <iterator>
#include <string_view>
#include <unordered_set>

#include "platform/validator/CompiledSchema.h"
#include "platform/validator/EcmaPattern.h"
#include "platform/validator/SchemaUri.h"

namespace JsonValidator::detail {
namespace {

using rapidjson::Value;

struct SchemaError {
  std::string message;
};

// Where a schema object sits: its base URI (after "id") and a readable location ("#/properties/a").
struct Place {
  std::string base;
  std::string location;
};

// How the compiler reached a schema object: below its parent's object through a keyword, then a
// member name or an index. Its place (base URI and location) is worked out from this chain and the
// index of the documents, and only when an error or a "$ref" needs it.
struct Frame {
  const Frame* parent = nullptr;  // null: the root document, or a definition (keyword "definitions")
  const Value* value = nullptr;
  const char* keyword = nullptr;  // "/keyword" below the parent
  const Value* name = nullptr;    // then "/name", escaped
  long index = -1;                // or "/index"
};

std::string EscapePointerToken(const std::string& token) {
  std::string out;
  for (char c : token) {
    if (c == '~') out += "~0";
    else if (c == '/') out += "~1";
    else out += c;
  }
  return out;
}

std::string Name(const Value& name) { return std::string(name.GetString(), name.GetStringLength()); }

class Compiler {
 public:
  Compiler(CompiledSchema& out, const RemoteResolver& resolver) : out_(out), resolver_(resolver) {}

  void Run(const Value& schema) {
    RefuseDeepNesting(schema, "");
    root_ = &schema;
    byUri_.emplace("", &schema);
    out_.root = CompileAt(schema, Frame{nullptr, &schema});
    for (size_t i = 0; i < pendingDefinitions_.size(); ++i) CompileDefinitions(*pendingDefinitions_[i]);
    RefuseRefCycles();
  }

 private:
  void RefuseDeepNesting(const Value& schema, const std::string& uri) {
    if (DepthExceeds(schema, 2 * kMaxDepth)) {
      throw SchemaError{"the schema " + (uri.empty() ? std::string() : "\"" + uri + "\" ") + "nests deeper than " +
                        std::to_string(2 * kMaxDepth) + " levels"};
    }
  }

  // Copies a remote schema document for the rest of the compile and indexes it under `uri` (no fragment).
  const Value& Load(const Value& source, const std::string& uri) {
    RefuseDeepNesting(source, uri);
    EnsureIndexed();
    rapidjson::Document& copy = remotes_.emplace_back();
    copy.CopyFrom(source, copy.GetAllocator());
    byUri_.emplace(uri, &copy);
    Index(copy, Place{uri, uri + "#"});
    return copy;
  }

  // The root document's places, indexed on first need.
  void EnsureIndexed() {
    if (indexed_) return;
    indexed_ = true;
    Index(*root_, Place{"", "#"});
  }

  // The place of `frame`'s object: where indexing put it, or below its parent's place.
  Place PlaceOf(const Frame& frame) {
    if (frame.parent == nullptr && frame.keyword == nullptr) return Place{"", "#"};
    EnsureIndexed();
    if (auto known = places_.find(frame.value); known != places_.end()) return known->second;
    if (frame.parent == nullptr) return Place{"", std::string(frame.keyword) + "/" + Name(*frame.name)};
    Place place = PlaceOf(*frame.parent);
    place.location += "/";
    place.location += frame.keyword;
    if (frame.name != nullptr) place.location += "/" + EscapePointerToken(Name(*frame.name));
    if (frame.index >= 0) place.location += "/" + std::to_string(frame.index);
    return place;
  }

  std::string Location(const Frame& frame) { return PlaceOf(frame).location; }

  // A copy of `text` that lives as long as the compiled result.
  std::string_view Keep(const Value& text) {
    const size_t length = text.GetStringLength();
    char* copy = static_cast<char*>(out_.pool.Malloc(length == 0 ? 1 : length));
    std::char_traits<char>::copy(copy, text.GetString(), length);
    return std::string_view(copy, length);
  }
  const Value* KeepValue(const Value& value) { return &out_.values.emplace_back(value, out_.pool); }

  // Records the base URI of every schema object reachable through schema keywords, and the
  // objects that "id" names. Values of "enum" and unknown keywords are not schemas: an "id" inside
  // them names nothing.
  void Index(const Value& schema, Place place) {
    if (!schema.IsObject()) return;
    auto [entry, added] = places_.try_emplace(&schema);
    if (!added) return;
    auto id = schema.FindMember("id");
    if (id != schema.MemberEnd() && id->value.IsString() && !schema.HasMember("$ref")) {
      place.base = ResolveUri(place.base, Name(id->value));
      std::string key = place.base;
      if (!key.empty() && key.back() == '#') key.pop_back();
      byUri_.emplace(key, &schema);
    }
    entry->second = place;
    // The maps of schemas first, then the schemas and arrays of schemas, each in this order; the
    // first member of a name counts, as FindMember finds it.
    static constexpr std::string_view kKeywords[] = {"properties", "patternProperties", "definitions",
                                                     "dependencies", "items", "additionalItems",
                                                     "additionalProperties", "not", "allOf", "anyOf", "oneOf"};
    constexpr size_t kMaps = 4;
    const Value* found[std::size(kKeywords)] = {};
    for (auto& m : schema.GetObject()) {
      const std::string_view name(m.name.GetString(), m.name.GetStringLength());
      for (size_t k = 0; k < std::size(kKeywords); ++k) {
        if (name == kKeywords[k]) {
          if (found[k] == nullptr) found[k] = &m.value;
          break;
        }
      }
    }
    for (size_t k = 0; k < kMaps; ++k) {
      if (found[k] == nullptr || !found[k]->IsObject()) continue;
      const std::string at = place.location + "/" + std::string(kKeywords[k]) + "/";
      for (auto& m : found[k]->GetObject()) Index(m.value, Place{place.base, at + EscapePointerToken(Name(m.name))});
    }
    for (size_t k = kMaps; k < std::size(kKeywords); ++k) {
      const Value* sub = found[k];
      if (sub == nullptr) continue;
      std::string at = place.location + "/" + std::string(kKeywords[k]);
      if (sub->IsArray()) {
        for (rapidjson::SizeType i = 0; i < sub->Size(); ++i) {
          Index((*sub)[i], Place{place.base, at + "/" + std::to_string(i)});
        }
      } else {
        Index(*sub, Place{place.base, at});
      }
    }
  }

  const Value& Fetch(const std::string& document, const std::string& reference, const std::string& location) {
    auto known = byUri_.find(document);
    if (known != byUri_.end()) return *known->second;
    const Value* remote = (resolver_ && fetched_.insert(document).second) ? resolver_(document) : nullptr;
    if (remote == nullptr) {
      throw SchemaError{"cannot resolve $ref \"" + reference + "\" at " + location};
    }
    return Load(*remote, document);
  }

  const Value& ResolveRef(const std::string& reference, const Frame& frame) {
    const Place place = PlaceOf(frame);
    std::string uri = ResolveUri(place.base, reference);
    std::string document, fragment;
    SplitFragment(uri, document, fragment);
    if (!fragment.empty() && fragment[0] != '/') {  // a plain name, defined by an "id": "#name"
      std::string key = document + "#" + fragment;
      if (byUri_.count(key) == 0) Fetch(document, reference, place.location);
      auto named = byUri_.find(key);
      if (named == byUri_.end()) throw SchemaError{"cannot resolve $ref \"" + reference + "\" at " + place.location};
      return *named->second;
    }
    const Value* target = &Fetch(document, reference, place.location);
    std::string pointer = PercentDecode(fragment);
    size_t pos = 0;
    while (pos < pointer.size()) {  // pointer[pos] == '/'
      size_t end = pointer.find('/', pos + 1);
      std::string token = pointer.substr(pos + 1, end == std::string::npos ? std::string::npos : end - pos - 1);
      for (size_t i = 0; (i = token.find('~', i)) != std::string::npos; ++i) {
        if (i + 1 < token.size() && token[i + 1] == '1') token.replace(i, 2, "/");
        else if (i + 1 < token.size() && token[i + 1] == '0') token.replace(i, 2, "~");
      }
      const Value* next = nullptr;
      if (target->IsObject()) {
        auto m = target->FindMember(Value(token.c_str(), static_cast<rapidjson::SizeType>(token.size())));
        if (m != target->MemberEnd()) next = &m->value;
      } else if (target->IsArray() && !token.empty() && token.find_first_not_of("0123456789") == std::string::npos &&
                 token.size() < 10 && std::stoul(token) < target->Size()) {
        next = &(*target)[static_cast<rapidjson::SizeType>(std::stoul(token))];
      }
      if (next == nullptr) throw SchemaError{"$ref \"" + reference + "\" at " + place.location + " points to nothing"};
      target = next;
      pos = end == std::string::npos ? pointer.size() : end;
    }
    return *target;
  }

  // The schema `schema` below `parent`'s object, reached through `keyword` and then `name` or `index`.
  const Node* CompileChild(const Value& schema, const Frame& parent, const char* keyword, const Value* name = nullptr,
                           long index = -1) {
    return CompileAt(schema, Frame{&parent, &schema, keyword, name, index});
  }

  const Node* CompileAt(const Value& schema, const Frame& frame) {
    if (auto done = compiled_.find(&schema); done != compiled_.end()) return done->second;
    if (!schema.IsObject()) throw SchemaError{Location(frame) + ": a schema must be an object"};
    if (depth_ >= 2 * kMaxDepth) {
      throw SchemaError{Location(frame) + ": schemas and references nest deeper than " + std::to_string(2 * kMaxDepth) +
                        " levels"};
    }
    Node& node = out_.nodes.emplace_back();
    compiled_[&schema] = &node;
    struct Deeper {
      int& depth;
      explicit Deeper(int& d) : depth(d) { ++depth; }
      ~Deeper() { --depth; }
    } deeper(depth_);

    if (auto ref = schema.FindMember("$ref"); ref != schema.MemberEnd()) {
      if (!ref->value.IsString()) throw SchemaError{Location(frame) + ": \"$ref\" must be a string"};
      const Value& target = ResolveRef(Name(ref->value), frame);
      node.ref = CompileChild(target, frame, "$ref");
      refNodes_.push_back(&node);
      return &node;  // "$ref" overrides every sibling keyword
    }
    for (auto& member : schema.GetObject()) {
      CompileKeyword(node, std::string_view(member.name.GetString(), member.name.GetStringLength()), member.value,
                     frame);
    }
    node.properties.Seal();
    return &node;
  }

  void CompileKeyword(Node& node, std::string_view keyword, const Value& v, const Frame& frame) {
    // The keyword's location, built only for an error.
    auto at = [&] { return Location(frame) + "/" + EscapePointerToken(std::string(keyword)); };
    auto bad = [&](const char* what) { throw SchemaError{at() + ": \"" + std::string(keyword) + "\" must be " + what}; };
    auto count = [&]() -> uint64_t {
      if (v.IsUint64()) return v.GetUint64();
      if (v.IsDouble() && v.GetDouble() >= 0 && v.GetDouble() < 1e18 && std::floor(v.GetDouble()) == v.GetDouble()) {
        return static_cast<uint64_t>(v.GetDouble());
      }
      bad("a non-negative integer");
      return 0;
    };
    auto schemaArray = [&](std::vector<const Node*>& into, const char* name) {
      if (!v.IsArray()) bad("an array of schemas");
      into.reserve(v.Size());
      for (rapidjson::SizeType i = 0; i < v.Size(); ++i) into.push_back(CompileChild(v[i], frame, name, nullptr, i));
    };
    auto pattern = [&](const std::string& source) {
      std::string error;
      std::shared_ptr<const RE2> re = CompileEcmaPattern(source, error);
      if (!re) throw SchemaError{at() + ": bad pattern \"" + source + "\": " + error};
      return re;
    };

    if (keyword == "type") {
      node.types = 0;
      auto add = [&](const Value& name) {
        static const std::pair<const char*, unsigned> kNames[] = {
            {"null", kTypeNull},     {"boolean", kTypeBoolean}, {"object", kTypeObject}, {"array", kTypeArray},
            {"number", kTypeNumber}, {"string", kTypeString},   {"integer", kTypeInteger}};
        if (name.IsString()) {
          for (auto& [text, bit] : kNames) {
            if (Name(name) == text) {
              node.types |= bit;
              return;
            }
          }
        }
        bad("a type name (null, boolean, object, array, number, string, integer) or an array of them");
      };
      if (v.IsArray()) {
        for (auto& name : v.GetArray()) add(name);
      } else {
        add(v);
      }
    } else if (keyword == "properties") {
      if (!v.IsObject()) bad("an object");
      node.describesMembers = true;
      node.properties.Reserve(v.MemberCount());
      for (auto& m : v.GetObject()) {
        node.properties.Add(Keep(m.name), CompileChild(m.value, frame, "properties", &m.name));
        auto marker = m.value.FindMember("instanceId");
        if (node.instanceIdMember.empty() && marker != m.value.MemberEnd() && marker->value.IsTrue()) {
          node.instanceIdMember = Name(m.name);
          auto generated = m.value.FindMember("generatedId");
          node.instanceIdGenerated = generated != m.value.MemberEnd() && generated->value.IsTrue();
        }
      }
    } else if (keyword == "patternProperties") {
      if (!v.IsObject()) bad("an object");
      node.describesMembers = true;
      for (auto& m : v.GetObject()) {
        PatternSchema& p = node.patternProperties.emplace_back();
        p.source = Name(m.name);
        p.re = pattern(p.source);
        p.schema = CompileChild(m.value, frame, "patternProperties", &m.name);
      }
    } else if (keyword == "additionalProperties" || keyword == "additionalItems") {
      bool properties = keyword == "additionalProperties";
      Extra& extra = properties ? node.additionalProperties : node.additionalItems;
      if (v.IsBool()) {
        extra = v.GetBool() ? Extra::kAllowed : Extra::kRefused;
      } else if (v.IsObject()) {
        extra = Extra::kSchema;
        (properties ? node.additionalPropertiesSchema : node.additionalItemsSchema) =
            CompileChild(v, frame, properties ? "additionalProperties" : "additionalItems");
      } else {
        bad("a boolean or a schema");
      }
    } else if (keyword == "required") {
      if (!v.IsArray()) bad("an array of member names");
      for (auto& name : v.GetArray()) {
        if (!name.IsString()) bad("an array of member names");
        node.required.push_back(Name(name));
      }
    } else if (keyword == "dependencies") {
      if (!v.IsObject()) bad("an object");
      for (auto& m : v.GetObject()) {
        Dependency& d = node.dependencies.emplace_back();
        d.member = Name(m.name);
        if (m.value.IsArray()) {
          for (auto& name : m.value.GetArray()) {
            if (!name.IsString()) bad("an object of member-name arrays or schemas");
            d.requiredMembers.push_back(Name(name));
          }
        } else {
          d.schema = CompileChild(m.value, frame, "dependencies", &m.name);
        }
      }
    } else if (keyword == "minProperties") {
      node.minProperties = count();
    } else if (keyword == "maxProperties") {
      node.maxProperties = count();
    } else if (keyword == "items") {
      if (v.IsArray()) {
        node.itemsIsTuple = true;
        schemaArray(node.tupleItems, "items");
      } else {
        node.items = CompileChild(v, frame, "items");
      }
    } else if (keyword == "minItems") {
      node.minItems = count();
    } else if (keyword == "maxItems") {
      node.maxItems = count();
    } else if (keyword == "uniqueItems") {
      if (!v.IsBool()) bad("a boolean");
      node.uniqueItems = v.GetBool();
    } else if (keyword == "minLength") {
      node.minLength = count();
    } else if (keyword == "maxLength") {
      node.maxLength = count();
    } else if (keyword == "pattern") {
      if (!v.IsString()) bad("a string");
      node.patternSource = Name(v);
      node.pattern = pattern(node.patternSource);
    } else if (keyword == "minimum" || keyword == "maximum") {
      if (!v.IsNumber()) bad("a number");
      (keyword == "minimum" ? node.minimum : node.maximum) = KeepValue(v);
    } else if (keyword == "exclusiveMinimum" || keyword == "exclusiveMaximum") {
      if (!v.IsBool()) bad("a boolean");
      (keyword == "exclusiveMinimum" ? node.exclusiveMinimum : node.exclusiveMaximum) = v.GetBool();
    } else if (keyword == "multipleOf") {
      if (!v.IsNumber() || v.GetDouble() <= 0) bad("a number greater than 0");
      node.multipleOf = KeepValue(v);
    } else if (keyword == "enum") {
      if (!v.IsArray()) bad("an array");
      node.enumValues = KeepValue(v);
    } else if (keyword == "allOf") {
      schemaArray(node.allOf, "allOf");
    } else if (keyword == "anyOf") {
      schemaArray(node.anyOf, "anyOf");
    } else if (keyword == "oneOf") {
      schemaArray(node.oneOf, "oneOf");
    } else if (keyword == "not") {
      node.notSchema = CompileChild(v, frame, "not");
    } else if (keyword == "definitions") {
      if (!v.IsObject()) bad("an object");
      pendingDefinitions_.push_back(&v);  // compiled at the end: a broken unused definition still counts
    }
    // Anything else ("id", "$schema", "title", "description", "default", "format", and the
    // extension markers "instanceId", "generatedId", "vital", "cached") checks nothing here.
  }

  void CompileDefinitions(const Value& definitions) {
    for (auto& m : definitions.GetObject()) CompileAt(m.value, Frame{nullptr, &m.value, "definitions", &m.name});
  }

  // A chain of "$ref" that comes back to itself would be followed forever at the same value.
  void RefuseRefCycles() {
    for (const Node* start : refNodes_) {
      const Node* n = start;
      for (size_t steps = 0; n->ref != nullptr; ++steps) {
        n = n->ref;
        if (n == start || steps > refNodes_.size()) throw SchemaError{"$ref cycle: a reference leads back to itself"};
      }
    }
  }

  CompiledSchema& out_;
  const RemoteResolver& resolver_;
  const Value* root_ = nullptr;
  bool indexed_ = false;  // places_ holds the root document's places
  std::unordered_map<const Value*, Place> places_;
  std::deque<rapidjson::Document> remotes_;  // copies of remote schemas, for the compile only
  std::unordered_map<std::string, const Value*> byUri_;
  std::unordered_map<const Value*, Node*> compiled_;
  std::unordered_set<std::string> fetched_;
  std::vector<const Node*> refNodes_;
  std::vector<const Value*> pendingDefinitions_;
  int depth_ = 0;  // CompileAt calls in progress
};

}  // namespace

namespace {

// The table's order: by length, then by bytes. Most names differ in length, which is one compare.
bool Before(std::string_view a, std::string_view b) {
  return a.size() != b.size() ? a.size() < b.size() : std::char_traits<char>::compare(a.data(), b.data(), a.size()) < 0;
}

}  // namespace

void PropertyTable::Seal() {
  auto byName = [](const auto& a, const auto& b) { return Before(a.first, b.first); };
  std::stable_sort(entries_.begin(), entries_.end(), byName);
  // Of equal names the last added stays, as an assignment per member would leave it.
  auto out = entries_.begin();
  for (auto it = entries_.begin(); it != entries_.end(); ++it) {
    if (std::next(it) != entries_.end() && std::next(it)->first == it->first) continue;
    *out++ = *it;
  }
  entries_.erase(out, entries_.end());
}

const Node* PropertyTable::Find(std::string_view name) const {
  auto it = std::lower_bound(entries_.begin(), entries_.end(), name,
                             [](const auto& entry, std::string_view n) { return Before(entry.first, n); });
  return it != entries_.end() && it->first == name ? it->second : nullptr;
}

std::shared_ptr<const CompiledSchema> Compile(const rapidjson::Value& schema, const RemoteResolver& resolver) {
  auto compiled = std::make_shared<CompiledSchema>();
  try {
    Compiler(*compiled, resolver).Run(schema);
  } catch (const SchemaError& e) {
    compiled->error = e.message;
  } catch (const std::exception& e) {  // allocation failure, or a rapidjson assertion (code 1082)
    compiled->error = e.what();
  }
  if (!compiled->error.empty()) compiled->root = nullptr;
  return compiled;
}

}  // namespace JsonValidator::detail
