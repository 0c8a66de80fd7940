// Calls a function that nothing defines: loading it with immediate binding must fail.
#include "platform/upgrade/UpgradeModule.h"

extern "C" int ConfigUpgradeTestMissingFunction();

CONFIG_UPGRADE_MODULE_ABI_VERSION_DEFINITION;

CONFIG_UPGRADE_EXPORT int ConfigUpgradeModuleRun(const ConfigUpgradeContext*) {
  return ConfigUpgradeTestMissingFunction();
}
