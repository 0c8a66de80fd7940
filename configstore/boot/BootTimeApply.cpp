#include "configstore/boot/BootTimeApply.h"

#include <string>

#include "configstore/boot/BootDocument.h"
#include "configstore/frame/CallFrame.h"
#include "configstore/maintenance/RowSetSql.h"
#include "platform/schemastore/SchemaObject.h"

namespace QorConfigStore {
namespace {

struct Step {
  const char* sql;
  const char* failure;
};

void RunSteps(const DBStore::Connection& conn, std::initializer_list<Step> steps) {
  for (const Step& step : steps) {
    if (DBStore::Exec(conn, step.sql) != 0) throw ConfigStoreException(CS_ERR_GENERIC, step.failure);
  }
}

// Refills the SET_DEFAULT keys from DefaultConfig; shared by the host API and SmartNIC routines.
constexpr const char* kRefillSetDefaultSql =
    "INSERT INTO Config (Component, ConfigGroup, Name, Identifier, Version, UserValue, Vitalvalue, Cachedvalue) "
    "SELECT Component, ConfigGroup, Name, Identifier, Version, Value, Vitalvalue, Cachedvalue FROM DefaultConfig "
    "WHERE (Component, ConfigGroup, Name) IN ( SELECT Component, ConfigGroup, Name FROM DesiredUserConfig "
    "WHERE BootAction = 'SET_DEFAULT' )";

// Instanced keys with a non-generated instance id, one row per listed identifier (text only).
std::string PreservedIdsSql() {
  return std::string(
             "SELECT s.Component AS Component, s.ConfigGroup AS ConfigGroup, s.Name AS Name, p.value AS Identifier "
             "FROM ss.ConfigSchema AS s, json_each(s.PreservedInstanceIds) AS p "
             "WHERE COALESCE(s.InstanceIdName, '') NOT IN ('', '") +
         QorSchemaStore::kGeneratedIdMember +
         "') AND s.PreservedInstanceIds IS NOT NULL AND p.type = 'text' "
         "ORDER BY s.Component, s.ConfigGroup, s.Name, p.id";
}

// The marking of the user values that a desired configuration drops. The reference form binds
// four values per preserved object into a NOT IN list: SQLite scans the list for every row that
// is not in it, and past 8,191 preserved objects the statement exceeds SQLite's limit of bound
// values. The form that runs reads the same objects into an indexed temporary table.
constexpr const char* kMarkUnpreservedUserConfigSql =
    "UPDATE Config SET UserValue = CASE WHEN UserValue IS NOT NULL AND s.PreserveNonUser = 0 THEN "
    "'mark for deletion' ELSE NULL END, DesiredValue = NULL FROM ss.ConfigSchema AS s WHERE s.Component = "
    "Config.Component AND s.ConfigGroup = Config.ConfigGroup AND s.Name = Config.Name AND s.DSPIntegrated = 1 "
    "AND NOT (Config.Component='qor' AND Config.ConfigGroup='authentication' AND Config.Name='user_accounts' AND "
    "Config.Identifier LIKE 'svc-zpl-%') AND ";
constexpr const char* kMarkFailure = "Failed to mark user configuration for delete";

// The reference: "(Config.Component, Config.ConfigGroup, Config.Name, Config.Identifier) NOT IN "
// with one "(?,?,?,?)" per preserved object; "()" when there is none, which SQLite reads as an
// empty list.
std::string MarkUnpreservedUserConfigReferenceSql(size_t preservedCount) {
  std::string sql = kMarkUnpreservedUserConfigSql;
  sql += "(Config.Component, Config.ConfigGroup, Config.Name, Config.Identifier) NOT IN (";
  for (size_t i = 0; i < preservedCount; ++i) {
    if (i > 0) sql += ",";
    sql += "(?,?,?,?)";
  }
  sql += ")";
  return sql;
}

int MarkUnpreservedUserConfigReference(const DBStore::Connection& conn) {
  std::vector<ConfigStoreObjectId> preserved = ListPreservedUserObjects(conn);
  std::vector<std::string> values;
  values.reserve(preserved.size() * 4);
  for (const ConfigStoreObjectId& id : preserved) {
    values.insert(values.end(), {id.component, id.group, id.key, id.id});
  }
  return DBStore::Exec(conn, MarkUnpreservedUserConfigReferenceSql(preserved.size()), values);
}

const std::string& MarkUnpreservedUserConfigSql() {
  static const std::string sql =
      kMarkUnpreservedUserConfigSql + NotInRowSet({{"Config.Component", "p.Component"},
                                                   {"Config.ConfigGroup", "p.ConfigGroup"},
                                                   {"Config.Name", "p.Name"},
                                                   {"Config.Identifier", "p.Identifier"}},
                                                  "temp.PreservedUserObject AS p", "");
  return sql;
}

// Lives inside the caller's transaction: a rollback takes the table with it.
void MarkUnpreservedUserConfig(const DBStore::Connection& conn) {
  // NULL reads as "" here, as in ListPreservedUserObjects.
  if (DBStore::Exec(conn, "CREATE TEMP TABLE PreservedUserObject AS SELECT COALESCE(Component, '') AS Component, "
                         "COALESCE(ConfigGroup, '') AS ConfigGroup, COALESCE(Name, '') AS Name, "
                         "COALESCE(Identifier, '') AS Identifier FROM (" + PreservedIdsSql() + ")") != 0) {
    throw ConfigStoreException(CS_ERR_GENERIC, "Failed to read preserved instance ids");
  }
  const std::string& sql = MarkUnpreservedUserConfigSql();
  CSLogger::Log(CSLogger::PRIO_INFO, "Delete existing user configuration query = %s", sql.c_str());
  if (DBStore::Exec(conn, "CREATE INDEX temp.PreservedUserObjectKey ON PreservedUserObject (Component, "
                         "ConfigGroup, Name, Identifier)") != 0 ||
      DBStore::Exec(conn, sql) != 0 || DBStore::Exec(conn, "DROP TABLE temp.PreservedUserObject") != 0) {
    throw ConfigStoreException(CS_ERR_GENERIC, kMarkFailure);
  }
}

// Host API: SET rows whose instance is not in Config yet are inserted.
constexpr const char* kHostApiInsertNewReferenceSql =
    "INSERT INTO Config (Component, ConfigGroup, Name, Identifier, Version, UserValue, VitalValue, "
    "CachedValue) SELECT Component, ConfigGroup, Name, Identifier, Version, Value, VitalValue, CachedValue "
    "FROM DesiredUserConfig WHERE BootAction = 'SET' AND (Component, ConfigGroup, Name, Identifier) NOT IN "
    "( SELECT Component, ConfigGroup, Name, Identifier FROM Config )";
const std::string& HostApiInsertNewSql() {
  static const std::string sql =
      "INSERT INTO Config (Component, ConfigGroup, Name, Identifier, Version, UserValue, VitalValue, "
      "CachedValue) SELECT Component, ConfigGroup, Name, Identifier, Version, Value, VitalValue, CachedValue "
      "FROM DesiredUserConfig WHERE BootAction = 'SET' AND " +
      NotInRowSet({{"DesiredUserConfig.Component", "c.Component"},
                   {"DesiredUserConfig.ConfigGroup", "c.ConfigGroup"},
                   {"DesiredUserConfig.Name", "c.Name"},
                   {"DesiredUserConfig.Identifier", "c.Identifier"}},
                  "Config AS c", "");
  return sql;
}

// SmartNIC: SET rows are inserted unless the instance is a shared one already present.
constexpr const char* kSmartnicInsertNewReferenceSql =
    "INSERT INTO Config (Component, ConfigGroup, Name, Identifier, Version, UserValue) SELECT Component, "
    "ConfigGroup, Name, Identifier, Version, Value FROM DesiredUserConfig WHERE BootAction = 'SET' AND "
    "(Component, ConfigGroup, Name, Identifier) NOT IN ( SELECT Config.Component, Config.ConfigGroup, "
    "Config.Name, Config.Identifier FROM Config, ss.SmartnicSchema WHERE ss.SmartnicSchema.ValueType = "
    "'qor-shared' AND ss.SmartnicSchema.Component = Config.Component AND ss.SmartnicSchema.ConfigGroup = "
    "Config.ConfigGroup AND ss.SmartnicSchema.Name = Config.Name )";
const std::string& SmartnicInsertNewSql() {
  static const std::string sql =
      "INSERT INTO Config (Component, ConfigGroup, Name, Identifier, Version, UserValue) SELECT Component, "
      "ConfigGroup, Name, Identifier, Version, Value FROM DesiredUserConfig WHERE BootAction = 'SET' AND " +
      NotInRowSet({{"DesiredUserConfig.Component", "c.Component"},
                   {"DesiredUserConfig.ConfigGroup", "c.ConfigGroup"},
                   {"DesiredUserConfig.Name", "c.Name"},
                   {"DesiredUserConfig.Identifier", "c.Identifier"}},
                  "Config AS c, ss.SmartnicSchema AS n",
                  "n.ValueType = 'qor-shared' AND n.Component = c.Component AND n.ConfigGroup = c.ConfigGroup AND "
                  "n.Name = c.Name");
  return sql;
}

// SmartNIC: instances of shared non-singleton keys that no SET row names (and whose key is not
// SET_DEFAULT) are removed.
constexpr const char* kSmartnicRemoveUnnamedReferenceSql =
    "DELETE FROM Config WHERE (Component, ConfigGroup, Name, Identifier) NOT IN ( SELECT Component, "
    "ConfigGroup, Name, Identifier FROM DesiredUserConfig WHERE BootAction = 'SET' ) AND (Component, "
    "ConfigGroup, Name) NOT IN ( SELECT Component, ConfigGroup, Name FROM DesiredUserConfig WHERE BootAction "
    "= 'SET_DEFAULT' ) AND (Component, ConfigGroup, Name) IN ( SELECT ss.ConfigSchema.Component, "
    "ss.ConfigSchema.ConfigGroup, ss.ConfigSchema.Name FROM ss.SmartnicSchema, ss.ConfigSchema WHERE "
    "ss.SmartnicSchema.ValueType = 'qor-shared' AND ss.ConfigSchema.Singleton = 0 AND "
    "ss.SmartnicSchema.Component = ss.ConfigSchema.Component AND ss.SmartnicSchema.ConfigGroup = "
    "ss.ConfigSchema.ConfigGroup AND ss.SmartnicSchema.Name = ss.ConfigSchema.Name )";
const std::string& SmartnicRemoveUnnamedSql() {
  static const std::string sql =
      "DELETE FROM Config WHERE " +
      NotInRowSet({{"Config.Component", "d.Component"},
                   {"Config.ConfigGroup", "d.ConfigGroup"},
                   {"Config.Name", "d.Name"},
                   {"Config.Identifier", "d.Identifier"}},
                  "DesiredUserConfig AS d", "d.BootAction = 'SET'") +
      " AND " +
      NotInRowSet({{"Config.Component", "d.Component"}, {"Config.ConfigGroup", "d.ConfigGroup"}, {"Config.Name", "d.Name"}},
                  "DesiredUserConfig AS d", "d.BootAction = 'SET_DEFAULT'") +
      " AND (Component, ConfigGroup, Name) IN ( SELECT ss.ConfigSchema.Component, ss.ConfigSchema.ConfigGroup, "
      "ss.ConfigSchema.Name FROM ss.SmartnicSchema, ss.ConfigSchema WHERE ss.SmartnicSchema.ValueType = "
      "'qor-shared' AND ss.ConfigSchema.Singleton = 0 AND ss.SmartnicSchema.Component = ss.ConfigSchema.Component "
      "AND ss.SmartnicSchema.ConfigGroup = ss.ConfigSchema.ConfigGroup AND ss.SmartnicSchema.Name = "
      "ss.ConfigSchema.Name )";
  return sql;
}

// Generation: staged values are merged into Config. A staged row without identifier (NULL or
// empty) names every instance of its key; the reference joins on the key alone and so visits
// every staged row of the key for every instance. Where several staged rows name one instance,
// the reference keeps the last in the staging index order (key, identifier, rowid): the row of
// that exact identifier, else the row with the empty identifier, else the last NULL one. The form
// that runs finds that row with three index seeks.
constexpr const char* kMergeDesiredReferenceSql =
    "UPDATE Config SET UserValue = COALESCE(du.Value, Config.UserValue), VitalValue = "
    "COALESCE(du.VitalValue, Config.VitalValue), CachedValue = COALESCE(du.CachedValue, Config.CachedValue) "
    "FROM ( SELECT Component, ConfigGroup, Name, Identifier, Value, VitalValue, CachedValue FROM "
    "DesiredUserConfig ) AS du WHERE du.Name = Config.Name AND du.ConfigGroup = Config.ConfigGroup AND "
    "du.Component = Config.Component AND ( du.Identifier IS NULL OR du.Identifier = '' OR du.Identifier = "
    "Config.Identifier )";
constexpr const char* kMergeDesiredSql =
    "UPDATE Config SET UserValue = COALESCE(du.Value, Config.UserValue), VitalValue = "
    "COALESCE(du.VitalValue, Config.VitalValue), CachedValue = COALESCE(du.CachedValue, Config.CachedValue) "
    "FROM DesiredUserConfig AS du WHERE du.rowid = COALESCE("
    "(SELECT d.rowid FROM DesiredUserConfig AS d WHERE d.Component = Config.Component AND d.ConfigGroup = "
    "Config.ConfigGroup AND d.Name = Config.Name AND d.Identifier = Config.Identifier), "
    "(SELECT d.rowid FROM DesiredUserConfig AS d WHERE d.Component = Config.Component AND d.ConfigGroup = "
    "Config.ConfigGroup AND d.Name = Config.Name AND d.Identifier = ''), "
    "(SELECT d.rowid FROM DesiredUserConfig AS d WHERE d.Component = Config.Component AND d.ConfigGroup = "
    "Config.ConfigGroup AND d.Name = Config.Name AND d.Identifier IS NULL ORDER BY d.rowid DESC LIMIT 1))";

constexpr const char* kFoldDesiredValuesSql =
    "UPDATE Config AS c SET UserValue = CASE WHEN DesiredValue IS NULL THEN UserValue ELSE DesiredValue END, "
    "DesiredValue = NULL, Success = (SELECT NoRestore FROM ss.ConfigSchema AS s WHERE s.Name = c.Name AND "
    "s.ConfigGroup = c.ConfigGroup AND s.Component = c.Component)";

}  // namespace

int ApplyBootModeStep(const DBStore::Connection& conn, BOOTMODE mode) {
  switch (mode) {
    case BOOT_MODE_DESIRED_USER_CONFIG: GenerateDesiredUserConfiguration(conn); return 1;
    case BOOT_MODE_NEW_STORE: ProcessBootConfigurationDocument(conn); return 0;
    case BOOT_MODE_SMARTNIC_CONFIG: ApplySmartnicBootConfiguration(conn); return 0;
    case BOOT_MODE_HOSTAPI_CONFIG: ApplyHostApiBootConfiguration(conn); return 0;
    default: return 0;
  }
}

void FoldDesiredValues(const DBStore::Connection& conn) {
  if (DBStore::Exec(conn, kFoldDesiredValuesSql) != 0) {
    throw ConfigStoreException(CS_ERR_GENERIC, "Failed to reset success flag for configuration");
  }
}

void ApplyHostApiBootConfiguration(const DBStore::Connection& conn) {
  CSLogger::Log(CSLogger::PRIO_INFO, "Setting up hostapi configuration.");
  RunSteps(
      conn,
      {
          {"UPDATE Config SET UserValue = CASE WHEN UserValue IS NOT NULL THEN 'mark for deletion' ELSE NULL END, "
           "DesiredValue = NULL WHERE (Component, ConfigGroup, Name, Identifier) IN ( SELECT Component, ConfigGroup, "
           "Name, Identifier FROM DesiredUserConfig WHERE BootAction = 'DELETE_INSTANCE' );",
           "Failed to mark configurations with BootAction=DELETE_INSTANCE for deletion"},
          {"UPDATE Config SET UserValue = CASE WHEN UserValue IS NOT NULL THEN 'mark for deletion' ELSE NULL END, "
           "DesiredValue = NULL WHERE (Component, ConfigGroup, Name) IN ( SELECT Component, ConfigGroup, Name FROM "
           "DesiredUserConfig WHERE BootAction IN ('SET','DELETE','SET_DEFAULT') );",
           "Failed to mark configurations for deletion"},
          {HostApiInsertNewSql().c_str(), "Failed to process BootAction=SET for new configs"},
          {"UPDATE Config SET UserValue = du.Value, VitalValue = CASE WHEN du.VitalValue IS NOT NULL THEN "
           "du.VitalValue ELSE Config.VitalValue END, CachedValue = CASE WHEN du.CachedValue IS NOT NULL THEN "
           "du.CachedValue ELSE Config.CachedValue END FROM ( SELECT Component, ConfigGroup, Name, Identifier, "
           "Value, VitalValue, CachedValue FROM DesiredUserConfig WHERE BootAction = 'SET' ) AS du WHERE "
           "Config.Component = du.Component AND Config.ConfigGroup = du.ConfigGroup AND Config.Name = du.Name AND "
           "Config.Identifier = du.Identifier;",
           "Failed to process BootAction=SET to update existing configs"},
          {"DELETE FROM Config WHERE UserValue='mark for deletion'", "Failed to process BootAction=DELETE"},
          {kRefillSetDefaultSql, "Failed to process BootAction=SET_DEFAULT for deleted configs"},
      });
  CSLogger::Log(CSLogger::PRIO_INFO, "Setting up hostapi configuration completed.");
}

void ApplySmartnicBootConfiguration(const DBStore::Connection& conn) {
  CSLogger::Log(CSLogger::PRIO_INFO, "Setting up smartnic boot configuration.");
  RunSteps(
      conn,
      {
          {"DELETE FROM Config WHERE (Component, ConfigGroup, Name) IN ( SELECT Component, ConfigGroup, Name FROM "
           "DesiredUserConfig WHERE BootAction IN ('DELETE', 'SET_DEFAULT') )",
           "Failed to process BootAction=DELETE"},
          {kRefillSetDefaultSql, "Failed to process BootAction=SET_DEFAULT"},
          {SmartnicInsertNewSql().c_str(), "Failed to process BootAction=SET for new configs"},
          {"UPDATE Config SET UserValue = du.Value FROM ( SELECT Component, ConfigGroup, Name, Identifier, Value "
           "FROM DesiredUserConfig WHERE BootAction = 'SET' ) AS du WHERE Config.Component = du.Component AND "
           "Config.ConfigGroup = du.ConfigGroup AND Config.Name = du.Name AND Config.Identifier = du.Identifier",
           "Failed to process BootAction=SET for existing configs"},
          {SmartnicRemoveUnnamedSql().c_str(), "Failed to process BootAction=SET for non-existing configs"},
      });
  CSLogger::Log(CSLogger::PRIO_INFO, "Smartnic boot configuration completed.");
}

void GenerateDesiredUserConfiguration(const DBStore::Connection& conn) {
  CSLogger::Log(CSLogger::PRIO_INFO, "Boot with new desired configuration.");
  MarkUnpreservedUserConfig(conn);
  RunSteps(
      conn,
      {
          // Config's key columns are NOT NULL: a staged row without identifier is skipped here and
          // merged into every instance of its key by the next step.
          {"INSERT OR IGNORE INTO Config ( Component, ConfigGroup, Name, Identifier, UserValue, VitalValue, "
           "CachedValue ) SELECT Component, ConfigGroup, Name, Identifier, Value, VitalValue, CachedValue FROM "
           "DesiredUserConfig;",
           "Failed to insert desired configuration to config table"},
          {kMergeDesiredSql, "Failed to update config table"},
          {"Delete from DesiredUserConfig", "Failed to cleanup desired configuration"},
          {"DELETE FROM Config WHERE UserValue='mark for deletion'", "Failed to cleanup previous user configuration"},
      });
}

std::vector<EquivalentStatement> BootTimeEquivalentStatements() {
  auto text = [](std::string sql) -> EquivalentStatement::Run {
    return [sql](const DBStore::Connection& conn, std::vector<std::string>&) { return DBStore::Exec(conn, sql); };
  };
  auto marking = [](const DBStore::Connection& conn, std::vector<std::string>&) {
    try {
      MarkUnpreservedUserConfig(conn);
      return 0;
    } catch (const ConfigStoreException&) {
      return 1;
    }
  };
  return {
      {"host API insert of new SET rows", text(kHostApiInsertNewReferenceSql), text(HostApiInsertNewSql())},
      {"SmartNIC insert of new SET rows", text(kSmartnicInsertNewReferenceSql), text(SmartnicInsertNewSql())},
      {"SmartNIC removal of unnamed shared instances", text(kSmartnicRemoveUnnamedReferenceSql),
       text(SmartnicRemoveUnnamedSql())},
      {"marking of unpreserved user values",
       [](const DBStore::Connection& conn, std::vector<std::string>&) { return MarkUnpreservedUserConfigReference(conn); },
       marking},
      {"merge of staged values", text(kMergeDesiredReferenceSql), text(kMergeDesiredSql)},
  };
}

std::vector<ConfigStoreObjectId> ListPreservedUserObjects(const DBStore::Connection& conn) {
  std::vector<ConfigStoreObjectId> preserved;
  // Columns: Component, ConfigGroup, Name, Identifier (NULL reads as "").
  auto keep = [&preserved](const DBStore::Row& row) {
    preserved.push_back(ConfigStoreObjectId{row.String(2), row.String(0), row.String(1), row.String(3)});
  };
  if (DBStore::QueryEach(conn, PreservedIdsSql(), keep) != 0) {
    throw ConfigStoreException(CS_ERR_GENERIC, "Failed to read preserved instance ids");
  }
  return preserved;
}

}  // namespace QorConfigStore
