#include "bench/SyntheticHost.h"

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <vector>

#include "bench/RawSql.h"
#include "configstore/bootstate/BootState.h"
#include "errors/Json.h"
#include "configstore/schema/SchemaProcessor.h"
#include "platform/dbstore/DBStore.h"
#include "platform/host/HostRoot.h"
#include "platform/plon/Plon.h"
#include "platform/validator/ConfigStoreDocument.h"

namespace fs = std::filesystem;

namespace bench {
namespace {

constexpr const char* kBootFsUuid = "5f3a9c1e-7b2d-4e8f-9a61-0c4d2b7e8f13";

// splitmix64: the same host from the same seed on every machine.
class Rng {
 public:
  explicit Rng(uint64_t seed) : state_(seed) {}
  uint64_t Next() {
    uint64_t z = (state_ += 0x9e3779b97f4a7c15ULL);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
  }
  int Range(int lo, int hi) { return lo + static_cast<int>(Next() % static_cast<uint64_t>(hi - lo + 1)); }
  bool Chance(int percent) { return Range(0, 99) < percent; }
  std::string Word(int minLength, int maxLength) {
    std::string word(static_cast<size_t>(Range(minLength, maxLength)), 'a');
    for (char& c : word) c = static_cast<char>('a' + Range(0, 25));
    return word;
  }

