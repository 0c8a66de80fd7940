#include "bench/Floors.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <map>
#include <pugixml.hpp>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <tuple>
#include <unordered_map>
#include <unordered_set>

#include "bench/PeerValidator.h"
#include "bench/RawSql.h"
#include "configstore/desired/Staging.h"
#include "configstore/maintenance/RowSetSql.h"
#include "platform/host/HostRoot.h"

namespace fs = std::filesystem;

namespace bench::floor {
namespace {

std::string ConfigStore() { return Host::Resolve("/etc/talvex/configstore/current-store-1"); }
std::string DataFileStore() { return Host::Resolve("/etc/talvex/configstore/datafile-store"); }
std::string SchemaStore() { return Host::Resolve("/var/lib/talvex/schemastore/schema-store"); }

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void Parse(rapidjson::Document& doc, const std::string& text) {
  if (doc.Parse<rapidjson::kParseIterativeFlag>(text.c_str(), text.size()).HasParseError()) {
    throw std::runtime_error("not JSON");
  }
}

std::string Compact(const rapidjson::Value& value) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  value.Accept(writer);
  return std::string(buffer.GetString(), buffer.GetSize());
}

std::string_view View(const rapidjson::Value& v) { return {v.GetString(), v.GetStringLength()}; }

bool Flag(const rapidjson::Value& o, const char* name) {
  auto it = o.FindMember(name);
  return it != o.MemberEnd() && it->value.IsBool() && it->value.GetBool();
}

// The newest file of each package: names "<kit>-<version>.json", same-length versions.
std::vector<std::string> NewestFiles(const std::string& dir) {
  std::map<std::string, std::string> newest;
  for (const auto& entry : fs::directory_iterator(dir)) {
    std::string name = entry.path().filename().string();
    std::string stem = name.substr(0, name.size() - 5);
    std::string kit = stem.substr(0, stem.rfind('-'));
    std::string& chosen = newest[kit];
    if (name > chosen) chosen = name;
  }
  std::vector<std::string> files;
  for (auto& [kit, name] : newest) files.push_back(dir + "/" + name);
  return files;
}

std::string InstanceIdName(const rapidjson::Value& schema) {
  auto props = schema.FindMember("properties");
  if (props == schema.MemberEnd()) return "";
  for (auto& m : props->value.GetObject()) {
    if (Flag(m.value, "instanceId")) return std::string(View(m.name));
  }
  return "";
}

void RegisterSchemas() {
  RawDb db(SchemaStore(), true);
  db.Exec("BEGIN IMMEDIATE");
  for (const char* table : {"ConfigSchema", "SmartnicSchema", "DataFileSchema", "SchemaFile"}) {
    db.Exec(std::string("DELETE FROM ") + table);
  }
  RawStmt savepoint(db.get(), "SAVEPOINT schema_element"), release(db.get(), "RELEASE schema_element");
  RawStmt config(db.get(),
                 "INSERT OR REPLACE INTO ConfigSchema (Component, ConfigGroup, Name, SchemaId, Version, SchemaJson, "
                 "InstanceIdName, NoRestore, PreserveNonUser, DSPIntegrated, Singleton, MutableDefaultConfig, "
                 "SchemaType, SolutionUserInstances, PreservedInstanceIds) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, "
                 "?, ?, ?)");
  RawStmt dropNic(db.get(), "DELETE FROM SmartnicSchema WHERE Component = ? AND ConfigGroup = ? AND Name = ?");
  RawStmt nic(db.get(), "INSERT INTO SmartnicSchema (Component, ConfigGroup, Name, ValueType) VALUES (?, ?, ?, ?)");
  RawStmt dataFile(db.get(),
                   "INSERT OR REPLACE INTO DataFileSchema (Component, KEY, DirName, Category) VALUES (?, ?, ?, ?)");
  RawStmt file(db.get(), "INSERT OR REPLACE INTO SchemaFile (SchemaId, Component, Category, Path) VALUES (?, ?, ?, ?)");
  for (const std::string& path : NewestFiles(Host::Resolve("/usr/lib/talvex/configmanager/schemas"))) {
    rapidjson::Document doc;
    Parse(doc, ReadAll(path));
    const std::string schemaId =
        std::string(View(doc["metadata"]["kitname"])) + "-" + std::string(View(doc["metadata"]["kitversion"]));
    for (const rapidjson::Value& e : doc["data"].GetArray()) {
      savepoint.Run();
      if (e.HasMember("schema")) {
        const rapidjson::Value& schema = e["schema"];
        auto preserved = e.FindMember("preserveInstanceIds");
        config.Text(1, View(e["component"])).Text(2, View(e["group"])).Text(3, View(e["key"])).Text(4, schemaId);
        config.Text(5, View(e["version"])).Text(6, Compact(schema)).Text(7, InstanceIdName(schema));
        config.Int(8, Flag(e, "noRestore")).Int(9, Flag(e, "preserveNonUser")).Int(10, Flag(e, "dspIntegrated"));
        config.Int(11, Flag(e, "singleton")).Int(12, Flag(e, "mutableDefaultConfig"));
        config.Int(13, e.HasMember("schemaType") ? e["schemaType"].GetInt() : 0).Text(14, "[]");
        config.Text(15, preserved == e.MemberEnd() ? std::string("[]") : Compact(preserved->value)).Run();
        dropNic.Text(1, View(e["component"])).Text(2, View(e["group"])).Text(3, View(e["key"])).Run();
        if (e.HasMember("smartnic")) {
          nic.Text(1, View(e["component"])).Text(2, View(e["group"])).Text(3, View(e["key"]));
          nic.Text(4, View(e["smartnic"]["schema"])).Run();
        }
      } else if (e.HasMember("datafile")) {
        dataFile.Text(1, View(e["component"])).Text(2, View(e["key"])).Text(3, View(e["datafile"]["dirName"]));
        dataFile.Text(4, View(e["datafile"]["category"])).Run();
      } else {
        for (const rapidjson::Value& f : e["files"].GetArray()) {
          file.Text(1, schemaId).Text(2, View(e["component"])).Text(3, View(f["category"])).Text(4, View(f["path"]));
          file.Run();
        }
      }
      release.Run();
    }
  }
  db.Exec("COMMIT");
}

std::string NewUuid() {
  static std::mt19937_64 rng(42);
  char text[40];
  uint64_t a = rng(), b = rng();
  std::snprintf(text, sizeof text, "%08x-%04x-4%03x-8%03x-%012llx", static_cast<unsigned>(a >> 32),
                static_cast<unsigned>(a >> 16) & 0xffff, static_cast<unsigned>(a) & 0xfff,
                static_cast<unsigned>(b >> 48) & 0xfff, static_cast<unsigned long long>(b & 0xffffffffffffULL));
  return text;
}

// The user, vital and cached parts of one instance, by the marks of its top-level properties; the
// vital and cached parts carry the instance id and are "" when they hold nothing else.
void SplitParts(const rapidjson::Value& instance, const rapidjson::Value& properties, const std::string& idName,
                std::string parts[3]) {
  rapidjson::StringBuffer buffers[3];
  rapidjson::Writer<rapidjson::StringBuffer> writers[3] = {rapidjson::Writer<rapidjson::StringBuffer>(buffers[0]),
                                                           rapidjson::Writer<rapidjson::StringBuffer>(buffers[1]),
                                                           rapidjson::Writer<rapidjson::StringBuffer>(buffers[2])};
  bool any[3] = {false, false, false};
  for (auto& w : writers) w.StartObject();
  for (auto& m : instance.GetObject()) {
    const bool isId = View(m.name) == idName;
    auto prop = properties.FindMember(m.name);
    int part = 0;
    if (prop != properties.MemberEnd()) part = Flag(prop->value, "vital") ? 1 : Flag(prop->value, "cached") ? 2 : 0;
    for (int p = 0; p < 3; ++p) {
      if (p == part || (isId && p != 0)) {
        writers[p].Key(m.name.GetString(), m.name.GetStringLength());
        m.value.Accept(writers[p]);
        if (!isId || p == 0) any[p] = true;
      }
    }
  }
  for (int p = 0; p < 3; ++p) {
    writers[p].EndObject();
    parts[p] = any[p] ? std::string(buffers[p].GetString(), buffers[p].GetSize()) : std::string();
  }
}

void LoadDefaults() {
  RawDb schemas(SchemaStore(), false, 0);
  RawStmt lookup(schemas.get(),
                 "SELECT c.Version, c.SchemaJson, c.InstanceIdName FROM ConfigSchema AS c LEFT JOIN SmartnicSchema AS s "
                 "ON s.Component = c.Component AND s.ConfigGroup = c.ConfigGroup AND s.Name = c.Name "
                 "WHERE c.Component = ? AND c.ConfigGroup = ? AND c.Name = ?");
  RawDb db(ConfigStore(), true);
  db.Exec("BEGIN IMMEDIATE");
  db.Exec("DELETE from DefaultConfig");
  RawStmt insert(db.get(),
                 "INSERT OR REPLACE INTO 'DefaultConfig'(Component, ConfigGroup, Name, Identifier, Value, VitalValue, "
                 "CachedValue, Version) VALUES (?, ?, ?, ?, ?, ?, ?, ?);");
  for (const std::string& path : NewestFiles(Host::Resolve("/etc/talvex/default-config"))) {
    rapidjson::Document doc;
    Parse(doc, ReadAll(path));
    auto& a = doc.GetAllocator();
    for (rapidjson::Value& e : doc["data"].GetArray()) {
      std::string version, schemaText, idName;
      bool found = false;
      lookup.Text(1, View(e["component"])).Text(2, View(e["group"])).Text(3, View(e["key"])).Run([&](sqlite3_stmt* s) {
        found = true;
        version = reinterpret_cast<const char*>(sqlite3_column_text(s, 0));
        schemaText = reinterpret_cast<const char*>(sqlite3_column_text(s, 1));
        idName = reinterpret_cast<const char*>(sqlite3_column_text(s, 2));
      });
      if (!found) continue;
      rapidjson::Document schema;
      Parse(schema, schemaText);
      const rapidjson::Value& properties = schema["properties"];
      peer::Validator validator(schema);
      auto write = [&](rapidjson::Value& instance) {
        if (!validator.Valid(instance)) throw std::runtime_error("a default instance is not valid");
        if (idName == "cs_generated_id" && !instance.HasMember("cs_generated_id")) {
          std::string id = NewUuid();
          instance.AddMember("cs_generated_id", rapidjson::Value(id.c_str(), a), a);
        }
        std::string parts[3];
        SplitParts(instance, properties, idName, parts);
        std::string_view id = idName.empty() ? std::string_view() : View(instance[idName.c_str()]);
        insert.Text(1, View(e["component"])).Text(2, View(e["group"])).Text(3, View(e["key"])).Text(4, id);
        insert.Text(5, parts[0]).Text(6, parts[1]).Text(7, parts[2]).Text(8, version).Run();
      };
      rapidjson::Value& config = e["config"];
      if (config.IsArray()) {
        for (rapidjson::Value& instance : config.GetArray()) write(instance);
      } else {
        write(config);
      }
    }
  }
  db.Exec("COMMIT");
}

void Restore() {
  const std::string backup = Host::Resolve("/var/lib/talvex/configstore/backup/current-store-1");
  const std::string dataBackup = Host::Resolve("/var/lib/talvex/configstore/backup/datafile-store");
  for (const std::string& path : {backup, dataBackup}) {
    RawDb check(path, false, 0);
    if (check.Scalar("PRAGMA quick_check") != "ok") throw std::runtime_error("backup is damaged");
    check.Scalar("SELECT name FROM sqlite_master WHERE type = 'table'");
  }
  fs::remove(ConfigStore());
  fs::copy_file(backup, ConfigStore(), fs::copy_options::overwrite_existing);
  fs::copy_file(dataBackup, DataFileStore(), fs::copy_options::overwrite_existing);
}

void CleanupAutoConfigOn(RawDb& db) {
  db.Exec("UPDATE Config SET AutoConfValue=NULL");
  db.Exec("DELETE FROM Config WHERE UserValue IS NULL AND VitalValue IS NULL AND CachedValue IS NULL "
          "AND DesiredValue IS NULL");
}

void Attach(RawDb& db) { RawStmt(db.get(), "ATTACH DATABASE ? AS ss").Text(1, SchemaStore()).Run(); }

constexpr const char* kFold =
    "UPDATE Config AS c SET UserValue = CASE WHEN DesiredValue IS NULL THEN UserValue ELSE DesiredValue END, "
    "DesiredValue = NULL, Success = (SELECT NoRestore FROM ss.ConfigSchema AS s WHERE s.Name = c.Name AND "
    "s.ConfigGroup = c.ConfigGroup AND s.Component = c.Component)";

// The desired-configuration stage of a boot: attach, one transaction with `apply` and the fold.
template <typename Apply>
void ApplyAndFold(Apply apply) {
  RawDb db(ConfigStore(), true);
  Attach(db);
  db.Exec("BEGIN IMMEDIATE");
  apply(db);
  db.Exec(kFold);
  db.Exec("COMMIT");
  db.Exec("DETACH DATABASE ss");
  db.Exec("INSERT OR REPLACE INTO KeyValue (Key, Value) VALUES ('BOOT_INFO', '{\"type\":0}')");
  db.Exec("INSERT OR REPLACE INTO KeyValue (Key, Value) VALUES ('IS_BOOT', 'true')");
  db.Exec("INSERT OR REPLACE INTO KeyValue (Key, Value) VALUES ('BOOT_MODE', '0')");
}

void CleanupStoreRows() {
  {
    RawDb db(ConfigStore(), true);
    Attach(db);
    db.Exec("DELETE FROM Config WHERE " +
            QorConfigStore::NotInRowSet(
                {{"Config.Component", "s.Component"}, {"Config.ConfigGroup", "s.ConfigGroup"}, {"Config.Name", "s.Name"}},
                "ss.ConfigSchema AS s", ""));
    db.Exec("DETACH DATABASE ss");
  }
  RawDb db(DataFileStore(), true);
  Attach(db);
  db.Exec("DELETE FROM DataFileMetadata WHERE " +
          QorConfigStore::NotInRowSet({{"DataFileMetadata.Component", "s.Component"}, {"DataFileMetadata.KEY", "s.KEY"}},
                                      "ss.DataFileSchema AS s", ""));
  db.Exec("DETACH DATABASE ss");
}

}  // namespace

