// Fault sweeps: every writing operation is run once to count its fault points (the store calls of
// DBStore::faults, the file I/O of faultvfs), then again from the same start state with each point
// failing, once and from then on. Each run must end in an outcome the operation documents and leave
// the stores, as the next opener sees them, in a state it allows.
#include <sqlite3.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "configstore/boot/BootApplyRecord.h"
#include "configstore/boot/BootDocument.h"
#include "configstore/boot/BootTimeApply.h"
#include "configstore/boot/LoadStore.h"
#include "configstore/bootstate/BootState.h"
#include "configstore/defaults/DefaultConfig.h"
#include "configstore/desired/DesiredConfig.h"
#include "configstore/frame/CallFrame.h"
#include "configstore/frame/ConfigStoreException.h"
#include "configstore/maintenance/Cleanup.h"
#include "configstore/schema/SchemaProcessor.h"
#include "platform/dbstore/DBStore.h"
#include "platform/host/HostRoot.h"
#include "tests/support/FaultVfs.h"
#include "tests/support/Sandbox.h"
#include "tests/support/StoreDump.h"

namespace {

namespace fs = std::filesystem;
using namespace QorConfigStore;
using cstest::StoreDump;

enum class Reported { Success, Failure, Silent };  // Silent: returned where failures are only logged

class FaultSweep;
struct Operation {
  std::string name;
  std::function<void(FaultSweep&)> setup;  // the start state of every run, built without faults
  std::function<Reported()> run;
  std::set<int> failureCodes;  // ConfigStoreException codes it documents
  // Commits in steps (the boot load, registration, cleanups): a run may end between the start and the
  // clean run, but keeps every row both hold (unless in a table written row by row, a failed row
  // logged and skipped: `loggedLosses`), every store sound. Otherwise a run ends in the start state
  // (unless it reported success) or the clean run's (unless it reported failure).
  bool steps = false;
  std::set<std::string> loggedLosses;
  // What the failed runs of its store-call sweep must name, each in some run's log or thrown message.
  std::vector<std::string> named = {};
};

const struct Family {
  const char* name;
  std::vector<std::string> kinds;
  void (*arm)(size_t kind, int nth, bool persistent);
  int (*calls)(size_t kind);
} kStoreCalls = {"store-calls",
                 {"Prepare", "Step", "Begin", "Commit", "Attach", "KvRead", "KvWrite"},
                 [](size_t k, int n, bool p) { DBStore::faults::Arm(DBStore::faults::Kind(k), n, p); },
                 [](size_t k) { return DBStore::faults::Calls(DBStore::faults::Kind(k)); }},
  kFileIo = {"file-io",
             {"xWrite", "xSync", "xTruncate", "xOpen"},
             [](size_t k, int n, bool p) { faultvfs::Arm(faultvfs::Kind(k), n, p); },
             [](size_t k) { return faultvfs::Calls(faultvfs::Kind(k)); }};

void HostFile(const std::string& hostPath, const std::string& text) {
  fs::create_directories(fs::path(Host::Resolve(hostPath)).parent_path());
  std::ofstream(Host::Resolve(hostPath)) << text;
}

void Disarm() { DBStore::faults::Disarm(), faultvfs::Disarm(); }

// Every point with CONFIGSTORE_LONG=1, else at most 40 spread evenly, the first and last included.
std::vector<int> Points(int calls) {
  const char* longRun = std::getenv("CONFIGSTORE_LONG");
  const int count = longRun != nullptr && std::string(longRun) == "1" ? calls : std::min(calls, 40);
  std::vector<int> points;
  for (int i = 0; i < count; ++i) points.push_back(1 + static_cast<int>(i * (calls - 1LL) / std::max(1, count - 1)));
  return points;
}

bool Holds(const StoreDump& dump, const std::string& table, const std::string& row) {
  auto it = dump.find(table);
  return it != dump.end() && std::binary_search(it->second.begin(), it->second.end(), row);
}

std::vector<std::string> StorePaths() {
  return {DBStore::StorePath(DBStore::CONFIG_STORE), DBStore::StorePath(DBStore::DATAFILE_STORE),
          DBStore::SchemaStorePath()};
}

// What the next reader of every store sees: its opener rolls a hot journal back first.
StoreDump Settled() {
  for (const std::string& path : StorePaths()) {
    sqlite3* db = nullptr;
    if (fs::exists(path) && sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK) {
      sqlite3_busy_timeout(db, DBStore::kTimeoutMs);
      sqlite3_exec(db, "SELECT COUNT(*) FROM sqlite_master", nullptr, nullptr, nullptr);
    }
    sqlite3_close_v2(db);
  }
  return cstest::MaskRunToRun(cstest::DumpStores());
}

// "" when `now` is a state `op` allows after reporting `reported`.
std::string Check(const Operation& op, Reported reported, const StoreDump& now, const StoreDump& before,
                  const StoreDump& after) {
  std::string out;
  if (op.steps) {
    for (const auto& [table, rows] : before) {
      for (const std::string& row : rows) {
        if (Holds(after, table, row) && !Holds(now, table, row) && !op.loggedLosses.count(table)) {
          out += "- " + table + " " + row + "\n";
        }
      }
    }
    // A store whose creation failed is completed by the next boot's restore step; none may be left
    // that it cannot make whole.
    (void)DBStore::CreateDatabases();
    for (const std::string& path : StorePaths()) {
      if (fs::exists(path) && DBStore::Check(path) != 0) out += "store fails its check: " + path + "\n";
    }
  } else if (!(now == after && reported != Reported::Failure) && !(now == before && reported != Reported::Success)) {
    out = "the stores match no allowed state; against the start:\n" + cstest::DiffStores(before, now);
  }
  return out;
}

// Runs `sql` on a store without faults (the configuration store with the schema store attached).
void Sql(const std::string& sql, DBStore::Type store = DBStore::CONFIG_STORE) {
  DBStore::Connection conn = DBStore::GetConnection(store, true);
  ASSERT_TRUE(conn && (store != DBStore::CONFIG_STORE || DBStore::AttachSchemaStore(conn) == 0));
  ASSERT_EQ(DBStore::Exec(conn, sql), 0) << sql;
}

class FaultSweep : public cstest::SandboxTest, public testing::WithParamInterface<std::string> {
 public:
  static const std::vector<Operation>& Operations();

