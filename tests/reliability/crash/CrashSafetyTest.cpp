// Staging and boot loads killed with SIGKILL at random points: after SQLite's
// own recovery the store is sound, the staging table and the boot mode are
// exactly the state before or after the operation that was running, and the
// next boot load succeeds and keeps its report as the newest of a boot history
// whose every file parses.
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>
#include <sstream>

#include "configstore/boot/LoadStore.h"
#include "configstore/bootstate/BootState.h"
#include "configstore/desired/DesiredConfig.h"
#include "configstore/frame/Documents.h"
#include "platform/dbstore/DBStore.h"
#include "platform/host/HostRoot.h"
#include "platform/host/Process.h"
#include "tests/reliability/crash/CrashCycle.h"
#include "tests/support/Sandbox.h"
#include "tests/support/StoreDump.h"

namespace {

using crashcycle::Op;

// The staging table (generated ids masked) and the next boot mode: what a kill
// must leave whole.
struct StagedState {
  std::vector<std::string> rows;
  int bootMode = 0;
  bool operator==(const StagedState&) const = default;
};

// The boot mode and the rows of `s` that `other` lacks.
std::string Describe(const StagedState& s, const StagedState& other) {
  std::ostringstream out;
  out << "boot mode " << s.bootMode << ", " << s.rows.size() << " staged rows";
  int shown = 0;
  for (const std::string& row : s.rows) {
    if (shown < 5 && !std::binary_search(other.rows.begin(), other.rows.end(), row)) {
      out << "\n  only here: " << row;
      ++shown;
    }
  }
  return out.str();
}

const char* Name(Op op) {
  switch (op) {
    case Op::StageDesiredA:
      return "stage A";
    case Op::StageDesiredB:
      return "stage B";
    case Op::StageSmartnic:
      return "stage SmartNIC";
    case Op::Boot:
      return "boot load";
    case Op::RestoreBoot:
      return "restore boot";
    case Op::RegisterSchemas:
      return "schema registration";
  }
  return "?";
}

Op CycleOp(long position) { return crashcycle::kCycle[static_cast<size_t>(position) % crashcycle::kCycle.size()]; }

// A desired document of `accounts` user accounts named prefix0..: big enough
// that kills land inside its transaction, not only around it.
std::string DesiredDocument(const std::string& network, const std::string& prefix, int accounts,
                            const std::string& extraGroups) {
  std::string users;
  for (int i = 0; i < accounts; ++i) {
    users += (i ? "," : "") + std::string("{\"name\":\"") + prefix + std::to_string(i) + "\",\"description\":\"" +
             prefix + " account " + std::to_string(i) + "\"}";
  }
  return "{\"profile\":{\"qor\":{\"network\":" + network + ",\"authentication\":{\"user_accounts\":[" + users + "]}" +
         extraGroups + "}}}";
}

long TotalKills() {
  if (const char* n = std::getenv("CONFIGSTORE_CRASH_KILLS")) return std::max(1L, std::atol(n));
  if (const char* longRun = std::getenv("CONFIGSTORE_LONG"); longRun && std::string(longRun) == "1") return 1002;
  return 60;
}

constexpr long kCases = 3;  // the seeds below share the kills

class CrashSafetyTest : public cstest::SandboxTest, public testing::WithParamInterface<unsigned> {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    CopyExampleHost();
    // A host after its first boot: schemas registered, the boot document
    // applied, boot bank recorded.
    ASSERT_EQ(QorConfigStore::LoadStore(true), 0);
    QorConfigStore::CleanupBootState();
    Remove("/var/lib/talvex/firstboot/current-store-1");
    WriteFile(crashcycle::kDesiredA,
              DesiredDocument(R"({"dns":{"hostname":"host-a","domain":"a.example","servers":["192.0.2.1"]},)"
                              R"("nuknics":[{"name":"nuk0","mtu":9000,"enabled":true},{"name":"nuk1","mtu":1500}]})",
                              "a", 300, ""));
    WriteFile(crashcycle::kDesiredB,
              DesiredDocument(R"({"dns":{"hostname":"host-b"},"nuknics":[{"name":"nuk2","mtu":1280}]})", "b", 200,
                              R"(,"system":{"advanced_options":[{"name":"Net.TcpipHeapSize","integer_value":64}]})"));
    WriteFile(crashcycle::kSmartnic,
              R"({"qor":{"network":{"nuknics":[{"name":"nuk0","mtu":8000}],"dns":{"hostname":"nic"}}}})");
    // A boot that applied a desired configuration: the default user_vars it
    // copied are now current and are carried over by every later staging.
    Stage(Op::StageDesiredA);
    ASSERT_EQ(QorConfigStore::LoadStore(false), 0);
    // What each staging leaves when it runs cleanly, run here in the test's own
    // process.
    for (Op op : {Op::StageDesiredA, Op::StageDesiredB, Op::StageSmartnic}) {
      Stage(op);
      staged_[op] = Observe();
      ASSERT_FALSE(staged_[op].rows.empty()) << Name(op);
    }
    ASSERT_NE(staged_[Op::StageDesiredA], staged_[Op::StageDesiredB]);
    ASSERT_EQ(QorConfigStore::LoadStore(false), 0);
    // The backup a restore boot finds: A staged, as the host's backup saved it before a reboot.
    Stage(Op::StageDesiredA);
    backup_ = Observe();
    std::filesystem::create_directories(Path("/var/lib/talvex/configstore/backup"));
    std::filesystem::copy_file(DBStore::StorePath(DBStore::CONFIG_STORE),
                               Path("/var/lib/talvex/configstore/backup/current-store-1"));
    ASSERT_EQ(QorConfigStore::LoadStore(false), 0);
    registered_ = Registered();
  }

