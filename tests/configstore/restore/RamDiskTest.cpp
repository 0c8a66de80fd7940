// The store ramdisks: what is mounted, in what order, with which limits, and where a failure stops.
#include <gmock/gmock.h>

#include "configstore/boot/RamDisk.h"
#include "configstore/frame/ConfigStoreException.h"
#include "platform/host/Mounts.h"
#include "platform/plon/Plon.h"
#include "tests/support/Sandbox.h"

namespace QorConfigStore {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* kStoreMount = "none /etc/talvex/configstore lumafs 0 32,32,0,0,0,00644,configstore";
constexpr const char* kBackupMount = "none /var/lib/talvex/configstore/backup lumafs 0 32,32,0,0,0,00644,configstorebkp";
constexpr const char* kReducedBackupMount =
    "none /var/lib/talvex/configstore/backup lumafs 0 0,32,0,0,0,00644,configstorebkp";
constexpr const char* kStoreLimits = "/sys/plon/system/lumafs/ramdisks/configstore/memUsageLimit";

class RamDiskTest : public cstest::SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    ASSERT_TRUE(PLON_WriteSignature());
  }

  // Runs the setup expecting it to fail with `message`, logged under `operation`.
  void ExpectSetupFailure(const std::string& operation, const std::string& message) {
    try {
      SetupStoreRamDisk();
      ADD_FAILURE() << "no throw";
    } catch (const ConfigStoreException& e) {
      EXPECT_EQ(e.code(), 2000);
      EXPECT_EQ(e.what(), message);
    }
    EXPECT_TRUE(log_.Contains("CONFIGSTORE:" + operation + ":" + message, CSLogger::PRIO_ERROR));
  }
};

TEST_F(RamDiskTest, MountsBothRamdisksAndLimitsTheWorkingOne) {
  struct Case {
    const char* name;
    const char* features;  // nullptr: no feature file, the switch's default (off)
    const char* backupMount;
  };
  const Case cases[] = {
      {"default", nullptr, kBackupMount},
      {"switch off", "45=off\n", kBackupMount},
      {"switch on", "62=on\n45=on\n", kReducedBackupMount},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Remove("/var");
    Remove("/etc");
    Remove("/sys/plon/system");
    if (c.features != nullptr) WriteFile("/etc/talvex/features", c.features);

    EXPECT_EQ(SetupStoreRamDisk(), 0);

    EXPECT_THAT(Host::RecordedMounts(), ElementsAre(kStoreMount, c.backupMount));
    EXPECT_EQ(ReadFile(kStoreLimits), "80 90\n");
    EXPECT_TRUE(Exists("/etc/talvex/configstore"));
    EXPECT_TRUE(Exists("/var/lib/talvex/configstore/backup"));
  }
}

TEST_F(RamDiskTest, SignatureMismatchStopsBeforeTheBackupMount) {
  WriteFile("/sys/plon/.signature", "plon-nodes-v0\n");

  ExpectSetupFailure("SetupStoreRamdiskUsageLimits", "PLON_CheckSig Failed");

  EXPECT_THAT(Host::RecordedMounts(), ElementsAre(kStoreMount));
  EXPECT_FALSE(Exists(kStoreLimits));
}

TEST_F(RamDiskTest, WorkingMountFailureMountsAndLimitsNothing) {
  WriteFile("/etc/talvex", "a file where the mount point's parent belongs");

  ExpectSetupFailure("SetupStoreRamDisk", "Failed to reserve memory for ConfigStore: cannot create " +
                                              Path("/etc/talvex/configstore") + ": Not a directory");

  EXPECT_THAT(Host::RecordedMounts(), IsEmpty());
  EXPECT_FALSE(Exists(kStoreLimits));
}

TEST_F(RamDiskTest, BackupMountFailureComesAfterTheWorkingRamdiskIsReady) {
  WriteFile("/var/lib/talvex", "a file where the mount point's parent belongs");

  ExpectSetupFailure("SetupStoreRamDisk", "Failed to reserve memory for ConfigStore backup: cannot create " +
                                              Path("/var/lib/talvex/configstore/backup") + ": Not a directory");

  EXPECT_THAT(Host::RecordedMounts(), ElementsAre(kStoreMount));
  EXPECT_EQ(ReadFile(kStoreLimits), "80 90\n");
}

TEST_F(RamDiskTest, UsageLimitsOfAnyRamdiskAndTheirFailure) {
  SetupStoreRamdiskUsageLimits("configstorebkp");
  EXPECT_EQ(ReadFile("/sys/plon/system/lumafs/ramdisks/configstorebkp/memUsageLimit"), "80 90\n");
  EXPECT_THAT(Host::RecordedMounts(), IsEmpty());

  // A name the node tree refuses as an instance never leads out of it.
  for (const char* name : {"../../escape", ""}) {
    SCOPED_TRACE(name);
    log_.Clear();
    try {
      SetupStoreRamdiskUsageLimits(name);
      ADD_FAILURE() << "no throw";
    } catch (const ConfigStoreException& e) {
      EXPECT_EQ(e.code(), 2000);
      EXPECT_STREQ(e.what(), "Failed to set warning and error usage limits");
    }
    EXPECT_TRUE(log_.Contains("CONFIGSTORE:SetupStoreRamdiskUsageLimits:Failed to set warning and error usage limits",
                              CSLogger::PRIO_ERROR));
  }
  EXPECT_FALSE(Exists("/sys/escape"));
}

}  // namespace
}  // namespace QorConfigStore
