// Staging and boot loads killed with SIGKILL at random points: after SQLite's own recovery the store
// is sound, the staging table and the boot mode are exactly the state before or after the operation
// that was running, registration is never half-applied, and the next boot load succeeds and keeps
// its report as the newest of a boot history whose every file parses. Built twice: as the test, and
// with CRASH_DRIVER_MAIN as the driver it kills ("crash_driver ROOT FIRST OPS").
#include <fcntl.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>

#include "configstore/boot/LoadStore.h"
#include "configstore/bootstate/BootState.h"
#include "configstore/desired/DesiredConfig.h"
#include "configstore/frame/Documents.h"
#include "configstore/schema/SchemaProcessor.h"
#include "platform/dbstore/DBStore.h"
#include "platform/host/HostRoot.h"
#include "platform/host/Process.h"

namespace {

// Boot: on the store as it stands; RestoreBoot: first restores the store from its backup (which
// holds A staged); RegisterSchemas: schema and default registration, as a schema-change boot runs it.
enum class Op { StageDesiredA, Boot, StageDesiredB, StageSmartnic, RegisterSchemas, RestoreBoot };
// A boot applies A; B is staged and replaced by a SmartNIC document, which the next boot applies;
// then the schemas are registered again and the host reboots from its backup.
constexpr std::array<Op, 7> kCycle = {
    Op::StageDesiredA, Op::Boot, Op::StageDesiredB, Op::StageSmartnic, Op::Boot, Op::RegisterSchemas, Op::RestoreBoot};
const char* const kNames[] = {"stage A", "boot", "stage B", "SmartNIC", "schema registration", "restore boot"};
const char* const kDocuments[] = {"/crash/desired-a.json", nullptr, "/crash/desired-b.json", "/crash/smartnic.json"};
// The driver notes "B" before an operation touches the store and "E" after it returned, with
// write(2): a SIGKILL keeps every note made before it.
constexpr const char* kProgress = "/crash/progress";

Op CycleOp(long position) { return kCycle[static_cast<size_t>(position) % kCycle.size()]; }

// Runs `op`; false when it reported a failure.
bool RunOp(Op op) {
  if (op == Op::Boot || op == Op::RestoreBoot) return QorConfigStore::LoadStore(op == Op::RestoreBoot) == 0;
  if (op == Op::RegisterSchemas) return QorConfigStore::ProcessSchemas({});
  auto doc = QorConfigStore::CreateDocumentFromFile(Host::Resolve(kDocuments[static_cast<int>(op)]));
  if (op == Op::StageSmartnic) {
    QorConfigStore::SetDesiredSmartnicConfiguration(*doc->document);
  } else {
    QorConfigStore::SetDesiredUserConfig(*doc->document);
  }
  return true;
}

}  // namespace

#ifdef CRASH_DRIVER_MAIN
int main(int argc, char** argv) {
  // A group of its own, so that the kill also ends the copy or removal a step left running, as the
  // host's service manager ends a killed boot's children with it.
  setpgid(0, 0);
  if (argc != 4) return std::fprintf(stderr, "usage: crash_driver ROOT FIRST OPS\n"), 2;
  try {
    Host::SetRoot(argv[1]);
    const long first = std::atol(argv[2]), ops = std::atol(argv[3]);
    int fd = open(Host::Resolve(kProgress).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    for (long n = 0; fd >= 0 && n < ops; ++n) {
      if (write(fd, "B", 1) != 1 || !RunOp(CycleOp(first + n)) || write(fd, "E", 1) != 1) return 3;
    }
    return fd >= 0 ? 0 : 3;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "crash_driver: %s\n", e.what());
    return 3;
  }
}
#else
#include "tests/support/Sandbox.h"
#include "tests/support/StoreDump.h"

namespace {

// The staging table (generated ids masked) and the next boot mode: what a kill must leave whole.
struct StagedState {
  std::vector<std::string> rows;
  int bootMode = 0;
  bool operator==(const StagedState&) const = default;
};
std::ostream& operator<<(std::ostream& out, const StagedState& s) {
  return out << "boot mode " << s.bootMode << ", " << s.rows.size() << " staged rows";
}

// A desired document with `accounts` user accounts: big enough that kills land inside its
// transaction, not only around it.
std::string DesiredDocument(const std::string& groups, const std::string& prefix, int accounts) {
  std::string users;
  for (int i = 0; i < accounts; ++i) users += ",{\"name\":\"" + prefix + std::to_string(i) + "\"}";
  return R"({"profile":{"qor":{)" + groups + R"(,"authentication":{"user_accounts":[)" + users.substr(1) + "]}}}}";
}

// Opens `path` read-write as the next boot does (SQLite rolls a hot journal back here) and checks it.
void Recover(const std::string& path) {
  sqlite3* db = nullptr;
  EXPECT_EQ(sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr), SQLITE_OK) << path;
  std::string result;
  auto append = [](void* out, int, char** argv, char**) { return *static_cast<std::string*>(out) += argv[0], 0; };
  EXPECT_EQ(sqlite3_exec(db, "PRAGMA integrity_check", append, &result, nullptr), SQLITE_OK) << path;
  EXPECT_EQ(result, "ok") << path;
  sqlite3_close_v2(db);
}

