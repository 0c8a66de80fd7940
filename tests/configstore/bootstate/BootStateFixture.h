// A sandbox host with a fresh configuration store and a signed node tree describing an ordinary
// disk boot, with words to change the boot's facts and read back what the store holds.
#pragma once

#include <functional>
#include <string>

#include "platform/dbstore/DBStore.h"
#include "tests/support/Sandbox.h"

namespace cstest {

class BootStateTest : public SandboxTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Key-value entries, read and written straight through DBStore.
  std::string Stored(const std::string& key) const;
  void Store(const std::string& key, const std::string& value) const;
  void RemoveStore() const;

  // Kernel facts of this boot.
  void SetNode(const std::string& nodePath, const std::string& content) const;
  void RemoveNode(const std::string& nodePath) const;
  void SetCmdLine(const std::string& line) const { SetNode("/system/bootCmdLine", line); }
  void SetBootUuid(const std::string& uuid) const { SetNode("/system/bootFsUUID", uuid); }
  void SetPxeBoot(bool pxe) const { SetNode("/system/bootMAC", pxe ? "00:50:56:aa:bb:cc" : ""); }
  void SetInstallerBoot(bool installer) const;
  void SetFirstBoot(bool first) const;
  void BreakSignature() const { Remove("/sys/plon/.signature"); }

  // True when some line of that priority holds exactly `text`.
  bool Logged(const std::string& text, int priority) const;
};

}  // namespace cstest
