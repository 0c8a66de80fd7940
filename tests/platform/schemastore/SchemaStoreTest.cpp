// Registration, the update cycle, look-ups and listings of the schema store, on real store files.
#include <gtest/gtest.h>

#include <functional>

#include "tests/platform/schemastore/SchemaStoreTestSupport.h"
#include "tests/support/StoreDump.h"
#include "tests/support/StoreRows.h"

namespace {

using QorConfigStore::ConfigStoreException;
using QorSchemaStore::GetSchema;
using QorSchemaStore::SchemaObject;
using QorSchemaStore::SchemaObjectId;
using QorSchemaStore::SchemaStore;
using sstest::Element;
using sstest::kSchemaId;
using Strings = std::vector<std::string>;

class SchemaStoreTest : public sstest::SchemaStoreFixture {
 protected:
  // Rows of `sql` with the schema store attached as "ss", the way the library's other parts read it.
  static Strings QueryAttached(const std::string& sql) {
    DBStore::Connection conn = DBStore::GetConnection(DBStore::CONFIG_STORE, true);
    EXPECT_EQ(DBStore::AttachSchemaStore(conn), 0);
    return cstest::JoinedRows(conn, sql, "NULL");
  }
  static std::string Message(const std::function<void()>& call) {
    try {
      call();
    } catch (const ConfigStoreException& e) {
      EXPECT_EQ(e.code(), 2000);
      return e.what();
    }
    ADD_FAILURE() << "no exception";
    return "";
  }
};

const Element kFiles{"qor", "files", "kit-files", R"({"component": "qor", "group": "files", "key": "kit-files",
  "files": [{"category": "config", "path": "/etc/net-core/net.conf"},
            {"category": "vital", "path": "/etc/net-core/keys/host.key"}]})", false};
const Element kDataFile{"qor", "datafiles", "certificates", R"({"component": "qor", "group": "datafiles",
  "key": "certificates", "datafile": {"dirName": "certs", "category": "vital"}})", false};

TEST_F(SchemaStoreTest, CommittedRegistrationIsSeenByNewStoresOnly) {
  auto writer = SchemaStore::GetStore(true);
  writer->BeginUpdate();
  writer->ResetSchemas();
  for (const Element& e : {sstest::Nuknics(), sstest::Hostname(), sstest::Rules()}) Set(writer, e);
  EXPECT_TRUE(writer->GetSchema(SchemaObjectId("qor", "network", "nuknics")));  // its own update it sees
  EXPECT_EQ(GetSchema("qor", "network", "nuknics", SchemaStore::GetStore(false)), nullptr);
  writer->CommitUpdate();

  auto store = SchemaStore::GetStore(false);
  std::shared_ptr<SchemaObject> nuknics = GetSchema("qor", "network", "nuknics", store);
  ASSERT_TRUE(nuknics);
  EXPECT_EQ(nuknics->GetSchemaId() + " " + nuknics->GetVersion() + " " + nuknics->GetInstanceIdName(),
            std::string(kSchemaId) + " 1.0 name");
  EXPECT_EQ(nuknics->GetSmartnicValueType(), std::optional<std::string>("qor-shared"));
  auto rules = GetSchema("qor", "firewall", "rules", store);
  EXPECT_TRUE(rules->IsGeneratedInstanceId() && !rules->IsSingleton());
  EXPECT_EQ(QueryAttached("SELECT Component, ConfigGroup, Name FROM ss.SmartnicSchema WHERE ValueType = 'qor-shared'"),
            Strings{"qor|network|nuknics"});
  EXPECT_EQ(QueryAttached("SELECT Name, Singleton, DSPIntegrated, InstanceIdName FROM ss.ConfigSchema ORDER BY Name"),
            (Strings{"hostname|1|0|", "nuknics|0|1|name", "rules|0|0|cs_generated_id"}));
}

TEST_F(SchemaStoreTest, ACancelledOrAbandonedUpdateLeavesTheEarlierSchemasExactlyInPlace) {
  Register({sstest::Nuknics(), kFiles, kDataFile});
  const cstest::StoreDump before = cstest::DumpStores();
  for (bool cancel : {true, false}) {
    auto store = SchemaStore::GetStore(true);
    store->BeginUpdate();
    store->ResetSchemas();
    Set(store, sstest::Hostname());
    if (cancel) store->CancelUpdate();
    if (cancel) store->CancelUpdate();  // nothing left to cancel: no effect
  }  // dropped with the update open
  EXPECT_EQ(cstest::DiffStores(before, cstest::DumpStores()), "");
  EXPECT_EQ(log_.Count("Schema store update cancelled"), 1u);
}