 private:
  uint64_t state_;
};

enum class Kind { Integer, PatternString, LongString, Enum, Boolean, Nested, Array, Number };
constexpr Kind kKinds[] = {Kind::Integer, Kind::PatternString, Kind::LongString, Kind::Enum,
                           Kind::Boolean, Kind::Nested,        Kind::Array,      Kind::Number};

struct Prop {
  std::string name;
  Kind kind;
  bool vital = false;
  bool cached = false;
};

enum class IdKind { Named, Singleton, Generated };

struct KeySpec {
  std::string component, group, key;
  IdKind id = IdKind::Named;
  std::vector<Prop> props;
  bool mutableDefault = false, dsp = false, preserveNonUser = false, smartnic = false;
  int defaults = 0;       // default instances
  long storeRows = 0;     // its rows in the store; 0: an even share of the store's rows
  long staged = 0;        // instances the desired document stages; 0: up to 5 while its count lasts
  long preservedIds = 0;  // the first n instance ids, listed in preserveInstanceIds
};

struct Package {
  std::string name;
  std::vector<KeySpec> keys;
  bool dataFileKey = false;
  bool restrictSticky = false;
  bool olderFile = false;
};

using Alloc = rapidjson::MemoryPoolAllocator<>;

// What the generator makes, every count times the scale.
struct Counts {
  long packages, configRows, orphanRows, desiredObjects, dataFiles, stickyFiles;
  long wideRows, wideStaged, preservedIds;  // the shapes host's two keys of package "wide"
};

Counts CountsOf(const HostSpec& spec) {
  Counts c = spec.shapes ? Counts{30, 9500, 20000, 1000, 20000, 200, 12000, 20000, 10000}
                         : Counts{300, 95000, 5000, 10000, 2000, 2000, 0, 0, 0};
  for (long* n : {&c.packages, &c.configRows, &c.orphanRows, &c.desiredObjects, &c.dataFiles, &c.stickyFiles,
                  &c.wideRows, &c.wideStaged, &c.preservedIds}) {
    *n *= spec.scale;
  }
  return c;
}

// The instance id of the i-th instance of a named key: the defaults' ids, then the others.
std::string NamedId(const KeySpec& key, long i) { return (i < key.defaults ? "d" : "i") + std::to_string(i); }

rapidjson::Value Str(const std::string& text, Alloc& a) {
  return rapidjson::Value(text.c_str(), static_cast<rapidjson::SizeType>(text.size()), a);
}

void WriteText(const std::string& path, const std::string& text) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  if (!out) throw std::runtime_error("cannot write " + path);
}

void WriteJson(const std::string& path, const rapidjson::Value& value) {
  std::string text;
  ConfigStoreDocument::SerializeValue(value, text);
  WriteText(path, text);
}

std::string SchemaId(const Package& p) { return p.name + "-1.0.0_1.0"; }

rapidjson::Value PropSchema(const Prop& prop, Alloc& a) {
  rapidjson::Document d(&a);
  const char* text = nullptr;
  switch (prop.kind) {
    case Kind::Integer: text = R"({"type":"integer","minimum":0,"maximum":65535})"; break;
    case Kind::PatternString: text = R"({"type":"string","pattern":"^[a-z]{0,63}$"})"; break;
    case Kind::LongString: text = R"({"type":"string","maxLength":128})"; break;
    case Kind::Enum: text = R"({"type":"string","enum":["off","low","medium","high"]})"; break;
    case Kind::Boolean: text = R"({"type":"boolean"})"; break;
    case Kind::Nested:
      text = R"({"type":"object","required":["host"],"additionalProperties":false,"properties":{)"
             R"("host":{"type":"string","pattern":"^[a-z0-9.-]{1,253}$"},)"
             R"("port":{"type":"integer","minimum":1,"maximum":65535},"secure":{"type":"boolean"}}})";
      break;
    case Kind::Array: text = R"({"type":"array","maxItems":16,"items":{"type":"string","maxLength":64}})"; break;
    case Kind::Number: text = R"({"type":"number","minimum":0,"maximum":100})"; break;
  }
  d.Parse(text);
  if (prop.vital) d.AddMember("vital", true, a);
  if (prop.cached) d.AddMember("cached", true, a);
  rapidjson::Value v;
  v.CopyFrom(d, a);
  return v;
}

rapidjson::Value PropValue(Kind kind, Rng& rng, Alloc& a) {
  switch (kind) {
    case Kind::Integer: return rapidjson::Value(rng.Range(0, 65535));
    case Kind::PatternString: return Str(rng.Word(3, 12), a);
    case Kind::LongString: return Str(rng.Word(10, 60), a);
    case Kind::Enum: {
      static const char* const kValues[] = {"off", "low", "medium", "high"};
      return rapidjson::Value(rapidjson::StringRef(kValues[rng.Range(0, 3)]));
    }
    case Kind::Boolean: return rapidjson::Value(rng.Chance(50));
    case Kind::Nested: {
      rapidjson::Value o(rapidjson::kObjectType);
      o.AddMember("host", Str(rng.Word(4, 10) + ".example", a), a);
      o.AddMember("port", rng.Range(1, 65535), a);
      if (rng.Chance(50)) o.AddMember("secure", rng.Chance(50), a);
      return o;
    }
    case Kind::Array: {
      rapidjson::Value arr(rapidjson::kArrayType);
      for (int i = rng.Range(0, 4); i > 0; --i) arr.PushBack(Str(rng.Word(3, 16), a), a);
      return arr;
    }
    case Kind::Number: return rapidjson::Value(rng.Range(0, 10000) / 100.0);
  }
  return rapidjson::Value();
}

// One valid instance of `spec` (without cs_generated_id: the library fills it in).
rapidjson::Value Instance(const KeySpec& spec, const std::string& id, Rng& rng, Alloc& a) {
  rapidjson::Value o(rapidjson::kObjectType);
  if (spec.id == IdKind::Named) o.AddMember("name", Str(id, a), a);
  for (const Prop& prop : spec.props) {
    if (rng.Chance(85)) o.AddMember(Str(prop.name, a), PropValue(prop.kind, rng, a), a);
  }
  return o;
}

rapidjson::Value SchemaElement(const KeySpec& spec, Rng& rng, Alloc& a) {
  rapidjson::Value props(rapidjson::kObjectType);
  rapidjson::Value required(rapidjson::kArrayType);
  if (spec.id == IdKind::Named) {
    rapidjson::Document d(&a);
    d.Parse(R"({"type":"string","instanceId":true,"pattern":"^[a-z][a-z0-9-]{0,63}$"})");
    rapidjson::Value v;
    v.CopyFrom(d, a);
    props.AddMember("name", v, a);
    required.PushBack("name", a);
  } else if (spec.id == IdKind::Generated) {
    rapidjson::Document d(&a);
    d.Parse(R"({"type":"string","instanceId":true,"generatedId":true})");
    rapidjson::Value v;
    v.CopyFrom(d, a);
    props.AddMember("cs_generated_id", v, a);
  }
  for (const Prop& prop : spec.props) props.AddMember(Str(prop.name, a), PropSchema(prop, a), a);
  rapidjson::Value schema(rapidjson::kObjectType);
  schema.AddMember("type", "object", a);
  if (!required.Empty()) schema.AddMember("required", required, a);
  schema.AddMember("properties", props, a);

  rapidjson::Value e(rapidjson::kObjectType);
  e.AddMember("component", Str(spec.component, a), a);
  e.AddMember("group", Str(spec.group, a), a);
  e.AddMember("key", Str(spec.key, a), a);
  e.AddMember("version", Str("1." + std::to_string(rng.Range(0, 9)), a), a);
  e.AddMember("singleton", spec.id == IdKind::Singleton, a);
  e.AddMember("mutableDefaultConfig", spec.mutableDefault, a);
  e.AddMember("dspIntegrated", spec.dsp, a);
  e.AddMember("preserveNonUser", spec.preserveNonUser, a);
  e.AddMember("noRestore", rng.Chance(10), a);
  e.AddMember("schemaType", rng.Range(0, 2), a);
  if (spec.smartnic) {
    rapidjson::Value s(rapidjson::kObjectType);
    s.AddMember("schema", "qor-shared", a);
    e.AddMember("smartnic", s, a);
  }
  if (spec.preservedIds > 0) {
    rapidjson::Value ids(rapidjson::kArrayType);
    for (long i = 0; i < spec.preservedIds; ++i) ids.PushBack(Str(NamedId(spec, i), a), a);
    e.AddMember("preserveInstanceIds", ids, a);
  } else if (spec.id == IdKind::Named && rng.Chance(5)) {
    rapidjson::Value ids(rapidjson::kArrayType);
    ids.PushBack("d0", a);
    e.AddMember("preserveInstanceIds", ids, a);
  }
  e.AddMember("schema", schema, a);
  return e;
}

// A key of package "wide": named instances, integrated with the desired configuration, one default.
KeySpec WideKey(const std::string& key, Rng& rng) {
  KeySpec spec;
  spec.component = "wide";
  spec.group = "grp0";
  spec.key = key;
  spec.dsp = true;
  spec.defaults = 1;
  for (int i = 0; i < 8; ++i) spec.props.push_back({"p" + std::to_string(i), kKinds[rng.Range(0, 7)]});
  return spec;
}

std::vector<Package> MakePackages(const Counts& counts, Rng& rng) {
  std::vector<Package> packages(static_cast<size_t>(counts.packages));
  for (size_t p = 0; p < packages.size(); ++p) {
    Package& pkg = packages[p];
    char name[32];
    std::snprintf(name, sizeof name, "pkg%04zu", p);
    pkg.name = name;
    pkg.dataFileKey = p % 3 == 0;
    pkg.restrictSticky = p % 10 == 9;
    pkg.olderFile = p % 10 == 4;
    int keys = rng.Range(10, 20);
    for (int k = 0; k < keys; ++k) {
      KeySpec key;
      key.component = pkg.name;
      key.group = "grp" + std::to_string(k % 4);
      key.key = "key" + std::to_string(k);
      int idRoll = rng.Range(0, 99);
      key.id = idRoll < 10 ? IdKind::Singleton : idRoll < 15 ? IdKind::Generated : IdKind::Named;
      int props = rng.Range(5, 20);
      for (int i = 0; i < props; ++i) {
        Prop prop{"p" + std::to_string(i), kKinds[rng.Range(0, 7)]};
        int mark = rng.Range(0, 99);
        prop.vital = mark < 8;
        prop.cached = mark >= 8 && mark < 12;
        key.props.push_back(prop);
      }
      key.mutableDefault = rng.Chance(20);
      key.dsp = rng.Chance(60);
      key.preserveNonUser = rng.Chance(10);
      key.smartnic = rng.Chance(5);
      key.defaults = key.id == IdKind::Singleton ? 1 : rng.Range(1, 8);
      pkg.keys.push_back(std::move(key));
    }
  }
  if (counts.wideRows > 0) {
    Package wide;
    wide.name = "wide";
    KeySpec instances = WideKey("instances", rng);
    instances.storeRows = counts.wideRows;
    instances.staged = counts.wideStaged;
    KeySpec preserved = WideKey("preserved", rng);
    preserved.preservedIds = counts.preservedIds;
    preserved.storeRows = counts.preservedIds + counts.preservedIds / 10;  // a tenth not preserved
    wide.keys = {instances, preserved};
    packages.push_back(std::move(wide));
  }
  return packages;
}

std::string PropCategoryPart(const KeySpec& spec, const rapidjson::Value& instance, int part) {
  // part 0 user, 1 vital, 2 cached; vital and cached parts carry the instance id too.
  rapidjson::Document out(rapidjson::kObjectType);
  auto& a = out.GetAllocator();
  bool any = false;
  for (auto& m : instance.GetObject()) {
    std::string name(m.name.GetString(), m.name.GetStringLength());
    int category = 0;
    for (const Prop& prop : spec.props) {
      if (prop.name == name) category = prop.vital ? 1 : prop.cached ? 2 : 0;
    }
    bool isId = name == "name";
    if (category == part || (isId && part != 0)) {
      out.AddMember(rapidjson::Value(m.name, a), rapidjson::Value(m.value, a), a);
      if (!isId) any = true;
    }
  }
  if (part != 0 && !any) return "";
  std::string text;
  ConfigStoreDocument::SerializeValue(out, text);
  return text;
}

void WriteSchemaAndDefaultFiles(const std::string& root, const std::vector<Package>& packages, Rng& rng,
                                long* instances) {
  const std::string schemaDir = root + "/usr/lib/talvex/configmanager/schemas/";
  const std::string defaultDir = root + "/etc/talvex/default-config/";
  for (const Package& pkg : packages) {
    rapidjson::Document schemaFile(rapidjson::kObjectType);
    rapidjson::Document defaultFile(rapidjson::kObjectType);
    auto& sa = schemaFile.GetAllocator();
    auto& da = defaultFile.GetAllocator();
    for (auto* doc : {&schemaFile, &defaultFile}) {
      auto& a = doc->GetAllocator();
      rapidjson::Value meta(rapidjson::kObjectType);
      meta.AddMember("kitname", Str(pkg.name, a), a);
      meta.AddMember("kitversion", "1.0.0_1.0", a);
      doc->AddMember("metadata", meta, a);
    }
    rapidjson::Value schemaData(rapidjson::kArrayType), defaultData(rapidjson::kArrayType);
    for (const KeySpec& key : pkg.keys) {
      schemaData.PushBack(SchemaElement(key, rng, sa), sa);
      rapidjson::Value e(rapidjson::kObjectType);
      e.AddMember("component", Str(key.component, da), da);
      e.AddMember("group", Str(key.group, da), da);
      e.AddMember("key", Str(key.key, da), da);
      if (key.id == IdKind::Singleton) {
        e.AddMember("config", Instance(key, "", rng, da), da);
      } else {
        rapidjson::Value config(rapidjson::kArrayType);
        for (int i = 0; i < key.defaults; ++i) config.PushBack(Instance(key, NamedId(key, i), rng, da), da);
        e.AddMember("config", config, da);
      }
      *instances += key.defaults;
      defaultData.PushBack(e, da);
    }
    if (pkg.dataFileKey) {
      rapidjson::Document d(&sa);
      d.Parse(("{\"component\":\"" + pkg.name + "\",\"group\":\"datafiles\",\"key\":\"store\","
               "\"datafile\":{\"dirName\":\"df-" + pkg.name + "\",\"category\":\"vital\"}}").c_str());
      rapidjson::Value v;
      v.CopyFrom(d, sa);
      schemaData.PushBack(v, sa);
    }
    {
      rapidjson::Document d(&sa);
      d.Parse(("{\"component\":\"" + pkg.name + "\",\"group\":\"files\",\"key\":\"kit-files\",\"files\":["
               "{\"category\":\"config\",\"path\":\"/etc/" + pkg.name + "/conf0\"},"
               "{\"category\":\"vital\",\"path\":\"/etc/" + pkg.name + "/conf1\"},"
               "{\"category\":\"cached\",\"path\":\"/etc/" + pkg.name + "/conf2\"}]}").c_str());
      rapidjson::Value v;
      v.CopyFrom(d, sa);
      schemaData.PushBack(v, sa);
    }
    schemaFile.AddMember("data", schemaData, sa);
    defaultFile.AddMember("data", defaultData, da);
    WriteJson(schemaDir + SchemaId(pkg) + ".json", schemaFile);
    WriteJson(defaultDir + SchemaId(pkg) + ".json", defaultFile);
    if (pkg.olderFile) {  // an older version that version selection passes over
      schemaFile["metadata"]["kitversion"] = "0.9.0_1.0";
      defaultFile["metadata"]["kitversion"] = "0.9.0_1.0";
      WriteJson(schemaDir + pkg.name + "-0.9.0_1.0.json", schemaFile);
      WriteJson(defaultDir + pkg.name + "-0.9.0_1.0.json", defaultFile);
    }
  }
}

void WriteImageDb(const std::string& root, const std::vector<Package>& packages) {
  const std::string dir = root + "/var/db/talvex/imgdb/";
  std::string profile =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<imageProfile>\n  <name>Talvex-bench</name>\n"
      "  <version>9.0.0_1.0</version>\n  <packages>\n";
  for (const Package& pkg : packages) {
    profile += "    <package>" + pkg.name + "</package>\n";
    std::string descriptor = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<package>\n  <name>" + pkg.name +
                             "</name>\n  <version>1.0.0_1.0</version>\n  <tags>\n    <tag>ConfigSchema:" +
                             SchemaId(pkg) + "</tag>\n";
    if (pkg.restrictSticky) descriptor += "    <tag>RestrictStickyFiles</tag>\n";
    descriptor += "  </tags>\n  <archives>\n    <archive>" + pkg.name + ".tgz</archive>\n    <archive>" + pkg.name +
                  "-extra.tgz</archive>\n  </archives>\n</package>\n";
    WriteText(dir + "packages/" + pkg.name + ".xml", descriptor);
  }
  profile += "  </packages>\n</imageProfile>\n";
  WriteText(dir + "profile.xml", profile);
}

void WriteNodeTree() {
  bool ok = PLON_WriteSignature() &&
            PLON_WriteNodeFile("/system/bootCmdLine", "runweasel console=com1 autoPartition=FALSE") &&
            PLON_WriteNodeFile("/system/bootOption", std::string(4, '\0')) &&
            PLON_WriteNodeFile("/system/bootMAC", "") && PLON_WriteNodeFile("/system/bootFsUUID", kBootFsUuid);
  if (!ok) throw std::runtime_error("cannot write the node tree");
}

// Config rows: the rows of registered keys (defaults' ids and more) shared evenly by the keys
// without a row count of their own, the rows of those that have one, then the rows without schema.
long FillConfig(RawDb& db, const std::vector<Package>& packages, const Counts& counts, Rng& rng) {
  RawStmt insert(db.get(),
                 "INSERT INTO Config (Identifier, Name, ConfigGroup, Component, Version, CreationTime, Revision, "
                 "AutoConfValue, VitalValue, CachedValue, UserValue, DesiredValue, Success) "
                 "VALUES (?, ?, ?, ?, '1.0', 0, 1, ?, ?, ?, ?, ?, 1)");
  std::vector<const KeySpec*> keys;
  for (const Package& pkg : packages) {
    for (const KeySpec& key : pkg.keys) keys.push_back(&key);
  }
  long singletons = 0, instanced = 0;
  for (const KeySpec* k : keys) {
    singletons += k->storeRows == 0 && k->id == IdKind::Singleton;
    instanced += k->storeRows == 0 && k->id != IdKind::Singleton;
  }
  const long shared = counts.configRows - singletons;
  const long perKey = shared / instanced;
  long extra = shared % instanced;
  long rows = 0;
  for (const KeySpec* k : keys) {
    long count = k->storeRows > 0 ? k->storeRows : k->id == IdKind::Singleton ? 1 : perKey + (extra-- > 0 ? 1 : 0);
    for (long i = 0; i < count; ++i) {
      std::string id = k->id == IdKind::Singleton ? ""
                       : k->id == IdKind::Generated
                           ? "00000000-0000-4000-8000-" + std::to_string(100000000000L + rows)
                           : NamedId(*k, i);
      rapidjson::Document doc;
      rapidjson::Value instance = Instance(*k, id, rng, doc.GetAllocator());
      if (k->id == IdKind::Generated) instance.AddMember("cs_generated_id", Str(id, doc.GetAllocator()), doc.GetAllocator());
      insert.Text(1, id).Text(2, k->key).Text(3, k->group).Text(4, k->component);
      bool autoOnly = rng.Chance(2);
      if (autoOnly || rng.Chance(20)) insert.Text(5, R"({"auto":true,"source":"dhcp"})");
      if (!autoOnly) {
        std::string vital = PropCategoryPart(*k, instance, 1), cached = PropCategoryPart(*k, instance, 2);
        if (!vital.empty()) insert.Text(6, vital);
        if (!cached.empty()) insert.Text(7, cached);
        insert.Text(8, PropCategoryPart(*k, instance, 0));
        if (rng.Chance(10)) {  // a pending desired value: an instance of the same object, its id included
          rapidjson::Value desired = Instance(*k, id, rng, doc.GetAllocator());
          if (k->id == IdKind::Generated) desired.AddMember("cs_generated_id", Str(id, doc.GetAllocator()), doc.GetAllocator());
          insert.Text(9, PropCategoryPart(*k, desired, 0));
        }
      }
      insert.Run();
      ++rows;
    }
  }
  for (long i = 0; i < counts.orphanRows; ++i, ++rows) {
    insert.Text(1, "i" + std::to_string(i % 50)).Text(2, "key" + std::to_string(i / 50 % 10));
    insert.Text(3, "old").Text(4, "gone" + std::to_string(i / 500)).Text(8, R"({"leftover":true,"size":)" +
                                                                            std::to_string(i) + "}");
    insert.Run();
  }
  return rows;
}

// Data files on disk and their records: 20 per data-file key, 1 in 50 unrecorded on disk, 1 in 50
// records without a file, and 5% records of keys no schema declares.
long FillDataFiles(const std::string& root, RawDb& db, const std::vector<Package>& packages, const Counts& counts) {
  RawStmt insert(db.get(), "INSERT INTO DataFileMetadata (Component, KEY, DirName, FileName) VALUES (?, ?, ?, ?)");
  const long target = counts.dataFiles;
  long files = 0, n = 0;
  while (files < target) {
    for (const Package& pkg : packages) {
      if (!pkg.dataFileKey || files >= target) continue;
      const std::string dir = "df-" + pkg.name;
      const std::string name = "f" + std::to_string(n);
      bool unrecorded = n % 50 == 17, missing = n % 50 == 33;
      if (!missing) WriteText(root + "/var/cache/datafiles/" + dir + "/" + name, "data file " + name + "\n");
      if (!unrecorded) insert.Text(1, pkg.name).Text(2, "store").Text(3, dir).Text(4, name).Run();
      ++files;
      ++n;
    }
  }
  for (long i = 0; i < target / 20; ++i) {
    insert.Text(1, "gone").Text(2, "old").Text(3, "gone-dir").Text(4, "g" + std::to_string(i)).Run();
  }
  return files;
}

// Sticky-bit files: a quarter declared by the packages, the rest with a persistent copy that the
// node tree maps to an archive (1 in 50 unmapped).
long WriteStickyFiles(const std::string& root, const std::vector<Package>& packages, const Counts& counts) {
  const long count = counts.stickyFiles;
  const long p = static_cast<long>(packages.size());
  std::string list;
  for (long i = 0; i < count; ++i) {
    std::string path;
    if (i % 4 == 0) {
      long d = i / 4;
      path = "/etc/" + packages[static_cast<size_t>(d % p)].name + "/conf" + std::to_string(d / p % 3);
      WriteText(root + path, "declared\n");
    } else {
      std::string dir = "/etc/sticky/d" + std::to_string(i % 40) + "/";
      std::string name = "f" + std::to_string(i);
      path = dir + name;
      WriteText(root + path, "sticky\n");
      WriteText(root + dir + ".#" + name, "persistent copy\n");
      struct stat st {};
      if (stat((root + dir + ".#" + name).c_str(), &st) != 0) throw std::runtime_error("stat " + path);
      if (i % 50 != 1) {
        std::string archive = packages[static_cast<size_t>((i * 7) % p)].name + ".tgz";
        std::string record(256, '\0');
        record.replace(36, archive.size(), archive);
        if (!PLON_WriteNodeFile("/system/lumafs/inodes/" + std::to_string(st.st_ino) + "/stats", record)) {
          throw std::runtime_error("cannot write inode node of " + path);
        }
      }
    }
    list += path + "\n";
  }
  WriteText(root + kStickyList, list);
  return count;
}

// Up to 5 instances a key (half replacing current ones, half new) while the document's count lasts;
// a key with its own staged count gets that many, its current instances first.
long WriteDesiredDocument(const std::string& root, const std::vector<Package>& packages, const Counts& counts,
                          Rng& rng) {
  rapidjson::Document doc(rapidjson::kObjectType);
  auto& a = doc.GetAllocator();
  rapidjson::Value profile(rapidjson::kObjectType);
  const long target = counts.desiredObjects;
  long objects = 0, own = 0;
  for (const Package& pkg : packages) {
    rapidjson::Value component(rapidjson::kObjectType);
    for (const KeySpec& key : pkg.keys) {
      if (key.staged == 0 && objects >= target) break;
      rapidjson::Value value;
      if (key.staged > 0) {
        value.SetArray();
        for (long i = 0; i < key.staged; ++i, ++own) value.PushBack(Instance(key, NamedId(key, i), rng, a), a);
      } else if (key.id == IdKind::Singleton) {
        value = Instance(key, "", rng, a);
        ++objects;
      } else {
        value.SetArray();
        for (int i = 0; i < 5 && objects < target; ++i, ++objects) {
          value.PushBack(Instance(key, (i % 2 ? "n" : "i") + std::to_string(i), rng, a), a);
        }
      }
      if (!component.HasMember(key.group.c_str())) component.AddMember(Str(key.group, a), rapidjson::Value(rapidjson::kObjectType), a);
      component[key.group.c_str()].AddMember(Str(key.key, a), value, a);
    }
    if (component.MemberCount() > 0) profile.AddMember(Str(pkg.name, a), component, a);
  }
  doc.AddMember("profile", profile, a);
  WriteJson(root + kDesiredDocument, doc);
  return objects + own;
}

void Copy(const std::string& from, const std::string& to) {
  fs::create_directories(fs::path(to).parent_path());
  fs::copy_file(from, to, fs::copy_options::overwrite_existing);
}

}  // namespace

