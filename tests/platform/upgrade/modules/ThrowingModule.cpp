// Lets a C++ exception escape its entry point.
#include <stdexcept>

#include "platform/upgrade/UpgradeModule.h"

CONFIG_UPGRADE_MODULE_ABI_VERSION_DEFINITION;

CONFIG_UPGRADE_EXPORT int ConfigUpgradeModuleRun(const ConfigUpgradeContext*) {
  throw std::runtime_error("module exploded");
}
