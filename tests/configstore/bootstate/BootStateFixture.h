// A sandbox host with a fresh configuration store and a signed node tree describing an ordinary
// disk boot, with words to change the boot's facts and read back what the store holds.
#pragma once

#include <string>

#include "configstore/bootstate/UpgradeDetection.h"
#include "platform/dbstore/DBStore.h"
#include "platform/plon/Plon.h"
#include "tests/support/Sandbox.h"

namespace cstest {

class BootStateTest : public SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    ASSERT_EQ(DBStore::CreateDatabases(), 0);
    ASSERT_TRUE(PLON_WriteSignature());
    SetCmdLine("BOOT_IMAGE=/b.b00 ro quiet");
    SetInstallerBoot(false);
    SetPxeBoot(false);
    SetBootUuid("5f1e2d3c-aaaa-bbbb-cccc-000000000001");
    log_.Clear();
  }
  void TearDown() override {
    DBStore::faults::Disarm();
    SandboxTest::TearDown();
  }

  // Key-value entries, read and written straight through DBStore.
  std::string Stored(const std::string& key) const {
    std::string value = "<unreadable>";
    EXPECT_EQ(DBStore::ReadKeyValue(key, &value, DBStore::GetConnection(DBStore::CONFIG_STORE, false)), 0) << key;
    return value;
  }
  void Store(const std::string& key, const std::string& value) const {
    ASSERT_EQ(DBStore::WriteKeyValue(key, value, DBStore::GetConnection(DBStore::CONFIG_STORE, true)), 0) << key;
  }
  void RemoveStore() const { Remove("/etc/talvex/configstore/current-store-1"); }

  // Kernel facts of this boot.
  void SetNode(const std::string& nodePath, const std::string& content) const {
    ASSERT_TRUE(PLON_WriteNodeFile(nodePath, content)) << nodePath;
  }
  void RemoveNode(const std::string& nodePath) const { Remove("/sys/plon" + nodePath); }
  void SetCmdLine(const std::string& line) const { SetNode("/system/bootCmdLine", line); }
  void SetBootUuid(const std::string& uuid) const { SetNode("/system/bootFsUUID", uuid); }
  void SetPxeBoot(bool pxe) const { SetNode("/system/bootMAC", pxe ? "00:50:56:aa:bb:cc" : ""); }
  void SetInstallerBoot(bool installer) const {
    SetNode("/system/bootOption", std::string("\0\0\0", 3) + (installer ? '\x01' : '\0'));
  }
  void SetFirstBoot(bool first) const {
    first ? WriteFile(QorConfigStore::FIRSTBOOT_FILE, "") : Remove(QorConfigStore::FIRSTBOOT_FILE);
  }
  void BreakSignature() const { Remove("/sys/plon/.signature"); }

  // True when some line of that priority holds exactly `text`.
  bool Logged(const std::string& text, int priority) const {
    for (const auto& line : log_.Lines()) {
      if (line.priority == priority && line.text == text) return true;
    }
    return false;
  }
};

}  // namespace cstest