void ProcessSchemas() {
  RegisterSchemas();
  LoadDefaults();
}

void Boot(bool schemaChange) {
  Restore();
  if (schemaChange) ProcessSchemas();
  {
    RawDb db(ConfigStore(), true);
    CleanupAutoConfigOn(db);
  }
  if (schemaChange) CleanupStoreRows();
  ApplyAndFold([](RawDb&) {});
}

void DesiredBoot() {
  Restore();
  {
    RawDb db(ConfigStore(), true);
    CleanupAutoConfigOn(db);
  }
  ApplyAndFold([](RawDb& db) {
    db.Exec("CREATE TEMP TABLE PreservedUserObject AS SELECT COALESCE(Component, '') AS Component, "
            "COALESCE(ConfigGroup, '') AS ConfigGroup, COALESCE(Name, '') AS Name, COALESCE(Identifier, '') AS "
            "Identifier FROM (SELECT s.Component AS Component, s.ConfigGroup AS ConfigGroup, s.Name AS Name, "
            "p.value AS Identifier FROM ss.ConfigSchema AS s, json_each(s.PreservedInstanceIds) AS p "
            "WHERE COALESCE(s.InstanceIdName, '') NOT IN ('', 'cs_generated_id') AND s.PreservedInstanceIds IS NOT "
            "NULL AND p.type = 'text' ORDER BY s.Component, s.ConfigGroup, s.Name, p.id)");
    db.Exec("CREATE INDEX temp.PreservedUserObjectKey ON PreservedUserObject (Component, ConfigGroup, Name, "
            "Identifier)");
    db.Exec("UPDATE Config SET UserValue = CASE WHEN UserValue IS NOT NULL AND s.PreserveNonUser = 0 THEN "
            "'mark for deletion' ELSE NULL END, DesiredValue = NULL FROM ss.ConfigSchema AS s WHERE s.Component = "
            "Config.Component AND s.ConfigGroup = Config.ConfigGroup AND s.Name = Config.Name AND s.DSPIntegrated = 1 "
            "AND NOT (Config.Component='qor' AND Config.ConfigGroup='authentication' AND Config.Name='user_accounts' "
            "AND Config.Identifier LIKE 'svc-zpl-%') AND " +
            QorConfigStore::NotInRowSet({{"Config.Component", "p.Component"},
                                         {"Config.ConfigGroup", "p.ConfigGroup"},
                                         {"Config.Name", "p.Name"},
                                         {"Config.Identifier", "p.Identifier"}},
                                        "temp.PreservedUserObject AS p", ""));
    db.Exec("DROP TABLE temp.PreservedUserObject");
    db.Exec("INSERT OR IGNORE INTO Config ( Component, ConfigGroup, Name, Identifier, UserValue, VitalValue, "
            "CachedValue ) SELECT Component, ConfigGroup, Name, Identifier, Value, VitalValue, CachedValue FROM "
            "DesiredUserConfig;");
    db.Exec("UPDATE Config SET UserValue = COALESCE(du.Value, Config.UserValue), VitalValue = "
            "COALESCE(du.VitalValue, Config.VitalValue), CachedValue = COALESCE(du.CachedValue, Config.CachedValue) "
            "FROM DesiredUserConfig AS du WHERE du.rowid = COALESCE("
            "(SELECT d.rowid FROM DesiredUserConfig AS d WHERE d.Component = Config.Component AND d.ConfigGroup = "
            "Config.ConfigGroup AND d.Name = Config.Name AND d.Identifier = Config.Identifier), "
            "(SELECT d.rowid FROM DesiredUserConfig AS d WHERE d.Component = Config.Component AND d.ConfigGroup = "
            "Config.ConfigGroup AND d.Name = Config.Name AND d.Identifier = ''), "
            "(SELECT d.rowid FROM DesiredUserConfig AS d WHERE d.Component = Config.Component AND d.ConfigGroup = "
            "Config.ConfigGroup AND d.Name = Config.Name AND d.Identifier IS NULL ORDER BY d.rowid DESC LIMIT 1))");
    db.Exec("Delete from DesiredUserConfig");
    db.Exec("DELETE FROM Config WHERE UserValue='mark for deletion'");
  });
}

