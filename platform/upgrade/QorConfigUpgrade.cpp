#include "platform/upgrade/QorConfigUpgrade.h"

#include <dlfcn.h>

#include <chrono>
#include <exception>
#include <memory>

#include "platform/dbstore/DBStore.h"
#include "platform/host/HostRoot.h"
#include "platform/logging/CSLogger.h"
#include "platform/upgrade/UpgradeModule.h"

namespace QorConfigUpgrade {
namespace {

// The module being run on this thread, for tagging the lines it logs through the context.
thread_local const char* runningModule = "";

void LogFromModule(int priority, const char* text) {
  if (priority < CSLogger::PRIO_ERROR) priority = CSLogger::PRIO_ERROR;
  if (priority > CSLogger::PRIO_DETAIL) priority = CSLogger::PRIO_DETAIL;
  CSLogger::Log(priority, "Upgrade module [%s]: %s", runningModule, text != nullptr ? text : "(null)");
}

struct Unloader {
  void operator()(void* handle) const { dlclose(handle); }
};

const char* LastDlError() {
  const char* error = dlerror();
  return error != nullptr ? error : "unknown loader error";
}

// Loads, checks and calls one module; true when its entry point returned 0. Logs the reason of a
// failure at error priority.
bool LoadAndCall(const std::string& path, const ConfigUpgradeContext& context) {
  const char* name = path.c_str();
  if (path.empty() || path.front() != '/') {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Upgrade module [%s] refused: not an absolute path", name);
    return false;
  }
  dlerror();
  std::unique_ptr<void, Unloader> handle(dlopen(name, RTLD_NOW | RTLD_LOCAL));
  if (!handle) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Upgrade module [%s] cannot be loaded: %s", name, LastDlError());
    return false;
  }
  dlerror();
  const auto* abiVersion =
      static_cast<const unsigned int*>(dlsym(handle.get(), CONFIG_UPGRADE_ABI_VERSION_SYMBOL));
  if (abiVersion == nullptr) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Upgrade module [%s] does not declare its ABI version: %s", name,
                  LastDlError());
    return false;
  }
  if (*abiVersion != CONFIG_UPGRADE_ABI_VERSION) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Upgrade module [%s] has ABI version %u, the host supports %u", name,
                  *abiVersion, CONFIG_UPGRADE_ABI_VERSION);
    return false;
  }
  dlerror();
  auto run = reinterpret_cast<ConfigUpgradeModuleRunFn>(dlsym(handle.get(), CONFIG_UPGRADE_ENTRY_SYMBOL));
  if (run == nullptr) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Upgrade module [%s] has no entry point %s: %s", name,
                  CONFIG_UPGRADE_ENTRY_SYMBOL, LastDlError());
    return false;
  }
  // The exception object's code lives in the module: it is handled here, before the unload.
  struct RunningModule {
    explicit RunningModule(const char* module) { runningModule = module; }
    ~RunningModule() { runningModule = ""; }
  };
  int status = 0;
  try {
    const RunningModule tag(name);
    status = run(&context);
  } catch (const std::exception& e) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Upgrade module [%s] threw an exception: %s", name, e.what());
    return false;
  } catch (...) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Upgrade module [%s] threw an exception of unknown type", name);
    return false;
  }
  if (status != 0) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "Upgrade module [%s] returned %d", name, status);
    return false;
  }
  return true;
}

bool RunModule(const std::string& path, const ConfigUpgradeContext& context) {
  CSLogger::Log(CSLogger::PRIO_INFO, "Upgrade module [%s] started (%s, %s)", path.c_str(),
                context.mode == CONFIG_UPGRADE_MODE_BOOT ? "boot" : "live install",
                context.commit != 0 ? "commit" : "debugging run");
  const auto start = std::chrono::steady_clock::now();
  bool succeeded = false;
  try {
    succeeded = LoadAndCall(path, context);
  } catch (...) {
    // A static constructor of the module threw while it was being loaded.
    CSLogger::Log(CSLogger::PRIO_ERROR, "Upgrade module [%s] threw an exception while loading", path.c_str());
  }
  const auto elapsed =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
  CSLogger::Log(CSLogger::PRIO_INFO, "Upgrade module [%s] %s in %lld ms", path.c_str(),
                succeeded ? "succeeded" : "failed", static_cast<long long>(elapsed.count()));
  return succeeded;
}

// The context strings must outlive every call; they are built once per run.
struct RunContext {
  RunContext(int mode, bool commit)
      : hostRoot(Host::Root()), configStorePath(DBStore::StorePath(DBStore::CONFIG_STORE)) {
    context.abiVersion = CONFIG_UPGRADE_ABI_VERSION;
    context.hostRoot = hostRoot.c_str();
    context.configStorePath = configStorePath.c_str();
    context.mode = mode;
    context.commit = commit ? 1 : 0;
    context.log = &LogFromModule;
  }
  RunContext(const RunContext&) = delete;
  RunContext& operator=(const RunContext&) = delete;

  std::string hostRoot;
  std::string configStorePath;
  ConfigUpgradeContext context{};
};

// A live-install name stays inside the module directory.
bool IsPlainModuleName(const std::string& name) {
  return !name.empty() && name.find('/') == std::string::npos && name.find("..") == std::string::npos &&
         name.find('\0') == std::string::npos;
}

}  // namespace

int ExecuteBootTimeModules(const std::vector<std::string>& modulePaths, bool commit) {
  const RunContext run(CONFIG_UPGRADE_MODE_BOOT, commit);
  int failed = 0;
  for (const auto& path : modulePaths) {
    if (!RunModule(path, run.context)) ++failed;
  }
  CSLogger::Log(CSLogger::PRIO_INFO, "Upgrade modules: %zu given, %d failed", modulePaths.size(), failed);
  return failed;
}

int ExecuteLiveInstallModules(const std::vector<std::string>& modules) {
  const RunContext run(CONFIG_UPGRADE_MODE_LIVE_INSTALL, true);
  const std::string directory = Host::Resolve(kLiveInstallModuleDir);
  int failed = 0;
  for (const auto& name : modules) {
    if (!IsPlainModuleName(name)) {
      CSLogger::Log(CSLogger::PRIO_ERROR, "Live-install module name [%s] refused: it must name a file of %s",
                    name.c_str(), kLiveInstallModuleDir);
      ++failed;
      continue;
    }
    if (!RunModule(directory + "/" + name + ".so", run.context)) ++failed;
  }
  CSLogger::Log(CSLogger::PRIO_INFO, "Live-install upgrade modules: %zu given, %d failed", modules.size(), failed);
  return failed > 0 ? -failed : static_cast<int>(modules.size());
}

}  // namespace QorConfigUpgrade
