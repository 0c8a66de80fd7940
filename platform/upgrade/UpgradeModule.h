/* The interface of a configuration upgrade module, for the authors of such modules (C or C++).
 *
 * A module is a shared object that a package ships. On a configuration upgrade boot the host
 * loads every "*.so" of "/usr/lib/talvex/configmanager/upgrade/lib"; after a live package install
 * it loads the named modules of "/usr/lib/talvex/configmanager/upgrade/live". Each module is
 * loaded (RTLD_NOW | RTLD_LOCAL), run once on the host's thread and unloaded again, one module at
 * a time, so it must not leave threads, handlers or pointers to its own code behind.
 *
 * A module exports two symbols:
 *   - the data symbol ConfigUpgradeModuleAbiVersion, defined by writing
 *     CONFIG_UPGRADE_MODULE_ABI_VERSION_DEFINITION; once in one source file; the host refuses a
 *     module without it or with another value, before calling anything of the module;
 *   - the entry point ConfigUpgradeModuleRun, which returns 0 on success and any other value on
 *     failure. It must not let a C++ exception escape (the host catches one and counts the module
 *     as failed, but a module built without unwind tables cannot be unwound safely).
 *
 * Minimal module:
 *
 *   #include "platform/upgrade/UpgradeModule.h"
 *   CONFIG_UPGRADE_MODULE_ABI_VERSION_DEFINITION;
 *   CONFIG_UPGRADE_EXPORT int ConfigUpgradeModuleRun(const ConfigUpgradeContext* ctx) {
 *     if (!ctx->commit) { ctx->log(2, "would rename key x to y"); return 0; }
 *     ... change the store at ctx->configStorePath ...
 *     return 0;
 *   }
 */
#ifndef PLATFORM_UPGRADE_UPGRADEMODULE_H
#define PLATFORM_UPGRADE_UPGRADEMODULE_H

#ifdef __cplusplus
#define CONFIG_UPGRADE_EXPORT extern "C" __attribute__((visibility("default")))
#else
#define CONFIG_UPGRADE_EXPORT __attribute__((visibility("default")))
#endif

/* Raised whenever the layout or meaning of ConfigUpgradeContext changes. */
#define CONFIG_UPGRADE_ABI_VERSION 1u

#define CONFIG_UPGRADE_ENTRY_SYMBOL "ConfigUpgradeModuleRun"
#define CONFIG_UPGRADE_ABI_VERSION_SYMBOL "ConfigUpgradeModuleAbiVersion"

/* Why the host runs the module. */
enum ConfigUpgradeMode {
  CONFIG_UPGRADE_MODE_BOOT = 0,         /* configuration upgrade boot */
  CONFIG_UPGRADE_MODE_LIVE_INSTALL = 1  /* after a live package install, without a reboot */
};

/* Owned by the host and valid only during the call; a module copies what it wants to keep. */
typedef struct ConfigUpgradeContext {
  unsigned int abiVersion;     /* CONFIG_UPGRADE_ABI_VERSION of the host */
  const char* hostRoot;        /* directory standing for "/", without trailing slash: "" on a real
                                  host; prefix every fixed host path with it */
  const char* configStorePath; /* the configuration store (a SQLite file), root already applied */
  int mode;                    /* a ConfigUpgradeMode */
  int commit;                  /* 0: a debugging run; report what would change, change nothing */
  /* Writes one line to the host's configuration store log, tagged with the module's path.
   * Priorities: 0 error, 1 warning, 2 information, 3 detail. */
  void (*log)(int priority, const char* text);
} ConfigUpgradeContext;

#ifdef __cplusplus
extern "C" {
#endif

typedef int (*ConfigUpgradeModuleRunFn)(const ConfigUpgradeContext* ctx);

int ConfigUpgradeModuleRun(const ConfigUpgradeContext* ctx);
extern const unsigned int ConfigUpgradeModuleAbiVersion;

#ifdef __cplusplus
}
#endif

#define CONFIG_UPGRADE_MODULE_ABI_VERSION_DEFINITION \
  CONFIG_UPGRADE_EXPORT const unsigned int ConfigUpgradeModuleAbiVersion = CONFIG_UPGRADE_ABI_VERSION

#endif /* PLATFORM_UPGRADE_UPGRADEMODULE_H */
