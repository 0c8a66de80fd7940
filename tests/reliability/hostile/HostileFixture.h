// A host after its first boot, and the readers the hostile-input tests compare
// stores with.
#pragma once

#include <string>
#include <vector>

#include "tests/support/Sandbox.h"
#include "tests/support/StoreDump.h"

namespace cstest {

class HostileTest : public SandboxTest {
 protected:
  // The sample host after its first boot, set for an ordinary reboot (boot bank
  // recorded).
  void SetUp() override;

  // Rows of `sql` on the database file `path`, columns quoted and joined by
  // '|'; generated ids masked.
  static std::vector<std::string> Query(const std::string& path, const std::string& sql);
  // The stored configuration objects without the restore flag, which every boot
  // resets.
  std::vector<std::string> ConfigObjects() const;
  // DumpStores() with generated ids masked, for runs that rewrite
  // DefaultConfig.
  static StoreDump MaskedDump();
};

// "[[[...]]]" nested `depth` levels.
std::string Nested(int depth);
// A JSON string literal of `bytes` characters.
std::string HugeString(size_t bytes);
// A JSON array of `count` small integers.
std::string HugeArray(size_t count);

}  // namespace cstest
