// The synthetic big host the benchmarks run on: packages with schema and default-configuration
// files in the real formats, an image database, a configuration store with its backups, a desired
// document, data files and sticky-bit files, all under one host root and all derived from a seed.
//
// Scale 1 is the big host (300 packages, about 5,000 schema elements, 20,000 default instances,
// 100,000 configuration rows, a 10,000-object desired document, 2,000 data files, 2,000 sticky
// files); scale 2 doubles every count.
//
// The shapes host is a tenth of the big host (packages, rows, desired objects, sticky files) with
// the shapes that a set statement comparing every row against every other would make quadratic:
// one key with 12,000 instances in the store and 20,000 staged by the desired document, a key
// that preserves 10,000 instance ids, 20,000 configuration rows without schema and 20,000
// data-file records. Its scale doubles every count as well.
#pragma once

#include <cstdint>
#include <string>

namespace bench {

struct HostSpec {
  int scale = 1;
  uint64_t seed = 1;
  bool shapes = false;
};

// Host paths (resolved against the root) of what the generator leaves beside the host's own files.
inline constexpr const char* kGoldenDir = "/bench/golden";          // pristine stores, restored before each run
inline constexpr const char* kDesiredDocument = "/bench/desired.json";
inline constexpr const char* kStickyList = "/bench/sticky-files.txt";  // one host path a line
inline constexpr const char* kCountsFile = "/bench/counts.txt";        // what was generated, "name value" lines

// Golden copies (file names under kGoldenDir):
//   current-store-1          the store after a boot, boot mode 0, BOOT_FS_UUID of this boot
//   current-store-1.upgrade  the same with another BOOT_FS_UUID: the next boot re-registers schemas
//   datafile-store, schema-store, datafiles/ (the tree under "/var/cache/datafiles")
// Writes everything under `root` (made empty first). Throws std::runtime_error on any failure.
// Sets the process's host root to `root`.
void GenerateHost(const std::string& root, const HostSpec& spec);

}  // namespace bench
