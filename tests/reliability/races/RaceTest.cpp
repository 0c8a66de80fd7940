// Boot loads, staging and plans run as real configstorectl processes at the same time on one host
// root: every outcome must be the outcome of one serial order of the two, never a mix.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "tests/support/Ctl.h"
#include "tests/support/Sandbox.h"
#include "tests/support/StoreDump.h"

namespace {

namespace fs = std::filesystem;
using Args = std::vector<std::string>;

constexpr const char* kSmartnicDocument =
    R"({"qor":{"network":{"nuknics":[{"name":"nuk0","mtu":8000}],"dns":{"hostname":"nic"}}}})";

// "@name" stands for the file "name" at the top of the host root `root`.
Args On(const std::string& root, Args args) {
  for (std::string& arg : args) {
    if (!arg.empty() && arg[0] == '@') arg = root + "/" + arg.substr(1);
  }
  return args;
}

int Rounds() {
  const char* longRun = std::getenv("CONFIGSTORE_LONG");
  return longRun != nullptr && std::string(longRun) == "1" ? 200 : 6;
}

struct Race {
  const char* name;
  Args setUp;    // run on the booted sample host before the race (empty: nothing)
  bool backUp;   // copy the store to the backup after the set-up, as the host's backup does
  Args first, second;
  bool compareOutput;  // compare the second's output (a plan, an export) instead of the store
};

void PrintTo(const Race& race, std::ostream* out) { *out << race.name; }

class RaceTest : public cstest::SandboxTest, public testing::WithParamInterface<Race> {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    base_ = root_ + "/base";
    fs::create_directories(base_);
    fs::copy(cstest::SourcePath("examples/host"), base_, fs::copy_options::recursive);
    fs::copy(cstest::SourcePath("examples/desired.json"), base_ + "/desired.json");
    std::FILE* f = std::fopen((base_ + "/smartnic.json").c_str(), "w");
    ASSERT_NE(f, nullptr);
    std::fputs(kSmartnicDocument, f);
    std::fclose(f);
    // A host after its first boot, as an ordinary reboot finds it.
    for (const Args& args : {Args{"load"}, Args{"boot-state", "cleanup"}}) {
      ASSERT_EQ(cstest::RunCtl(base_, args).status, 0);
    }
    fs::remove_all(base_ + "/var/run");  // emptied by the reboot
    fs::remove(base_ + "/var/lib/talvex/firstboot/current-store-1");
    const Race& race = GetParam();
    if (!race.setUp.empty()) {
      cstest::CtlResult r = cstest::RunCtl(base_, On(base_, race.setUp));
      ASSERT_EQ(r.status, 0) << r.err;
    }
    if (race.backUp) {
      fs::create_directories(base_ + "/var/lib/talvex/configstore/backup");
      fs::copy_file(base_ + "/etc/talvex/configstore/current-store-1",
                    base_ + "/var/lib/talvex/configstore/backup/current-store-1");
    }
  }

  std::string Fresh(const std::string& name) {
    std::string copy = root_ + "/" + name;
    fs::remove_all(copy);
    fs::copy(base_, copy, fs::copy_options::recursive);
    return copy;
  }

  // Runs the two commands of the race on `root` one after the other; what the race is judged by.
  std::string Serial(const std::string& root, const Args& a, const Args& b) {
    auto start = std::chrono::steady_clock::now();
    cstest::CtlResult ra = cstest::RunCtl(root, On(root, a));
    if (a == GetParam().first) {
      firstUs_ = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start).count();
    }
    cstest::CtlResult rb = cstest::RunCtl(root, On(root, b));
    EXPECT_EQ(ra.status, 0) << ra.err;
    EXPECT_EQ(rb.status, 0) << rb.err;
    return Outcome(root, b == GetParam().second ? rb : ra);
  }

  // The configuration store as data (run-to-run parts masked), or the plan's output.
  std::string Outcome(const std::string& root, const cstest::CtlResult& plan) {
    if (GetParam().compareOutput) return plan.out;
    std::string text;
    for (const auto& [table, rows] :
         cstest::MaskRunToRun(cstest::DumpStoreFile(root + "/etc/talvex/configstore/current-store-1", "cs"))) {
      for (const std::string& row : rows) text += table + " " + row + "\n";
    }
    return text;
  }

  std::string base_;
  long firstUs_ = 0;  // how long the first command takes on its own, to spread the second's start over
};

