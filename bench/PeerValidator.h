// The validator a user would pick instead of ours: rapidjson's own SchemaValidator, built here
// without a regular-expression engine, so "pattern" and "patternProperties" names are not checked
// (its engine accepts anything for \d and \w). Our side of a comparison runs on schemas without
// patterns as well.
#pragma once

#include <memory>

#include "errors/Json.h"

namespace bench::peer {

class Validator {
 public:
  // Compiles `schema`, which must outlive the validator.
  explicit Validator(const rapidjson::Value& schema);
  ~Validator();
  Validator(const Validator&) = delete;
  Validator& operator=(const Validator&) = delete;

  bool Valid(const rapidjson::Value& instance);

 private:
  struct Compiled;
  std::unique_ptr<Compiled> compiled_;
};

}  // namespace bench::peer