void SetDesiredUserConfig(rapidjson::Document& doc) {
  struct Key {
    std::string version, idName;
    bool mutableDefault = false;
  };
  std::map<std::tuple<std::string, std::string, std::string>, Key> keys;
  {
    RawDb schemas(SchemaStore(), false, 0);
    RawStmt(schemas.get(),
            "SELECT c.Component AS Component, c.ConfigGroup AS ConfigGroup, c.Name AS Name, c.Version AS Version, "
            "c.InstanceIdName AS InstanceIdName, c.MutableDefaultConfig AS MutableDefaultConfig FROM ConfigSchema AS "
            "c LEFT JOIN SmartnicSchema AS s ON s.Component = c.Component AND s.ConfigGroup = c.ConfigGroup AND "
            "s.Name = c.Name ORDER BY c.Component, c.ConfigGroup, c.Name")
        .Run([&](sqlite3_stmt* s) {
          auto text = [&](int i) { return std::string(reinterpret_cast<const char*>(sqlite3_column_text(s, i))); };
          keys[{text(0), text(1), text(2)}] = Key{text(3), text(4), sqlite3_column_int(s, 5) != 0};
        });
  }
  RawDb db(ConfigStore(), true);
  db.Exec("BEGIN IMMEDIATE");
  db.Exec("DELETE from DesiredUserConfig");
  RawStmt stage(db.get(),
                "INSERT OR REPLACE INTO DesiredUserConfig (Identifier, Name, ConfigGroup, Component, Version, Value, "
                "BootAction) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7)");
  std::map<std::tuple<std::string, std::string, std::string>, std::vector<std::string>> staged;
  auto& a = doc.GetAllocator();
  for (auto& c : doc["profile"].GetObject()) {
    for (auto& g : c.value.GetObject()) {
      for (auto& k : g.value.GetObject()) {
        std::tuple<std::string, std::string, std::string> id{c.name.GetString(), g.name.GetString(),
                                                             k.name.GetString()};
        auto key = keys.find(id);
        if (key == keys.end()) continue;
        auto one = [&](rapidjson::Value& object) {
          const std::string& idName = key->second.idName;
          if (idName == "cs_generated_id" && !object.HasMember("cs_generated_id")) {
            object.AddMember("cs_generated_id", rapidjson::Value(NewUuid().c_str(), a), a);
          }
          std::string instance = idName.empty() ? "" : object[idName.c_str()].GetString();
          stage.Text(1, instance).Text(2, std::get<2>(id)).Text(3, std::get<1>(id)).Text(4, std::get<0>(id));
          stage.Text(5, key->second.version).Text(6, Compact(object)).Text(7, "SET").Run();
          staged[id].push_back(instance);
        };
        if (k.value.IsObject()) {
          one(k.value);
        } else if (k.value.IsArray()) {
          for (auto& object : k.value.GetArray()) one(object);
        }
      }
    }
  }
  db.Exec("SELECT Identifier, UserValue, VitalValue FROM Config WHERE Component = 'qor' AND ConfigGroup = "
          "'network_zsw' AND Name = 'switches' AND Identifier NOT IN (SELECT Identifier FROM DesiredUserConfig WHERE "
          "Component = 'qor' AND ConfigGroup = 'network_zsw' AND Name = 'switches')");
  for (auto& [id, key] : keys) {
    if (!key.mutableDefault) continue;
    std::string sql =
        "INSERT INTO DesiredUserConfig (Component, ConfigGroup, Name, Identifier, Version, Value, VitalValue, "
        "CachedValue) SELECT Component, ConfigGroup, Name, Identifier, Version, Value, VitalValue, CachedValue FROM "
        "DefaultConfig WHERE Component = ? AND ConfigGroup = ? AND Name = ?";
    auto found = staged.find(id);
    const bool exclude = found != staged.end() && !found->second.empty() && key.idName != "cs_generated_id";
    if (exclude) {
      sql += " AND Identifier NOT IN (";
      for (size_t i = 0; i < found->second.size(); ++i) sql += i == 0 ? "?" : ",?";
      sql += ")";
    }
    RawStmt copy(db.get(), sql);
    copy.Text(1, std::get<0>(id)).Text(2, std::get<1>(id)).Text(3, std::get<2>(id));
    if (exclude) {
      for (size_t i = 0; i < found->second.size(); ++i) copy.Text(static_cast<int>(i + 4), found->second[i]);
    }
    copy.Run();
  }
  db.Exec("SELECT Identifier, UserValue, VitalValue FROM Config WHERE Component='qor' and "
          "ConfigGroup='authorization' and Name='permissions'");
  db.Exec("INSERT INTO DesiredUserConfig (Identifier, Name, ConfigGroup, Component, Version, Value, BootAction) SELECT "
          "Identifier, Name, ConfigGroup, Component, Version, UserValue, 'SET' FROM Config WHERE Component = 'qor' AND "
          "ConfigGroup = 'advanced_options' AND Name = 'user_vars' AND Identifier in ('ZTN_ScxCpuSize', "
          "'ZTN_ScxMemSize', 'ZTN_IP', 'ZTN_Thumbprint', 'ZTN_Token', 'ZTN_NodeUUID', 'ZTN_ValidateManagerCert', "
          "'ZTN_OptionalServices')");
  db.Exec("INSERT OR REPLACE INTO KeyValue (Key, Value) VALUES ('BOOT_MODE', '1')");
  db.Exec("COMMIT");
}