  static void Stage(Op op) {
    const char* file = op == Op::StageDesiredA   ? crashcycle::kDesiredA
                       : op == Op::StageDesiredB ? crashcycle::kDesiredB
                                                 : crashcycle::kSmartnic;
    auto doc = QorConfigStore::CreateDocumentFromFile(Host::Resolve(file));
    if (op == Op::StageSmartnic) {
      QorConfigStore::SetDesiredSmartnicConfiguration(*doc->document);
    } else {
      QorConfigStore::SetDesiredUserConfig(*doc->document);
    }
  }

  // The state `op` leaves when it runs to its end from `before`.
  StagedState After(Op op, const StagedState& before) {
    if (op == Op::RegisterSchemas) return before;
    if (op == Op::RestoreBoot) return After(Op::Boot, backup_);
    if (op != Op::Boot) return staged_.at(op);
    // A boot applies a desired configuration (mode 1) and empties the staging
    // table; SmartNIC rows stay staged after they are applied. Either way the
    // next boot mode is the default.
    return StagedState{before.bootMode == 1 ? std::vector<std::string>{} : before.rows, 0};
  }

  // Opens the store read-write, as the next boot does (SQLite rolls a hot
  // journal back here), checks its integrity and reads the staged state.
  StagedState Observe() {
    const std::string path = DBStore::StorePath(DBStore::CONFIG_STORE);
    StagedState state;
    sqlite3* db = nullptr;
    int rc = sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
    EXPECT_EQ(rc, SQLITE_OK) << (db ? sqlite3_errmsg(db) : sqlite3_errstr(rc));
    std::vector<std::string> integrity;
    auto collect = [](void* out, int, char** argv, char**) {
      static_cast<std::vector<std::string>*>(out)->push_back(argv[0] ? argv[0] : "NULL");
      return 0;
    };
    EXPECT_EQ(sqlite3_exec(db, "PRAGMA integrity_check", collect, &integrity, nullptr), SQLITE_OK)
        << sqlite3_errmsg(db);
    EXPECT_EQ(integrity, std::vector<std::string>{"ok"});
    std::vector<std::string> mode;
    EXPECT_EQ(sqlite3_exec(db, "SELECT Value FROM KeyValue WHERE Key = 'BOOT_MODE'", collect, &mode, nullptr),
              SQLITE_OK);
    state.bootMode = mode.empty() ? 0 : std::atoi(mode[0].c_str());
    sqlite3_close_v2(db);

    cstest::StoreDump dump = cstest::DumpStoreFile(path, "cs");
    for (const std::string& row : dump["cs.DesiredUserConfig"]) {
      state.rows.push_back(cstest::MaskRunToRun(row));
    }
    std::sort(state.rows.begin(), state.rows.end());
    return state;
  }

