// Staging for the next boot: set-desired, set-smartnic, delete-hostapi and staged.
#include <cstdio>
#include <string>
#include <vector>

#include "configstore/bootstate/BootState.h"
#include "configstore/desired/DesiredConfig.h"
#include "configstore/frame/ConfigStoreException.h"
#include "tools/configstorectl/Cli.h"

namespace {

using namespace QorConfigStore;

using cli::TakeArg;

// What was staged, with the boot mode as the store now holds it.
void PrintStatus(bool json, const char* what) {
  int bootMode = GetBootMode();
  if (json) {
    rapidjson::Document d(rapidjson::kObjectType);
    auto& a = d.GetAllocator();
    d.AddMember("staged", rapidjson::StringRef(what), a).AddMember("bootMode", bootMode, a);
    d.AddMember("rows", static_cast<int64_t>(GetStagedRows().size()), a);
    cli::PrintJson(d);
  } else {
    std::printf("%s staged (%zu rows); next boot mode %d\n", what, GetStagedRows().size(), bootMode);
  }
}

int RunSetDesired(const cli::Invocation& inv) {
  std::vector<std::string> args = inv.args;
  std::string file = TakeArg(args, "FILE");
  cli::ExpectNoMoreArgs(args);

  std::shared_ptr<JsonDoc> doc = CreateDocumentFromFile(file);
  rapidjson::Document errors = DesiredDocumentErrors(*doc->document, QorSchemaStore::SchemaStore::GetCache());
  if (!errors.Empty()) {
    if (inv.json) {
      rapidjson::Document d(rapidjson::kObjectType);
      d.AddMember("valid", false, d.GetAllocator());
      d.AddMember("errors", rapidjson::Value(errors, d.GetAllocator()), d.GetAllocator());
      cli::PrintJson(d);
    }
    for (const auto& e : errors.GetArray()) {
      // An error of the whole document (a root that is not an object) has the empty path.
      std::string field = e["field"].GetString();
      std::fprintf(stderr, "%s: %s\n", field.empty() ? "(document)" : cli::Printable(field).c_str(),
                   cli::Printable(e["error"].GetString()).c_str());
    }
    const char* noun = errors.Size() == 1 ? " validation error" : " validation errors";
    throw ConfigStoreException(CS_ERR_SCHEMA_VALIDATION,
                               file + ": " + std::to_string(errors.Size()) + noun + ", nothing staged");
  }
  SetDesiredUserConfig(*doc->document);
  PrintStatus(inv.json, "desired configuration");
  return 0;
}

int RunSetSmartnic(const cli::Invocation& inv) {
  std::vector<std::string> args = inv.args;
  std::string file = TakeArg(args, "FILE");
  cli::ExpectNoMoreArgs(args);
  std::shared_ptr<JsonDoc> doc = CreateDocumentFromFile(file);
  try {
    SetDesiredSmartnicConfiguration(*doc->document);
  } catch (const ConfigStoreException& e) {
    // The library's message names its own function and, for a refused object, sends the reader to
    // "logs": those are the validation errors already printed above on standard error.
    std::string reason = e.what();
    for (const char* prefix : {"SetDesiredSmartnicConfiguration failed: ", "Failed to validate smartnic configuration"}) {
      if (reason.rfind(prefix, 0) == 0) reason.erase(0, std::string(prefix).size());
    }
    if (reason.rfind(", Check logs", 0) == 0) reason = "invalid SmartNIC configuration (the errors are listed above)";
    throw ConfigStoreException(e.code(), file + ": " + reason + ", nothing staged");
  }
  PrintStatus(inv.json, "smartnic configuration");
  return 0;
}

int RunDeleteHostApi(const cli::Invocation& inv) {
  std::vector<std::string> args = inv.args;
  std::string component = TakeArg(args, "COMPONENT");
  std::string group = TakeArg(args, "GROUP");
  std::string key = TakeArg(args, "KEY");
  cli::ExpectNoMoreArgs(args);
  DeleteHostAPIConfiguration(component.c_str(), group.c_str(), key.c_str());
  PrintStatus(inv.json, "deletion");
  return 0;
}

// A staged column: a JSON string, or null for SQL NULL.
rapidjson::Value NullableText(const std::optional<std::string>& text, rapidjson::Document::AllocatorType& a) {
  return text ? cli::JsonText(*text, a) : rapidjson::Value();
}

int RunStaged(const cli::Invocation& inv) {
  std::vector<std::string> args = inv.args;
  cli::ExpectNoMoreArgs(args);
  std::vector<StagedRow> rows = GetStagedRows();
  if (inv.json) {
    rapidjson::Document d(rapidjson::kArrayType);
    auto& a = d.GetAllocator();
    for (const StagedRow& r : rows) {
      rapidjson::Value row(rapidjson::kObjectType);
      row.AddMember("component", NullableText(r.component, a), a).AddMember("group", NullableText(r.group, a), a);
      row.AddMember("key", NullableText(r.name, a), a).AddMember("identifier", NullableText(r.identifier, a), a);
      row.AddMember("version", NullableText(r.version, a), a).AddMember("bootAction", NullableText(r.bootAction, a), a);
      row.AddMember("value", NullableText(r.value, a), a).AddMember("vitalValue", NullableText(r.vitalValue, a), a);
      row.AddMember("cachedValue", NullableText(r.cachedValue, a), a);
      d.PushBack(row, a);
    }
    cli::PrintJson(d);
    return 0;
  }
  auto text = [](const std::optional<std::string>& t) { return t ? cli::Printable(*t) : std::string("-"); };
  char heading[160];
  std::snprintf(heading, sizeof heading, "%-12s %-10s %-20s %-24s %-20s %-8s %s", "ACTION", "COMPONENT", "GROUP", "KEY",
                "ID", "VERSION", "VALUE");
  std::printf("%s\n", cli::Paint(cli::Style::Bold, heading).c_str());
  for (const StagedRow& r : rows) {
    // Rows copied from the default configuration carry no BootAction.
    std::printf("%-12s %-10s %-20s %-24s %-20s %-8s %s\n", r.bootAction ? text(r.bootAction).c_str() : "(default)",
                text(r.component).c_str(), text(r.group).c_str(), text(r.name).c_str(), text(r.identifier).c_str(),
                text(r.version).c_str(), text(r.value).c_str());
  }
  return 0;
}

const cli::Registrar kSetDesired(
    {"set-desired", "set-desired FILE", "validate a desired configuration document and stage it",
     "Validates the desired configuration document FILE ({\"profile\": {component: {group: {key: value}}}})\n"
     "against the registered schemas and prints every error with its JSON path; when it is valid, stages it\n"
     "for the next boot (boot mode 1) together with the current configuration that survives it.\n"
     "Nothing is staged when the document is invalid (exit status 1).",
     RunSetDesired});

const cli::Registrar kSetSmartnic(
    {"set-smartnic", "set-smartnic FILE", "stage a SmartNIC configuration document",
     "Validates and stages the SmartNIC configuration document FILE ({component: {group: {key: value}}})\n"
     "for the next boot (boot mode 3). \"DELETE_DEFAULT\" removes a key; shared keys the document leaves\n"
     "out start from their default configuration. Validation errors are logged (use -v for progress).",
     RunSetSmartnic});

const cli::Registrar kDeleteHostApi(
    {"delete-hostapi", "delete-hostapi COMPONENT GROUP KEY", "stage the removal of a key at the next boot",
     "Stages the removal of every instance of the key at the next boot (boot mode 4). Rows staged\n"
     "before are kept.",
     RunDeleteHostApi});

const cli::Registrar kStaged({"staged", "staged", "list the configuration staged for the next boot",
                              "Lists the rows of DesiredUserConfig: BootAction (SET, DELETE, SET_DEFAULT, or none\n"
                              "for a copied default object), key, instance id, schema version and value.",
                              RunStaged});

}  // namespace