void CleanupStore() { CleanupStoreRows(); }

void CleanupAutoConfig() {
  RawDb db(ConfigStore(), true);
  CleanupAutoConfigOn(db);
}

void CleanupDataFiles() {
  RawDb db(DataFileStore(), true);
  std::unordered_map<std::string, std::set<std::string>> recorded;
  RawStmt(db.get(), "SELECT DirName, FileName FROM DataFileMetadata").Run([&](sqlite3_stmt* s) {
    recorded[reinterpret_cast<const char*>(sqlite3_column_text(s, 0))].insert(
        reinterpret_cast<const char*>(sqlite3_column_text(s, 1)));
  });
  const fs::path root = Host::Resolve("/var/cache/datafiles");
  for (const auto& dir : fs::directory_iterator(root)) {
    const std::string name = dir.path().filename().string();
    auto files = recorded.find(name);
    if (!dir.is_directory() || files == recorded.end()) {
      fs::remove_all(dir.path());
      continue;
    }
    std::vector<fs::path> entries;
    for (const auto& entry : fs::directory_iterator(dir.path())) entries.push_back(entry.path());
    for (const fs::path& entry : entries) {
      if (files->second.erase(entry.filename().string()) == 0) fs::remove_all(entry);
    }
  }
  for (const auto& [dir, missing] : recorded) {
    if (missing.empty()) continue;
    std::string sql = "DELETE FROM DataFileMetadata WHERE DirName=? AND FileName IN (";
    for (size_t i = 0; i < missing.size(); ++i) sql += i == 0 ? "?" : ",?";
    RawStmt remove(db.get(), sql + ")");
    remove.Text(1, dir);
    int index = 2;
    for (const std::string& file : missing) remove.Text(index++, file);
    remove.Run();
  }
}

