// Corrupt, truncated and journal-haunted store backups at boot: the boot goes
// on, a backup that fails the consistency check is answered with a new store, a
// sound one is restored intact, and the backup itself is never changed.
#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <iterator>

#include "configstore/boot/LoadStore.h"
#include "platform/dbstore/DBStore.h"
#include "tests/reliability/hostile/HostileFixture.h"

namespace {

constexpr const char* kBackup = "/var/lib/talvex/configstore/backup/current-store-1";
constexpr const char* kWorking = "/etc/talvex/configstore/current-store-1";
constexpr const char* kDataFileBackup = "/var/lib/talvex/configstore/backup/datafile-store";
constexpr const char* kDataFileWorking = "/etc/talvex/configstore/datafile-store";

enum class Outcome { Restored, NewStore };

class CorruptBackupTest : public cstest::HostileTest {
 protected:
  // The rollback journal of another store's unfinished transaction, as a killed
  // writer leaves it.
  std::string ForeignHotJournal() {
    const std::string path = Path("/foreign.db");
    sqlite3* db = nullptr;
    EXPECT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(db,
                           "CREATE TABLE t(x); WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL "
                           "SELECT i + 1 FROM n "
                           "WHERE i < 2000) INSERT INTO t SELECT randomblob(300) FROM n;",
                           nullptr, nullptr, nullptr),
              SQLITE_OK);
    // A tiny cache makes the transaction spill: the journal is synced and the
    // file written mid-way.
    EXPECT_EQ(
        sqlite3_exec(db, "PRAGMA cache_size=2; BEGIN; UPDATE t SET x = randomblob(300);", nullptr, nullptr, nullptr),
        SQLITE_OK);
    std::string journal = ReadFile("/foreign.db-journal");
    sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
    sqlite3_close(db);
    EXPECT_GT(journal.size(), 4096u);
    return journal;
  }
};

TEST_F(CorruptBackupTest, BootGoesOnAndTheBackupIsKept) {
  // The store as the backup process saves it.
  WriteFile(kBackup, ReadFile(kWorking));
  WriteFile(kDataFileBackup, ReadFile(kDataFileWorking));
  const std::string good = ReadFile(kBackup);
  const std::vector<std::string> backedUp = ConfigObjects();
  const size_t page = std::stoul(Query(Path(kBackup), "PRAGMA page_size").at(0));
  const size_t configRoot =
      std::stoul(Query(Path(kBackup), "SELECT rootpage FROM sqlite_schema WHERE name = 'Config'").at(0));
  ASSERT_GT(configRoot, 1u);
  ASSERT_GT(good.size(), 3 * page);
  const std::string foreignJournal = ForeignHotJournal();

  struct Case {
    const char* name;
    std::function<std::string(std::string)> backup;  // the backup's bytes from the good ones
    const char* journalBeside;                       // a foreign hot journal put beside this file
    Outcome outcome;
  };
  auto flip = [](size_t offset) {
    return [offset](std::string b) {
      b[offset] = static_cast<char>(b[offset] ^ 0xff);
      return b;
    };
  };
  const Case cases[] = {
      {"empty file", [](std::string) { return std::string(); }, nullptr, Outcome::NewStore},
      {"header magic flipped", flip(0), nullptr, Outcome::NewStore},
      {"header page size flipped", flip(16), nullptr, Outcome::NewStore},
      {"page 1 b-tree type flipped", flip(100), nullptr, Outcome::NewStore},
      {"Config root page type flipped", flip((configRoot - 1) * page), nullptr, Outcome::NewStore},
      {"Config root page cell pointers overwritten",
       [&](std::string b) {
         for (size_t i = 8; i < 64; ++i) b[(configRoot - 1) * page + i] = '\xee';
         return b;
       },
       nullptr, Outcome::NewStore},
      {"truncated to page 1", [&](std::string b) { return b.substr(0, page); }, nullptr, Outcome::NewStore},
      {"truncated by one page", [&](std::string b) { return b.substr(0, b.size() - page); }, nullptr,
       Outcome::NewStore},
      {"truncated mid-page", [&](std::string b) { return b.substr(0, b.size() - page / 2); }, nullptr,
       Outcome::NewStore},
      {"foreign journal beside the backup", [](std::string b) { return b; }, kBackup, Outcome::NewStore},
      {"foreign journal beside the working store", [](std::string b) { return b; }, kWorking, Outcome::Restored},
      {"foreign journal beside the working data-file store", [](std::string b) { return b; }, kDataFileWorking,
       Outcome::Restored},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string bytes = c.backup(good);
    WriteFile(kBackup, bytes);
    Remove(std::string(kBackup) + "-journal");
    if (c.journalBeside != nullptr) WriteFile(std::string(c.journalBeside) + "-journal", foreignJournal);
    const cstest::StoreDump schemas = cstest::DumpStoreFile(DBStore::SchemaStorePath(), "schema");
    log_.Clear();
    const size_t eventsBefore = RecordedEvents().size();

    ASSERT_EQ(QorConfigStore::LoadStore(true), 0) << "the boot goes on";

    for (const char* store : {kWorking, kDataFileWorking}) {
      EXPECT_EQ(Query(Path(store), "PRAGMA integrity_check"), std::vector<std::string>{"ok"}) << store;
    }
    std::vector<Events::Event> events = RecordedEvents();
    events.erase(events.begin(), events.begin() + static_cast<long>(eventsBefore));
    bool refused = std::any_of(events.begin(), events.end(), [&](const Events::Event& e) {
      return e.id == "zeb.user.cs.createstore.copy.backup.error" && e.args == std::vector<std::string>{Path(kBackup)};
    });
    if (c.outcome == Outcome::Restored) {
      EXPECT_FALSE(refused);
      EXPECT_TRUE(log_.Contains("ConfigStore restored successfully from backup"));
      EXPECT_EQ(ConfigObjects(), backedUp) << "restored exactly as backed up";
    } else {
      EXPECT_TRUE(refused);
      EXPECT_TRUE(log_.Contains("is inconsistent, creating new ConfigStore.", CSLogger::PRIO_ERROR));
      EXPECT_TRUE(log_.Contains("Generating desired user config: BootMode = 2"))
          << "the new store gets the boot document";
    }
    EXPECT_TRUE(ReadFile(kBackup) == bytes) << "the backup is left as it was";
    EXPECT_EQ("", cstest::DiffStores(schemas, cstest::DumpStoreFile(DBStore::SchemaStorePath(), "schema")));
  }
  // A FIFO where either backup belongs would hold the boot forever if it were opened or copied.
  Remove(kBackup);
  Remove(kDataFileBackup);
  ASSERT_EQ(mkfifo(Path(kBackup).c_str(), 0644), 0);
  ASSERT_EQ(mkfifo(Path(kDataFileBackup).c_str(), 0644), 0);
  log_.Clear();
  ASSERT_EQ(QorConfigStore::LoadStore(true), 0) << "the boot goes on";
  EXPECT_TRUE(log_.Contains("is inconsistent, creating new ConfigStore.", CSLogger::PRIO_ERROR));
  EXPECT_TRUE(log_.Contains("not a regular file", CSLogger::PRIO_ERROR));
  EXPECT_EQ(Query(Path(kWorking), "PRAGMA integrity_check"), std::vector<std::string>{"ok"});
  std::printf("corrupt backups: %zu tried, and FIFOs as both backups\n", std::size(cases));
}

}  // namespace