 protected:
  void SetUp() override {
    // Thousands of runs each copy a host root: in memory when the machine offers it.
    if (access("/dev/shm", W_OK) == 0) setenv("TMPDIR", "/dev/shm", 1);
    SandboxTest::SetUp();
    faultvfs::Install();
  }
  void TearDown() override {
    Disarm();
    fs::remove_all(root_ + ".start");
    SandboxTest::TearDown();
  }

  Reported Run(const Operation& op, std::string* detail) {
    RestoreStart();
    log_.Clear();
    try {
      return op.run();
    } catch (const ConfigStoreException& e) {
      *detail = std::to_string(e.code()) + " " + e.what();
      if (op.failureCodes.count(e.code()) == 0) ADD_FAILURE() << "undocumented failure code: " << *detail;
    }
    return Reported::Failure;
  }
  void RestoreStart() {
    for (const auto& entry : fs::directory_iterator(root_)) fs::remove_all(entry.path());
    fs::copy(root_ + ".start", root_, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
  }

  void Sweep(const Family& family) {
    const Operation* op = nullptr;
    for (const Operation& o : Operations()) op = o.name == GetParam() ? &o : op;
    ASSERT_NE(op, nullptr);
    Disarm();
    op->setup(*this);
    ASSERT_FALSE(HasFatalFailure());
    fs::copy(root_, root_ + ".start", fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    const StoreDump before = Settled();
    // A clean run: the counts, and the state of success.
    std::string detail;
    Disarm();  // counts from here on
    EXPECT_NE(Run(*op, &detail), Reported::Failure) << op->name << " fails without a fault: " << detail;
    std::vector<int> calls;
    for (size_t k = 0; k < family.kinds.size(); ++k) calls.push_back(family.calls(k));
    Disarm();
    const StoreDump after = Settled();
    EXPECT_NE(before, after) << op->name << " changes nothing: its sweep would prove nothing";

    int swept = 0, counts[3] = {};
    std::set<std::string> unnamed(op->named.begin(), op->named.end());
    for (size_t k = 0; k < family.kinds.size(); ++k) {
      for (bool persistent : {false, true}) {
        for (int n : Points(calls[k])) {
          SCOPED_TRACE(op->name + ": " + family.kinds[k] + " call " + std::to_string(n) + " of " +
                       std::to_string(calls[k]) + (persistent ? " and every later one" : " only") + " fails");
          detail.clear();
          family.arm(k, n, persistent);
          const Reported reported = Run(*op, &detail);
          Disarm();
          std::erase_if(unnamed, [&](const std::string& text) {
            return log_.Contains(text) || detail.find(text) != std::string::npos;
          });
          ++swept, ++counts[static_cast<int>(reported)];
          // A store that cannot be read throws out of the test.
          EXPECT_EQ("", Check(*op, reported, Settled(), before, after))
              << "reported " << static_cast<int>(reported) << " (0 success, 1 failure, 2 silent) " << detail;
        }
      }
    }
    EXPECT_GT(swept, 0) << "no " << family.name << " point to fail";
    if (&family == &kStoreCalls) {
      for (const std::string& text : unnamed) ADD_FAILURE() << "no failed run names: " << text;
    }
    std::cout << "SWEEP family=" << family.name << " op=" << op->name << " kinds=";
    for (size_t k = 0, shown = 0; k < calls.size(); ++k) {
      if (calls[k] > 0) std::cout << (shown++ ? "," : "") << family.kinds[k] << ":" << calls[k];
    }
    std::cout << " points=" << swept << " success=" << counts[0] << " failure=" << counts[1] << " silent=" << counts[2]
              << std::endl;
  }
};

// The operations, each on the sample host root in the state it meets in the field.
constexpr const char* kDesiredDocument = R"({"profile": {"qor": {
    "network": {"dns": {"hostname": "host02", "servers": ["192.0.2.99"]},
                "nuknics": [{"name": "nuk0", "mtu": 1500}, {"name": "nuk7", "mtu": 9000}]},
    "authentication": {"user_accounts": [{"name": "ops", "shell_access": false}]},
    "authorization": {"permissions": [{"principal": "ops", "role": "ReadOnly"}]},
    "advanced_options": {"user_vars": [{"name": "Agent_LogLevel", "value": "debug"}]},
    "system": {"advanced_options": [{"name": "Syslog.global.logDir", "string_value": "/scratch/other"}]}}}})";