void GenerateHost(const std::string& root, const HostSpec& spec) {
  fs::remove_all(root);
  fs::create_directories(root);
  Host::SetRoot(root);
  Rng rng(spec.seed * 1000003 + static_cast<uint64_t>(spec.scale));
  const Counts counts = CountsOf(spec);
  std::vector<Package> packages = MakePackages(counts, rng);
  long instances = 0;
  WriteSchemaAndDefaultFiles(root, packages, rng, &instances);
  WriteImageDb(root, packages);
  WriteNodeTree();
  WriteText(root + "/etc/talvex/features", "62=on\n70=on\n");

  if (DBStore::CreateDatabases() != 0) throw std::runtime_error("cannot create the stores");
  const std::string store = DBStore::StorePath(DBStore::CONFIG_STORE);
  const std::string dataStore = DBStore::StorePath(DBStore::DATAFILE_STORE);
  long rows = 0, dataFiles = 0;
  {
    RawDb db(store, true);
    db.Exec("BEGIN");
    rows = FillConfig(db, packages, counts, rng);
    db.Exec("INSERT OR REPLACE INTO KeyValue (Key, Value) VALUES ('BOOT_FS_UUID', '" + std::string(kBootFsUuid) +
            "'), ('BOOT_MODE', '0')");
    db.Exec("COMMIT");
  }
  {
    RawDb db(dataStore, true);
    db.Exec("BEGIN");
    dataFiles = FillDataFiles(root, db, packages, counts);
    db.Exec("COMMIT");
  }
  // The library registers the schemas and loads the defaults, as the host's first boot does.
  if (!QorConfigStore::ProcessSchemas({})) throw std::runtime_error("generated schemas or defaults were refused");
  { RawDb(store, true).Exec("VACUUM"); }

  const std::string golden = Host::Resolve(kGoldenDir);
  Copy(store, golden + "/current-store-1");
  Copy(dataStore, golden + "/datafile-store");
  Copy(DBStore::SchemaStorePath(), golden + "/schema-store");
  Copy(store, golden + "/current-store-1.upgrade");
  fs::copy(Host::Resolve("/var/cache/datafiles"), golden + "/datafiles", fs::copy_options::recursive);
  RawDb(golden + "/current-store-1.upgrade", true)
      .Exec("UPDATE KeyValue SET Value = 'an-older-boot-image' WHERE Key = 'BOOT_FS_UUID'");

  long sticky = WriteStickyFiles(root, packages, counts);
  long desired = WriteDesiredDocument(root, packages, counts, rng);
  const std::string shapes = counts.wideRows == 0 ? std::string()
                             : "wide_key_rows " + std::to_string(counts.wideRows) + "\nwide_key_staged " +
                                   std::to_string(counts.wideStaged) + "\npreserved_ids " +
                                   std::to_string(counts.preservedIds) + "\n";
  long elements = 0;
  for (const Package& pkg : packages) elements += static_cast<long>(pkg.keys.size()) + 1 + (pkg.dataFileKey ? 1 : 0);
  WriteText(root + kCountsFile, "packages " + std::to_string(packages.size()) + "\nschema_elements " +
                                    std::to_string(elements) + "\ndefault_instances " + std::to_string(instances) +
                                    "\nconfig_rows " + std::to_string(rows) + "\ndesired_objects " +
                                    std::to_string(desired) + "\ndata_files " + std::to_string(dataFiles) +
                                    "\nsticky_files " + std::to_string(sticky) + "\nstore_bytes " +
                                    std::to_string(fs::file_size(store)) + "\norphan_rows " +
                                    std::to_string(counts.orphanRows) + "\n" + shapes);
}

}  // namespace bench
