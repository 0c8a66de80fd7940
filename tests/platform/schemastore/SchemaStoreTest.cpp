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
  static std::shared_ptr<SchemaObject> Cached(const std::string& group, const std::string& key) {
    return SchemaStore::GetCache()->GetSchema(SchemaObjectId("qor", group, key));
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
  EXPECT_FALSE(store->IsForUpdate());
  std::shared_ptr<SchemaObject> nuknics = GetSchema("qor", "network", "nuknics", store);
  ASSERT_TRUE(nuknics);
  EXPECT_EQ(nuknics->GetSchemaId() + " " + nuknics->GetVersion() + " " + nuknics->GetInstanceIdName(),
            std::string(kSchemaId) + " 1.0 name");
  EXPECT_EQ(nuknics->GetSmartnicValueType(), std::optional<std::string>("qor-shared"));
  EXPECT_EQ(nuknics->GetSchemaValue()["properties"]["mtu"]["maximum"].GetInt(), 9000);
  auto rules = GetSchema("qor", "firewall", "rules", store);
  EXPECT_TRUE(rules->IsGeneratedInstanceId() && !rules->IsSingleton());
  EXPECT_EQ(GetSchema("qor", "system", "nuknics", store), nullptr);
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
  EXPECT_FALSE(nuknics->IsDSPIntegrated());
  EXPECT_TRUE(QueryAttached("SELECT * FROM ss.SmartnicSchema").empty());
}

TEST_F(SchemaStoreTest, EachFlagAndListIsStoredInItsOwnColumn) {
  using Getter = bool (SchemaObject::*)() const;
  const std::pair<std::string, Getter> flags[] = {{"noRestore", &SchemaObject::IsNoRestore},
                                                  {"preserveNonUser", &SchemaObject::IsPreserveNonUser},
                                                  {"dspIntegrated", &SchemaObject::IsDSPIntegrated},
                                                  {"mutableDefaultConfig", &SchemaObject::HasMutableDefaultConfig}};
  const std::string base = R"({"version": "1.0", "schema": {"properties": {"name": {"type": "string", "instanceId": true}}})";
  for (const auto& [member, unused] : flags) {
    Register({{"qor", "g", "k", base + ", \"" + member + "\": true}", false}});
    auto fromStore = GetSchema("qor", "g", "k", SchemaStore::GetStore(false)), fromCache = Cached("g", "k");
    for (const auto& [other, getter] : flags) {
      EXPECT_EQ((fromStore.get()->*getter)(), other == member) << member << " " << other;
      EXPECT_EQ((fromCache.get()->*getter)(), other == member) << member << " " << other;
    }
  }
  Register({{"qor", "authentication", "user_accounts", base + R"(, "schemaType": 2,
              "solutionUserInstances": ["svc-backup", "zcmuser"], "preserveInstanceIds": ["root", "nuk0"]})", false},
            sstest::Hostname()});
  auto accounts = Cached("authentication", "user_accounts"), hostname = Cached("system", "hostname");
  EXPECT_EQ(accounts->GetSchemaType(), 2);
  EXPECT_EQ(accounts->GetSolutionUserInstances(), (Strings{"svc-backup", "zcmuser"}));
  EXPECT_EQ(accounts->GetPreservedInstanceIds(), (Strings{"root", "nuk0"}));
  EXPECT_EQ(hostname->GetSchemaType(), 0);
  EXPECT_TRUE(hostname->GetSolutionUserInstances().empty() && hostname->GetPreservedInstanceIds().empty());
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
  // Elements of the other kinds are no configuration keys.
  EXPECT_EQ(GetSchema("qor", "files", "kit-files", store), nullptr);
  EXPECT_EQ(GetSchema("qor", "datafiles", "certificates", store), nullptr);
  EXPECT_EQ(Message([&] { store->GetSchemaObjects("file"); }), "Unknown schema object kind \"file\"");
}

struct RefusedCase {
  const char* label;
  std::string key;
  std::string text;
  bool hasSmartnic;
  std::string reason;
};

std::string Nested(int depth) { return std::string(depth, '[') + std::string(depth, ']'); }

const std::string kId = R"("properties": {"name": {"type": "string", "instanceId": true}})";

