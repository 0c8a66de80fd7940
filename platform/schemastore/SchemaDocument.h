// Schema documents for whole desired configurations, and generated instance ids.
#pragma once

#include <memory>

#include "errors/Json.h"
#include "platform/schemastore/SchemaObject.h"
#include "platform/schemastore/SchemaStore.h"

namespace QorSchemaStore {

// What a generated schema document says about a component, group or key that has no schema.
enum class UnknownObjects {
  Refuse,  // "additionalProperties": false at each level: the validator reports the unknown name
  Accept,  // "additionalProperties": true: left unconstrained
};

// Builds into `schemaDoc` (replacing its content) one draft-04 JSON Schema that validates the
// desired document `desiredDoc` in one pass:
//   {"profile": {component: {group: {key: value}}}}
// where a key's value is one object, an array of objects (keys with an instance id only; a
// singleton takes one object), or the string "DELETE_DEFAULT". Each key's schema is copied once
// under "definitions" (its local "$ref" pointers rebased) and referenced where the key appears.
// Parts of `desiredDoc` that are not objects where objects belong are described as objects, so
// the validator reports them; nothing here rejects a document. Throws ConfigStoreException 2000
// when `cache` is null. `schemaDoc` owns everything it holds; `desiredDoc` is only read.
void GenerateSchemaDocument(const rapidjson::Value& desiredDoc, const std::shared_ptr<SchemaObjectCache>& cache,
                            rapidjson::Document& schemaDoc, UnknownObjects unknown = UnknownObjects::Refuse);

// Fills a generated instance id into `instance` when its schema asks for one (the property with
// "instanceId": true and "generatedId": true, kGeneratedIdMember in registered schemas, so a schema
// object is read only when IsGeneratedInstanceId()) and the instance has no member of that name; a present member is never overwritten, whatever its value.
// The id is a random version-4 UUID text ("xxxxxxxx-xxxx-4xxx-yxxx-xxxxxxxxxxxx") from the system's
// random source: it never matches an id made elsewhere, such as a default instance's.
// Returns true when it added the id; false (and no change) for a non-object instance or schema.
// The added strings are allocated from `allocator`, which must be the instance's document's.
bool PopulateGeneratedInstanceId(const SchemaObject& schema, rapidjson::Value& instance,
                                 rapidjson::MemoryPoolAllocator<>& allocator);
bool PopulateGeneratedInstanceId(const rapidjson::Value& schema, rapidjson::Value& instance,
                                 rapidjson::MemoryPoolAllocator<>& allocator);

}  // namespace QorSchemaStore
