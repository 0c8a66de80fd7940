// Boot loads, staging, plans and exports run as real configstorectl processes at the same time on
// one host root: every outcome must be the outcome of one serial order of the two, never a mix.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>

#include "tests/support/Ctl.h"
#include "tests/support/Sandbox.h"
#include "tests/support/StoreDump.h"

namespace {

namespace fs = std::filesystem;
using Args = std::vector<std::string>;

struct Race {
  const char* name;
  bool staged;                 // the sample desired document staged on the booted host before the race
  bool backUp;                 // then the store copied to the backup, as the host's backup does
  Args first, second;          // "@name" stands for the file "name" at the top of the host root
  bool compareOutput = false;  // compare the second's output (a plan, an export) instead of the store
};
void PrintTo(const Race& race, std::ostream* out) { *out << race.name; }

class RaceTest : public cstest::SandboxTest, public testing::WithParamInterface<Race> {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    base_ = Fresh("base", cstest::SourcePath("examples/host"));
    fs::copy(cstest::SourcePath("examples/desired.json"), base_ + "/desired.json");
    WriteFile("/base/smartnic.json",
              R"({"qor":{"network":{"nuknics":[{"name":"nuk0","mtu":8000}],"dns":{"hostname":"nic"}}}})");
    // A host after its first boot, as an ordinary reboot finds it.
    for (const Args& args : {Args{"load"}, Args{"boot-state", "cleanup"}}) ASSERT_EQ(Run(base_, args).status, 0);
    fs::remove_all(base_ + "/var/run");  // emptied by the reboot
    fs::remove(base_ + "/var/lib/talvex/firstboot/current-store-1");
    if (GetParam().staged) {
      ASSERT_EQ(Run(base_, {"set-desired", "@desired.json"}).status, 0);
    }
    if (GetParam().backUp) {
      fs::create_directories(base_ + "/var/lib/talvex/configstore/backup");
      fs::copy_file(base_ + "/etc/talvex/configstore/current-store-1",
                    base_ + "/var/lib/talvex/configstore/backup/current-store-1");
    }
  }

  std::string Fresh(const std::string& name, const std::string& from) {
    fs::remove_all(root_ + "/" + name);
    fs::copy(from, root_ + "/" + name, fs::copy_options::recursive);
    return root_ + "/" + name;
  }
  static Args On(const std::string& root, Args args) {
    for (std::string& arg : args) arg = arg.starts_with("@") ? root + "/" + arg.substr(1) : arg;
    return args;
  }
  static cstest::CtlResult Run(const std::string& root, const Args& args) {
    cstest::CtlResult r = cstest::RunCtl(root, On(root, args));
    EXPECT_EQ(r.status, 0) << r.err;
    return r;
  }

  // The configuration store as data (run-to-run parts masked), or the second command's output.
  static std::string Outcome(const std::string& root, const cstest::CtlResult& second) {
    if (GetParam().compareOutput) return second.out;
    std::string text;
    for (const auto& [table, rows] :
         cstest::MaskRunToRun(cstest::DumpStoreFile(root + "/etc/talvex/configstore/current-store-1", "cs"))) {
      for (const std::string& row : rows) text += table + " " + row + "\n";
    }
    return text;
  }

  std::string base_;
};

TEST_P(RaceTest, EveryOutcomeIsOneSerialOrder) {
  const Race& race = GetParam();
  std::string root = Fresh("serial-a", base_);
  auto start = std::chrono::steady_clock::now();
  Run(root, race.first);
  // How long the first takes on its own: the other starts anywhere from that long before it to as
  // long after it.
  const long firstUs =
      std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start).count();
  const std::string firstThenSecond = Outcome(root, Run(root, race.second));
  root = Fresh("serial-b", base_);
  const cstest::CtlResult second = Run(root, race.second);
  Run(root, race.first);
  const std::string secondThenFirst = Outcome(root, second);

  std::mt19937 rng(7);
  std::uniform_int_distribution<long> delayUs(-firstUs, firstUs);
  const char* longRun = std::getenv("CONFIGSTORE_LONG");
  const int rounds = longRun != nullptr && std::string(longRun) == "1" ? 200 : 6;
  int asFirstThenSecond = 0, asSecondThenFirst = 0;
  for (int round = 0; round < rounds; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    root = Fresh("race", base_);
    const long delay = delayUs(rng);
    cstest::CtlProcess a, b;
    (delay >= 0 ? a : b) = cstest::StartCtl(root, On(root, delay >= 0 ? race.first : race.second), "early");
    usleep(static_cast<useconds_t>(std::abs(delay)));
    (delay >= 0 ? b : a) = cstest::StartCtl(root, On(root, delay >= 0 ? race.second : race.first), "late");
    const cstest::CtlResult ra = cstest::WaitCtl(a), rb = cstest::WaitCtl(b);
    ASSERT_EQ(ra.status, 0) << ra.err;
    ASSERT_EQ(rb.status, 0) << rb.err;
    const std::string seen = Outcome(root, rb);
    asFirstThenSecond += seen == firstThenSecond;
    asSecondThenFirst += seen == secondThenFirst && seen != firstThenSecond;
    EXPECT_TRUE(seen == firstThenSecond || seen == secondThenFirst) << "neither serial order:\n" << seen;
  }
  std::printf("race %s: %d rounds, %d as first-then-second, %d as second-then-first, %d mixed\n", race.name, rounds,
              asFirstThenSecond, asSecondThenFirst, rounds - asFirstThenSecond - asSecondThenFirst);
}

// A desired configuration staged while the boot runs is applied by it or left for the next; a SmartNIC
// document replacing a staged desired one is applied as what it is, never as a whole desired
// configuration; of two boots at once, the second's restore never pulls the store from under the
// first; a plan shows the staging before it or the one after it, never the mode of one with the rows
// of the other; an export during a boot's restore never reads a store file still being copied.
INSTANTIATE_TEST_SUITE_P(
    Races, RaceTest,
    testing::Values(
        Race{"load_set_desired", false, false, {"load", "--no-restore"}, {"set-desired", "@desired.json"}},
        Race{"load_set_smartnic", true, false, {"load", "--no-restore"}, {"set-smartnic", "@smartnic.json"}},
        Race{"load_load", true, true, {"load", "--force"}, {"load", "--force"}},
        Race{"set_smartnic_plan", true, false, {"set-smartnic", "@smartnic.json"}, {"--json", "plan"}, true},
        Race{"load_export", true, true, {"load", "--force"}, {"export"}, true}),
    [](const testing::TestParamInfo<Race>& info) { return std::string(info.param.name); });

}  // namespace
