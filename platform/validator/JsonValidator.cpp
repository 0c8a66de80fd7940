#include "platform/validator/JsonValidator.h"

#include <memory>
#include <mutex>
#include <stdexcept>
#include <unordered_map>

#include "platform/logging/CSLogger.h"
#include "platform/validator/CompiledSchema.h"
#include "platform/validator/ConfigStoreDocument.h"
#include "platform/validator/EcmaPattern.h"

namespace JsonValidator {
namespace {

// More keys than a host has schemas: reaching it means keys are made up per call; start afresh.
constexpr size_t kMaxCacheEntries = 20000;

struct CacheEntry {
  std::string schemaText;  // guards against two schemas with the same fingerprint
  std::shared_ptr<const detail::CompiledSchema> compiled;
};

struct Cache {
  std::mutex mutex;
  std::unordered_map<std::string, CacheEntry> entries;  // key: name, rules, fingerprint
  CacheStatistics stats;
  RemoteResolver resolver;
};

Cache& TheCache() {
  static Cache cache;
  return cache;
}

detail::Checks ChecksFor(const std::set<int>& rules) {
  detail::Checks checks;
  checks.draft = rules.count(2) != 0;
  checks.types = checks.draft || rules.count(0) != 0;
  checks.required = checks.draft || rules.count(1) != 0;
  checks.values = checks.draft || rules.count(8) != 0;
  checks.unknownRefused = !checks.draft && rules.count(7) != 0;
  checks.idAlways = rules.count(3) != 0;
  checks.idUnlessGenerated = rules.count(4) != 0;
  return checks;
}

// `text` is the schema's text: what the cache key and its guard are made of.
std::shared_ptr<const detail::CompiledSchema> CompiledFor(const rapidjson::Value& schema, const std::string& text,
                                                          const std::set<int>& rules, const std::string& name) {
  std::string key = name;
  key += '\0';
  for (int rule : rules) key += std::to_string(rule) + ",";
  key += '\0';
  key += std::to_string(std::hash<std::string>()(text));

  Cache& cache = TheCache();
  RemoteResolver resolver;
  {
    std::lock_guard<std::mutex> lock(cache.mutex);
    auto found = cache.entries.find(key);
    if (found != cache.entries.end() && found->second.schemaText == text) {
      ++cache.stats.hits;
      return found->second.compiled;
    }
    resolver = cache.resolver;
  }
  // Compiled outside the lock: other keys go on being served meanwhile.
  std::shared_ptr<const detail::CompiledSchema> compiled = detail::Compile(schema, resolver);
  if (!compiled->error.empty()) {
    CSLogger::Log(CSLogger::PRIO_WARNING, "Invalid schema %s: %s", name.c_str(), compiled->error.c_str());
  }
  std::lock_guard<std::mutex> lock(cache.mutex);
  if (cache.entries.size() >= kMaxCacheEntries) cache.entries.clear();
  cache.entries[key] = CacheEntry{text, compiled};
  ++cache.stats.compiles;
  return compiled;
}

void AddError(rapidjson::Document& errors, const std::string& field, const std::string& error) {
  auto& a = errors.GetAllocator();
  rapidjson::Value entry(rapidjson::kObjectType);
  entry.AddMember("field", rapidjson::Value(field.c_str(), static_cast<rapidjson::SizeType>(field.size()), a), a);
  entry.AddMember("error", rapidjson::Value(error.c_str(), static_cast<rapidjson::SizeType>(error.size()), a), a);
  errors.PushBack(entry, a);
}

}  // namespace

struct PreparedSchema::State {
  std::shared_ptr<const detail::CompiledSchema> compiled;
  detail::Checks checks;
  std::string name;
  std::string failure;  // not empty: the lookup itself failed (out of memory)
};

namespace {

// Looks the schema up, with its text given (`schemaText`) or made here (null).
void PrepareState(const rapidjson::Value& schema, const std::string* schemaText, const std::set<int>& rules,
                  const std::string& name, PreparedSchema::State& state) {
  try {
    state.name = name;
    std::string ownText;
    if (schemaText == nullptr) {
      ConfigStoreDocument::SerializeValue(schema, ownText);
      schemaText = &ownText;
    }
    state.checks = ChecksFor(rules);
    state.compiled = CompiledFor(schema, *schemaText, rules, name);
  } catch (const std::exception& e) {  // allocation failure: still an answer, never a throw
    state.failure = e.what();
  }
}

void Check(const PreparedSchema::State& state, const rapidjson::Value& value, rapidjson::Document& errors) {
  errors.SetArray();
  try {
    if (!state.failure.empty()) throw std::runtime_error(state.failure);
    const detail::CompiledSchema& compiled = *state.compiled;
    if (!compiled.error.empty()) {
      AddError(errors, "",
               "invalid schema" + (state.name.empty() ? std::string() : " " + state.name) + ": " + compiled.error);
      return;
    }
    for (const detail::FieldError& e : detail::CheckValue(compiled, value, state.checks)) {
      AddError(errors, e.field, e.error);
    }
  } catch (const std::exception& e) {  // allocation failure: still an answer, never a throw
    errors.SetArray();
    AddError(errors, "", std::string("validation failed: ") + e.what());
  }
}

}  // namespace

void Validate(const rapidjson::Value& schema, const rapidjson::Value& value, rapidjson::Document& errors,
              const std::set<int>& rules, const std::string& name) {
  PreparedSchema::State state;
  PrepareState(schema, nullptr, rules, name, state);
  Check(state, value, errors);
}

void Validate(const rapidjson::Value& schema, const std::string& schemaText, const rapidjson::Value& value,
              rapidjson::Document& errors, const std::set<int>& rules, const std::string& name) {
  PreparedSchema::State state;
  PrepareState(schema, &schemaText, rules, name, state);
  Check(state, value, errors);
}

PreparedSchema Prepare(const rapidjson::Value& schema, const std::string& schemaText, const std::set<int>& rules,
                       const std::string& name) {
  auto state = std::make_shared<PreparedSchema::State>();
  PrepareState(schema, &schemaText, rules, name, *state);
  return PreparedSchema(std::move(state));
}

void Validate(const PreparedSchema& schema, const rapidjson::Value& value, rapidjson::Document& errors) {
  Check(schema.state(), value, errors);
}

void SetRemoteResolver(RemoteResolver resolver) {
  Cache& cache = TheCache();
  std::lock_guard<std::mutex> lock(cache.mutex);
  cache.resolver = std::move(resolver);
  cache.entries.clear();
}

CacheStatistics CacheStats() {
  Cache& cache = TheCache();
  std::lock_guard<std::mutex> lock(cache.mutex);
  CacheStatistics stats = cache.stats;
  stats.entries = cache.entries.size();
  return stats;
}

void ClearCache() {
  Cache& cache = TheCache();
  std::lock_guard<std::mutex> lock(cache.mutex);
  cache.entries.clear();
  cache.stats = CacheStatistics();
  detail::ClearPatternCache();
}

}  // namespace JsonValidator
