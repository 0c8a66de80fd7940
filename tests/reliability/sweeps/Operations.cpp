// The table of writing operations the sweeps drive, each on the sample host root in the state it
// meets in the field, with the outcomes its header documents.
#include "configstore/boot/BootApplyRecord.h"
#include "configstore/boot/BootDocument.h"
#include "configstore/boot/BootTimeApply.h"
#include "configstore/boot/LoadStore.h"
#include "configstore/bootstate/BootState.h"
#include "configstore/defaults/DefaultConfig.h"
#include "configstore/desired/DesiredConfig.h"
#include "configstore/frame/CallFrame.h"
#include "configstore/maintenance/Cleanup.h"
#include "configstore/schema/SchemaProcessor.h"
#include "configstore/schema/SchemaRegistration.h"
#include "platform/dbstore/DBStore.h"
#include "tests/reliability/sweeps/SweepEngine.h"

namespace sweep {
namespace {

using namespace QorConfigStore;

constexpr const char* kDesiredDocument = R"({"profile": {"qor": {
    "network": {"dns": {"hostname": "host02", "servers": ["192.0.2.99"]},
                "nuknics": [{"name": "nuk0", "mtu": 1500}, {"name": "nuk7", "mtu": 9000}]},
    "authentication": {"user_accounts": [{"name": "ops", "shell_access": false}]},
    "authorization": {"permissions": [{"principal": "ops", "role": "ReadOnly"}]},
    "advanced_options": {"user_vars": [{"name": "Agent_LogLevel", "value": "debug"}]},
    "system": {"advanced_options": [{"name": "Syslog.global.logDir", "string_value": "/scratch/other"}]}}}})";

constexpr const char* kSmartnicDocument =
    R"({"qor": {"network": {"nuknics": [{"name": "nuk3", "mtu": 1500}], "dns": "DELETE_DEFAULT"}}})";

constexpr const char* kConfigWithoutSchema =
    "INSERT INTO Config (Component, ConfigGroup, Name, Identifier, UserValue) VALUES ('gone', 'pkg', 'key', '', '{}')";
// An object holding only an automatic value, and an automatic value beside a user one.
constexpr const char* kAutoOnly =
    "INSERT INTO Config (Component, ConfigGroup, Name, Identifier, AutoConfValue) "
    "VALUES ('qor', 'advanced_options', 'user_vars', 'auto', '{\"name\":\"auto\"}')";
constexpr const char* kAutoBesideUser = "UPDATE Config SET AutoConfValue = '{\"mtu\":1400}' WHERE Name = 'nuknics'";

void StageDesired() {
  auto doc = CreateDocumentFromString(kDesiredDocument);
  SetDesiredUserConfig(*doc->document);
}

void StageSmartnic() {
  auto doc = CreateDocumentFromString(kSmartnicDocument);
  SetDesiredSmartnicConfiguration(*doc->document);
}

void DeleteAdvancedOptions() { DeleteHostAPIConfiguration("qor", "system", "advanced_options"); }

void DataFileSql(const std::string& sql) {
  DBStore::Connection conn = DBStore::GetConnection(DBStore::DATAFILE_STORE, true);
  ASSERT_TRUE(conn);
  ASSERT_EQ(DBStore::Exec(conn, sql), 0) << sql;
}

// The sample host after its first boot, as an ordinary reboot finds it.
void BootedHost(SweepTest& t) {
  t.CopyExampleHost();
  ASSERT_EQ(LoadStore(true), 0);
  CleanupBootState();
  t.Remove("/var/lib/talvex/firstboot/current-store-1");
}

