// The floor of each benchmarked job: the same SQL statements and the same JSON and file work,
// done directly with SQLite, rapidjson (its schema validator included) and pugixml in the
// benchmark's process, with statements prepared once per run, no library frame and no logging.
// What a job costs beyond its floor is what the library adds. All work on the current host root (Host::Resolve); failures throw.
#pragma once

#include <string>
#include <vector>

#include "errors/Json.h"

namespace bench::floor {

// Registration, then default configuration with every default instance validated by the peer
// validator (bench/PeerValidator.h).
void ProcessSchemas();
void Boot(bool schemaChange);          // restore, [schemas, store cleanup], auto-config cleanup, fold
void DesiredBoot();                    // restore, auto-config cleanup, boot mode 1 apply, fold
void SetDesiredUserConfig(rapidjson::Document& doc);
void CleanupStore();                   // the boot flavour: no directory removal
void CleanupAutoConfig();
void CleanupDataFiles();
void Metrics();
std::vector<std::string> FilterStickyBitFiles(const std::vector<std::string>& files);
// export -o: the user values as a desired document (the same checks of what a document cannot
// carry), written pretty-printed and atomically to the resolved `path`. Returns the objects written.
size_t Export(const std::string& path);

// One schema of the host's newest schema files without its "pattern" keywords, with the default
// instances of its key from the newest default files.
struct SchemaCase {
  rapidjson::Document schema;
  std::string text;  // compact text of `schema`
  rapidjson::Document instances;  // an array
};
std::vector<SchemaCase> PatternFreeDefaults();  // preparation, not timed
void PeerValidate(const std::vector<SchemaCase>& cases);  // every instance; throws on an invalid one

}  // namespace bench::floor
