// Validation of configuration values against the JSON Schema (draft-04) schemas that packages ship.
//
// Our own validator over rapidjson values (rapidjson's own stops at the first error and does not
// enforce \d or \w); patterns run on RE2. Rule numbers, messages and field paths are described in
// docs/validator-rules.md.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <set>
#include <string>

#include "errors/Json.h"

namespace JsonValidator {

// Checks `value` against `schema` with the checks that `rules` selects, and replaces the content of
// `errors` with an array holding one object {"field": <path>, "error": <text>} per broken
// constraint, every one of them (up to 1000, then one entry saying more were left out). An empty
// array means valid. The field is a JSON Pointer to the offending value ("/nics/2/mtu"; "" is the
// value itself).
//
// `name` with `rules` and the schema's text make the key of the compiled-schema cache: a schema is
// compiled once per key for the life of the process; a changed schema under the same name is
// compiled again.
//
// Never throws for a bad value. A schema that cannot be compiled (a bad pattern, a non-object where
// a schema belongs, a $ref that leads nowhere or back to itself, nesting beyond 256 levels) gives a
// single entry with field "" whose text starts "invalid schema". `errors` allocates from its own
// allocator; `schema` and `value` are only read and need not outlive the call. Thread-safe.
void Validate(const rapidjson::Value& schema, const rapidjson::Value& value, rapidjson::Document& errors,
              const std::set<int>& rules, const std::string& name);

// As above, with the schema's text supplied by a caller that already holds it (a stored schema and
// its parsed value), so that the cache key is not made by serializing the schema on every call.
// `schemaText` must be a text that parses to exactly `schema`; it need not be compact.
void Validate(const rapidjson::Value& schema, const std::string& schemaText, const rapidjson::Value& value,
              rapidjson::Document& errors, const std::set<int>& rules, const std::string& name);

// A schema looked up in (or added to) the compiled-schema cache once, for several values: what the
// Validate above gives for each value, without a cache lookup per value. Keeps its compiled schema
// alive, whatever happens to the cache. Cheap to copy; a default one is unusable. Validate never
// throws, as above; Prepare throws nothing but std::bad_alloc.
class PreparedSchema {
 public:
  struct State;
  PreparedSchema() = default;
  explicit PreparedSchema(std::shared_ptr<const State> state) : state_(std::move(state)) {}
  const State& state() const { return *state_; }

 private:
  std::shared_ptr<const State> state_;
};
PreparedSchema Prepare(const rapidjson::Value& schema, const std::string& schemaText, const std::set<int>& rules,
                       const std::string& name);
void Validate(const PreparedSchema& schema, const rapidjson::Value& value, rapidjson::Document& errors);

// Supplies the schema behind a remote reference ("http://host/path.json", given without its
// fragment), or null when there is none. The returned value is copied before the resolver is called
// again and need not outlive that. Without a resolver every remote reference is unresolvable.
// Setting one empties the cache.
using RemoteResolver = std::function<const rapidjson::Value*(const std::string& uri)>;
void SetRemoteResolver(RemoteResolver resolver);

struct CacheStatistics {
  size_t compiles = 0;  // schemas compiled since the last ClearCache
  size_t hits = 0;      // validations served by an already compiled schema
  size_t entries = 0;   // compiled schemas held now
};
CacheStatistics CacheStats();

// Drops every compiled schema and compiled pattern, and zeroes the statistics.
void ClearCache();

}  // namespace JsonValidator