  // The schema store and the default configuration (recovered as the next boot recovers them): what
  // registration writes. Registering the same files again writes the same rows, so a kill at any
  // point must leave exactly these.
  cstest::StoreDump Registered() {
    for (const std::string& path : {DBStore::SchemaStorePath(), DBStore::StorePath(DBStore::CONFIG_STORE)}) {
      sqlite3* db = nullptr;
      EXPECT_EQ(sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr), SQLITE_OK) << path;
      EXPECT_EQ(sqlite3_exec(db, "PRAGMA quick_check", nullptr, nullptr, nullptr), SQLITE_OK) << path;
      sqlite3_close_v2(db);
    }
    cstest::StoreDump dump = cstest::DumpStoreFile(DBStore::SchemaStorePath(), "ss");
    dump["cs.DefaultConfig"] = cstest::DumpStoreFile(DBStore::StorePath(DBStore::CONFIG_STORE), "cs")["cs.DefaultConfig"];
    return cstest::MaskRunToRun(dump);
  }

  struct Progress {
    long completed = 0;  // operations that returned
    long inFlight = -1;  // the operation begun and not returned, or -1
  };

  Progress ReadProgress() {
    Progress p;
    std::istringstream in(ReadFile(crashcycle::kProgress));
    char kind;
    long n;
    while (in >> kind >> n) {
      if (kind == 'B') p.inFlight = n;
      if (kind == 'E') p.completed = n + 1, p.inFlight = -1;
    }
    return p;
  }

  // Starts the driver at cycle position `first` for `ops` operations; its pid.
  pid_t StartDriver(long first, long ops) {
    Remove(crashcycle::kProgress);
    const std::string firstText = std::to_string(first), opsText = std::to_string(ops);
    const char* argv[] = {CRASH_DRIVER, root_.c_str(), firstText.c_str(), opsText.c_str(), nullptr};
    pid_t pid = -1;
    EXPECT_EQ(Host::SpawnProcess(argv, &pid), 0);
    return pid;
  }

  std::map<Op, StagedState> staged_;
  StagedState backup_;
  cstest::StoreDump registered_;
};

