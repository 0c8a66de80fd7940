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

std::vector<std::string> Args(const cli::Invocation& inv, bool* json) {
  std::vector<std::string> args = inv.args;
  *json = cli::TakeFlag(args, "--json") || inv.json;
  return args;
}

std::string TakeArg(std::vector<std::string>& args, const char* what) {
  if (args.empty()) throw cli::UsageError(std::string("missing ") + what);
  std::string first = args.front();
  args.erase(args.begin());
  return first;
}

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
  bool json = false;
  std::vector<std::string> args = Args(inv, &json);
  std::string file = TakeArg(args, "FILE");
  cli::ExpectNoMoreArgs(args);

  std::shared_ptr<JsonDoc> doc = CreateDocumentFromFile(file);
  rapidjson::Document errors = DesiredDocumentErrors(*doc->document, QorSchemaStore::SchemaStore::GetCache());
  if (!errors.Empty()) {
    if (json) {
      rapidjson::Document d(rapidjson::kObjectType);
      d.AddMember("valid", false, d.GetAllocator());
      d.AddMember("errors", rapidjson::Value(errors, d.GetAllocator()), d.GetAllocator());
      cli::PrintJson(d);
    }
    for (const auto& e : errors.GetArray()) {
      std::fprintf(stderr, "%s: %s\n", e["field"].GetString(), e["error"].GetString());
    }
    std::fprintf(stderr, "configstorectl set-desired: %s: %u validation errors, nothing staged\n", file.c_str(),
                 errors.Size());
    return 1;
  }
  SetDesiredUserConfig(*doc->document);
  PrintStatus(json, "desired configuration");
  return 0;
}

int RunSetSmartnic(const cli::Invocation& inv) {
  bool json = false;
  std::vector<std::string> args = Args(inv, &json);
  std::string file = TakeArg(args, "FILE");
  cli::ExpectNoMoreArgs(args);
  std::shared_ptr<JsonDoc> doc = CreateDocumentFromFile(file);
  SetDesiredSmartnicConfiguration(*doc->document);
  PrintStatus(json, "smartnic configuration");
  return 0;
}

int RunDeleteHostApi(const cli::Invocation& inv) {
  bool json = false;
  std::vector<std::string> args = Args(inv, &json);
  std::string component = TakeArg(args, "COMPONENT");
  std::string group = TakeArg(args, "GROUP");
  std::string key = TakeArg(args, "KEY");
  cli::ExpectNoMoreArgs(args);
  DeleteHostAPIConfiguration(component.c_str(), group.c_str(), key.c_str());
  PrintStatus(json, "deletion");
  return 0;
}

rapidjson::Value JsonText(const std::optional<std::string>& text, rapidjson::Document::AllocatorType& a) {
  return text ? rapidjson::Value(text->c_str(), static_cast<rapidjson::SizeType>(text->size()), a) : rapidjson::Value();
}

int RunStaged(const cli::Invocation& inv) {
  bool json = false;
  std::vector<std::string> args = Args(inv, &json);
  cli::ExpectNoMoreArgs(args);
  std::vector<StagedRow> rows = GetStagedRows();
  if (json) {
    rapidjson::Document d(rapidjson::kArrayType);
    auto& a = d.GetAllocator();
    for (const StagedRow& r : rows) {
      rapidjson::Value row(rapidjson::kObjectType);
      row.AddMember("component", JsonText(r.component, a), a).AddMember("group", JsonText(r.group, a), a);
      row.AddMember("key", JsonText(r.name, a), a).AddMember("identifier", JsonText(r.identifier, a), a);
      row.AddMember("version", JsonText(r.version, a), a).AddMember("bootAction", JsonText(r.bootAction, a), a);
      row.AddMember("value", JsonText(r.value, a), a).AddMember("vitalValue", JsonText(r.vitalValue, a), a);
      row.AddMember("cachedValue", JsonText(r.cachedValue, a), a);
      d.PushBack(row, a);
    }
    cli::PrintJson(d);
    return 0;
  }
  auto text = [](const std::optional<std::string>& t) { return t ? t->c_str() : "-"; };
  std::printf("%-12s %-10s %-20s %-24s %-20s %-8s %s\n", "ACTION", "COMPONENT", "GROUP", "KEY", "ID", "VERSION",
              "VALUE");
  for (const StagedRow& r : rows) {
    // Rows copied from the default configuration carry no BootAction.
    std::printf("%-12s %-10s %-20s %-24s %-20s %-8s %s\n", r.bootAction ? r.bootAction->c_str() : "(default)",
                text(r.component), text(r.group), text(r.name), text(r.identifier), text(r.version), text(r.value));
  }
  return 0;
}

const cli::Registrar kSetDesired(
    {"set-desired", "set-desired FILE [--json]", "validate a desired configuration document and stage it",
     "Validates the desired configuration document FILE ({\"profile\": {component: {group: {key: value}}}})\n"
     "against the registered schemas and prints every error with its JSON path; when it is valid, stages it\n"
     "for the next boot (boot mode 1) together with the current configuration that survives it.\n"
     "Nothing is staged when the document is invalid (exit status 1).",
     RunSetDesired});

const cli::Registrar kSetSmartnic(
    {"set-smartnic", "set-smartnic FILE [--json]", "stage a SmartNIC configuration document",
     "Validates and stages the SmartNIC configuration document FILE ({component: {group: {key: value}}})\n"
     "for the next boot (boot mode 3). \"DELETE_DEFAULT\" removes a key; shared keys the document leaves\n"
     "out start from their default configuration. Validation errors are logged (use -v for progress).",
     RunSetSmartnic});

const cli::Registrar kDeleteHostApi(
    {"delete-hostapi", "delete-hostapi COMPONENT GROUP KEY [--json]", "stage the removal of a key at the next boot",
     "Stages the removal of every instance of the key at the next boot (boot mode 4). Rows staged\n"
     "before are kept.",
     RunDeleteHostApi});

const cli::Registrar kStaged({"staged", "staged [--json]", "list the configuration staged for the next boot",
                              "Lists the rows of DesiredUserConfig: BootAction (SET, DELETE, SET_DEFAULT, or none\n"
                              "for a copied default object), key, instance id, schema version and value.",
                              RunStaged});

}  // namespace
