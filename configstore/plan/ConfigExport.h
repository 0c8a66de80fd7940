// The live configuration taken out as a desired configuration document, and the comparison of two
// configurations (stores or such documents) in the plan's added/removed/changed form.
#pragma once

#include <string>
#include <vector>

#include "configstore/plan/NextBootPlan.h"

namespace QorConfigStore {

// An object a desired document cannot carry, and why.
struct LeftOutObject {
  ConfigStoreObjectId id;
  std::string reason;
};

struct ConfigExport {
  rapidjson::Document document;  // {"profile": {component: {group: {key: object or [objects]}}}}
  size_t objects = 0;            // objects in the document
  std::vector<LeftOutObject> leftOut;
};

// The user values of the configuration store's objects (the first `names`, up to component, group
// and key, narrow it) as a document that SetDesiredUserConfig stages back into the same objects:
// a singleton key's object as an object, an instanced key's objects as an array, in the order of
// component, group, key and identifier, so two exports of one store are the same document. An
// object without a user value has nothing to carry and is not listed; one the document cannot
// carry is listed in `leftOut` (no schema registered for its key, a user value that is not a JSON
// object, an instance id member that does not give the object's identifier, or an object staging
// carries over from the host by itself and refuses in a document); so is every default instance of
// a key with mutable default configuration that has no user value in the store (no object, or
// one without user value), or whose ids are generated (left out of the document: staging copies it
// back whatever the document says, and refuses it in one), and every object with a pending desired
// value (exported with its user value; the pending value is not carried). Reads the stores read-only;
// throws ConfigStoreException 2000 when they cannot be read.
ConfigExport ExportConfiguration(const std::vector<std::string>& names);

// The objects a configuration file holds: a store file (any copy of a configuration store) as
// ReadConfigObjects reads it, or a desired document (user values only, each instance's identifier
// from its key's schema on this host). `userValuesOnly` keeps of a store what a document can hold:
// user values, normalized as the document form writes them; objects without one are dropped.
// Throws ConfigStoreException 2000 when the file cannot be read, or an instance's identifier cannot
// be had (no schema for its key here, or the instance id member is missing).
ConfigObjects ReadConfigFile(const std::string& path, bool userValuesOnly);
// True when the file is an SQLite database (else it is read as a document).
bool IsStoreFile(const std::string& path);

}  // namespace QorConfigStore
