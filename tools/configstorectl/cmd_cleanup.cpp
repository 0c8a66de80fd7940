// cleanup: removal of rows no schema owns, of automatic values, and of data files the store does
// not record.
#include <string>
#include <vector>

#include "configstore/maintenance/Cleanup.h"
#include "tools/configstorectl/Cli.h"

namespace {

int RunCleanup(const cli::Invocation& inv) {
  std::vector<std::string> args = inv.args;
  const std::string target = cli::TakeArg(args, "target (store, autoconf or datafiles)");
  if (target == "store") {
    bool atBoot = cli::TakeFlag(args, "--boot");
    cli::ExpectNoMoreArgs(args);
    QorConfigStore::CleanupStore(atBoot);
  } else if (target == "autoconf") {
    cli::ExpectNoMoreArgs(args);
    QorConfigStore::CleanupAutoConfig();
  } else if (target == "datafiles") {
    cli::ExpectNoMoreArgs(args);
    QorConfigStore::CleanupDataFiles();
  } else {
    throw cli::UsageError("unknown target '" + target + "'");
  }
  return 0;
}

const cli::Registrar kCleanup({"cleanup", "cleanup store [--boot] | autoconf | datafiles",
                               "remove what no schema or record owns any longer",
                               "store      delete configuration rows and data-file records without a schema;\n"
                               "           without --boot also remove the orphaned data directories\n"
                               "autoconf   clear every automatic value and drop rows left without a value\n"
                               "datafiles  reconcile /var/cache/datafiles with the data-file records\n"
                               "store and datafiles are best effort: failures are logged (-v) and raised as events.",
                               RunCleanup,
                               /*printsData=*/false});  // the cleanups report through the log and events

}  // namespace
