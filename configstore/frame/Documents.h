// JSON documents of the store: creation, navigation, the user/vital/cached split of a value,
// instance identifiers and validation of user values.
//
// Every typed access to a document can throw ConfigStoreException 1082 (see core/Json.h).
#pragma once

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "configstore/frame/ConfigStoreException.h"
#include "errors/Json.h"

namespace QorSchemaStore {
class SchemaObject;
}

namespace QorConfigStore {

// One step of a navigation path: enter member `name`; when that member is an array, take the
// first element whose member `key` is the string `value`.
struct JsonNode {
  std::string name;
  std::string key;
  std::string value;
};

// A document with its own memory pool (64-byte chunks: most store documents are small) and a
// navigation path. Always handed out as a shared pointer.
struct JsonDoc {
  std::vector<JsonNode> path;
  std::shared_ptr<rapidjson::Document> document;
  std::shared_ptr<rapidjson::MemoryPoolAllocator<>> allocator;

  ~JsonDoc();
  // The value the path designates (root for an empty path); valid while this JsonDoc lives.
  // A missing member or instance throws ConfigStoreException 2000 after logging which.
  rapidjson::Value* GetJsonValuePtr();
};

// Identifies one configuration object; the identifier is empty for a singleton.
struct ConfigStoreObjectId {
  std::string key;
  std::string component;
  std::string group;
  std::string id;

  // "comp C grp G key K" and " id I" when the identifier is not empty, each made Printable.
  std::string toString() const;
};

// Nesting deeper than this is refused as unparsable: later walks of a document recurse.
constexpr int kMaxJsonDepth = 512;

std::shared_ptr<JsonDoc> CreateDocument();
// Both throw their error with the cause after the message and a ": " (whoever catches it logs
// or prints the whole):
// "The JSON file F could not be read or parsed.: line 3, column 7: Missing a comma or '}' after an
// object member." The cause is the parser's text with its place, or why the file cannot be read
// (Host::ReadFile: not a regular file, larger than Host::kMaxReadBytes, the system's error).
//
// Throws InvalidArgumentException 1081 naming the path when the file cannot be read or parsed.
std::shared_ptr<JsonDoc> CreateDocumentFromFile(const std::string& path);
// Throws InvalidArgumentException 1080 when the text does not parse.
std::shared_ptr<JsonDoc> CreateDocumentFromString(const std::string& text);

// Prunes `config` in place to what belongs to `part` ("user", "vital" or "cached") by its schema;
// true when anything of it is to be kept. Instance identifiers belong to every part.
bool ProcessConfig(rapidjson::Value& config, const rapidjson::Value& schema, const std::string& part);

// {"user", "vital", "cached"} -> compact JSON of that part, or "" when nothing belongs to it.
std::unordered_map<std::string, std::string> SplitConfig(const rapidjson::Value& config, const rapidjson::Value& schema);

// The value's instance identifier ("" for a singleton); throws 1032 when it is missing or not a string.
std::string GetInstanceIdFromValue(const rapidjson::Value& value,
                                   const std::shared_ptr<QorSchemaStore::SchemaObject>& schemaObject);

// Validates a user value with the user-object rules; every error is logged (code 1083).
// With allowDelete, a string value is not validated: true exactly for "DELETE_DEFAULT".
bool ValidateUserObject(const rapidjson::Value& schema, const rapidjson::Value& value, const std::string& name,
                        bool allowDelete);

// Logs each {"field", "error"} entry under code 1083; true when there is none.
bool checkValidationErrors(const rapidjson::Value& errors);

}  // namespace QorConfigStore
