// Declared package files and the sticky-bit filter, on the sample image database and real files.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include "configstore/packages/PackageFiles.h"
#include "platform/dbstore/DBStore.h"
#include "platform/plon/Plon.h"
#include "platform/schemastore/SchemaStore.h"
#include "tests/support/Sandbox.h"

namespace QorConfigStore {
namespace {

using testing::ElementsAre;

class PackageFilesTest : public cstest::SandboxTest {
 protected:
  // A sticky file whose persistent copy (".#name") lives in `archive` (none when empty).
  void StickyFile(const std::string& path, const std::string& archive) {
    WriteFile(path, "data");
    std::string shadow = path.substr(0, path.find_last_of('/')) + "/.#" + path.substr(path.find_last_of('/') + 1);
    WriteFile(shadow, "persistent copy");
    struct stat st{};
    ASSERT_EQ(stat(Path(shadow).c_str(), &st), 0);
    if (archive.empty()) return;
    std::string record(256, '\0');
    record.replace(36, archive.size(), archive);
    ASSERT_TRUE(PLON_WriteNodeFile("/system/lumafs/inodes/" + std::to_string(st.st_ino) + "/stats", record));
  }
};

TEST_F(PackageFilesTest, DeclaredFilesAndArchivesDecide) {
  CopyExampleHost();  // the sample image database: storage-kit restricts sticky files
  ASSERT_EQ(DBStore::CreateDatabases(), 0);
  ASSERT_TRUE(PLON_WriteSignature());
  auto store = QorSchemaStore::SchemaStore::GetStore(true);
  store->BeginUpdate();
  QorSchemaStore::SetSchema("net-core-1.2.3_4.5", "qor", "files", "kit-files",
                            R"({"component":"qor","group":"files","key":"kit-files","files":[{"category":"config",)"
                            R"("path":"/etc/net/net.conf"},{"category":"config","path":"/opt/x/vital/y"}]})",
                            store, false);
  store->CommitUpdate();

  const std::string skipList = "/var/run/talvex/files/skip-backup-list";

  StickyFile("/etc/free.conf", "net-core.tgz");           // kit without the restriction
  StickyFile("/etc/restricted.conf", "storage-kit.tgz");  // kit tagged RestrictStickyFiles
  StickyFile("/etc/orphan.conf", "");                     // no archive record at all
  WriteFile("/etc/noshadow.conf", "x");                   // no persistent copy
  // Declared, but as "config": the vital rule sends it to the archive check, which refuses it.
  WriteFile("/opt/x/vital/y", "x");
  // Links to a declared file count as the file.
  WriteFile("/etc/net/net.conf", "conf");
  ASSERT_EQ(symlink("net", Path("/etc/netdir").c_str()), 0);

  auto kept = FilterStickyBitFiles({"/etc/net/net.conf", "/etc/netdir/net.conf", "/etc/free.conf",
                                    "/etc/restricted.conf", "/etc/orphan.conf", "/etc/noshadow.conf", "/opt/x/vital/y"});
  EXPECT_THAT(kept, ElementsAre("/etc/net/net.conf", "/etc/netdir/net.conf", "/etc/free.conf"));
  EXPECT_EQ(ReadFile(skipList), "/etc/restricted.conf\n/etc/orphan.conf\n/etc/noshadow.conf\n/opt/x/vital/y\n");
  EXPECT_TRUE(log_.Contains("File /etc/restricted.conf in archive storage-kit.tgz does not belong to kit which "
                            "allows persistence of sticky bit files",
                            CSLogger::PRIO_ERROR));
}

}  // namespace
}  // namespace QorConfigStore
