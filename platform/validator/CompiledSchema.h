// The compiled form of a schema and the two steps over it: Compile (once per cache key) and
// CheckValue (once per value). Internal to the validator; JsonValidator.h is the public face.
#pragma once

#include <re2/re2.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "errors/Json.h"
#include "platform/validator/JsonValidator.h"

namespace JsonValidator::detail {

// Hostile-input guards, shared by compile and check.
constexpr int kMaxDepth = 128;          // schema nesting, and schema applications along one value path
constexpr size_t kMaxErrors = 1000;     // entries listed before one "more errors" entry

enum TypeBit : unsigned {
  kTypeNull = 1, kTypeBoolean = 2, kTypeObject = 4, kTypeArray = 8, kTypeNumber = 16, kTypeString = 32,
  kTypeInteger = 64,
};

// What "additionalProperties" / "additionalItems" say about members or elements nothing else describes.
enum class Extra { kUnspecified, kAllowed, kRefused, kSchema };

struct Node;

// "properties": member names (kept in CompiledSchema::pool) with their schemas, sorted by name once
// the schema object is compiled; of a name given twice the last counts.
class PropertyTable {
 public:
  void Reserve(size_t count) { entries_.reserve(entries_.size() + count); }
  void Add(std::string_view name, const Node* schema) { entries_.emplace_back(name, schema); }
  void Seal();
  const Node* Find(std::string_view name) const;  // null when no property has that name

 private:
  std::vector<std::pair<std::string_view, const Node*>> entries_;
};

struct PatternSchema {
  std::string source;
  std::shared_ptr<const RE2> re;  // shared with every schema of the same pattern
  const Node* schema = nullptr;
};

struct Dependency {
  std::string member;
  std::vector<std::string> requiredMembers;  // array form
  const Node* schema = nullptr;              // schema form
};

// One schema object. Pointers to rapidjson values point into CompiledSchema::values.
struct Node {
  const Node* ref = nullptr;  // "$ref": when set, every other keyword is ignored
  unsigned types = 0;         // TypeBit mask of "type"; 0 when absent

  PropertyTable properties;
  bool describesMembers = false;  // has "properties" or "patternProperties"; rule 7 judges only these
  std::vector<PatternSchema> patternProperties;
  Extra additionalProperties = Extra::kUnspecified;
  const Node* additionalPropertiesSchema = nullptr;
  std::vector<std::string> required;
  std::vector<Dependency> dependencies;
  std::optional<uint64_t> minProperties, maxProperties;

  const Node* items = nullptr;              // one schema for every element
  std::vector<const Node*> tupleItems;      // "items" as an array
  bool itemsIsTuple = false;
  Extra additionalItems = Extra::kUnspecified;
  const Node* additionalItemsSchema = nullptr;
  std::optional<uint64_t> minItems, maxItems;
  bool uniqueItems = false;

  std::optional<uint64_t> minLength, maxLength;
  std::string patternSource;
  std::shared_ptr<const RE2> pattern;

  const rapidjson::Value* minimum = nullptr;
  const rapidjson::Value* maximum = nullptr;
  bool exclusiveMinimum = false, exclusiveMaximum = false;
  const rapidjson::Value* multipleOf = nullptr;

  const rapidjson::Value* enumValues = nullptr;
  std::vector<const Node*> allOf, anyOf, oneOf;
  const Node* notSchema = nullptr;

  // Extension: the property marked "instanceId": true, and whether it also says "generatedId": true.
  std::string instanceIdMember;
  bool instanceIdGenerated = false;
};

struct CompiledSchema {
  std::string error;  // not empty: the schema cannot be used; says why and where
  const Node* root = nullptr;
  std::deque<Node> nodes;
  // What the nodes keep of the schema: property names, and copies of the bounds and enums (values).
  // Chunks sized for a schema rather than rapidjson's 64 KiB default: a host holds thousands of
  // compiled schemas. Declared before the values, which allocate from it.
  rapidjson::MemoryPoolAllocator<> pool{4096};
  std::deque<rapidjson::Value> values;
};

// Never throws for a bad schema: the result carries the error instead.
std::shared_ptr<const CompiledSchema> Compile(const rapidjson::Value& schema, const RemoteResolver& resolver);

// Which checks run; derived from the caller's rule numbers (see docs/validator-rules.md).
struct Checks {
  bool draft = false;          // 2: draft-04 exactly as written
  bool types = false;          // 0 (or 2): "type", anyOf/oneOf/not
  bool required = false;       // 1 (or 2): "required", member dependencies
  bool unknownRefused = false; // 7 without 2: members no property describes are refused
  bool values = false;         // 8 (or 2): value constraints and "enum"
  bool idAlways = false;       // 3: the instance identifier is a non-empty string
  bool idUnlessGenerated = false;  // 4: as 3, except where the identifier is generated
};

struct FieldError {
  std::string field;
  std::string error;
};

// Every error of `value`, at most kMaxErrors of them (then one entry saying more were left out).
std::vector<FieldError> CheckValue(const CompiledSchema& schema, const rapidjson::Value& value, const Checks& checks);

// Shared value helpers (iterative: safe for any nesting depth).
bool JsonEqual(const rapidjson::Value& a, const rapidjson::Value& b);
size_t JsonHash(const rapidjson::Value& value);
bool DepthExceeds(const rapidjson::Value& value, int limit);
// A readable, bounded rendering of a value for messages ("12000", "\"abc\"", "[1,2,...]").
std::string Describe(const rapidjson::Value& value, size_t maxLength = 80);

}  // namespace JsonValidator::detail
