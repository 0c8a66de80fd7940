// The fault-sweep engine: an operation is run once to count its fault points, then again from the
// same start state with each point failing (once, and from then on). Every run must end in the
// outcome the operation documents, and the stores must then read as a state the operation allows:
// the start state, the state of a clean run, or one of its documented partial states.
#pragma once

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "tests/support/Sandbox.h"
#include "tests/support/StoreDump.h"

namespace sweep {

// What a run reported, in the operation's own terms.
enum class Reported {
  Success,  // the documented success status (or a normal return where a failure would be thrown)
  Failure,  // the documented failure status, or an exception of a documented code
  Silent,   // returned normally where failures are documented as logged only ("best effort")
};

class SweepTest;

struct Operation {
  std::string name;
  // Builds the state every run starts from, without faults.
  std::function<void(SweepTest&)> setup;
  // Runs the operation and maps a returned status; exceptions are mapped by `failureCodes`.
  std::function<Reported()> run;
  // ConfigStoreException codes documented as this operation's failures.
  std::set<int> failureCodes;
  // Documented partial states (for an operation made of several commits), each built from the
  // start state without faults.
  std::vector<std::function<void()>> partials;
  // An operation of independent stages that each commit and may each fail without failing the
  // whole (the boot load): every store must stay readable and keep every row that the start state
  // and the clean run both hold; each stage's own all-or-nothing is swept with the stage itself.
  bool stages = false;
  // Tables ("config.DefaultConfig") whose rows the operation writes one by one, a failed write
  // being documented as logged and skipped: there a run may end with any mix of start and
  // clean-run rows. Such runs are counted as documented losses in the figures.
  std::set<std::string> loggedLosses;
};

// All operations, in table order, and one by name (nullptr when unknown).
const std::vector<Operation>& Operations();
const Operation* FindOperation(const std::string& name);

// One family of fault points: the store calls of DBStore::faults, or the file I/O of faultvfs.
struct FaultFamily {
  std::string name;
  std::vector<std::string> kinds;
  std::function<void(size_t kind, int nth, bool persistent)> arm;
  std::function<int(size_t kind)> calls;
  std::function<void()> disarm;  // nothing armed, counts to zero
};
const FaultFamily& StoreCalls();
const FaultFamily& FileIo();

// Counts of one sweep, for the figures line.
struct Figures {
  std::vector<std::pair<std::string, int>> counted;  // kind -> calls of a clean run
  int swept = 0;
  int success = 0, failure = 0, silent = 0;
  int documentedLoss = 0;  // runs that ended with rows skipped in a `loggedLosses` table
};

class SweepTest : public cstest::SandboxTest {
 public:
  using SandboxTest::CopyExampleHost;
  using SandboxTest::Path;
  using SandboxTest::Remove;
  using SandboxTest::WriteFile;

  // Runs `sql` on the configuration store (with the schema store attached); fails the test when it fails.
  void Sql(const std::string& sql) const;

 protected:
  void SetUp() override;
  void TearDown() override;

  // The whole sweep of `op` under `family`; one figures line on stdout.
  Figures Sweep(const Operation& op, const FaultFamily& family);

 private:
  void SaveStart();
  void RestoreStart();
  cstest::StoreDump Settled();  // what the next reader of every store sees
  Reported RunClassified(const Operation& op, std::string* detail);
  // "" when `now` is a state the operation allows after reporting `reported`; sets *loss when it
  // is allowed only through the operation's `loggedLosses`.
  std::string CheckState(const Operation& op, Reported reported, const cstest::StoreDump& now,
                         const cstest::StoreDump& before, const cstest::StoreDump& after,
                         const std::vector<cstest::StoreDump>& partials, bool* loss);

  std::string start_;  // copy of the root as the setup left it
};

// The fault points swept out of `calls`: every one with CONFIGSTORE_LONG=1, else at most `budget`
// spread evenly, the first and the last always included.
std::vector<int> Points(int calls, int budget);

}  // namespace sweep