const std::vector<RefusedCase> kRefused = {
    {"not JSON", "k", R"({"version": )", false, "it is not JSON ("},
    {"not an object", "k", "[1]", false, "the element is not an object"},
    {"no version", "k", R"({"schema": {}})", false, "\"version\" is missing"},
    {"property a number", "k", R"({"version": "1", "schema": {"properties": {"a": 1}}})", false,
     "property \"a\" is not an object"},
    {"singleton a string", "k", R"({"version": "1", "singleton": "yes", "schema": {}})", false,
     "\"singleton\" is not a boolean"},
    {"singleton with an id", "k", R"({"version": "1", "singleton": true, "schema": {)" + kId + "}}", false,
     "\"singleton\" is true but the schema has the instance id property \"name\""},
    {"instances without an id", "k", R"({"version": "1", "singleton": false, "schema": {}})", false,
     "\"singleton\" is false but no property of the schema has \"instanceId\": true"},
    {"two ids", "k",
     R"({"version": "1", "schema": {"properties": {"a": {"instanceId": true}, "b": {"instanceId": true}}}})", false,
     "more than one instance id property (\"a\" and \"b\")"},
    {"id an integer", "k",
     R"({"version": "1", "schema": {"properties": {"a": {"type": "integer", "instanceId": true}}}})", false,
     "property \"a\" is the instance id and must be of type \"string\""},
    {"generated id misnamed", "k",
     R"({"version": "1", "schema": {"properties": {"uuid": {"instanceId": true, "generatedId": true}}}})", false,
     "property \"uuid\" is a generated instance id and must be named \"cs_generated_id\""},
    {"reserved name as plain id", "k",
     R"({"version": "1", "schema": {"properties": {"cs_generated_id": {"instanceId": true}}}})", false,
     "property \"cs_generated_id\" is reserved for generated instance ids and needs \"generatedId\": true"},
    {"generated id required", "k",
     R"({"version": "1", "schema": {"required": ["cs_generated_id"],
         "properties": {"cs_generated_id": {"instanceId": true, "generatedId": true}}}})",
     false, "\"cs_generated_id\" must not be \"required\""},
    {"schemaType out of range", "k", R"({"version": "1", "schemaType": 7, "schema": {}})", false,
     "\"schemaType\" is not 0, 1 or 2"},
    {"solution users not an array", "k", R"({"version": "1", "solutionUserInstances": "svc", "schema": {}})", false,
     "\"solutionUserInstances\" is not an array"},
    {"preserved ids on a singleton", "k", R"({"version": "1", "preserveInstanceIds": ["a"], "schema": {}})", false,
     "\"preserveInstanceIds\" needs a schema whose instance id is neither absent nor generated"},
    {"smartnic announced, absent", "k", R"({"version": "1", "schema": {}})", true, "\"smartnic\" is missing"},
    {"data-file dir leads out", "k", R"({"datafile": {"dirName": "../etc", "category": "vital"}})", false,
     "\"datafile\": \"dirName\" \"../etc\" is not a plain directory name"},
    {"data-file category unknown", "k", R"({"datafile": {"dirName": "certs", "category": "temp"}})", false,
     "\"datafile\": \"category\" is \"temp\", not \"vital\", \"cached\" or \"config\""},
    {"files not an array", "k", R"({"files": {}})", false, "\"files\" is not an array"},
    {"file path relative", "k", R"({"files": [{"category": "vital", "path": "etc/x"}]})", false,
     "\"files\"[0]: \"path\" \"etc/x\" is not a clean absolute path"},
    {"second file without category", "k", R"({"files": [{"category": "vital", "path": "/etc/a"}, {"path": "/etc/b"}]})",
     false, "\"files\"[1]: \"category\" is missing"},
    {"two kinds at once", "k", R"({"version": "1", "schema": {}, "files": []})", false,
     "only one of \"schema\", \"datafile\" and \"files\" may be given"},
    {"component disagrees", "k", R"({"component": "other", "version": "1", "schema": {}})", false,
     "\"component\" does not match the element it is registered as"},
    {"hostile nesting", "k", R"({"version": "1", "schema": {"default": )" + Nested(200) + "}}", false,
     "it is nested more than 128 levels deep"},
    {"empty key", "", R"({"version": "1", "schema": {}})", false, "component, group and key must not be empty"},
};