// ... with rows that the cleanups remove: a schema-less object, automatic values, a data file whose
// key has no schema, one recorded but missing and one present.
void HostWithLeftovers(SweepTest& t) {
  BootedHost(t);
  t.Sql(kConfigWithoutSchema);
  t.Sql(kAutoOnly);
  t.Sql(kAutoBesideUser);
  DataFileSql("INSERT INTO DataFileMetadata VALUES ('qor', 'certificates', 'certs', 'host.pem'), "
              "('qor', 'certificates', 'certs', 'missing.pem'), ('gone', 'key', 'olddir', 'x.bin')");
  t.WriteFile("/var/cache/datafiles/certs/host.pem", "pem");
  t.WriteFile("/var/cache/datafiles/olddir/x.bin", "x");
}

Reported Status(int status) { return status == 0 ? Reported::Success : Reported::Failure; }
Reported Flag(bool ok) { return ok ? Reported::Success : Reported::Failure; }

// A boot-time routine as the boot load runs it: on one connection with the schema store attached,
// inside a transaction that is committed, or rolled back when anything fails.
Reported InBootTransaction(void (*routine)(const DBStore::Connection&)) {
  DBStore::Connection conn = GetDBConnection(DBStore::CONFIG_STORE, true);
  DBStore::SchemaStoreAttachment ss(conn);
  DBStore::Transaction tx(conn);
  if (ss.Attach() != 0 || tx.Begin() != 0) return Reported::Failure;
  routine(conn);
  return Status(tx.Commit());
}

template <typename F>
std::function<Reported()> Silently(F f) {
  return [f] {
    f();
    return Reported::Silent;
  };
}

// Every connection goes through GetDBConnection/GetStoreConnection, whose failure is 2000.
const std::set<int> kGeneric = {CS_ERR_GENERIC};