// Registering again replaces every table; a key given twice in one update keeps the later element.
TEST_F(SchemaStoreTest, ResetAndRegisterAgainReplacesEveryTable) {
  Register({sstest::Nuknics(), sstest::Hostname(), kFiles, kDataFile});
  Element later = sstest::Nuknics();
  later.hasSmartnic = false;
  later.text = R"({"version": "2.0", "singleton": false, "schema": {"properties": {"name": {"type": "string", "instanceId": true}}}})";
  Register({sstest::Nuknics(), later}, "net-core-2.0.0_1.0");
  EXPECT_EQ(Registered(), Strings{"qor/network/nuknics"});
  auto nuknics = GetSchema("qor", "network", "nuknics", SchemaStore::GetStore(false));
  EXPECT_EQ(nuknics->GetVersion() + " " + nuknics->GetSchemaId(), "2.0 net-core-2.0.0_1.0");
  EXPECT_TRUE(QueryAttached("SELECT * FROM ss.SmartnicSchema").empty());
}

// Each accessor answers for its own kind of object only.
TEST_F(SchemaStoreTest, DeclaredFilesAndDataFileKeysAreListedByKind) {
  Register({sstest::Nuknics(), kFiles, kDataFile});
  auto store = SchemaStore::GetStore(false);
  auto describe = [](const std::shared_ptr<SchemaObject>& o) {
    bool isFile = false;
    std::string category = "-", path = "-", dirName = "-";
    int rc[] = {o->IsFileEntry(&isFile), o->GetFileCategory(&category), o->GetFilePath(&path),
                o->GetDataFileDirName(&dirName), o->IsFileEntry(nullptr), o->GetDataFileDirName(nullptr)};
    std::string text = o->GetObjectId().toString() + " " + std::to_string(isFile) + " " + category + " " + path + " " + dirName;
    for (int r : rc) text += " " + std::to_string(r);
    return text;
  };
  Strings all;
  for (const char* kind : {QorSchemaStore::kKindFiles, QorSchemaStore::kKindDataFiles, QorSchemaStore::kKindConfig}) {
    for (const auto& object : store->GetSchemaObjects(kind)) all.push_back(describe(object));
  }
  EXPECT_EQ(all, (Strings{"qor/config//etc/net-core/net.conf 1 config /etc/net-core/net.conf - 0 0 0 1 1 1",
                          "qor/vital//etc/net-core/keys/host.key 1 vital /etc/net-core/keys/host.key - 0 0 0 1 1 1",
                          "qor//certificates 0 vital - certs 0 0 1 0 1 1",
                          "qor/network/nuknics 0 - - - 0 1 1 1 1 1"}));
  EXPECT_EQ(QueryAttached("SELECT Component, KEY, DirName FROM ss.DataFileSchema"), Strings{"qor|certificates|certs"});
  EXPECT_EQ(Message([&] { store->GetSchemaObjects("file"); }), "Unknown schema object kind \"file\"");
}

const std::string kId = R"("properties": {"name": {"type": "string", "instanceId": true}})";

// Each refused element names itself and its reason, and the update it was given to still commits.
TEST_F(SchemaStoreTest, RefusedElementsNameElementAndReasonAndRegisterNothing) {
  const std::pair<std::string, std::string> cases[] = {  // element text, reason
      {R"({"version": )", "it is not JSON ("},
      {R"({"schema": {}})", "\"version\" is missing"},
      {R"({"version": "1", "schema": {"properties": {"a": 1}}})", "property \"a\" is not an object"},
      {R"({"version": "1", "singleton": true, "schema": {)" + kId + "}}",
       "\"singleton\" is true but the schema has the instance id property \"name\""},
      {R"({"version": "1", "singleton": false, "schema": {}})",
       "\"singleton\" is false but no property of the schema has \"instanceId\": true"},
      {R"({"version": "1", "schema": {"properties": {"a": {"type": "integer", "instanceId": true}}}})",
       "property \"a\" is the instance id and must be of type \"string\""},
      {R"({"version": "1", "schema": {"properties": {"uuid": {"instanceId": true, "generatedId": true}}}})",
       "property \"uuid\" is a generated instance id and must be named \"cs_generated_id\""},
      {R"({"datafile": {"dirName": "../etc", "category": "vital"}})",
       "\"datafile\": \"dirName\" \"../etc\" is not a plain directory name"},
      {R"({"files": {}})", "\"files\" is not an array"},
      {R"({"files": [{"category": "vital", "path": "etc/x"}]})", "\"files\"[0]: \"path\" \"etc/x\" is not a clean absolute path"},
      {R"({"version": "1", "schema": {"default": )" + std::string(200, '[') + std::string(200, ']') + "}}",
       "it is nested more than 128 levels deep"},
  };
  for (const auto& [text, reason] : cases) {
    auto store = SchemaStore::GetStore(true);
    store->BeginUpdate();
    store->ResetSchemas();
    Set(store, sstest::Hostname());
    std::string message = Message([&] { Set(store, {"qor", "g", "k", text, false}); });
    std::string expected = "Schema element qor/g/k of " + std::string(kSchemaId) + " is refused: " + reason;
    EXPECT_EQ(message.substr(0, expected.size()), expected);
    store->CommitUpdate();
    EXPECT_EQ(Registered(), Strings{"qor/system/hostname"});
  }
}

