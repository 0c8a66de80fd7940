// Declares the ABI version but exports no entry point.
#include "platform/upgrade/UpgradeModule.h"

CONFIG_UPGRADE_MODULE_ABI_VERSION_DEFINITION;

CONFIG_UPGRADE_EXPORT int ConfigUpgradeModuleStart(const ConfigUpgradeContext*) { return 0; }
