// Helpers shared by the validator tests: documents from literal JSON, errors as (field, error) pairs.
#pragma once

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <utility>
#include <vector>

#include "errors/Json.h"
#include "platform/validator/JsonValidator.h"

namespace cstest {

using FieldErrors = std::vector<std::pair<std::string, std::string>>;

inline rapidjson::Document Json(const std::string& text) {
  rapidjson::Document doc;
  doc.Parse(text.c_str());
  EXPECT_FALSE(doc.HasParseError()) << "test JSON does not parse: " << text;
  return doc;
}

inline FieldErrors ErrorsOf(const rapidjson::Value& schema, const rapidjson::Value& value, const std::set<int>& rules,
                            const std::string& name = "test") {
  rapidjson::Document errors;
  JsonValidator::Validate(schema, value, errors, rules, name);
  FieldErrors out;
  EXPECT_TRUE(errors.IsArray());
  if (!errors.IsArray()) return out;
  for (auto& e : errors.GetArray()) {
    EXPECT_TRUE(e.IsObject() && e.HasMember("field") && e["field"].IsString() && e.HasMember("error") &&
                e["error"].IsString());
    out.emplace_back(e["field"].GetString(), e["error"].GetString());
  }
  return out;
}

inline FieldErrors ErrorsOf(const std::string& schema, const std::string& value, const std::set<int>& rules,
                            const std::string& name = "test") {
  rapidjson::Document s = Json(schema), v = Json(value);
  return ErrorsOf(s, v, rules, name);
}

}  // namespace cstest
