// Schema registration and default configuration: schemas, process-schemas and process-defaults.
#include <algorithm>
#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <vector>

#include "configstore/defaults/DefaultConfig.h"
#include "configstore/frame/CallFrame.h"
#include "configstore/plan/StoreListing.h"
#include "configstore/schema/SchemaProcessor.h"
#include "platform/schemastore/SchemaStore.h"
#include "tools/configstorectl/Cli.h"

namespace {

using Row = std::vector<std::string>;

const char* kDefaultColumns[] = {"component", "group", "key", "identifier", "version", "value", "vitalValue",
                                 "cachedValue"};

std::vector<Row> DefaultRows() { return QorConfigStore::ListDefaultConfig(); }

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

// The registered keys as a table; a key without SmartNIC placement shows "-".
void PrintRegisteredTable(std::vector<Row> rows) {
  for (Row& r : rows) {
    if (r[5].empty()) r[5].push_back('-');  // (assigning "-" trips a false -Wrestrict in GCC 12 at -O2)
  }
  cli::PrintTable({"COMPONENT", "GROUP", "KEY", "SCHEMA ID", "VERSION", "SMARTNIC"}, rows);
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

// What a run gave: the default configuration's half, and for process-schemas the registration's.
struct Outcome {
  std::optional<bool> schemasRegistered;
  bool defaultsLoaded = false;
  bool Success() const { return schemasRegistered.value_or(true) && defaultsLoaded; }
};

std::string FailureText(const Outcome& o) {
  if (!o.schemasRegistered.value_or(true)) {
    return o.defaultsLoaded ? "schema registration failed (the default configuration was loaded)"
                            : "schema registration and the default configuration failed";
  }
  return o.schemasRegistered ? "the default configuration failed (the schemas were registered)"
                             : "the default configuration failed";
}

int Report(const Outcome& outcome, bool json, const std::vector<Row>* registered, const std::vector<Row>& defaults) {
  if (json) {
    rapidjson::Document d(rapidjson::kObjectType);
    auto& a = d.GetAllocator();
    d.AddMember("result", outcome.Success(), a);
    if (outcome.schemasRegistered) d.AddMember("schemasRegistered", *outcome.schemasRegistered, a);
    d.AddMember("defaultsLoaded", outcome.defaultsLoaded, a);
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
    std::printf("result: %s\n", outcome.Success()
                                    ? cli::Paint(cli::Style::Green, "success").c_str()
                                    : cli::Paint(cli::Style::Red, "failure: " + FailureText(outcome)).c_str());
  }
  if (!outcome.Success()) {
    throw QorConfigStore::ConfigStoreException(QorConfigStore::CS_ERR_GENERIC,
                                               FailureText(outcome) + "; see the errors above, -v shows the log");
  }
  return 0;
}

// Both runs read and write the configuration store and read the schema store.
void RequireStores() {
  cli::RequireStore(DBStore::StorePath(DBStore::CONFIG_STORE), "configuration store");
  cli::RequireStore(DBStore::SchemaStorePath(), "schema store");
}

int RunProcessSchemas(const cli::Invocation& inv) {
  const std::vector<std::string> schemaIds = cli::Positionals(inv.args);
  RequireStores();
  const auto result = QorConfigStore::ProcessSchemasAndDefaults(schemaIds);
  std::vector<Row> registered = TryList("the registered schemas", [] { return RegisteredRows({}); });
  return Report({result.schemasRegistered, result.defaultsLoaded}, inv.json, &registered,
                TryList("the default configuration", DefaultRows));
}

int RunProcessDefaults(const cli::Invocation& inv) {
  std::vector<std::string> args = inv.args;
  const bool qorio = cli::TakeFlag(args, "--qorio");
  cli::ExpectNoMoreArgs(args);
  RequireStores();
  const bool result = QorConfigStore::ProcessDefaultConfiguration(qorio);
  return Report({std::nullopt, result}, inv.json, nullptr, TryList("the default configuration", DefaultRows));
}

int RunSchemas(const cli::Invocation& inv) {
  const std::vector<std::string> components = cli::Positionals(inv.args);
  cli::RequireStore(DBStore::SchemaStorePath(), "schema store");
  std::vector<Row> rows = RegisteredRows(components);
  if (inv.json) {
    rapidjson::Document d;
    cli::PrintJson(RowsToJson(rows, kRegisteredColumns, d.GetAllocator()));
  } else {
    PrintRegisteredTable(rows);
  }
  std::string unmatched;
  for (const std::string& component : components) {
    if (std::none_of(rows.begin(), rows.end(), [&](const Row& r) { return r[0] == component; })) {
      unmatched += (unmatched.empty() ? "component '" : ", '") + cli::Printable(component) + "'";
    }
  }
  if (!unmatched.empty()) throw cli::NothingMatched(unmatched);
  return 0;
}

const cli::Registrar kSchemas(
    {"schemas", "schemas [COMPONENT...]", "the registered configuration schemas",
     "Lists the configuration keys registered in the schema store, only those of the given\n"
     "components when any are named: component, group, key, the package schema id that\n"
     "registered it, the schema version and the SmartNIC value type (\"-\" when the key declares\n"
     "none; \"\" with --json). Reads only; exit status 1 when the schema store does not exist, 3\n"
     "when a component named has no registered key.",
     RunSchemas});

const cli::Registrar kProcessSchemas(
    {"process-schemas", "process-schemas [SCHEMA_ID...]",
     "register the installed packages' schemas, then load their default configuration",
     "Registers every element of the newest schema file of each package in\n"
     "/usr/lib/talvex/configmanager/schemas (filtered for a DPU when /etc/.qorio exists), then\n"
     "reloads the default configuration. The installed image's schema ids are expected; each\n"
     "SCHEMA_ID given is expected as well. Prints the registered keys (as 'schemas' does), the\n"
     "default configuration and the result of each half (--json: schemasRegistered, defaultsLoaded);\n"
     "exit status 1 when either failed. Needs the store databases (load or create-store makes them).",
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
