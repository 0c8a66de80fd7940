// The store ramdisks: what is mounted, in what order, with which limits, and where a failure stops.
#include <gmock/gmock.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <tuple>

#include "configstore/boot/RamDisk.h"
#include "platform/host/Mounts.h"
#include "platform/plon/Plon.h"
#include "tests/support/Sandbox.h"

// The allocation that fails when this program is told to, the way an exhausted boot host fails one
// (the library's delete frees what malloc gave).
namespace {
std::atomic<int> gAllocationsUntilFailure{0};  // 0: none fails
}  // namespace

void* operator new(std::size_t size) {
  if (gAllocationsUntilFailure.load() > 0 && gAllocationsUntilFailure.fetch_sub(1) == 1) throw std::bad_alloc();
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}

namespace QorConfigStore {
namespace {

using ::testing::ElementsAre;

constexpr const char* kStoreMount = "none /etc/talvex/configstore lumafs 0 32,32,0,0,0,00644,configstore";
constexpr const char* kStoreLimits = "/sys/plon/system/lumafs/ramdisks/configstore/memUsageLimit";

class RamDiskTest : public cstest::SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    ASSERT_TRUE(PLON_WriteSignature());
  }
};

// Both ramdisks are mounted, the working one limited; a failure stops where it happens.
TEST_F(RamDiskTest, MountsBothRamdisksAndLimitsTheWorkingOne) {
  WriteFile("/etc/talvex/features", "62=on\n45=on\n");  // the reduced backup reservation
  EXPECT_EQ(SetupStoreRamDisk(), 0);
  EXPECT_THAT(Host::RecordedMounts(),
              ElementsAre(kStoreMount, "none /var/lib/talvex/configstore/backup lumafs 0 0,32,0,0,0,00644,configstorebkp"));
  EXPECT_EQ(ReadFile(kStoreLimits), "80 90\n");

  // a file written where a directory belongs, the operation and message logged (and thrown), mounts done
  const std::tuple<const char*, std::string, size_t> cases[] = {
      {"/sys/plon/.signature", "SetupStoreRamdiskUsageLimits:PLON_CheckSig Failed", 1},
      {"/etc/talvex",
       "SetupStoreRamDisk:Failed to reserve memory for ConfigStore: cannot create " + Path("/etc/talvex/configstore") +
           ": Not a directory",
       0},
      {"/var/lib/talvex",
       "SetupStoreRamDisk:Failed to reserve memory for ConfigStore backup: cannot create " +
           Path("/var/lib/talvex/configstore/backup") + ": Not a directory",
       1},
  };
  for (const auto& [file, logged, mounts] : cases) {
    SCOPED_TRACE(file);
    for (const char* dir : {"/etc", "/var", "/sys/plon/system"}) Remove(dir);
    ASSERT_TRUE(PLON_WriteSignature());
    WriteFile(file, "x\n");
    EXPECT_EQ(cstest::Thrown([] { SetupStoreRamDisk(); }), "2000 " + logged.substr(logged.find(':') + 1));
    EXPECT_TRUE(log_.Contains("CONFIGSTORE:" + logged, CSLogger::PRIO_ERROR));
    EXPECT_EQ(Host::RecordedMounts().size(), mounts);
    EXPECT_EQ(Exists(kStoreLimits), mounts == 1 && file[1] != 's');
  }
}

TEST_F(RamDiskTest, UsageLimitsOfAnyRamdiskAndTheirFailure) {
  SetupStoreRamdiskUsageLimits("configstorebkp");
  EXPECT_EQ(ReadFile("/sys/plon/system/lumafs/ramdisks/configstorebkp/memUsageLimit"), "80 90\n");
  // A name the node tree refuses as an instance never leads out of it.
  for (const char* name : {"../../escape", ""}) {
    EXPECT_EQ(cstest::Thrown([&] { SetupStoreRamdiskUsageLimits(name); }),
              "2000 Failed to set warning and error usage limits");
  }
  EXPECT_FALSE(Exists("/sys/escape"));

  // Out of memory at each allocation in turn: every step that cannot be taken is reported as such.
  std::vector<std::string> thrown;
  for (int nth = 1; thrown.empty() || thrown.back() != "no exception"; ++nth) {
    try {
      thrown.push_back(cstest::Thrown([nth] {
        gAllocationsUntilFailure = nth;
        SetupStoreRamdiskUsageLimits("configstore");
        gAllocationsUntilFailure = 0;
      }));
    } catch (const std::bad_alloc&) {
      thrown.push_back("bad_alloc");
    }
    gAllocationsUntilFailure = 0;
  }
  for (const char* limit : {"warning", "error"}) {
    EXPECT_THAT(thrown, testing::Contains(std::string("2000 Failed to add ") + limit +
                                          " limit to ramdisk(configstore): NUK_NO_MEMORY"));
  }
}

}  // namespace
}  // namespace QorConfigStore