void Metrics() {
  RawDb db(ConfigStore(), true);
  for (const char* sql : {"SELECT SUM(LENGTH(VitalValue)) as VitalSize FROM Config",
                          "SELECT SUM(LENGTH(UserValue)) as UserSize FROM Config",
                          "SELECT SUM(LENGTH(CachedValue)) as CachedSize FROM Config",
                          "SELECT COUNT(*) as RowCount FROM Config"}) {
    if (std::stoll(db.Scalar(sql)) < 0) throw std::runtime_error("negative size");
  }
  std::vector<std::string> rows;
  RawStmt(db.get(),
          "SELECT Component, ConfigGroup, Name, LENGTH (VitalValue) VitalConfigSize, LENGTH (UserValue) "
          "UserConfigSize, LENGTH (CachedValue) CachedConfigSize FROM Config")
      .Run([&](sqlite3_stmt* s) {
        std::string row;
        for (int i = 0; i < 6; ++i) {
          const unsigned char* text = sqlite3_column_text(s, i);
          row += text ? reinterpret_cast<const char*>(text) : "0";
          if (i < 5) row += ',';
        }
        rows.push_back(std::move(row));
      });
}

std::vector<std::string> FilterStickyBitFiles(const std::vector<std::string>& files) {
  std::unordered_set<std::string> declared;
  {
    RawDb schemas(SchemaStore(), false, 0);
    RawStmt(schemas.get(), "SELECT SchemaId, Component, Category, Path FROM SchemaFile ORDER BY rowid")
        .Run([&](sqlite3_stmt* s) { declared.insert(reinterpret_cast<const char*>(sqlite3_column_text(s, 3))); });
  }
  std::unordered_set<std::string> allowed;
  const std::string imgdb = Host::Resolve("/var/db/talvex/imgdb/");
  pugi::xml_document profile;
  if (!profile.load_file((imgdb + "profile.xml").c_str())) throw std::runtime_error("profile.xml");
  for (pugi::xml_node p : profile.child("imageProfile").child("packages").children("package")) {
    pugi::xml_document package;
    if (!package.load_file((imgdb + "packages/" + p.text().get() + ".xml").c_str())) throw std::runtime_error("xml");
    bool restricted = false;
    for (pugi::xml_node tag : package.child("package").child("tags").children("tag")) {
      restricted = restricted || std::string(tag.text().get()) == "RestrictStickyFiles";
    }
    if (restricted) continue;
    for (pugi::xml_node archive : package.child("package").child("archives").children("archive")) {
      allowed.insert(archive.text().get());
    }
  }
  std::vector<std::string> kept, skipped;
  const std::string nodes = Host::Resolve("/sys/plon/system/lumafs/inodes/");
  for (const std::string& path : files) {
    bool keep = declared.count(path) != 0;
    if (!keep) {
      bool link = false;
      for (std::string prefix = path; !prefix.empty(); prefix.erase(std::min(prefix.size(), prefix.rfind('/')))) {
        struct stat st {};
        if (lstat(Host::Resolve(prefix).c_str(), &st) == 0 && S_ISLNK(st.st_mode)) link = true;
      }
      auto slash = path.rfind('/');
      struct stat st {};
      if (!link && stat(Host::Resolve(path.substr(0, slash) + "/.#" + path.substr(slash + 1)).c_str(), &st) == 0) {
        char record[257] = {};
        int fd = open((nodes + std::to_string(st.st_ino) + "/stats").c_str(), O_RDONLY);
        if (fd >= 0) {
          ssize_t n = read(fd, record, 256);
          close(fd);
          keep = n > 36 && allowed.count(record + 36) != 0;
        }
      }
    }
    (keep ? kept : skipped).push_back(path);
  }
  if (!skipped.empty()) {
    std::ofstream out(Host::Resolve("/var/run/talvex/files/skip-backup-list"), std::ios::trunc);
    for (const auto& path : skipped) out << path << '\n';
  }
  return kept;
}