class CrashSafetyTest : public cstest::SandboxTest, public testing::WithParamInterface<unsigned> {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    CopyExampleHost();
    // A host after its first boot: schemas registered, the boot document applied, boot bank recorded.
    ASSERT_EQ(QorConfigStore::LoadStore(true), 0);
    QorConfigStore::CleanupBootState();
    Remove("/var/lib/talvex/firstboot/current-store-1");
    WriteFile(kDocuments[0], DesiredDocument(R"("network":{"dns":{"hostname":"host-a","servers":["192.0.2.1"]},)"
                                             R"("nuknics":[{"name":"nuk0","mtu":9000},{"name":"nuk1","mtu":1500}]})",
                                             "a", 300));
    WriteFile(kDocuments[2],
              DesiredDocument(R"("network":{"dns":{"hostname":"host-b"},"nuknics":[{"name":"nuk2"}]},)"
                              R"("system":{"advanced_options":[{"name":"Net.TcpipHeapSize","integer_value":64}]})",
                              "b", 200));
    WriteFile(kDocuments[3],
              R"({"qor":{"network":{"nuknics":[{"name":"nuk0","mtu":8000}],"dns":{"hostname":"nic"}}}})");
    // A boot that applied a desired configuration: the default user_vars it copied are now current
    // and are carried over by every later staging.
    RunOp(Op::StageDesiredA);
    ASSERT_EQ(QorConfigStore::LoadStore(false), 0);
    // What each staging leaves when it runs cleanly, run here in the test's own process.
    for (Op op : {Op::StageDesiredA, Op::StageDesiredB, Op::StageSmartnic}) {
      RunOp(op);
      staged_[op] = Observe();
      ASSERT_FALSE(staged_[op].rows.empty()) << static_cast<int>(op);
    }
    ASSERT_NE(staged_[Op::StageDesiredA], staged_[Op::StageDesiredB]);
    ASSERT_EQ(QorConfigStore::LoadStore(false), 0);
    // The backup a restore boot finds: A staged, as the host's backup saved it before a reboot.
    RunOp(Op::StageDesiredA);
    backup_ = Observe();
    WriteFile("/var/lib/talvex/configstore/backup/current-store-1",
              ReadFile("/etc/talvex/configstore/current-store-1"));
    ASSERT_EQ(QorConfigStore::LoadStore(false), 0);
    registered_ = Registered();
  }

  // The state `op` leaves when it runs to its end from `before`.
  StagedState After(Op op, const StagedState& before) {
    if (op == Op::RegisterSchemas) return before;
    if (op == Op::RestoreBoot) return After(Op::Boot, backup_);
    if (op != Op::Boot) return staged_.at(op);
    // A boot applies a desired configuration (mode 1) and empties the staging table; SmartNIC rows
    // stay staged after they are applied. Either way the next boot mode is the default.
    return StagedState{before.bootMode == 1 ? std::vector<std::string>{} : before.rows, 0};
  }

  StagedState Observe() {
    const std::string path = DBStore::StorePath(DBStore::CONFIG_STORE);
    Recover(path);
    cstest::StoreDump dump = cstest::MaskRunToRun(cstest::DumpStoreFile(path, "cs"));
    StagedState state{dump["cs.DesiredUserConfig"], 0};
    for (const std::string& row : dump["cs.KeyValue"]) {
      if (row.starts_with("'BOOT_MODE'|")) state.bootMode = std::atoi(row.c_str() + (row[12] == '\'' ? 13 : 12));
    }
    return state;
  }

  // The schema store and the default configuration: registering the same files again writes the
  // same rows, so a kill at any point must leave exactly these.
  cstest::StoreDump Registered() {
    Recover(DBStore::SchemaStorePath());
    Recover(DBStore::StorePath(DBStore::CONFIG_STORE));
    cstest::StoreDump dump = cstest::DumpStoreFile(DBStore::SchemaStorePath(), "ss");
    dump["cs.DefaultConfig"] =
        cstest::DumpStoreFile(DBStore::StorePath(DBStore::CONFIG_STORE), "cs")["cs.DefaultConfig"];
    return cstest::MaskRunToRun(dump);
  }

  // Starts the driver at cycle position `first` for `ops` operations; its pid.
  pid_t StartDriver(long first, long ops) {
    Remove(kProgress);
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
  long kills = 20;  // per seed; CONFIGSTORE_CRASH_KILLS sets the total over the three seeds
  if (const char* n = std::getenv("CONFIGSTORE_CRASH_KILLS")) kills = std::max(1L, (std::atol(n) + 2) / 3);
  if (const char* longRun = std::getenv("CONFIGSTORE_LONG"); longRun && std::string(longRun) == "1") kills = 334;

  // One clean cycle: checks the model of what each operation leaves, and sizes the kill delays.
  StagedState state = Observe();
  auto start = std::chrono::steady_clock::now();
  pid_t pid = StartDriver(0, static_cast<long>(kCycle.size()));
  int status = 0;
  ASSERT_EQ(Host::WaitProcess(pid, &status), 0);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "raw status " << status;
  const long cycleUs =
      std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start).count();
  for (Op op : kCycle) state = After(op, state);
  ASSERT_EQ(Observe(), state) << "a clean cycle leaves what the model says";
  std::uniform_int_distribution<long> delayUs(0, std::max<long>(1000, cycleUs));

  long outcomes[3] = {};                // old state, new state, restore boot redone
  std::map<std::string, long> reached;  // what was running at the kill
  for (long k = 0; k < kills && !HasFatalFailure(); ++k) {
    const long first = static_cast<long>(rng() % kCycle.size());
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

    const std::string notes = ReadFile(kProgress);
    const long completed = std::count(notes.begin(), notes.end(), 'E');
    const bool running = std::count(notes.begin(), notes.end(), 'B') > completed;
    StagedState before = state;
    for (long n = 0; n < completed; ++n) before = After(CycleOp(first + n), before);
    const Op op = CycleOp(first + completed);
    const std::string during = running          ? kNames[static_cast<int>(op)]
                               : completed == 0 ? "before the first operation"
                                                : "between operations";
    ++reached[during];
    SCOPED_TRACE("kill " + std::to_string(k) + " during " + during);
    // A kill inside a restore boot leaves the working store half-replaced; the host's next boot
    // restores again, and that boot must end as a whole restore boot does.
    const bool restoring = running && op == Op::RestoreBoot;
    StagedState seen = restoring ? before : Observe();
    if (!restoring) {
      const StagedState after = running ? After(op, before) : before;
      EXPECT_TRUE(seen == before || seen == after)
          << "half-applied: seen " << seen << "; old " << before << "; new " << after;
      EXPECT_EQ("", cstest::DiffStores(registered_, Registered())) << "registration half-applied";
    }
    ++outcomes[restoring ? 2 : seen == before ? 0 : 1];

    // A load killed while saving its report leaves every report file whole.
    EXPECT_NO_THROW(QorConfigStore::ReadLastBootReport());
    for (const auto& kept : QorConfigStore::ReadBootHistory()) EXPECT_TRUE(kept.report) << kept.error;

    // The next boot finds the store as the kill left it and runs to its end; its report is the
    // newest of the history, whole, and no temporary file of a killed save stays.
    log_.Clear();
    QorConfigStore::BootReport report;
    ASSERT_EQ(QorConfigStore::LoadStore(restoring, &report), 0) << "boot after kill " << k;
    const auto history = QorConfigStore::ReadBootHistory();
    ASSERT_FALSE(history.empty());
    ASSERT_TRUE(history.front().report) << history.front().error;
    EXPECT_TRUE(history.front().report->startTime == report.startTime &&
                history.front().report->totalMs == report.totalMs)
        << history.front().file << " is not the report of the last boot";
    for (const auto& entry : std::filesystem::directory_iterator(Host::Resolve(QorConfigStore::kBootHistoryDir))) {
      EXPECT_NE(entry.path().extension(), ".tmp") << entry.path();
    }
    EXPECT_FALSE(log_.Contains("GenerateDesiredConfiguration failed"));
    state = Observe();
    EXPECT_EQ(state, After(restoring ? Op::RestoreBoot : Op::Boot, seen));
  }
  EXPECT_TRUE(RecordedAlerts().empty()) << RecordedAlerts().front();
  std::printf("crash seed %u: %ld kills survived; running at the kill:", GetParam(), kills);
  for (const auto& [what, count] : reached) std::printf(" %s %ld,", what.c_str(), count);
  std::printf(" outcome old %ld, new %ld, restore boots redone %ld\n", outcomes[0], outcomes[1], outcomes[2]);
}

INSTANTIATE_TEST_SUITE_P(Seeds, CrashSafetyTest, testing::Values(1u, 2u, 3u));

}  // namespace
#endif
