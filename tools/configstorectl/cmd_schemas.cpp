// Schema registration and default configuration: process-schemas and process-defaults.
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

// The registered configuration keys: component, group, key, package schema id, version.
std::vector<Row> RegisteredRows() {
  std::vector<Row> rows;
  const auto cache = QorSchemaStore::SchemaStore::GetCache();
  for (const auto& [id, object] : cache->GetAll()) {
    rows.push_back({id.component, id.group, id.key, object->GetSchemaId(), object->GetVersion(),
                    object->GetSmartnicValueType().value_or("")});
  }
  return rows;
}
const char* kRegisteredColumns[] = {"component", "group", "key", "schemaId", "version", "smartnic"};

template <size_t N>
rapidjson::Value RowsToJson(const std::vector<Row>& rows, const char* (&columns)[N],
                            rapidjson::Document::AllocatorType& a) {
  rapidjson::Value list(rapidjson::kArrayType);
  for (const Row& row : rows) {
    rapidjson::Value object(rapidjson::kObjectType);
    for (size_t i = 0; i < N && i < row.size(); ++i) {
      object.AddMember(rapidjson::StringRef(columns[i]), rapidjson::Value(row[i].c_str(), a), a);
    }
    list.PushBack(object, a);
  }
  return list;
}

void PrintDefaultRows(const std::vector<Row>& rows) {
  std::printf("default configuration (%zu objects):\n", rows.size());
  for (const Row& r : rows) {
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
      for (const Row& r : *registered) {
        std::printf("  %s/%s/%s  %s  version %s%s%s\n", r[0].c_str(), r[1].c_str(), r[2].c_str(), r[3].c_str(),
                    r[4].c_str(), r[5].empty() ? "" : "  smartnic ", r[5].c_str());
      }
    }
    PrintDefaultRows(defaults);
    std::printf("result: %s\n", result ? "success" : "failure");
  }
  return result ? 0 : 1;
}

int RunProcessSchemas(const cli::Invocation& inv) {
  for (const std::string& arg : inv.args) {
    if (!arg.empty() && arg[0] == '-') throw cli::UsageError("unknown option '" + arg + "'");
  }
  const bool result = QorConfigStore::ProcessSchemas(inv.args);
  std::vector<Row> registered = TryList("the registered schemas", RegisteredRows);
  return Report(result, inv.json, &registered, TryList("the default configuration", DefaultRows));
}

int RunProcessDefaults(const cli::Invocation& inv) {
  std::vector<std::string> args = inv.args;
  const bool qorio = cli::TakeFlag(args, "--qorio");
  cli::ExpectNoMoreArgs(args);
  const bool result = QorConfigStore::ProcessDefaultConfiguration(qorio);
  return Report(result, inv.json, nullptr, TryList("the default configuration", DefaultRows));
}

const cli::Registrar kProcessSchemas(
    {"process-schemas", "process-schemas [SCHEMA_ID...]",
     "register the installed packages' schemas, then load their default configuration",
     "Registers every element of the newest schema file of each package in\n"
     "/usr/lib/talvex/configmanager/schemas (filtered for a DPU when /etc/.qorio exists), then\n"
     "reloads the default configuration. The installed image's schema ids are expected; each\n"
     "SCHEMA_ID given is expected as well. Prints the registered keys, the default configuration\n"
     "and the result; exit status 1 when anything failed.",
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