void StageDesired() { SetDesiredUserConfig(*CreateDocumentFromString(kDesiredDocument)->document); }
constexpr const char* kSmartnicDocument =
    R"({"qor": {"network": {"nuknics": [{"name": "nuk3", "mtu": 1500}], "dns": "DELETE_DEFAULT"}}})";
void StageSmartnic() { SetDesiredSmartnicConfiguration(*CreateDocumentFromString(kSmartnicDocument)->document); }
void DeleteAdvancedOptions() { DeleteHostAPIConfiguration("qor", "system", "advanced_options"); }

Reported Status(int status) { return status == 0 ? Reported::Success : Reported::Failure; }
template <typename F>
std::function<Reported()> Silently(F f) {
  return [f] { return f(), Reported::Silent; };
}

// A boot-time routine as the boot load runs it: one connection, the schema store attached, inside a
// transaction committed, or rolled back when anything fails.
Reported InBootTransaction(void (*routine)(const DBStore::Connection&)) {
  DBStore::Connection conn = GetDBConnection(DBStore::CONFIG_STORE, true);
  DBStore::SchemaStoreAttachment ss(conn);
  DBStore::Transaction tx(conn);
  if (ss.Attach() != 0 || tx.Begin() != 0) return Reported::Failure;
  routine(conn);
  return Status(tx.Commit());
}