TEST_P(RaceTest, EveryOutcomeIsOneSerialOrder) {
  const Race& race = GetParam();
  const std::string firstThenSecond = Serial(Fresh("serial-a"), race.first, race.second);
  const std::string secondThenFirst = Serial(Fresh("serial-b"), race.second, race.first);

  std::mt19937 rng(7);
  // Either starts anywhere from a whole run of the first before the other to just as long after it.
  std::uniform_int_distribution<long> delayUs(-firstUs_, firstUs_);
  int asFirstThenSecond = 0, asSecondThenFirst = 0, mixed = 0;
  const int rounds = Rounds();
  for (int round = 0; round < rounds; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const std::string root = Fresh("race");
    const long delay = delayUs(rng);
    cstest::CtlProcess a, b;
    if (delay >= 0) {
      a = cstest::StartCtl(root, On(root, race.first), "first");
      usleep(static_cast<useconds_t>(delay));
      b = cstest::StartCtl(root, On(root, race.second), "second");
    } else {
      b = cstest::StartCtl(root, On(root, race.second), "second");
      usleep(static_cast<useconds_t>(-delay));
      a = cstest::StartCtl(root, On(root, race.first), "first");
    }
    cstest::CtlResult ra = cstest::WaitCtl(a), rb = cstest::WaitCtl(b);
    ASSERT_EQ(ra.status, 0) << ra.err;
    ASSERT_EQ(rb.status, 0) << rb.err;
    const std::string seen = Outcome(root, rb);
    if (seen == firstThenSecond) {
      ++asFirstThenSecond;
    } else if (seen == secondThenFirst) {
      ++asSecondThenFirst;
    } else {
      ++mixed;
      ADD_FAILURE() << "neither serial order:\n" << seen << "\nfirst then second:\n" << firstThenSecond
                    << "\nsecond then first:\n" << secondThenFirst;
    }
  }
  std::printf("race %s: %d rounds, %d as first-then-second, %d as second-then-first, %d mixed\n", race.name, rounds,
              asFirstThenSecond, asSecondThenFirst, mixed);
}

INSTANTIATE_TEST_SUITE_P(
    Races, RaceTest,
    testing::Values(
        // A desired configuration staged while the boot runs is applied by it or left for the next.
        Race{"load/set-desired", {}, false, {"load", "--no-restore"}, {"set-desired", "@desired.json"}, false},
        // A SmartNIC document replacing a staged desired one is applied as what it is, never as a
        // whole desired configuration.
        Race{"load/set-smartnic", {"set-desired", "@desired.json"}, false, {"load", "--no-restore"},
             {"set-smartnic", "@smartnic.json"}, false},
        // Two boots at once: the second's restore never pulls the store from under the first.
        Race{"load/load", {"set-desired", "@desired.json"}, true, {"load", "--force"}, {"load", "--force"}, false},
        // A plan shows the staging before it or the one after it, never the mode of one with the
        // rows of the other.
        Race{"set-smartnic/plan", {"set-desired", "@desired.json"}, false, {"set-smartnic", "@smartnic.json"},
             {"--json", "plan"}, true},
        // An export during a boot's restore reads the store before the boot or after it, never a
        // store file still being copied.
        Race{"load/export", {"set-desired", "@desired.json"}, true, {"load", "--force"}, {"export"}, true}),
    [](const testing::TestParamInfo<Race>& info) {
      std::string name = info.param.name;
      for (char& c : name) c = std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
      return name;
    });

}  // namespace