TEST_P(CrashSafetyTest, KilledStagingAndBootLeaveTheOldOrTheNewState) {
  std::mt19937 rng(GetParam());
  const long kills = (TotalKills() + kCases - 1) / kCases;

  // One clean cycle: checks the model of what each operation leaves, and sizes
  // the kill delays.
  StagedState state = Observe();
  auto start = std::chrono::steady_clock::now();
  pid_t pid = StartDriver(0, static_cast<long>(crashcycle::kCycle.size()));
  int status = 0;
  ASSERT_EQ(Host::WaitProcess(pid, &status), 0);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == crashcycle::kDriverDone) << "raw status " << status;
  const auto cycleUs =
      std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start).count();
  for (Op op : crashcycle::kCycle) state = After(op, state);
  ASSERT_EQ(Observe(), state) << "a clean cycle leaves what the model says";
  std::uniform_int_distribution<long> delayUs(0, std::max<long>(1000, cycleUs));

  std::map<std::string, long> reached;  // what was running when the kill came
  long oldStates = 0, newStates = 0, restores = 0;
  for (long k = 0; k < kills && !HasFatalFailure(); ++k) {
    const long first = static_cast<long>(rng() % crashcycle::kCycle.size());
    pid = StartDriver(first, 1000000);
    ASSERT_GT(pid, 0);
    usleep(static_cast<useconds_t>(delayUs(rng)));
    // The whole group: a child left running (the store copy of a restore) would go on writing into
    // the next boot's store. A driver killed before it made its group has no child yet.
    if (kill(-pid, SIGKILL) != 0) {
      ASSERT_EQ(kill(pid, SIGKILL), 0);
    }
    ASSERT_EQ(Host::WaitProcess(pid, &status), 0);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the driver ended on its own, status " << WEXITSTATUS(status);

    Progress progress = ReadProgress();
    StagedState before = state;
    for (long n = 0; n < progress.completed; ++n) before = After(CycleOp(first + n), before);
    const bool running = progress.inFlight >= 0;
    const Op op = CycleOp(first + (running ? progress.inFlight : progress.completed));
    StagedState after = running ? After(op, before) : before;
    ++reached[running ? Name(op) : progress.completed == 0 ? "before the first operation" : "between operations"];

    SCOPED_TRACE("kill " + std::to_string(k) + " during " + (running ? Name(op) : "no operation"));
    // A kill inside a restore boot leaves the working store half-replaced; the host's next boot
    // restores again, and that boot must end as a whole restore boot does.
    const bool restoring = running && op == Op::RestoreBoot;
    StagedState seen = restoring ? before : Observe();
    if (restoring) {
      ++restores;
    } else if (seen == before) {
      ++oldStates;
    } else if (seen == after) {
      ++newStates;
    } else {
      ADD_FAILURE() << "half-applied: seen " << Describe(seen, before) << "\nold " << Describe(before, seen) << "\nnew "
                    << Describe(after, seen);
    }
    if (!restoring) {
      EXPECT_EQ("", cstest::DiffStores(registered_, Registered())) << "registration half-applied";
    }

    // A load killed while saving its report leaves every report file whole.
    EXPECT_NO_THROW(QorConfigStore::ReadLastBootReport());
    for (const auto& kept : QorConfigStore::ReadBootHistory()) EXPECT_TRUE(kept.report) << kept.error;

    // The next boot finds the store as the kill left it and runs to its end.
    log_.Clear();
    QorConfigStore::BootReport report;
    ASSERT_EQ(QorConfigStore::LoadStore(restoring, &report), 0) << "boot after kill " << k;
    // Its report is the newest of the history, whole, and no temporary file of a killed save stays.
    const auto history = QorConfigStore::ReadBootHistory();
    ASSERT_FALSE(history.empty());
    ASSERT_TRUE(history.front().report) << history.front().error;
    EXPECT_TRUE(history.front().report->startTime == report.startTime && history.front().report->totalMs == report.totalMs)
        << history.front().file << " is not the report of the last boot";
    for (const auto& entry : std::filesystem::directory_iterator(Host::Resolve(QorConfigStore::kBootHistoryDir))) {
      EXPECT_NE(entry.path().extension(), ".tmp") << entry.path();
    }
    EXPECT_FALSE(log_.Contains("GenerateDesiredConfiguration failed"));
    state = Observe();
    EXPECT_EQ(state, restoring ? After(Op::RestoreBoot, seen) : After(Op::Boot, seen));
  }
  EXPECT_TRUE(RecordedAlerts().empty()) << RecordedAlerts().front();

  std::ostringstream figure;
  figure << "crash seed " << GetParam() << ": " << kills << " kills survived; running at the kill:";
  for (const auto& [what, count] : reached) figure << " " << what << " " << count << ",";
  figure << " outcome old " << oldStates << ", new " << newStates << ", restore boots redone " << restores << "\n";
  std::fputs(figure.str().c_str(), stdout);
}

INSTANTIATE_TEST_SUITE_P(Seeds, CrashSafetyTest, testing::Values(1u, 2u, 3u));

}  // namespace