TEST_F(SchemaStoreTest, RefusedElementsNameElementAndReasonAndRegisterNothing) {
  for (const RefusedCase& c : kRefused) {
    SCOPED_TRACE(c.label);
    auto store = SchemaStore::GetStore(true);
    store->BeginUpdate();
    store->ResetSchemas();
    Set(store, sstest::Hostname());
    std::string message = Message([&] { Set(store, {"qor", "g", c.key, c.text, c.hasSmartnic}); });
    std::string expected = "Schema element qor/g/" + c.key + " of " + kSchemaId + " is refused: " + c.reason;
    EXPECT_EQ(message.substr(0, expected.size()), expected);
    store->CommitUpdate();  // the refusal does not spoil the update
    EXPECT_EQ(Registered(), Strings{"qor/system/hostname"});
  }
}

TEST_F(SchemaStoreTest, UpdateOperationsOutOfOrderAreRefused) {
  auto reader = SchemaStore::GetStore(false);
  EXPECT_EQ(Message([&] { reader->BeginUpdate(); }), "The schema store was opened read-only and cannot be updated");

  auto store = SchemaStore::GetStore(true);
  EXPECT_EQ(Message([&] { Set(store, sstest::Hostname()); }), "SetSchema needs a schema store update in progress");
  EXPECT_EQ(Message([&] { store->ResetSchemas(); }), "ResetSchemas needs a schema store update in progress");
  EXPECT_EQ(Message([&] { store->CommitUpdate(); }), "CommitUpdate needs a schema store update in progress");
  store->BeginUpdate();
  EXPECT_EQ(Message([&] { store->BeginUpdate(); }), "A schema store update is already in progress");
  store->CancelUpdate();

  EXPECT_EQ(Message([] { GetSchema("qor", "g", "k", nullptr); }), "No schema store to look up qor/g/k in");
  EXPECT_EQ(Message([] { QorSchemaStore::SetSchema(kSchemaId, "qor", "g", "k", "{}", nullptr, false); }),
            "No schema store to register qor/g/k in");
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

TEST_F(SchemaStoreTest, TheCacheAnswersWithoutTheDatabaseOnceLoaded) {
  Register({sstest::Nuknics(), sstest::Hostname(), sstest::Rules(), kFiles, kDataFile});
  auto cache = SchemaStore::GetCache();
  Remove("/var/lib/talvex/schemastore/schema-store");

  Strings ids;
  for (const auto& [id, object] : cache->GetAll()) ids.push_back(id.toString() + "=" + object->GetVersion());
  EXPECT_EQ(ids, (Strings{"qor/firewall/rules=1.1", "qor/network/nuknics=1.0", "qor/system/hostname=2.0"}));
  EXPECT_EQ(cache->GetSchema(SchemaObjectId("qor", "network", "nuknics"))->GetInstanceIdName(), "name");
  EXPECT_EQ(cache->GetSchema(SchemaObjectId("qor", "network", "switches")), nullptr);

  std::string missing = "Schema store " + Path("/var/lib/talvex/schemastore/schema-store") + " does not exist";
  EXPECT_EQ(Message([] { SchemaStore::GetStore(false); }), missing);
  EXPECT_EQ(Message([] { SchemaStore::GetCache(); }), missing);
}

TEST_F(SchemaStoreTest, DamagedStoreContentIsReportedAsAnError) {
  Register({sstest::Nuknics(), sstest::Hostname()});
  DBStore::Connection conn = DBStore::GetConnection(DBStore::CONFIG_STORE, true);
  ASSERT_EQ(DBStore::AttachSchemaStore(conn), 0);
  ASSERT_EQ(Exec(conn, "UPDATE ss.ConfigSchema SET SchemaJson = '{' WHERE Name = 'nuknics'"), 0);
  ASSERT_EQ(Exec(conn, "UPDATE ss.ConfigSchema SET PreservedInstanceIds = '[1]' WHERE Name = 'hostname'"), 0);
  auto store = SchemaStore::GetStore(false);

  EXPECT_EQ(Message([&] { GetSchema("qor", "network", "nuknics", store); }),
            "Schema store holds an unreadable schema for qor/network/nuknics");
  EXPECT_EQ(Message([&] { GetSchema("qor", "system", "hostname", store); }),
            "Schema store holds an unreadable PreservedInstanceIds for qor/system/hostname");
  EXPECT_EQ(Message([] { SchemaStore::GetCache(); }).substr(0, 35), "Schema store holds an unreadable sc");

  WriteFile("/var/lib/talvex/schemastore/schema-store", "not a database, just text of some length..........");
  std::string message = Message([] { SchemaStore::GetStore(false); });
  EXPECT_EQ(message.rfind("Failed to open schema store " + Path("/var/lib/talvex/schemastore/schema-store") + ": ", 0),
            0u)
      << message;
}

}  // namespace
