// The boot apply record and the list of entries whose restore failed.
#include <gmock/gmock.h>

#include "configstore/boot/BootApplyRecord.h"
#include "configstore/frame/CallFrame.h"
#include "tests/support/Sandbox.h"

namespace QorConfigStore {
namespace {

class BootApplyRecordTest : public cstest::SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    ASSERT_EQ(DBStore::CreateDatabases(), 0);
    conn_ = GetDBConnection(DBStore::CONFIG_STORE, true);
  }
  void Sql(const std::string& sql, const std::vector<std::string>& args = {}) {
    ASSERT_EQ(DBStore::Exec(conn_, sql, args), 0) << sql;
  }
  std::string Stored() {
    std::string v;
    EXPECT_EQ(DBStore::ReadKeyValue("BOOT_APPLY_RESULT", &v, conn_), 0);
    return v;
  }
  DBStore::Connection conn_;
};

TEST_F(BootApplyRecordTest, ClearSetAndReadBack) {
  clearBootApplyRecord();
  EXPECT_EQ(Stored(), "{\"isBootComplete\":false}");
  rapidjson::Document reset = getBootApplyRecord();
  ASSERT_TRUE(reset.IsObject());
  EXPECT_EQ(reset.MemberCount(), 1u);
  EXPECT_FALSE(reset["isBootComplete"].GetBool());

  const std::string record = "line \"one\"\nline\ttwo \\ end";
  setBootApplyRecord(record);
  EXPECT_EQ(Stored(), "{\"isBootComplete\":true,\"bootApplyRecord\":\"line \\\"one\\\"\\nline\\ttwo \\\\ end\"}");
  rapidjson::Document done = getBootApplyRecord();
  EXPECT_TRUE(done["isBootComplete"].GetBool());
  EXPECT_EQ(done["bootApplyRecord"].GetString(), record);

  setBootApplyRecord("");
  EXPECT_EQ(Stored(), "{\"isBootComplete\":true,\"bootApplyRecord\":\"\"}");
}

TEST_F(BootApplyRecordTest, RecordNeverWrittenOrDamagedFailsToParse) {
  for (const char* stored : {"", "{\"isBootComplete\":"}) {
    SCOPED_TRACE(stored);
    ASSERT_EQ(DBStore::WriteKeyValue("BOOT_APPLY_RESULT", stored, conn_), 0);
    try {
      getBootApplyRecord();
      ADD_FAILURE() << "no throw";
    } catch (const InvalidArgumentException& e) {
      EXPECT_EQ(e.code(), 1080);
    }
  }
  DBStore::faults::Arm(DBStore::faults::Kind::KvRead, 1, false);
  try {
    getBootApplyRecord();
    ADD_FAILURE() << "no throw";
  } catch (const ConfigStoreException& e) {
    EXPECT_STREQ(e.what(), "Failed to read BOOT_APPLY_RESULT from database.");
  }
  DBStore::faults::Disarm();
}

TEST_F(BootApplyRecordTest, RestoreFailuresFollowSchemaAndRowFlags) {
  ASSERT_EQ(DBStore::AttachSchemaStore(conn_), 0);
  // Component, group, key, DSPIntegrated, SchemaType.
  const char* schemas[][5] = {{"qor", "net", "dsp0", "1", "0"},   {"qor", "net", "dsp2", "1", "2"},
                              {"qor", "net", "type1", "1", "1"},  {"qor", "net", "nodsp", "0", "0"}};
  for (const auto& s : schemas) {
    Sql("INSERT INTO ss.ConfigSchema (Component, ConfigGroup, Name, SchemaId, Version, SchemaJson, DSPIntegrated, "
        "SchemaType) VALUES (?, ?, ?, 'kit-1', '1.0', '{}', ?, ?)",
        {s[0], s[1], s[2], s[3], s[4]});
  }
  ASSERT_EQ(DBStore::DetachSchemaStore(conn_), 0);
  // Key, identifier, Success, user value (empty text stands for NULL).
  const char* rows[][4] = {{"dsp0", "a", "0", "{}"}, {"dsp0", "b", "1", "{}"}, {"dsp2", "", "0", "{}"},
                           {"type1", "", "0", "{}"}, {"nodsp", "", "0", "{}"}, {"dsp0", "c", "0", ""}};
  for (const auto& r : rows) {
    Sql(std::string("INSERT INTO Config (Component, ConfigGroup, Name, Identifier, Success, UserValue) VALUES "
                    "('qor', 'net', ?, ?, ?, ") +
            (r[3][0] ? "?)" : "NULL)"),
        r[3][0] ? std::vector<std::string>{r[0], r[1], r[2], r[3]} : std::vector<std::string>{r[0], r[1], r[2]});
  }
  std::vector<std::string> keys;
  for (const auto& f : GetBootTimeRestoreFailures()) {
    EXPECT_EQ(f.Component, "qor");
    EXPECT_EQ(f.ConfigGroup, "net");
    keys.push_back(f.Name);
  }
  EXPECT_THAT(keys, testing::UnorderedElementsAre("dsp0", "dsp2"));
  // The schema store is detached again: a second call can attach it.
  EXPECT_EQ(GetBootTimeRestoreFailures().size(), 2u);
}

TEST_F(BootApplyRecordTest, RestoreFailuresReportStoreFaults) {
  DBStore::faults::Arm(DBStore::faults::Kind::Attach, 1, false);
  try {
    GetBootTimeRestoreFailures();
    ADD_FAILURE() << "no throw";
  } catch (const ConfigStoreException& e) {
    EXPECT_STREQ(e.what(), "Failed to attach schema store");
  }
  DBStore::faults::Arm(DBStore::faults::Kind::Step, 1, false);
  try {
    GetBootTimeRestoreFailures();
    ADD_FAILURE() << "no throw";
  } catch (const ConfigStoreException& e) {
    EXPECT_STREQ(e.what(), "Failed to read from config store.");
  }
  DBStore::faults::Disarm();
  EXPECT_TRUE(GetBootTimeRestoreFailures().empty()) << "the failed call detached the schema store";
}

}  // namespace
}  // namespace QorConfigStore
