// Schema files on disk: listing, schema identifiers, versions and the newest-first selection that
// schema registration and default configuration processing both run over their directory.
#pragma once

#include <array>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "errors/Json.h"

namespace QorConfigStore {

struct JsonDoc;

// Host path of the directory where packages drop their schema files.
inline constexpr const char* kSchemaDir = "/usr/lib/talvex/configmanager/schemas";

// Full file path (directory + "/" + file name) -> schema identifier, for files whose identifier
// could be read.
using SchemaIdMap = std::map<std::string, std::string>;

// (major, minor, patch, build, sub-build); compared element by element.
using SchemaVersion = std::array<int, 5>;

// The text of a JSON string, embedded NULs kept. Throws ConfigStoreException 1082 for a non-string.
inline std::string StringValue(const rapidjson::Value& value) {
  return std::string(value.GetString(), value.GetStringLength());
}

// Names (not paths) of the entries of `directory` (a resolved path) that are longer than five
// characters and end in ".json", in the order the directory listing returns them. Every other
// entry (".", "..", "notes.txt", "schema.JSON") logs "[SchemaProcessor] Skip processing non-json
// file %s" at priority 2. A directory that cannot be opened gives an empty list, silently.
std::vector<std::string> GetSchemaFiles(const std::string& directory);

// "kitname" + "-" + "kitversion" of the document's "metadata". When the document lacks "data" or
// "metadata", or "metadata" lacks either member, posts "zeb.user.cs.schema.metadata.error" with
// `fileName`, logs "[SchemaProcessor] Invalid format in schema file %s" at priority 0 and returns "".
// A member that is present but not a string (or a root that is not an object) throws
// ConfigStoreException 1082.
std::string GetSchemaIDfromFile(const std::string& fileName, const rapidjson::Value& document);

// Parses every listed file of `directory` and maps the paths of those with an identifier to it.
// A file that does not parse throws InvalidArgumentException 1081 (the whole map is abandoned).
SchemaIdMap GenerateSchemaIdMap(const std::vector<std::string>& files, const std::string& directory);

// The identifier without its version: the longest prefix followed by "-" and a version of the
// form \d+(\.\d+)+_\d+(\.\d+)* that runs to the end ("a-b-1.2_3" -> "a-b"); "" when there is none.
std::string ExtractSchemaNameFromSchemaId(const std::string& schemaId);

// The version in an identifier: the leftmost "-M.m.p_b.s" (all decimal digit runs); (0,0,0,0,0)
// when there is none. A part too large for an int throws std::out_of_range ("stoi").
SchemaVersion ExtractVersionFromSchemaId(const std::string& schemaId);

// The version of the mapped file directory + "/" + fileName. A file missing from the map throws
// std::out_of_range ("map::at"); otherwise as ExtractVersionFromSchemaId.
SchemaVersion ExtractVersion(const SchemaIdMap& idMap, const std::string& fileName, const std::string& directory);

// Orders file names newest version first: true when `a`'s version is greater than `b`'s.
// Versions are read once, at construction (so the throws of ExtractVersion happen there); a name
// that was not in the map throws std::out_of_range when compared. Cheap to copy.
class VersionCompare {
 public:
  VersionCompare(std::string directory, SchemaIdMap idMap);
  bool operator()(const std::string& a, const std::string& b) const;

 private:
  struct Data {
    std::string directory;
    SchemaIdMap idMap;
    std::map<std::string, SchemaVersion> versions;  // by path
  };
  std::shared_ptr<const Data> data_;
};

// The files of one directory in the order they are to be considered, and the choice of the newest
// file of each schema name. Schema versioning (feature switch 62) is read by the caller once per run.
//
// With versioning: the identifier map is built at construction (1081 from a file that does not
// parse propagates), files without an identifier are left out, and the rest are stably sorted
// newest first (equal versions, and identifiers without a version, keep the listing order).
// Without versioning: every listed file, in listing order, with no identifiers.
//
// The documents parsed for the identifiers are kept until taken (TakeDocument) or skipped
// (Select), so that processing does not parse a file again.
class SchemaFileSelection {
 public:
  SchemaFileSelection(const std::string& directory, std::vector<std::string> files, bool versioning);

  bool Versioning() const { return versioning_; }
  const std::vector<std::string>& Files() const { return files_; }
  // The mapped identifier of a file; "" without versioning.
  std::string SchemaId(const std::string& fileName) const;

  // Whether `fileName` (one of Files(), taken in order) is to be processed. With versioning, a
  // file whose schema name was already taken logs "Skipping schema file '%s' since latest version
  // already processed." and gives false; otherwise logs "Processing schema file '%s'." and records
  // the name as taken, so that older versions are not tried even when processing this one fails.
  // A file with an empty schema name is never skipped. Without versioning: always true, no log.
  bool Select(const std::string& fileName);

  // The parsed document of `fileName` (one of Files()), handed over to the caller: the one read at
  // construction, or else the file parsed now (InvalidArgumentException 1081 when it does not parse).
  std::shared_ptr<JsonDoc> TakeDocument(const std::string& fileName);

 private:
  std::string directory_;
  bool versioning_;
  std::vector<std::string> files_;
  SchemaIdMap idMap_;
  std::set<std::string> seenNames_;
  std::map<std::string, std::shared_ptr<JsonDoc>> documents_;  // by file name, until taken or skipped
};

}  // namespace QorConfigStore