size_t Export(const std::string& path) {
  using Object = std::array<std::string, 4>;  // component, group, key, identifier
  struct Key {
    std::string idName;
    bool singleton = false, mutableDefault = false;
  };
  std::map<std::tuple<std::string, std::string, std::string>, Key> keys;
  {
    RawDb schemas(SchemaStore(), false, 0);
    RawStmt(schemas.get(), "SELECT Component, ConfigGroup, Name, InstanceIdName, Singleton, MutableDefaultConfig FROM "
                           "ConfigSchema")
        .Run([&](sqlite3_stmt* s) {
          auto text = [&](int i) { return std::string(reinterpret_cast<const char*>(sqlite3_column_text(s, i))); };
          keys[{text(0), text(1), text(2)}] = Key{text(3), sqlite3_column_int(s, 4) != 0, sqlite3_column_int(s, 5) != 0};
        });
  }
  auto text = [](sqlite3_stmt* s, int i) {
    const unsigned char* t = sqlite3_column_text(s, i);
    return t ? std::string(reinterpret_cast<const char*>(t)) : std::string();
  };
  RawDb db(ConfigStore(), false);
  std::vector<std::pair<Object, std::string>> rows;  // objects with a user value
  RawStmt(db.get(),
          "SELECT Component, ConfigGroup, Name, Identifier, UserValue, VitalValue, CachedValue, Revision, CreationTime "
          "FROM Config")
      .Run([&](sqlite3_stmt* s) {
        if (sqlite3_column_type(s, 4) != SQLITE_NULL) rows.push_back({{text(s, 0), text(s, 1), text(s, 2), text(s, 3)}, text(s, 4)});
      });
  std::sort(rows.begin(), rows.end());
  std::set<Object> pending, defaults;
  RawStmt(db.get(), "SELECT Component, ConfigGroup, Name, Identifier FROM Config WHERE DesiredValue IS NOT NULL AND "
                    "DesiredValue IS NOT UserValue")
      .Run([&](sqlite3_stmt* s) { pending.insert({text(s, 0), text(s, 1), text(s, 2), text(s, 3)}); });
  RawStmt(db.get(), "SELECT Component, ConfigGroup, Name, Identifier FROM DefaultConfig ORDER BY Component, ConfigGroup, "
                    "Name, Identifier")
      .Run([&](sqlite3_stmt* s) { defaults.insert({text(s, 0), text(s, 1), text(s, 2), text(s, 3)}); });

  rapidjson::Document doc(rapidjson::kObjectType);
  auto& a = doc.GetAllocator();
  rapidjson::Value profile(rapidjson::kObjectType);
  auto child = [&](rapidjson::Value& object, const std::string& name, rapidjson::Type type) -> rapidjson::Value& {
    if (object.MemberCount() == 0 || View((object.MemberEnd() - 1)->name) != name) {
      object.AddMember(rapidjson::Value(name.c_str(), static_cast<rapidjson::SizeType>(name.size()), a),
                       rapidjson::Value(type), a);
    }
    return (object.MemberEnd() - 1)->value;
  };
  std::vector<Object> leftOut;
  size_t objects = 0;
  for (const auto& [object, user] : rows) {
    auto key = keys.find({object[0], object[1], object[2]});
    rapidjson::Document value;
    bool carried = key != keys.end() && !value.Parse(user.c_str(), user.size()).HasParseError() && value.IsObject();
    if (carried && !key->second.idName.empty()) {
      auto id = value.FindMember(key->second.idName.c_str());
      carried = id != value.MemberEnd() && id->value.IsString() && View(id->value) == object[3];
    }
    carried = carried && !QorConfigStore::staging::IsCarriedOverFromTheHost(object[0], object[1], object[2], object[3]);
    carried = carried && !(key->second.mutableDefault && key->second.idName == "cs_generated_id" &&
                           defaults.count(object) != 0);
    if (!carried) {
      leftOut.push_back(object);
      continue;
    }
    if (pending.count(object) != 0) leftOut.push_back(object);
    rapidjson::Value& group = child(child(profile, object[0], rapidjson::kObjectType), object[1], rapidjson::kObjectType);
    rapidjson::Value copy(value, a);
    if (key->second.singleton) {
      group.AddMember(rapidjson::Value(object[2].c_str(), a), copy, a);
    } else {
      child(group, object[2], rapidjson::kArrayType).PushBack(copy, a);
    }
    ++objects;
  }
  doc.AddMember("profile", profile, a);

  rapidjson::StringBuffer buffer;
  rapidjson::PrettyWriter<rapidjson::StringBuffer> writer(buffer);
  writer.SetIndent(' ', 2);
  doc.Accept(writer);
  const std::string temporary = path + ".tmp";
  int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) throw std::runtime_error("cannot write " + temporary);
  const bool written = write(fd, buffer.GetString(), buffer.GetSize()) == static_cast<ssize_t>(buffer.GetSize()) &&
                       write(fd, "\n", 1) == 1 && fsync(fd) == 0;
  close(fd);
  if (!written || rename(temporary.c_str(), path.c_str()) != 0) throw std::runtime_error("cannot write " + path);
  int dir = open(fs::path(path).parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir < 0 || fsync(dir) != 0) throw std::runtime_error("cannot flush the directory of " + path);
  close(dir);
  return objects;
}

