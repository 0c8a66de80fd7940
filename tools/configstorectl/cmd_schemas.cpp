// Schema registration and default configuration: schemas, process-schemas and process-defaults.
#include <algorithm>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "configstore/defaults/DefaultConfig.h"
#include "configstore/frame/CallFrame.h"
#include "configstore/schema/SchemaProcessor.h"
#include "platform/schemastore/SchemaStore.h"
#include "tools/configstorectl/Cli.h"

namespace {

using Row = std::vector<std::string>;

// Rows of a query on the configuration store; column NULL reads as "".
std::vector<Row> Query(const std::string& sql) {
  DBStore::Connection conn = QorConfigStore::GetDBConnection(DBStore::CONFIG_STORE, true);
  DBStore::Statement stmt = DBStore::internal::Prepare(conn, sql, DBStore::kTimeoutMs);
  std::vector<Row> rows;
  auto collect = [](void* context, int argc, char** argv, char**) {
    Row row;
    for (int i = 0; i < argc; ++i) row.emplace_back(argv[i] != nullptr ? argv[i] : "");
    static_cast<std::vector<Row>*>(context)->push_back(std::move(row));
    return 0;
  };
  if (DBStore::ExecuteStmt(conn, stmt, collect, &rows, DBStore::kTimeoutMs) != 0) {
    throw QorConfigStore::ConfigStoreException(QorConfigStore::CS_ERR_GENERIC, "Failed to read " + sql);
  }
  return rows;
}

const char* kDefaultColumns[] = {"component", "group", "key", "identifier", "version", "value", "vitalValue",
                                 "cachedValue"};

std::vector<Row> DefaultRows() {
  return Query(
      "SELECT Component, ConfigGroup, Name, Identifier, Version, Value, VitalValue, CachedValue FROM DefaultConfig "
      "ORDER BY Component, ConfigGroup, Name, Identifier");
}

// The registered configuration keys: component, group, key, package schema id, version, SmartNIC
// value type ("" when the key declares none); only those of `components` when it is not empty.
std::vector<Row> RegisteredRows(const std::vector<std::string>& components) {
  std::vector<Row> rows;
  const auto cache = QorSchemaStore::SchemaStore::GetCache();
  for (const auto& [id, object] : cache->GetAll()) {
    if (!components.empty() && std::find(components.begin(), components.end(), id.component) == components.end()) {
      continue;
    }
    rows.push_back({id.component, id.group, id.key, object->GetSchemaId(), object->GetVersion(),
                    object->GetSmartnicValueType().value_or("")});
  }
  return rows;
}
const char* kRegisteredColumns[] = {"component", "group", "key", "schemaId", "version", "smartnic"};

// Characters a terminal shows for UTF-8 text (continuation bytes take no column).
size_t DisplayWidth(const std::string& text) {
  size_t width = 0;
  for (char c : text) width += (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  return width;
}

// The registered keys as a table with a heading, columns as wide as their widest cell.
void PrintRegisteredTable(const std::vector<Row>& rows) {
  const Row heading = {"COMPONENT", "GROUP", "KEY", "SCHEMA ID", "VERSION", "SMARTNIC"};
  std::vector<Row> cells;
  for (const Row& r : rows) {
    Row printable;
    for (const std::string& cell : r) printable.push_back(cli::Printable(cell));
    if (printable[5].empty()) printable[5].push_back('-');  // (assigning "-" trips a false -Wrestrict in GCC 12 at -O2)
    cells.push_back(std::move(printable));
  }
  std::vector<size_t> widths;
  for (const std::string& h : heading) widths.push_back(h.size());
  for (const Row& r : cells) {
    for (size_t i = 0; i < r.size(); ++i) widths[i] = std::max(widths[i], DisplayWidth(r[i]));
  }
  auto line = [&](const Row& r) {
    std::string text;
    for (size_t i = 0; i < r.size(); ++i) {
      text += r[i];
      if (i + 1 < r.size()) text += std::string(widths[i] - DisplayWidth(r[i]) + 2, ' ');
    }
    return text;
  };
  std::printf("%s\n", cli::Paint(cli::Style::Bold, line(heading)).c_str());
  for (const Row& r : cells) std::printf("%s\n", line(r).c_str());
}

template <size_t N>
rapidjson::Value RowsToJson(const std::vector<Row>& rows, const char* (&columns)[N],
                            rapidjson::Document::AllocatorType& a) {
  rapidjson::Value list(rapidjson::kArrayType);
  for (const Row& row : rows) {
    rapidjson::Value object(rapidjson::kObjectType);
    for (size_t i = 0; i < N && i < row.size(); ++i) {
      object.AddMember(rapidjson::StringRef(columns[i]), cli::JsonText(row[i], a), a);
    }
    list.PushBack(object, a);
  }
  return list;
}

void PrintDefaultRows(const std::vector<Row>& rows) {
  std::printf("default configuration (%zu objects):\n", rows.size());
  for (Row r : rows) {
    for (std::string& cell : r) cell = cli::Printable(cell);
    std::printf("  %s/%s/%s", r[0].c_str(), r[1].c_str(), r[2].c_str());
    if (!r[3].empty()) std::printf(" [%s]", r[3].c_str());
    std::printf(" version %s\n    user:   %s\n", r[4].c_str(), r[5].c_str());
    if (!r[6].empty()) std::printf("    vital:  %s\n", r[6].c_str());
    if (!r[7].empty()) std::printf("    cached: %s\n", r[7].c_str());
  }
}

// Reads back what a run left, for the report. A listing that fails is named on standard error;
// the exit status stays the operation's.
template <typename F>
std::vector<Row> TryList(const char* what, F list) {
  try {
    return list();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "configstorectl: cannot list %s: %s\n", what, e.what());
    return {};
  }
}

int Report(bool result, bool json, const std::vector<Row>* registered, const std::vector<Row>& defaults) {
  if (json) {
    rapidjson::Document d(rapidjson::kObjectType);
    auto& a = d.GetAllocator();
    d.AddMember("result", result, a);
    if (registered != nullptr) d.AddMember("registered", RowsToJson(*registered, kRegisteredColumns, a), a);
    d.AddMember("defaults", RowsToJson(defaults, kDefaultColumns, a), a);
    cli::PrintJson(d);
  } else {
    if (registered != nullptr) {
      std::printf("registered schemas (%zu keys):\n", registered->size());
      PrintRegisteredTable(*registered);
      std::printf("\n");
    }
    PrintDefaultRows(defaults);
    std::printf("result: %s\n", result ? cli::Paint(cli::Style::Green, "success").c_str()
                                        : cli::Paint(cli::Style::Red, "failure").c_str());
  }
  if (!result) {
    throw QorConfigStore::ConfigStoreException(QorConfigStore::CS_ERR_GENERIC,
                                               "not everything was processed (see the errors above; -v shows the log)");
  }
  return 0;
}

int RunProcessSchemas(const cli::Invocation& inv) {
  const bool result = QorConfigStore::ProcessSchemas(cli::Positionals(inv.args));
  std::vector<Row> registered = TryList("the registered schemas", [] { return RegisteredRows({}); });
  return Report(result, inv.json, &registered, TryList("the default configuration", DefaultRows));
}

int RunProcessDefaults(const cli::Invocation& inv) {
  std::vector<std::string> args = inv.args;
  const bool qorio = cli::TakeFlag(args, "--qorio");
  cli::ExpectNoMoreArgs(args);
  const bool result = QorConfigStore::ProcessDefaultConfiguration(qorio);
  return Report(result, inv.json, nullptr, TryList("the default configuration", DefaultRows));
}

int RunSchemas(const cli::Invocation& inv) {
  std::vector<Row> rows = RegisteredRows(cli::Positionals(inv.args));
  if (inv.json) {
    rapidjson::Document d;
    cli::PrintJson(RowsToJson(rows, kRegisteredColumns, d.GetAllocator()));
  } else {
    PrintRegisteredTable(rows);
  }
  return 0;
}

const cli::Registrar kSchemas(
    {"schemas", "schemas [COMPONENT...]", "the registered configuration schemas",
     "Lists the configuration keys registered in the schema store, only those of the given\n"
     "components when any are named: component, group, key, the package schema id that\n"
     "registered it, the schema version and the SmartNIC value type (\"-\" when the key declares\n"
     "none; \"\" with --json). Reads only; exit status 1 when the schema store does not exist.",
     RunSchemas});

const cli::Registrar kProcessSchemas(
    {"process-schemas", "process-schemas [SCHEMA_ID...]",
     "register the installed packages' schemas, then load their default configuration",
     "Registers every element of the newest schema file of each package in\n"
     "/usr/lib/talvex/configmanager/schemas (filtered for a DPU when /etc/.qorio exists), then\n"
     "reloads the default configuration. The installed image's schema ids are expected; each\n"
     "SCHEMA_ID given is expected as well. Prints the registered keys (as 'schemas' does), the\n"
     "default configuration and the result; exit status 1 when anything failed.",
     RunProcessSchemas});

const cli::Registrar kProcessDefaults(
    {"process-defaults", "process-defaults [--qorio]",
     "reload the default configuration from /etc/talvex/default-config",
     "Empties DefaultConfig and loads the newest default-configuration file of each package into it,\n"
     "in one transaction. --qorio takes the DPU variant's \"qorio_config\" where a file has one.\n"
     "Invalid instances go to /var/run/talvex/files/errors-<file>. Prints the default configuration\n"
     "and the result; exit status 1 when anything failed.",
     RunProcessDefaults});

}  // namespace
