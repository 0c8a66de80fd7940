#include "bench/PeerValidator.h"

// No other file of the program includes rapidjson's schema header, so these settings are the only ones.
#define RAPIDJSON_SCHEMA_USE_INTERNALREGEX 0
#define RAPIDJSON_SCHEMA_USE_STDREGEX 0
#include <rapidjson/schema.h>

namespace bench::peer {

struct Validator::Compiled {
  explicit Compiled(const rapidjson::Value& schema) : document(schema), validator(document) {}
  rapidjson::SchemaDocument document;
  rapidjson::SchemaValidator validator;
};

Validator::Validator(const rapidjson::Value& schema) : compiled_(std::make_unique<Compiled>(schema)) {}

Validator::~Validator() = default;

bool Validator::Valid(const rapidjson::Value& instance) {
  compiled_->validator.Reset();
  return instance.Accept(compiled_->validator);
}

}  // namespace bench::peer