namespace {

void RemovePatterns(rapidjson::Value& schema) {
  if (schema.IsArray()) {
    for (rapidjson::Value& item : schema.GetArray()) RemovePatterns(item);
    return;
  }
  if (!schema.IsObject()) return;
  auto pattern = schema.FindMember("pattern");
  if (pattern != schema.MemberEnd() && pattern->value.IsString()) schema.RemoveMember(pattern);
  for (auto& m : schema.GetObject()) RemovePatterns(m.value);
}

}  // namespace

std::vector<SchemaCase> PatternFreeDefaults() {
  std::map<std::tuple<std::string, std::string, std::string>, SchemaCase> cases;
  auto id = [](const rapidjson::Value& e) {
    return std::tuple<std::string, std::string, std::string>(View(e["component"]), View(e["group"]), View(e["key"]));
  };
  for (const std::string& path : NewestFiles(Host::Resolve("/usr/lib/talvex/configmanager/schemas"))) {
    rapidjson::Document doc;
    Parse(doc, ReadAll(path));
    for (rapidjson::Value& e : doc["data"].GetArray()) {
      if (!e.HasMember("schema")) continue;
      SchemaCase& c = cases[id(e)];
      c.schema.CopyFrom(e["schema"], c.schema.GetAllocator());
      RemovePatterns(c.schema);
      c.text = Compact(c.schema);
      c.instances.SetArray();
    }
  }
  for (const std::string& path : NewestFiles(Host::Resolve("/etc/talvex/default-config"))) {
    rapidjson::Document doc;
    Parse(doc, ReadAll(path));
    for (const rapidjson::Value& e : doc["data"].GetArray()) {
      auto c = cases.find(id(e));
      if (c == cases.end()) continue;
      auto& a = c->second.instances.GetAllocator();
      const rapidjson::Value& config = e["config"];
      if (config.IsArray()) {
        for (const rapidjson::Value& instance : config.GetArray()) c->second.instances.PushBack(rapidjson::Value(instance, a), a);
      } else {
        c->second.instances.PushBack(rapidjson::Value(config, a), a);
      }
    }
  }
  std::vector<SchemaCase> result;
  for (auto& [key, c] : cases) {
    if (!c.instances.Empty()) result.push_back(std::move(c));
  }
  return result;
}

void PeerValidate(const std::vector<SchemaCase>& cases) {
  for (const SchemaCase& c : cases) {
    peer::Validator validator(c.schema);
    for (const rapidjson::Value& instance : c.instances.GetArray()) {
      if (!validator.Valid(instance)) throw std::runtime_error("a default instance is not valid");
    }
  }
}

}  // namespace bench::floor
