// Appends "<tag> mode=<mode> commit=<commit> store=<store path>" to "<root>/var/tmp/upgrade-module-runs"
// so that tests see which modules ran, in which order and with which context, then returns
// MODULE_STATUS. Built with MODULE_ABI_VERSION it declares that ABI version instead of the host's,
// with MODULE_WITHOUT_ABI_VERSION none at all.
#include <fstream>
#include <string>

#include "platform/upgrade/UpgradeModule.h"

#ifndef MODULE_STATUS
#define MODULE_STATUS 0
#endif

#ifdef MODULE_ABI_VERSION
CONFIG_UPGRADE_EXPORT const unsigned int ConfigUpgradeModuleAbiVersion = MODULE_ABI_VERSION;
#elif !defined(MODULE_WITHOUT_ABI_VERSION)
CONFIG_UPGRADE_MODULE_ABI_VERSION_DEFINITION;
#endif

CONFIG_UPGRADE_EXPORT int ConfigUpgradeModuleRun(const ConfigUpgradeContext* ctx) {
  std::ofstream out(std::string(ctx->hostRoot) + "/var/tmp/upgrade-module-runs", std::ios::app);
  out << MODULE_TAG << " mode=" << ctx->mode << " commit=" << ctx->commit << " store=" << ctx->configStorePath
      << "\n";
  ctx->log(2, ctx->commit ? MODULE_TAG " changed the store" : MODULE_TAG " would change the store");
  return out.good() ? MODULE_STATUS : 100;
}