std::vector<Operation> Table() {
  std::vector<Operation> ops;
  auto add = [&ops](Operation op) { ops.push_back(std::move(op)); };

  add({"LoadStoreRestore", [](SweepTest& t) { t.CopyExampleHost(); }, [] { return Status(LoadStore(true)); }, {}, {},
       true});
  add({"LoadStoreNoRestore",
       [](SweepTest& t) {
         HostWithLeftovers(t);
         StageDesired();
       },
       [] { return Status(LoadStore(false)); }, {}, {}, true});
  // Schema elements and default instances whose write fails are logged and skipped, the rest
  // committed (SchemaRegistration.h, DefaultConfigSteps.h): their tables are `loggedLosses`.
  add({"ProcessSchemas",
       [](SweepTest& t) {
         BootedHost(t);
         t.Sql("DELETE FROM ss.ConfigSchema WHERE Name = 'switches'");
         t.Sql("DELETE FROM DefaultConfig WHERE Name = 'dns'");
       },
       [] { return Flag(ProcessSchemas({})); }, {},
       {[] { ProcessSchemaFiles({}, false); }, [] { ProcessDefaultConfiguration(false); }}, false,
       {"schema.ConfigSchema", "schema.SmartnicSchema", "schema.DataFileSchema", "schema.SchemaFile",
        "config.DefaultConfig"}});
  add({"ProcessDefaultConfiguration",
       [](SweepTest& t) {
         BootedHost(t);
         t.Sql("DELETE FROM DefaultConfig WHERE Name = 'dns'");
         t.Sql("INSERT INTO DefaultConfig (Component, ConfigGroup, Name, Identifier, Value) "
               "VALUES ('gone', 'pkg', 'key', '', '{}')");
       },
       [] { return Flag(ProcessDefaultConfiguration(false)); }, {}, {}, false, {"config.DefaultConfig"}});

  // Staging for the next boot.
  add({"SetDesiredUserConfig", BootedHost, [] { StageDesired(); return Reported::Success; }, kGeneric});
  add({"SetDesiredSmartnicConfiguration", BootedHost, [] { StageSmartnic(); return Reported::Success; }, kGeneric});
  add({"DeleteHostAPIConfiguration", BootedHost, [] { DeleteAdvancedOptions(); return Reported::Success; },
       {CS_ERR_DESIRED_CONFIG_NOT_FOUND, CS_ERR_HOSTAPI_DELETE_NOT_ALLOWED, CS_ERR_GENERIC}});
  add({"SetBootMode", BootedHost, Silently([] { SetBootMode(BOOT_MODE_SMARTNIC_CONFIG); }), kGeneric});
  add({"EndAutoConf", BootedHost, Silently(EndAutoConf), kGeneric});
  add({"EnableNexdNotification", BootedHost, Silently([] { EnableNexdNotification(true); }), kGeneric});
  add({"SetLiveInstallBoot", BootedHost, [] { return Status(SetLiveInstallBoot("true")); }, kGeneric});
  add({"SetInstallInfo", BootedHost, Silently([] { SetInstallInfo("{\"build\":42}"); }), kGeneric});
  add({"CleanupBootState",
       [](SweepTest& t) {
         BootedHost(t);
         ASSERT_EQ(SetLiveInstallBoot("true"), 0);
         t.WriteFile("/sys/plon/system/bootFsUUID", "00000000-aaaa-bbbb-cccc-000000000002");
       },
       Silently(CleanupBootState), kGeneric});

  // Boot-time application, each in the boot load's transaction.
  add({"ApplyHostApiBootConfiguration",
       [](SweepTest& t) {
         BootedHost(t);
         DeleteAdvancedOptions();
       },
       [] { return InBootTransaction(ApplyHostApiBootConfiguration); }, kGeneric});
  add({"ApplySmartnicBootConfiguration",
       [](SweepTest& t) {
         BootedHost(t);
         StageSmartnic();
       },
       [] { return InBootTransaction(ApplySmartnicBootConfiguration); }, kGeneric});
  add({"GenerateDesiredUserConfiguration",
       [](SweepTest& t) {
         BootedHost(t);
         StageDesired();
       },
       [] { return InBootTransaction(GenerateDesiredUserConfiguration); }, kGeneric});
  add({"ProcessBootConfigurationDocument",
       [](SweepTest& t) {
         t.CopyExampleHost();
         ASSERT_EQ(DBStore::CreateDatabases(), 0);
         ASSERT_TRUE(ProcessSchemas({}));
       },
       [] { return InBootTransaction(ProcessBootConfigurationDocument); }, {CS_ERR_GENERIC, CS_ERR_JSON_PARSE_FILE}});

  // Maintenance: each statement commits on its own.
  const std::vector<std::function<void()>> storeHalves = {
      [] { DataFileSql("DELETE FROM DataFileMetadata WHERE Component = 'gone'"); },
      [] {
        DBStore::Connection conn = DBStore::GetConnection(DBStore::CONFIG_STORE, true);
        ASSERT_EQ(DBStore::Exec(conn, "DELETE FROM Config WHERE Component = 'gone'"), 0);
      }};
  add({"CleanupStoreAtBoot", HostWithLeftovers, Silently([] { CleanupStore(true); }), {}, storeHalves});
  add({"CleanupStoreLive", HostWithLeftovers, Silently([] { CleanupStore(false); }), {}, storeHalves});
  // Without a store to connect to it logs and returns: a normal return tells nothing.
  add({"CleanupAutoConfig", HostWithLeftovers, Silently(CleanupAutoConfig), kGeneric,
       {[] {
         DBStore::Connection conn = DBStore::GetConnection(DBStore::CONFIG_STORE, true);
         ASSERT_EQ(DBStore::Exec(conn, "UPDATE Config SET AutoConfValue = NULL"), 0);
       }}});
  add({"CleanupDataFiles", HostWithLeftovers, Silently(CleanupDataFiles), {}});

  // The boot apply record.
  add({"SetBootApplyRecord", BootedHost, Silently([] { setBootApplyRecord("{\"failed\":[]}"); }), kGeneric});
  add({"ClearBootApplyRecord",
       [](SweepTest& t) {
         BootedHost(t);
         setBootApplyRecord("{}");
       },
       Silently(clearBootApplyRecord), kGeneric});
  return ops;
}

}  // namespace

const std::vector<Operation>& Operations() {
  static const std::vector<Operation> ops = Table();
  return ops;
}

}  // namespace sweep
