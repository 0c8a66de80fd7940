// create-store: creates the store databases that are missing, with all their tables; and the
// check of the subcommands that need a store to be there already.
#include <cstdio>
#include <string>

#include "configstore/frame/CallFrame.h"
#include "configstore/frame/ConfigStoreException.h"
#include "platform/dbstore/DBStore.h"
#include "tools/configstorectl/Cli.h"

namespace cli {

void RequireStore(const std::string& path, const char* what) {
  if (!QorConfigStore::FileExists(path.c_str())) {
    throw QorConfigStore::ConfigStoreException(
        QorConfigStore::CS_ERR_GENERIC,
        std::string("no ") + what + " at " + path + " (it is made at boot by load, or by create-store)");
  }
}

}  // namespace cli

namespace {

int RunCreateStore(const cli::Invocation& inv) {
  cli::ExpectNoMoreArgs(inv.args);
  if (DBStore::CreateDatabases() != 0) {
    throw QorConfigStore::ConfigStoreException(QorConfigStore::CS_ERR_GENERIC, "Failed to create the store databases");
  }
  const std::string config = DBStore::StorePath(DBStore::CONFIG_STORE);
  const std::string dataFiles = DBStore::StorePath(DBStore::DATAFILE_STORE);
  const std::string schemas = DBStore::SchemaStorePath();
  if (inv.json) {
    rapidjson::Document d(rapidjson::kObjectType);
    auto& a = d.GetAllocator();
    d.AddMember("configStore", cli::JsonText(config, a), a).AddMember("dataFileStore", cli::JsonText(dataFiles, a), a);
    d.AddMember("schemaStore", cli::JsonText(schemas, a), a);
    cli::PrintJson(d);
  } else {
    std::printf("store databases present:\n  %s\n  %s\n  %s\n", config.c_str(), dataFiles.c_str(), schemas.c_str());
  }
  return 0;
}

const cli::Registrar kCreateStore({"create-store", "create-store",
                                   "create the store databases that are missing (existing ones are kept)",
                                   "Creates the configuration, data-file and schema store databases where they are\n"
                                   "missing, with all their tables. Existing databases and their rows are kept.",
                                   RunCreateStore});

}  // namespace
