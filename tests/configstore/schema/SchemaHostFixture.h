// The sample image database, fresh stores, empty schema and default-configuration directories.
#pragma once

#include <string>
#include <vector>

#include "platform/dbstore/DBStore.h"
#include "tests/support/Sandbox.h"

namespace cstest {

using Strings = std::vector<std::string>;

inline constexpr const char* kBaseKit = "qor-base";
inline constexpr const char* kBaseVersion = "8.0.2_1.0";
inline constexpr const char* kNetKit = "net-core";
inline constexpr const char* kNetVersion = "1.2.3_4.5";

class SchemaHostTest : public SandboxTest {
 protected:
  void SetUp() override;

  // Writes the feature-state file: schema versioning (62) and SmartNIC filtering (70).
  void SetSwitches(bool versioning, bool smartnicFiltering) const {
    WriteFile("/etc/talvex/features", std::string("62=") + (versioning ? "on" : "off") + "\n70=" +
                                          (smartnicFiltering ? "on" : "off") + "\n");
  }

  // {"metadata": {"kitname", "kitversion"}, "data": [<data>]} as "<dir>/<file>".
  void WriteSchemaFile(const std::string& file, const std::string& kit, const std::string& version,
                       const std::string& data) const {
    WriteRawSchemaFile(file, PackageFile(kit, version, data));
  }
  void WriteDefaultFile(const std::string& file, const std::string& kit, const std::string& version,
                        const std::string& data) const {
    WriteRawDefaultFile(file, PackageFile(kit, version, data));
  }
  void WriteRawSchemaFile(const std::string& file, const std::string& content) const {
    WriteFile("/usr/lib/talvex/configmanager/schemas/" + file, content);
  }
  void WriteRawDefaultFile(const std::string& file, const std::string& content) const {
    WriteFile("/etc/talvex/default-config/" + file, content);
  }
  static std::string PackageFile(const std::string& kit, const std::string& version, const std::string& data) {
    return R"({"metadata": {"kitname": ")" + kit + R"(", "kitversion": ")" + version + R"("}, "data": [)" + data +
           "]}";
  }

  // A configuration-key element: {"component","group","key","version", <extra>, "schema": <schema>}.
  static std::string Element(const std::string& cgk, const std::string& schema, const std::string& extra = "",
                             const std::string& version = "1.0");

  // "component/group/key schemaId version", ordered by key.
  static Strings Registered();
  // "component/group/key|identifier|user|vital|cached|version", ordered by key then identifier.
  static Strings DefaultRows();
  // Rows of `sql` on the configuration store with the schema store as "ss", "|"-joined, NULL as "NULL".
  static Strings Query(const std::string& sql);

  // "id:arg1,arg2" of each recorded event, oldest first.
  Strings EventList() const;
  // True when a line of that priority equals `text` exactly.
  bool Logged(const std::string& text, int priority) const;
};

}  // namespace cstest