const std::vector<Operation>& FaultSweep::Operations() {
  // The sample host after its first boot, as an ordinary reboot finds it, and `more` done on it.
  static const auto booted = [](std::function<void()> more) {
    return [more](FaultSweep& t) {
      t.CopyExampleHost();
      ASSERT_EQ(LoadStore(true), 0);
      CleanupBootState();
      t.Remove("/var/lib/talvex/firstboot/current-store-1");
      more();
    };
  };
  // ... with rows the cleanups remove: a schema-less object, automatic values (alone and beside a
  // user value), data files whose key has no schema, one recorded but missing and one present.
  static const auto leftovers = [](std::function<void()> more) {
    return booted([more] {
      Sql("INSERT INTO Config (Component, ConfigGroup, Name, Identifier, UserValue) VALUES ('gone', 'pkg', 'key', '', "
          "'{}')");
      Sql("INSERT INTO Config (Component, ConfigGroup, Name, Identifier, AutoConfValue) "
          "VALUES ('qor', 'advanced_options', 'user_vars', 'auto', '{\"name\":\"auto\"}')");
      Sql("UPDATE Config SET AutoConfValue = '{\"mtu\":1400}' WHERE Name = 'nuknics'");
      Sql("INSERT INTO DataFileMetadata VALUES ('qor', 'certificates', 'certs', 'host.pem'), "
          "('qor', 'certificates', 'certs', 'missing.pem'), ('gone', 'key', 'olddir', 'x.bin')",
          DBStore::DATAFILE_STORE);
      HostFile("/var/cache/datafiles/certs/host.pem", "pem");
      HostFile("/var/cache/datafiles/olddir/x.bin", "x");
      more();
    });
  };
  const auto nothing = [] {};
  const std::set<int> generic = {CS_ERR_GENERIC};  // a failed connection
  static const std::vector<Operation> ops = {
      {"LoadStoreRestore",
       [](FaultSweep& t) { t.CopyExampleHost(); },
       [] { return Status(LoadStore(true)); },
       {},
       true},
      {"LoadStoreNoRestore", leftovers(StageDesired), [] { return Status(LoadStore(false)); }, {}, true},
      {"ProcessSchemas",
       booted([] {
         Sql("DELETE FROM ss.ConfigSchema WHERE Name = 'switches'");
         Sql("DELETE FROM DefaultConfig WHERE Name = 'dns'");
       }),
       [] { return Status(!ProcessSchemas({})); },
       {},
       true,
       {"schema.ConfigSchema", "schema.SmartnicSchema", "schema.DataFileSchema", "schema.SchemaFile",
        "config.DefaultConfig"}},
      {"ProcessDefaultConfiguration",
       booted([] {
         Sql("DELETE FROM DefaultConfig WHERE Name = 'dns'");
         Sql("INSERT INTO DefaultConfig (Component, ConfigGroup, Name, Identifier, Value) "
             "VALUES ('gone', 'pkg', 'key', '', '{}')");
       }),
       [] { return Status(!ProcessDefaultConfiguration(false)); },
       {},
       true,
       {"config.DefaultConfig"}},
      // Staging for the next boot.
      {"SetDesiredUserConfig", booted(nothing), [] { return StageDesired(), Reported::Success; }, generic},
      {"SetDesiredSmartnicConfiguration", booted(nothing), [] { return StageSmartnic(), Reported::Success; }, generic},
      {"DeleteHostAPIConfiguration",
       booted(nothing),
       [] { return DeleteAdvancedOptions(), Reported::Success; },
       {CS_ERR_DESIRED_CONFIG_NOT_FOUND, CS_ERR_HOSTAPI_DELETE_NOT_ALLOWED, CS_ERR_GENERIC}},
      {"SetBootMode", booted(nothing), Silently([] { SetBootMode(BOOT_MODE_SMARTNIC_CONFIG); }), generic},
      {"EndAutoConf", booted(nothing), Silently(EndAutoConf), generic},
      {"EnableNexdNotification", booted(nothing), Silently([] { EnableNexdNotification(true); }), generic},
      {"SetLiveInstallBoot", booted(nothing), [] { return Status(SetLiveInstallBoot("true")); }, generic},
      {"SetInstallInfo", booted(nothing), Silently([] { SetInstallInfo("{\"build\":42}"); }), generic},
      {"CleanupBootState", booted([] {
         ASSERT_EQ(SetLiveInstallBoot("true"), 0);
         HostFile("/sys/plon/system/bootFsUUID", "00000000-aaaa-bbbb-cccc-000000000002");
       }),
       Silently(CleanupBootState), generic, false, {}, {"Failed to read value for key"}},
      // Boot-time application, each in the boot load's transaction.
      {"ApplyHostApiBootConfiguration", booted(DeleteAdvancedOptions),
       [] { return InBootTransaction(ApplyHostApiBootConfiguration); }, generic},
      {"ApplySmartnicBootConfiguration", booted(StageSmartnic),
       [] { return InBootTransaction(ApplySmartnicBootConfiguration); }, generic},
      {"GenerateDesiredUserConfiguration", booted(StageDesired),
       [] { return InBootTransaction(GenerateDesiredUserConfiguration); }, generic},
      {"ProcessBootConfigurationDocument",
       [](FaultSweep& t) {
         t.CopyExampleHost();
         ASSERT_EQ(DBStore::CreateDatabases(), 0);
         ASSERT_TRUE(ProcessSchemas({}));
       },
       [] { return InBootTransaction(ProcessBootConfigurationDocument); },
       {CS_ERR_GENERIC, CS_ERR_JSON_PARSE_FILE}},
      // Maintenance: each statement commits on its own.
      {"CleanupStoreAtBoot", leftovers(nothing), Silently([] { CleanupStore(true); }), {}, true, {},
       {"ConfigStore cleanup failed: could not attach to SchemaStore",
        "ConfigStore cleanup failed: SQL command unsuccessful",
        "Datafile store cleanup failed: could not attach to data file schemas",
        "Datafile cleanup failed: SQL command unsuccessful"}},
      {"CleanupStoreLive", leftovers(nothing), Silently([] { CleanupStore(false); }), {}, true, {},
       {"Datafile live cleanup failed: read dir SQL command unsuccessful"}},
      {"CleanupAutoConfig", leftovers(nothing), Silently(CleanupAutoConfig), generic, true, {},
       {"Error removing auto configuration value.", "Error cleaning up config."}},
      {"CleanupDataFiles", leftovers(nothing), Silently(CleanupDataFiles), {}},
      // The boot apply record.
      {"SetBootApplyRecord", booted(nothing), Silently([] { setBootApplyRecord("{\"failed\":[]}"); }), generic},
      {"ClearBootApplyRecord", booted([] { setBootApplyRecord("{}"); }), Silently(clearBootApplyRecord), generic},
  };
  return ops;
}

TEST_P(FaultSweep, StoreCallFaults) { Sweep(kStoreCalls); }
TEST_P(FaultSweep, FileIoFaults) { Sweep(kFileIo); }

INSTANTIATE_TEST_SUITE_P(Operations, FaultSweep, testing::ValuesIn([] {
                           std::vector<std::string> names;
                           for (const Operation& op : FaultSweep::Operations()) names.push_back(op.name);
                           return names;
                         }()),
                         [](const testing::TestParamInfo<std::string>& info) { return info.param; });

}  // namespace
