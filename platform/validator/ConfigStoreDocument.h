// Small helpers over rapidjson values shared by the library.
#pragma once

#include <string>

#include "errors/Json.h"

namespace ConfigStoreDocument {

// True when `value` is an object with a member `name`; false for any other value or a null name.
bool ValueExists(const rapidjson::Value& value, const char* name);

// Replaces `text` with the compact JSON text of `value` (no blanks, members in document order).
// Works for any nesting depth (no recursion). Never throws for a well-formed value.
void SerializeValue(const rapidjson::Value& value, std::string& text);

}  // namespace ConfigStoreDocument
