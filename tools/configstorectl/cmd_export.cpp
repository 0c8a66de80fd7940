// export: the live configuration as a desired configuration document.
// diff: two configurations (stores or documents) compared object by object.
#include <cstdio>

#include "configstore/frame/BootLock.h"
#include "configstore/plan/ConfigExport.h"
#include "platform/dbstore/DBStore.h"
#include "platform/host/Files.h"
#include "tools/configstorectl/Changes.h"

namespace {

using namespace QorConfigStore;

int RunExport(const cli::Invocation& inv) {
  std::vector<std::string> args = inv.args;
  const std::optional<std::string> file = cli::TakeOption(args, "-o");
  const std::vector<std::string> names = cli::Positionals(args);
  if (names.size() > 3) throw cli::UsageError("unexpected argument '" + cli::Printable(names[3]) + "'");
  // Held across the check and the read, so that a load's restore is wholly before or after both.
  QorConfigStore::BootLock lock(QorConfigStore::BootLock::Reader{});
  cli::RequireStore(DBStore::StorePath(DBStore::CONFIG_STORE), "configuration store");
  cli::RequireStore(DBStore::SchemaStorePath(), "schema store");

  ConfigExport exported = ExportConfiguration(names);
  rapidjson::Document d(rapidjson::kObjectType);
  auto& a = d.GetAllocator();
  rapidjson::Value leftOut(rapidjson::kArrayType);
  for (const LeftOutObject& o : exported.leftOut) {
    std::fprintf(stderr, "configstorectl export: left out %s %s %s%s: %s\n", cli::Printable(o.id.component).c_str(),
                 cli::Printable(o.id.group).c_str(), cli::Printable(o.id.key).c_str(),
                 o.id.id.empty() ? "" : (" [" + cli::Printable(o.id.id) + "]").c_str(), o.reason.c_str());
    rapidjson::Value entry(rapidjson::kObjectType);
    entry.AddMember("component", cli::JsonText(o.id.component, a), a).AddMember("group", cli::JsonText(o.id.group, a), a);
    entry.AddMember("key", cli::JsonText(o.id.key, a), a).AddMember("identifier", cli::JsonText(o.id.id, a), a);
    entry.AddMember("reason", cli::JsonText(o.reason, a), a);
    leftOut.PushBack(entry, a);
  }
  if (file) {
    std::string error;
    if (!Host::WriteFileAtomically(*file, cli::PrettyJson(exported.document), &error)) {
      throw ConfigStoreException(CS_ERR_GENERIC, "Failed to write the export: " + error);
    }
  }
  if (inv.json) {
    d.AddMember("file", file ? cli::JsonText(*file, a) : rapidjson::Value(), a);
    d.AddMember("objects", static_cast<uint64_t>(exported.objects), a).AddMember("leftOut", leftOut, a);
    d.AddMember("document", file ? rapidjson::Value() : rapidjson::Value(exported.document, a), a);
    cli::PrintJson(d);
  } else if (file) {
    std::printf("%zu objects exported to %s, %zu left out\n", exported.objects, cli::Printable(*file).c_str(),
                exported.leftOut.size());
  } else {
    cli::PrintJson(exported.document);
  }
  if (!names.empty() && exported.objects == 0 && exported.leftOut.empty()) {
    std::string what;
    for (const std::string& name : names) what += (what.empty() ? "" : "/") + cli::Printable(name);
    throw cli::NothingMatched(what);
  }
  return 0;
}

int RunDiff(const cli::Invocation& inv) {
  const std::vector<std::string> files = cli::Positionals(inv.args);
  if (files.size() != 2) {
    throw cli::UsageError(files.size() < 2 ? "two files to compare are needed"
                                           : "unexpected argument '" + cli::Printable(files[2]) + "'");
  }
  // A document holds user values only: against one, a store is compared on those alone.
  const bool userValuesOnly = !IsStoreFile(files[0]) || !IsStoreFile(files[1]);
  const ConfigObjects a = ReadConfigFile(files[0], userValuesOnly);  // A's failure is named first
  ObjectChanges changes = CompareObjects(a, ReadConfigFile(files[1], userValuesOnly));
  const bool equal = changes.added.empty() && changes.removed.empty() && changes.changed.empty();
  if (inv.json) {
    rapidjson::Document d(rapidjson::kObjectType);
    auto& a = d.GetAllocator();
    d.AddMember("a", cli::JsonText(files[0], a), a).AddMember("b", cli::JsonText(files[1], a), a);
    d.AddMember("userValuesOnly", userValuesOnly, a).AddMember("equal", equal, a);
    cli::AddChangesJson(d, changes, a);
    cli::PrintJson(d);
  } else {
    cli::PrintChangesText(changes);
    std::printf("%zu added, %zu removed, %zu changed%s\n", changes.added.size(), changes.removed.size(),
                changes.changed.size(), userValuesOnly ? " (user values only)" : "");
  }
  return equal ? 0 : 1;
}

const cli::Registrar kExport(
    {"export", "export [COMPONENT [GROUP [KEY]]] [-o FILE]",
     "the live configuration as a desired configuration document that set-desired takes",
     "Writes the user values of the configuration store (only those of the named component, group\n"
     "and key when given) as a desired configuration document, to standard output or atomically to\n"
     "FILE: a singleton key's object as an object, an instanced key's objects as an array, ordered by\n"
     "component, group, key and instance id, so two exports of one store are byte for byte the same.\n"
     "Staging the whole export with set-desired plans no change beyond what is named on standard error.\n"
     "An object the document cannot carry is named there with the reason (no schema registered for its\n"
     "key, a user value that is not a JSON object, an instance id member that does not give its\n"
     "identifier, or an object that staging carries over from the host by itself), and so is a default\n"
     "instance of a key with mutable default configuration that has no user value in the store, or\n"
     "whose ids are generated (staging copies those back whatever the document says), and an object\n"
     "with a pending desired value (exported with its user value; the pending value is not carried).\n"
     "Names under which nothing is found to write or to name exit with 3, as get does.\n"
     "--json: {\"file\", \"objects\", \"leftOut\":\n"
     "[{\"component\", \"group\", \"key\", \"identifier\", \"reason\"}], \"document\"} (\"document\" null with -o).",
     RunExport});

const cli::Registrar kDiff(
    {"diff", "diff A B", "compare two stores or exported documents object by object, as plan does",
     "A and B are each a configuration store file (any copy of current-store-1) or a desired\n"
     "configuration document (an export). Lists the objects only in B (added), only in A (removed)\n"
     "and in both with another value (changed), in the form of 'plan'. Two stores are compared on\n"
     "user, vital and cached values; when either side is a document, on user values alone (a store's\n"
     "objects without one are left aside). A document's instance ids come from the schemas of this\n"
     "host root. Exit status 0 when they are the same, 1 when they differ, 2 on bad usage or when a\n"
     "file cannot be read. --json: {\"a\", \"b\", \"userValuesOnly\", \"equal\", \"added\", \"removed\",\n"
     "\"changed\"} with the lists as 'plan --json' has them.",
     RunDiff, /*printsData=*/true, /*answersWithStatus=*/true});

}  // namespace
