#include "tests/reliability/hostile/HostileFixture.h"

#include <sqlite3.h>

#include "configstore/boot/LoadStore.h"
#include "configstore/bootstate/BootState.h"
#include "platform/dbstore/DBStore.h"

namespace cstest {

void HostileTest::SetUp() {
  SandboxTest::SetUp();
  CopyExampleHost();
  ASSERT_EQ(QorConfigStore::LoadStore(true), 0);
  QorConfigStore::CleanupBootState();
  Remove("/var/lib/talvex/firstboot/current-store-1");
  log_.Clear();
}

std::vector<std::string> HostileTest::Query(const std::string& path, const std::string& sql) {
  std::vector<std::string> rows;
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
    ADD_FAILURE() << path << ": " << sqlite3_errmsg(db);
    sqlite3_close_v2(db);
    return rows;
  }
  auto collect = [](void* out, int argc, char** argv, char**) {
    std::string row;
    for (int i = 0; i < argc; ++i) row += (i ? "|" : "") + std::string(argv[i] ? argv[i] : "NULL");
    static_cast<std::vector<std::string>*>(out)->push_back(MaskRunToRun(row));
    return 0;
  };
  char* error = nullptr;
  EXPECT_EQ(sqlite3_exec(db, sql.c_str(), collect, &rows, &error), SQLITE_OK) << path << ": " << (error ? error : "");
  sqlite3_free(error);
  sqlite3_close_v2(db);
  return rows;
}

std::vector<std::string> HostileTest::ConfigObjects() const {
  return Query(DBStore::StorePath(DBStore::CONFIG_STORE),
               "SELECT quote(Component), quote(ConfigGroup), quote(Name), "
               "quote(Identifier), quote(Version), "
               "quote(CreationTime), quote(Revision), quote(AutoConfValue), "
               "quote(VitalValue), quote(CachedValue), "
               "quote(UserValue), quote(DesiredValue) FROM Config ORDER BY "
               "Component, ConfigGroup, Name, Identifier");
}

StoreDump HostileTest::MaskedDump() { return MaskRunToRun(DumpStores()); }

std::string Nested(int depth) {
  return std::string(static_cast<size_t>(depth), '[') + std::string(static_cast<size_t>(depth), ']');
}

std::string HugeString(size_t bytes) { return "\"" + std::string(bytes, 'x') + "\""; }

std::string HugeArray(size_t count) {
  std::string text = "[";
  text.reserve(count * 2 + 2);
  for (size_t i = 0; i < count; ++i) text += i ? ",7" : "7";
  return text + "]";
}

}  // namespace cstest
