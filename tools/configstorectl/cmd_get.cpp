// get: the configuration objects of the store, narrowed by component, group, key and instance id,
// each with its default from DefaultConfig. Reads over a read-only connection.
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "configstore/frame/BootLock.h"
#include "configstore/plan/StoreListing.h"
#include "platform/dbstore/DBStore.h"
#include "tools/configstorectl/Cli.h"

namespace {

using ConfigObject = QorConfigStore::ConfigObjectListing;

std::vector<ConfigObject> ReadObjects(const std::vector<std::string>& filters) {
  // Held across the check and the read, so that a load's restore is wholly before or after both.
  QorConfigStore::BootLock lock(QorConfigStore::BootLock::Reader{});
  cli::RequireStore(DBStore::StorePath(DBStore::CONFIG_STORE), "configuration store");
  return QorConfigStore::ListConfigObjects(filters);
}

void PrintObjectsJson(const std::vector<ConfigObject>& objects) {
  rapidjson::Document d(rapidjson::kArrayType);
  auto& a = d.GetAllocator();
  for (const ConfigObject& o : objects) {
    rapidjson::Value v(rapidjson::kObjectType);
    auto nullable = [&](const std::optional<std::string>& t) { return t ? cli::JsonText(*t, a) : rapidjson::Value(); };
    v.AddMember("component", cli::JsonText(o.component, a), a).AddMember("group", cli::JsonText(o.group, a), a);
    v.AddMember("key", cli::JsonText(o.key, a), a).AddMember("identifier", cli::JsonText(o.identifier, a), a);
    v.AddMember("version", nullable(o.version), a);
    rapidjson::Value revision;
    if (o.revision) revision.SetInt64(std::strtoll(o.revision->c_str(), nullptr, 10));
    v.AddMember("revision", revision, a).AddMember("created", nullable(o.created), a);
    v.AddMember("user", cli::StoredValueJson(o.user, a), a);
    v.AddMember("vital", cli::StoredValueJson(o.vital, a), a);
    v.AddMember("cached", cli::StoredValueJson(o.cached, a), a);
    v.AddMember("default", cli::StoredValueJson(o.defaultValue, a), a);
    d.PushBack(v, a);
  }
  cli::PrintJson(d);
}

// "COMPONENT/GROUP/KEY [ID]", as far as the names go.
std::string Heading(const std::vector<std::string>& names) {
  std::string heading;
  for (size_t i = 0; i < names.size() && i < 3; ++i) heading += (i == 0 ? "" : "/") + names[i];
  if (names.size() > 3) heading += " [" + names[3] + "]";
  return heading;
}

void PrintObjectsText(const std::vector<ConfigObject>& objects) {
  auto orDash = [](const std::optional<std::string>& t) { return t && !t->empty() ? cli::Printable(*t) : "-"; };
  bool first = true;
  for (const ConfigObject& o : objects) {
    std::string heading = Heading({o.component, o.group, o.key});
    if (!o.identifier.empty()) heading += " [" + o.identifier + "]";
    std::printf("%s%s\n", first ? "" : "\n", cli::Paint(cli::Style::Bold, cli::Printable(heading)).c_str());
    std::printf("  version:  %s\n  revision: %s\n  created:  %s\n", orDash(o.version).c_str(),
                orDash(o.revision).c_str(), orDash(o.created).c_str());
    std::printf("  user:     %s\n  vital:    %s\n  cached:   %s\n  default:  %s\n",
                cli::StoredValueText(o.user).c_str(), cli::StoredValueText(o.vital).c_str(),
                cli::StoredValueText(o.cached).c_str(), cli::StoredValueText(o.defaultValue).c_str());
    first = false;
  }
}

int RunGet(const cli::Invocation& inv) {
  std::vector<std::string> filters = cli::Positionals(inv.args);
  if (filters.size() > 4) {
    throw cli::UsageError("at most COMPONENT GROUP KEY ID, not " + std::to_string(filters.size()) + " names");
  }
  std::vector<ConfigObject> objects = ReadObjects(filters);
  if (inv.json) {
    PrintObjectsJson(objects);
  } else {
    PrintObjectsText(objects);
  }
  if (objects.empty() && !filters.empty()) throw cli::NothingMatched(cli::Printable(Heading(filters)));
  return 0;
}

const cli::Registrar kGet({"get", "get [COMPONENT [GROUP [KEY [ID]]]]",
                           "configuration objects with their values, version and default",
                           "Lists the configuration objects of the store (the Config table), narrowed to a\n"
                           "component, group, key and instance id when given (exact names; \"\" as ID is a\n"
                           "singleton; put \"--\" before a name that begins with \"-\"). For each: schema version,\n"
                           "revision, creation time, user, vital and cached values, and the default value of\n"
                           "the same object from DefaultConfig. Values are shown as compact JSON, \"-\" when\n"
                           "there is none. --json gives an array of objects with the values as JSON (null when\n"
                           "there is none). Reads only; exit status 1 when the store does not exist, 3 when the\n"
                           "names given match no object.",
                           RunGet});

}  // namespace
