// Reading one element of a schema file's "data" array into the records the schema store keeps.
// Internal to the schema store; the format is described in docs/formats.md ("Schema files").
#pragma once

#include <string>
#include <vector>

#include "errors/Json.h"
#include "platform/schemastore/SchemaObject.h"

namespace QorSchemaStore::detail {

// The records one element registers: one configuration key, one data-file key, or one record per
// declared file. `hasSmartnic` says whether the element's "smartnic" member is to be registered.
// Throws ConfigStoreException 2000 "Schema element <c>/<g>/<k> of <schemaId> is refused: <why>"
// for anything missing, mistyped or contradictory; nothing is returned partly.
std::vector<SchemaRecord> ReadSchemaElement(const std::string& schemaId, const SchemaObjectId& id,
                                            const rapidjson::Value& element, bool hasSmartnic);

// Compact JSON text of a value.
std::string ToJsonText(const rapidjson::Value& value);

}  // namespace QorSchemaStore::detail
