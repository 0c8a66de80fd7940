// The steps of schema registration below ProcessSchemas (SchemaProcessor.h).
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "errors/Json.h"
#include "platform/schemastore/SchemaStore.h"

namespace QorConfigStore {

// Host path whose existence marks the DPU variant ("qorio") of the host.
inline constexpr const char* kQorioMarkerFile = "/etc/.qorio";

// DPU placements of an element's "smartnic"."schema".
inline constexpr const char* kSmartnicShared = "qor-shared";      // on the host and its DPU
inline constexpr const char* kSmartnicQorioOnly = "qorio-only";   // on the DPU only

// Whether a schema-file element applies to this kind of host. Without filtering (switch 70 off)
// every element applies. With it: an element without "smartnic" applies to the ordinary host only;
// "qor-shared" to both; "qorio-only" to the DPU only; any other value, or a value that is not a
// string, to neither. A "smartnic" that is not an object holding "schema" throws 1082.
bool ElementAppliesToHost(const rapidjson::Value& element, bool isQorio, bool smartnicFiltering);

// Registers the applying elements of one parsed schema file under `schemaId` with
// SchemaStore::SetSchema on `store` (not null), in order. False (after logging why) when the root is not an object
// with a "data" array, an element lacks "key", "group" or "component", or anything throws (a
// refused element included); elements registered before the failure stay registered. Never throws.
bool RegisterSchemaElements(const std::shared_ptr<QorSchemaStore::SchemaStore>& store, const std::string& schemaId,
                            const rapidjson::Value& document, bool isQorio);

// One registration pass over kSchemaDir inside one update of the schema store: begin, reset, one
// SetSchema per applying element of each selected file, commit. `schemaIds` are expected besides the
// installed image's. A file that fails posts its events and makes the result false while the pass
// goes on; any exception (a file that does not parse, an unreadable image database, a store
// failure) cancels the update, so the schema store keeps what it held, gives false and puts the
// exception's text into `failure` when given. Never throws.
bool ProcessSchemaFiles(const std::vector<std::string>& schemaIds, bool isQorio, std::string* failure = nullptr);

}  // namespace QorConfigStore
