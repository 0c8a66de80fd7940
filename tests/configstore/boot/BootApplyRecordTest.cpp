// The boot apply record and the list of entries whose restore failed.
#include <gmock/gmock.h>

#include "configstore/boot/BootApplyRecord.h"
#include "configstore/frame/CallFrame.h"
#include "tests/support/Sandbox.h"

namespace QorConfigStore {
namespace {

using cstest::Thrown;

class BootApplyRecordTest : public cstest::SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    ASSERT_EQ(DBStore::CreateDatabases(), 0);
    conn_ = GetDBConnection(DBStore::CONFIG_STORE, true);
  }
  void Sql(const std::string& sql) { ASSERT_EQ(DBStore::Exec(conn_, sql), 0) << sql; }
  DBStore::Connection conn_;
};

// Clearing and a plain round trip are checked by the load and command-line tests; here quotes and controls.
TEST_F(BootApplyRecordTest, RecordTextIsEscapedAndReadBack) {
  const std::string record = "line \"one\"\nline\ttwo \\ end";
  setBootApplyRecord(record);
  std::string stored;
  ASSERT_EQ(DBStore::ReadKeyValue("BOOT_APPLY_RESULT", &stored, conn_), 0);
  EXPECT_EQ(stored, "{\"isBootComplete\":true,\"bootApplyRecord\":\"line \\\"one\\\"\\nline\\ttwo \\\\ end\"}");
  rapidjson::Document done = getBootApplyRecord();
  EXPECT_TRUE(done["isBootComplete"].GetBool());
  EXPECT_EQ(done["bootApplyRecord"].GetString(), record);
}

TEST_F(BootApplyRecordTest, UnreadableRecordOrStoreThrowsItsCause) {
  for (const char* stored : {"", "{\"isBootComplete\":"}) {
    ASSERT_EQ(DBStore::WriteKeyValue("BOOT_APPLY_RESULT", stored, conn_), 0);
    EXPECT_THAT(Thrown([] { getBootApplyRecord(); }), testing::StartsWith("1080 ")) << stored;
  }
  const struct {
    DBStore::faults::Kind kind;
    std::function<void()> call;
    const char* thrown;
  } cases[] = {
      {DBStore::faults::Kind::KvRead, [] { getBootApplyRecord(); }, "Failed to read BOOT_APPLY_RESULT from database."},
      {DBStore::faults::Kind::Attach, [] { GetBootTimeRestoreFailures(); }, "Failed to attach schema store"},
      {DBStore::faults::Kind::Step, [] { GetBootTimeRestoreFailures(); }, "Failed to read from config store."},
  };
  for (const auto& c : cases) {
    DBStore::faults::Arm(c.kind, 1, false);
    EXPECT_EQ(Thrown(c.call), std::string("2000 ") + c.thrown);
  }
  DBStore::faults::Disarm();
  EXPECT_TRUE(GetBootTimeRestoreFailures().empty()) << "the failed call detached the schema store";
}

// A failure is a row of its key with a user value and Success 0, of a DSP key of schema type 0 or 2.
TEST_F(BootApplyRecordTest, RestoreFailuresFollowSchemaAndRowFlags) {
  ASSERT_EQ(DBStore::AttachSchemaStore(conn_), 0);
  // Another group's key of the same name is no failure of this one.
  Sql("INSERT INTO ss.ConfigSchema (Component, ConfigGroup, Name, SchemaId, Version, SchemaJson, DSPIntegrated, "
      "SchemaType) SELECT 'qor', column1, column2, 'kit-1', '1.0', '{}', column3, column4 FROM (VALUES ('net', "
      "'dsp0', 1, 0), ('net', 'dsp2', 1, 2), ('net', 'type1', 1, 1), ('net', 'nodsp', 0, 0), ('other', 'skip', 1, 0))");
  ASSERT_EQ(DBStore::DetachSchemaStore(conn_), 0);
  Sql("INSERT INTO Config (Component, ConfigGroup, Name, Identifier, Success, UserValue) SELECT 'qor', 'net', * FROM "
      "(VALUES ('dsp0', 'a', 0, '{}'), ('dsp0', 'b', 1, '{}'), ('dsp0', 'c', 0, NULL), ('dsp2', '', 0, '{}'), "
      "('type1', '', 0, '{}'), ('nodsp', '', 0, '{}'), ('skip', '', 0, '{}'))");
  std::vector<std::string> keys;
  for (const auto& f : GetBootTimeRestoreFailures()) keys.push_back(f.Component + "/" + f.ConfigGroup + "/" + f.Name);
  EXPECT_THAT(keys, testing::UnorderedElementsAre("qor/net/dsp0", "qor/net/dsp2"));
  EXPECT_EQ(GetBootTimeRestoreFailures().size(), 2u) << "the schema store is detached again";
}

}  // namespace
}  // namespace QorConfigStore