TEST_F(SchemaStoreTest, UpdateOperationsOutOfOrderAreRefused) {
  auto reader = SchemaStore::GetStore(false);
  EXPECT_EQ(Message([&] { reader->BeginUpdate(); }), "The schema store was opened read-only and cannot be updated");

  auto store = SchemaStore::GetStore(true);
  EXPECT_EQ(Message([&] { Set(store, sstest::Hostname()); }), "SetSchema needs a schema store update in progress");
  store->BeginUpdate();
  EXPECT_EQ(Message([&] { store->BeginUpdate(); }), "A schema store update is already in progress");
  store->CancelUpdate();
}

// An element whose write fails leaves no row of it; an update that could not undo one, or whose
// commit failed, can only be cancelled.
TEST_F(SchemaStoreTest, StoreFaultsNeverCommitAPartlyWrittenElement) {
  using DBStore::faults::Kind;
  const std::string failed = "Failed to register schema element qor/files/kit-files of " + std::string(kSchemaId);
  struct Case {
    const char* name;
    Kind kind;
    bool persistent;
    std::string setError, commitError;  // "" when that call succeeds
    Strings registered;
  };
  const Case cases[] = {
      {"second file row fails", Kind::Step, false, failed, "", {"qor/system/hostname"}},
      {"the rollback to the savepoint fails too", Kind::Step, true, failed,
       "The schema store update holds a partly written element and cannot be committed", {"qor/network/nuknics"}},
      {"commit fails", Kind::Commit, false, "", "Failed to commit the schema store update", {"qor/network/nuknics"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Register({sstest::Nuknics()});
    auto store = SchemaStore::GetStore(true);
    store->BeginUpdate();
    store->ResetSchemas();
    Set(store, sstest::Hostname());
    // Steps of the files element: SAVEPOINT, first file row, second file row, ROLLBACK TO, RELEASE.
    DBStore::faults::Arm(c.kind, c.kind == Kind::Step ? 3 : 1, c.persistent);
    if (c.setError.empty()) {
      Set(store, kFiles);
    } else {
      EXPECT_EQ(Message([&] { Set(store, kFiles); }), c.setError);
      DBStore::faults::Disarm();
    }
    if (c.commitError.empty()) {
      store->CommitUpdate();
    } else {
      EXPECT_EQ(Message([&] { store->CommitUpdate(); }), c.commitError);
      DBStore::faults::Disarm();
      store->CancelUpdate();
    }
    EXPECT_EQ(Registered(), c.registered);
  }
}

TEST_F(SchemaStoreTest, DamagedStoreContentIsReportedAsAnError) {
  Register({sstest::Nuknics(), sstest::Hostname()});
  DBStore::Connection conn = DBStore::GetConnection(DBStore::CONFIG_STORE, true);
  ASSERT_EQ(DBStore::AttachSchemaStore(conn), 0);
  ASSERT_EQ(Exec(conn, "UPDATE ss.ConfigSchema SET SchemaJson = '{' WHERE Name = 'nuknics'"), 0);
  auto store = SchemaStore::GetStore(false);

  EXPECT_EQ(Message([&] { GetSchema("qor", "network", "nuknics", store); }),
            "Schema store holds an unreadable schema for qor/network/nuknics");

  WriteFile("/var/lib/talvex/schemastore/schema-store", "not a database, just text of some length..........");
  std::string message = Message([] { SchemaStore::GetStore(false); });
  EXPECT_EQ(message.rfind("Failed to open schema store " + Path("/var/lib/talvex/schemastore/schema-store") + ": ", 0),
            0u)
      << message;
}

}  // namespace
