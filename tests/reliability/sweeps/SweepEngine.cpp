#include "tests/reliability/sweeps/SweepEngine.h"

#include <sqlite3.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <sstream>

#include "configstore/frame/ConfigStoreException.h"
#include "platform/dbstore/DBStore.h"
#include "tests/support/FaultVfs.h"

namespace fs = std::filesystem;

namespace sweep {
namespace {

// Fault points per kind and mode in an ordinary run; CONFIGSTORE_LONG=1 sweeps every one.
constexpr int kBudget = 40;

bool LongSweep() {
  const char* value = std::getenv("CONFIGSTORE_LONG");
  return value != nullptr && std::string(value) == "1";
}

const std::vector<std::string>& RowsOf(const cstest::StoreDump& dump, const std::string& table) {
  static const std::vector<std::string> kNone;
  auto it = dump.find(table);
  return it == dump.end() ? kNone : it->second;
}

// Rows that the start state and the clean run both hold and `now` lacks.
std::string LostRows(const cstest::StoreDump& now, const cstest::StoreDump& before, const cstest::StoreDump& after) {
  std::string out;
  for (const auto& [table, rows] : before) {
    std::vector<std::string> both;
    const auto& kept = RowsOf(after, table);
    std::set_intersection(rows.begin(), rows.end(), kept.begin(), kept.end(), std::back_inserter(both));
    const auto& current = RowsOf(now, table);
    for (const std::string& row : both) {
      if (!std::binary_search(current.begin(), current.end(), row)) out += "- " + table + " " + row + "\n";
    }
  }
  return out;
}

// Rows of `tables` in `now` that no allowed state holds.
std::string ForeignRows(const cstest::StoreDump& now, const std::vector<const cstest::StoreDump*>& allowed,
                        const std::set<std::string>& tables) {
  std::string out;
  for (const std::string& table : tables) {
    for (const std::string& row : RowsOf(now, table)) {
      bool known = false;
      for (const auto* state : allowed) {
        const auto& rows = RowsOf(*state, table);
        known |= std::binary_search(rows.begin(), rows.end(), row);
      }
      if (!known) out += "+ " + table + " " + row + "\n";
    }
  }
  return out;
}

cstest::StoreDump Without(cstest::StoreDump dump, const std::set<std::string>& tables) {
  for (const std::string& table : tables) dump.erase(table);
  return dump;
}

const char* Name(Reported reported) {
  switch (reported) {
    case Reported::Success: return "success";
    case Reported::Failure: return "failure";
    default: return "silent";
  }
}

}  // namespace

const FaultFamily& StoreCalls() {
  static const FaultFamily family = [] {
    using DBStore::faults::Kind;
    static const std::vector<std::pair<Kind, std::string>> kinds = {
        {Kind::Prepare, "Prepare"}, {Kind::Step, "Step"},     {Kind::Begin, "Begin"},     {Kind::Commit, "Commit"},
        {Kind::Attach, "Attach"},   {Kind::KvRead, "KvRead"}, {Kind::KvWrite, "KvWrite"},
    };
    FaultFamily f;
    f.name = "store-calls";
    for (const auto& [kind, name] : kinds) f.kinds.push_back(name);
    f.arm = [](size_t k, int nth, bool persistent) { DBStore::faults::Arm(kinds[k].first, nth, persistent); };
    f.calls = [](size_t k) { return DBStore::faults::Calls(kinds[k].first); };
    f.disarm = [] { DBStore::faults::Disarm(); };
    return f;
  }();
  return family;
}

const FaultFamily& FileIo() {
  static const FaultFamily family = [] {
    FaultFamily f;
    f.name = "file-io";
    for (int k = 0; k < static_cast<int>(faultvfs::Kind::Count_); ++k) {
      f.kinds.push_back(faultvfs::Name(static_cast<faultvfs::Kind>(k)));
    }
    f.arm = [](size_t k, int nth, bool persistent) {
      faultvfs::Arm(static_cast<faultvfs::Kind>(k), nth, persistent);
    };
    f.calls = [](size_t k) { return faultvfs::Calls(static_cast<faultvfs::Kind>(k)); };
    f.disarm = [] { faultvfs::Disarm(); };
    return f;
  }();
  return family;
}

std::vector<int> Points(int calls, int budget) {
  std::vector<int> points;
  if (LongSweep() || calls <= budget) {
    for (int n = 1; n <= calls; ++n) points.push_back(n);
    return points;
  }
  for (int i = 0; i < budget; ++i) {
    int n = 1 + static_cast<int>(static_cast<long long>(i) * (calls - 1) / (budget - 1));
    if (points.empty() || points.back() != n) points.push_back(n);
  }
  return points;
}

const Operation* FindOperation(const std::string& name) {
  for (const Operation& op : Operations()) {
    if (op.name == name) return &op;
  }
  return nullptr;
}

void SweepTest::SetUp() {
  // Thousands of runs each copy a host root: in memory when the machine offers it.
  std::error_code ec;
  if (fs::is_directory("/dev/shm", ec) && access("/dev/shm", W_OK) == 0) setenv("TMPDIR", "/dev/shm", 1);
  SandboxTest::SetUp();
  faultvfs::Install();
  std::string tmpl = (fs::temp_directory_path() / "cs-sweep-start-XXXXXX").string();
  ASSERT_NE(mkdtemp(tmpl.data()), nullptr);
  start_ = tmpl;
}

void SweepTest::TearDown() {
  DBStore::faults::Disarm();
  faultvfs::Disarm();
  std::error_code ec;
  fs::remove_all(start_, ec);
  SandboxTest::TearDown();
}

void SweepTest::Sql(const std::string& sql) const {
  DBStore::Connection conn = DBStore::GetConnection(DBStore::CONFIG_STORE, true);
  ASSERT_TRUE(conn);
  ASSERT_EQ(DBStore::AttachSchemaStore(conn), 0);
  ASSERT_EQ(DBStore::Exec(conn, sql), 0) << sql;
}

void SweepTest::SaveStart() {
  fs::remove_all(start_);
  fs::copy(root_, start_, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
}

void SweepTest::RestoreStart() {
  for (const auto& entry : fs::directory_iterator(root_)) fs::remove_all(entry.path());
  fs::copy(start_, root_, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
}

cstest::StoreDump SweepTest::Settled() {
  // The next opener rolls a hot journal back: a read-only dump would refuse such a file.
  for (const std::string& path : {DBStore::StorePath(DBStore::CONFIG_STORE),
                                  DBStore::StorePath(DBStore::DATAFILE_STORE), DBStore::SchemaStorePath()}) {
    if (!fs::exists(path)) continue;
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK) {
      sqlite3_busy_timeout(db, DBStore::kTimeoutMs);
      sqlite3_exec(db, "SELECT COUNT(*) FROM sqlite_master", nullptr, nullptr, nullptr);
    }
    sqlite3_close_v2(db);
  }
  return cstest::MaskRunToRun(cstest::DumpStores());
}

Reported SweepTest::RunClassified(const Operation& op, std::string* detail) {
  try {
    return op.run();
  } catch (const QorConfigStore::ConfigStoreException& e) {
    *detail = std::to_string(e.code()) + " " + e.what();
    if (op.failureCodes.count(e.code()) == 0) ADD_FAILURE() << "undocumented failure code: " << *detail;
  } catch (const std::exception& e) {
    *detail = e.what();
    ADD_FAILURE() << "undocumented exception: " << *detail;
  }
  return Reported::Failure;
}

std::string SweepTest::CheckState(const Operation& op, Reported reported, const cstest::StoreDump& now,
                                  const cstest::StoreDump& before, const cstest::StoreDump& after,
                                  const std::vector<cstest::StoreDump>& partials, bool* loss) {
  if (op.stages) {
    std::string out = LostRows(now, before, after);
    // A store whose creation failed on the way is completed by the next boot's restore step; what
    // must never happen is a store that step cannot make whole again. (Its status is not the
    // question: the check of each file below is.)
    (void)DBStore::CreateDatabases();
    for (const std::string& path : {DBStore::StorePath(DBStore::CONFIG_STORE),
                                    DBStore::StorePath(DBStore::DATAFILE_STORE), DBStore::SchemaStorePath()}) {
      if (fs::exists(path) && DBStore::Check(path) != 0) out += "store fails its check: " + path + "\n";
    }
    return out;
  }
  std::vector<const cstest::StoreDump*> allowed;
  if (reported != Reported::Success) allowed.push_back(&before);
  if (reported != Reported::Failure) allowed.push_back(&after);
  if (reported != Reported::Success) {
    for (const auto& partial : partials) allowed.push_back(&partial);
  }
  for (const auto* state : allowed) {
    if (now == *state) return "";
  }
  if (!op.loggedLosses.empty() && ForeignRows(now, allowed, op.loggedLosses).empty()) {
    const cstest::StoreDump rest = Without(now, op.loggedLosses);
    for (const auto* state : allowed) {
      if (rest == Without(*state, op.loggedLosses)) {
        *loss = true;
        return "";
      }
    }
  }
  return "the stores match no allowed state; against the " +
         std::string(reported == Reported::Success ? "clean run" : "start") + ":\n" +
         cstest::DiffStores(reported == Reported::Success ? after : before, now);
}

Figures SweepTest::Sweep(const Operation& op, const FaultFamily& family) {
  Figures figures;
  DBStore::faults::Disarm();
  faultvfs::Disarm();
  op.setup(*this);
  if (HasFatalFailure()) return figures;
  SaveStart();
  const cstest::StoreDump before = Settled();

  // A clean run: the counts, and the state of success.
  RestoreStart();
  family.disarm();
  std::string detail;
  Reported clean = RunClassified(op, &detail);
  for (size_t k = 0; k < family.kinds.size(); ++k) figures.counted.emplace_back(family.kinds[k], family.calls(k));
  family.disarm();
  EXPECT_NE(clean, Reported::Failure) << op.name << " fails without a fault: " << detail;
  const cstest::StoreDump after = Settled();
  if (!op.stages) {
    EXPECT_NE(before, after) << op.name << " changes nothing: its sweep would prove nothing";
  }

  std::vector<cstest::StoreDump> partials;
  for (const auto& partial : op.partials) {
    RestoreStart();
    partial();
    partials.push_back(Settled());
  }

  for (size_t k = 0; k < family.kinds.size(); ++k) {
    const int calls = figures.counted[k].second;
    for (bool persistent : {false, true}) {
      for (int n : Points(calls, kBudget)) {
        std::ostringstream trace;
        trace << op.name << ": " << family.kinds[k] << " call " << n << " of " << calls
              << (persistent ? " and every later one" : " only") << " fails";
        SCOPED_TRACE(trace.str());
        RestoreStart();
        log_.Clear();
        detail.clear();
        family.arm(k, n, persistent);
        Reported reported = RunClassified(op, &detail);
        DBStore::faults::Disarm();
        faultvfs::Disarm();
        ++figures.swept;
        ++(reported == Reported::Success ? figures.success
           : reported == Reported::Failure ? figures.failure
                                           : figures.silent);
        cstest::StoreDump now;
        try {
          now = Settled();
        } catch (const std::exception& e) {
          ADD_FAILURE() << "a store cannot be read afterwards: " << e.what();
          continue;
        }
        bool loss = false;
        EXPECT_EQ("", CheckState(op, reported, now, before, after, partials, &loss))
            << "reported " << Name(reported) << (detail.empty() ? "" : ": " + detail);
        figures.documentedLoss += loss ? 1 : 0;
      }
    }
  }

  std::ostringstream line;
  line << "SWEEP family=" << family.name << " op=" << op.name << " kinds=";
  bool first = true;
  for (const auto& [kind, calls] : figures.counted) {
    if (calls == 0) continue;
    line << (first ? "" : ",") << kind << ":" << calls;
    first = false;
  }
  line << " points=" << figures.swept << " success=" << figures.success << " failure=" << figures.failure
       << " silent=" << figures.silent << " documented-loss=" << figures.documentedLoss;
  std::cout << line.str() << std::endl;
  return figures;
}

}  // namespace sweep
