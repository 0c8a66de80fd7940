// Schema objects: what the schema store knows about one registered configuration key, one
// declared package file or one data-file key.
//
// Objects are immutable once built and are handed out as shared pointers; each owns its copy of
// the schema JSON, parsed into a value on first use (a cache holds thousands of keys, and most
// callers read only a few columns of each). Nothing here touches the database.
#pragma once

#include <compare>
#include <cstddef>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "errors/Json.h"

namespace QorSchemaStore {

// Member that holds a generated instance id. A schema asks for generated ids by declaring this
// property with "instanceId": true and "generatedId": true; registration refuses the name for any
// other use, so callers may tell generated ids apart by this name.
inline constexpr const char* kGeneratedIdMember = "cs_generated_id";

// Kinds of schema objects, as SchemaStore::GetSchemaObjects takes them.
inline constexpr const char* kKindConfig = "config";        // registered configuration keys
inline constexpr const char* kKindFiles = "files";          // declared package files
inline constexpr const char* kKindDataFiles = "datafiles";  // data-file keys

// Categories of declared files and data-file keys.
inline constexpr const char* kCategoryVital = "vital";
inline constexpr const char* kCategoryCached = "cached";
inline constexpr const char* kCategoryConfig = "config";

// Address of a schema object. toString() gives "component/group/key".
// File entries use (component, category, path); data-file keys (component, "", key).
struct SchemaObjectId {
  std::string component;
  std::string group;
  std::string key;

  SchemaObjectId() = default;
  SchemaObjectId(std::string componentName, std::string groupName, std::string keyName)
      : component(std::move(componentName)), group(std::move(groupName)), key(std::move(keyName)) {}

  std::string toString() const;
  auto operator<=>(const SchemaObjectId&) const = default;
  bool operator==(const SchemaObjectId&) const = default;
};

struct SchemaObjectIdHash {
  size_t operator()(const SchemaObjectId& id) const;
};

enum class SchemaObjectKind { Config, File, DataFile };

// The stored facts of one schema object (one row of the schema store's tables).
struct SchemaRecord {
  SchemaObjectKind kind = SchemaObjectKind::Config;
  SchemaObjectId id;
  std::string schemaId;        // package schema id, "kitname-kitversion" (empty for data-file keys)
  std::string version;         // schema version of a configuration key
  std::string schemaJson;      // the key's JSON Schema, compact text ("" for other kinds)
  std::string instanceIdName;  // "" for a singleton
  bool noRestore = false;
  bool preserveNonUser = false;
  bool dspIntegrated = false;
  bool singleton = false;
  bool mutableDefaultConfig = false;
  int schemaType = 0;
  std::vector<std::string> solutionUserInstances;
  std::vector<std::string> preservedInstanceIds;
  std::optional<std::string> smartnicValueType;  // "qor-shared", "qorio-only", ... when declared
  std::string category;                          // file entries and data-file keys
  std::string path;                              // file entries: absolute host path
  std::string dirName;                           // data-file keys: directory under the data-file root
};

class SchemaObject {
 public:
  // Checks that record.schemaJson is JSON (an empty text stands for no schema: a null value); the
  // value itself is built by the first GetSchemaValue.
  // Throws ConfigStoreException 2000 naming the object when the text is not JSON.
  explicit SchemaObject(SchemaRecord record);
  // As above, with the value built now when `parseNow` (a caller about to use it): the text is read
  // once instead of twice.
  SchemaObject(SchemaRecord record, bool parseNow);

  // Name of the instance-id property; empty for a singleton. kGeneratedIdMember when generated.
  virtual const std::string& GetInstanceIdName() const;
  virtual const SchemaObjectId& GetObjectId() const;
  // The JSON Schema of a configuration key (null for other kinds); lives as long as the object.
  // Safe to call from several threads at once.
  virtual const rapidjson::Value& GetSchemaValue() const;
  virtual const std::string& GetSchemaId() const;
  virtual SchemaObjectKind GetKind() const;
  virtual bool IsSingleton() const;
  virtual const std::string& GetVersion() const;
  virtual bool IsGeneratedInstanceId() const;
  virtual bool HasMutableDefaultConfig() const;
  virtual bool IsNoRestore() const;
  virtual bool IsPreserveNonUser() const;
  virtual bool IsDSPIntegrated() const;
  [[nodiscard]] virtual int GetSchemaType() const;
  // Names of the solution-user instances a user-accounts key declares (may be empty).
  virtual const std::vector<std::string>& GetSolutionUserInstances() const;
  // Instance ids whose user value survives a desired configuration (may be empty).
  virtual const std::vector<std::string>& GetPreservedInstanceIds() const;
  virtual const std::optional<std::string>& GetSmartnicValueType() const;

  // Declared-file queries: 0 on success, 1 when an argument is null or (for the category and
  // path) the object is no file entry. Data-file keys answer GetFileCategory too.
  [[nodiscard]] virtual int IsFileEntry(bool* isFile) const;
  [[nodiscard]] virtual int GetFileCategory(std::string* category) const;
  [[nodiscard]] virtual int GetFilePath(std::string* path) const;
  // Data-file keys: the directory name under "/var/cache/datafiles". 0 on success, 1 otherwise.
  [[nodiscard]] virtual int GetDataFileDirName(std::string* dirName) const;

  const SchemaRecord& Record() const { return record_; }

  virtual ~SchemaObject();
  SchemaObject(const SchemaObject&) = delete;
  SchemaObject& operator=(const SchemaObject&) = delete;

 private:
  SchemaRecord record_;
  // A schema is a few KiB: rapidjson's default 64 KiB chunk per object made a cache of thousands of
  // keys cost hundreds of MiB. Declared before schema_, which allocates from it.
  mutable rapidjson::MemoryPoolAllocator<> pool_{4096};
  mutable rapidjson::Document schema_{&pool_};
  mutable std::once_flag parsed_;
};

}  // namespace QorSchemaStore

template <>
struct std::hash<QorSchemaStore::SchemaObjectId> : QorSchemaStore::SchemaObjectIdHash {};
