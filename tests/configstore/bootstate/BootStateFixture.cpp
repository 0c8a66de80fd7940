#include "tests/configstore/bootstate/BootStateFixture.h"

#include "configstore/bootstate/UpgradeDetection.h"
#include "configstore/frame/ConfigStoreException.h"
#include "platform/plon/Plon.h"

namespace cstest {

void BootStateTest::SetUp() {
  SandboxTest::SetUp();
  ASSERT_EQ(DBStore::CreateDatabases(), 0);
  ASSERT_TRUE(PLON_WriteSignature());
  SetCmdLine("BOOT_IMAGE=/b.b00 ro quiet");
  SetNode("/system/bootOption", std::string(4, '\0'));
  SetPxeBoot(false);
  SetBootUuid("5f1e2d3c-aaaa-bbbb-cccc-000000000001");
  log_.Clear();
}

void BootStateTest::TearDown() {
  DBStore::faults::Disarm();
  SandboxTest::TearDown();
}

std::string BootStateTest::Stored(const std::string& key) const {
  DBStore::Connection conn = DBStore::GetConnection(DBStore::CONFIG_STORE, false);
  std::string value = "<unreadable>";
  EXPECT_EQ(DBStore::ReadKeyValue(key, &value, conn), 0) << key;
  return value;
}

void BootStateTest::Store(const std::string& key, const std::string& value) const {
  DBStore::Connection conn = DBStore::GetConnection(DBStore::CONFIG_STORE, true);
  ASSERT_EQ(DBStore::WriteKeyValue(key, value, conn), 0) << key;
}

void BootStateTest::RemoveStore() const { Remove("/etc/talvex/configstore/current-store-1"); }

void BootStateTest::SetNode(const std::string& nodePath, const std::string& content) const {
  ASSERT_TRUE(PLON_WriteNodeFile(nodePath, content)) << nodePath;
}

void BootStateTest::RemoveNode(const std::string& nodePath) const { Remove("/sys/plon" + nodePath); }

void BootStateTest::SetInstallerBoot(bool installer) const {
  SetNode("/system/bootOption", std::string("\0\0\0", 3) + (installer ? '\x01' : '\0'));
}

void BootStateTest::SetFirstBoot(bool first) const {
  if (first) {
    WriteFile(QorConfigStore::FIRSTBOOT_FILE, "");
  } else {
    Remove(QorConfigStore::FIRSTBOOT_FILE);
  }
}

bool BootStateTest::Logged(const std::string& text, int priority) const {
  for (const auto& line : log_.Lines()) {
    if (line.priority == priority && line.text == text) return true;
  }
  return false;
}

}  // namespace cstest
