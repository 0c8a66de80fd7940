// Boot-state flags and the kind of the current boot: boot-mode, autoconf, live-install,
// install-info, boot-state and boot-kind.
#include <cstdio>
#include <exception>
#include <functional>
#include <string>
#include <type_traits>
#include <vector>

#include "configstore/bootstate/BootState.h"
#include "configstore/bootstate/UpgradeDetection.h"
#include "configstore/frame/ConfigStoreException.h"
#include "tools/configstorectl/Cli.h"

namespace {

using namespace QorConfigStore;

// Arguments after the subcommand, with a trailing --json folded into the global one.
struct Args {
  std::vector<std::string> rest;
  bool json;
};

Args Parse(const cli::Invocation& inv) {
  Args a{inv.args, inv.json};
  if (cli::TakeFlag(a.rest, "--json")) a.json = true;
  return a;
}

// Removes and returns the first argument; a usage error when there is none.
std::string TakeArg(std::vector<std::string>& args, const char* what) {
  if (args.empty()) throw cli::UsageError(std::string("missing ") + what);
  std::string first = args.front();
  args.erase(args.begin());
  return first;
}

const char* BootModeName(int mode) {
  switch (mode) {
    case BOOT_MODE_DEFAULT: return "BOOT_MODE_DEFAULT";
    case BOOT_MODE_DESIRED_USER_CONFIG: return "BOOT_MODE_DESIRED_USER_CONFIG";
    case BOOT_MODE_NEW_STORE: return "BOOT_MODE_NEW_STORE";
    case BOOT_MODE_SMARTNIC_CONFIG: return "BOOT_MODE_SMARTNIC_CONFIG";
    case BOOT_MODE_HOSTAPI_CONFIG: return "BOOT_MODE_HOSTAPI_CONFIG";
    default: return "unknown";
  }
}

void PrintBootMode(int mode, bool json) {
  if (json) {
    rapidjson::Document d(rapidjson::kObjectType);
    auto& a = d.GetAllocator();
    d.AddMember("bootMode", mode, a).AddMember("name", rapidjson::StringRef(BootModeName(mode)), a);
    cli::PrintJson(d);
  } else {
    std::printf("%d (%s)\n", mode, BootModeName(mode));
  }
}

void PrintBool(const char* name, bool value, bool json) {
  if (json) {
    rapidjson::Document d(rapidjson::kObjectType);
    d.AddMember(rapidjson::StringRef(name), value, d.GetAllocator());
    cli::PrintJson(d);
  } else {
    std::printf("%s\n", value ? "true" : "false");
  }
}

int RunBootMode(const cli::Invocation& inv) {
  Args a = Parse(inv);
  std::string action = a.rest.empty() ? "get" : TakeArg(a.rest, "action");
  if (action == "get") {
    cli::ExpectNoMoreArgs(a.rest);
    PrintBootMode(GetBootMode(), a.json);
    return 0;
  }
  if (action != "set") throw cli::UsageError("unknown action '" + action + "'");
  std::string n = TakeArg(a.rest, "boot mode number");
  cli::ExpectNoMoreArgs(a.rest);
  if (n.size() != 1 || n[0] < '0' || n[0] > '4') throw cli::UsageError("boot mode must be 0..4, not '" + n + "'");
  int mode = n[0] - '0';
  SetBootMode(static_cast<BOOTMODE>(mode));
  PrintBootMode(mode, a.json);
  return 0;
}

int RunAutoConf(const cli::Invocation& inv) {
  Args a = Parse(inv);
  std::string action = TakeArg(a.rest, "action (start, end or status)");
  cli::ExpectNoMoreArgs(a.rest);
  if (action == "start") {
    StartAutoConf();
  } else if (action == "end") {
    EndAutoConf();
  } else if (action != "status") {
    throw cli::UsageError("unknown action '" + action + "'");
  }
  PrintBool("autoconf", IsAutoConf(), a.json);
  return 0;
}

int RunLiveInstall(const cli::Invocation& inv) {
  Args a = Parse(inv);
  std::string value = TakeArg(a.rest, "value (true or false)");
  cli::ExpectNoMoreArgs(a.rest);
  if (value != "true" && value != "false") throw cli::UsageError("value must be true or false, not '" + value + "'");
  int rc = SetLiveInstallBoot(value.c_str());
  if (rc != 0) {
    std::fprintf(stderr, "configstorectl live-install: error: writing %s failed with rc = %d\n", POST_LIVE_INSTALL_BOOT, rc);
    return 1;
  }
  PrintBool("postLiveInstallBoot", value == "true", a.json);
  return 0;
}

int RunInstallInfo(const cli::Invocation& inv) {
  Args a = Parse(inv);
  std::string action = a.rest.empty() ? "get" : TakeArg(a.rest, "action");
  if (action == "set") {
    std::string text = TakeArg(a.rest, "install information text");
    cli::ExpectNoMoreArgs(a.rest);
    SetInstallInfo(text);
  } else if (action != "get") {
    throw cli::UsageError("unknown action '" + action + "'");
  }
  cli::ExpectNoMoreArgs(a.rest);
  std::string info = GetInstallInfo();
  if (a.json) {
    rapidjson::Document d(rapidjson::kObjectType);
    auto& al = d.GetAllocator();
    d.AddMember("installInfo", rapidjson::Value(info.c_str(), static_cast<rapidjson::SizeType>(info.size()), al), al);
    cli::PrintJson(d);
  } else {
    std::printf("%s\n", info.c_str());
  }
  return 0;
}

int RunBootState(const cli::Invocation& inv) {
  Args a = Parse(inv);
  std::string action = TakeArg(a.rest, "action (cleanup)");
  cli::ExpectNoMoreArgs(a.rest);
  if (action != "cleanup") throw cli::UsageError("unknown action '" + action + "'");
  CleanupBootState();
  if (a.json) {
    rapidjson::Document d(rapidjson::kObjectType);
    d.AddMember("cleanedUp", true, d.GetAllocator());
    cli::PrintJson(d);
  }
  return 0;
}

// One answer of boot-kind: a value, or the error that kept it from being known.
struct Answer {
  const char* jsonName;
  const char* label;
  bool isText = false;
  bool flag = false;
  std::string text;
  bool failed = false;
  int code = 0;  // 0 when the failure was not a ConfigStoreException
  std::string error;
};

template <typename F>
Answer Ask(const char* jsonName, const char* label, F question) {
  Answer ans{jsonName, label};
  try {
    if constexpr (std::is_same_v<decltype(question()), bool>) {
      ans.flag = question();
    } else {
      ans.isText = true;
      ans.text = question();
    }
  } catch (const ConfigStoreException& e) {
    ans.failed = true;
    ans.code = e.code();
    ans.error = e.what();
  } catch (const std::exception& e) {
    ans.failed = true;
    ans.error = e.what();
  }
  return ans;
}

int RunBootKind(const cli::Invocation& inv) {
  Args a = Parse(inv);
  cli::ExpectNoMoreArgs(a.rest);
  const std::vector<Answer> answers = {
      Ask("upgrade", "upgrade", IsUpgrade),
      Ask("bootbankChanged", "bootbank changed", HasBootbankChanged),
      Ask("installed", "installed", IsInstalled),
      Ask("debugUpgrade", "debug upgrade", IsDebugUpgrade),
      Ask("ferrinInstalled", "ferrin installed", IsFerrinInstalled),
      Ask("bootFsUuid", "boot fs uuid", [] { return GetBootFsUUID(true); }),
  };
  bool anyFailed = false;
  if (a.json) {
    rapidjson::Document d(rapidjson::kObjectType);
    auto& al = d.GetAllocator();
    for (const Answer& ans : answers) {
      rapidjson::Value v;
      if (ans.failed) {
        rapidjson::Value err(rapidjson::kObjectType);
        if (ans.code != 0) err.AddMember("code", ans.code, al);
        err.AddMember("message", rapidjson::Value(ans.error.c_str(), al), al);
        v.SetObject();
        v.AddMember("error", err, al);
      } else if (ans.isText) {
        v.SetString(ans.text.c_str(), static_cast<rapidjson::SizeType>(ans.text.size()), al);
      } else {
        v.SetBool(ans.flag);
      }
      d.AddMember(rapidjson::StringRef(ans.jsonName), v, al);
      anyFailed = anyFailed || ans.failed;
    }
    cli::PrintJson(d);
  } else {
    for (const Answer& ans : answers) {
      if (ans.failed) {
        if (ans.code != 0) {
          std::printf("%-18s error %d: %s\n", ans.label, ans.code, ans.error.c_str());
        } else {
          std::printf("%-18s error: %s\n", ans.label, ans.error.c_str());
        }
      } else {
        std::printf("%-18s %s\n", ans.label, ans.isText ? ans.text.c_str() : ans.flag ? "true" : "false");
      }
      anyFailed = anyFailed || ans.failed;
    }
  }
  return anyFailed ? 1 : 0;
}

const cli::Registrar kBootMode({"boot-mode", "boot-mode [get|set N]", "read or set the next boot's mode (0..4)",
                                "get (the default) prints the stored boot mode; set N stores mode N for the next boot:\n"
                                "  0 default, 1 desired user configuration, 2 new store, 3 SmartNIC configuration,\n"
                                "  4 host API configuration.",
                                RunBootMode});
const cli::Registrar kAutoConf({"autoconf", "autoconf start|end|status",
                                "mark the automatic configuration pass as running or over",
                                "start sets the flag, end clears it, status only reads it; each prints the flag.",
                                RunAutoConf});
const cli::Registrar kLiveInstall({"live-install", "live-install true|false",
                                   "mark whether the next boot follows a live install",
                                   "Stores the live-install marker that the next boot's cleanup turns back to false.",
                                   RunLiveInstall});
const cli::Registrar kInstallInfo({"install-info", "install-info [get|set TEXT]",
                                   "read or store the install information text",
                                   "get (the default) prints the stored text; set TEXT stores it as given and prints it.",
                                   RunInstallInfo});
const cli::Registrar kBootState({"boot-state", "boot-state cleanup",
                                 "record the booted filesystem and clear the live-install marker",
                                 "cleanup records the booted filesystem's UUID when it changed and turns a set\n"
                                 "live-install marker back to false; run once the boot's load has finished.",
                                 RunBootState});
const cli::Registrar kBootKind({"boot-kind", "boot-kind", "what kind of boot this is",
                                "Prints every answer for this boot: upgrade, bootbank changed, installed, debug upgrade,\n"
                                "ferrin installed and the boot filesystem UUID. An answer that cannot be had is shown as\n"
                                "an error on its own line (an {\"error\": {...}} object with --json) and the others are\n"
                                "still given; the exit status is then 1.",
                                RunBootKind});

}  // namespace
