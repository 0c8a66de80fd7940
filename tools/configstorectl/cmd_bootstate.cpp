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

using cli::TakeArg;

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
  std::vector<std::string> rest = inv.args;
  std::string action = TakeArg(rest, "action", "get");
  if (action == "get") {
    cli::ExpectNoMoreArgs(rest);
    PrintBootMode(GetBootMode(), inv.json);
    return 0;
  }
  if (action != "set") throw cli::UsageError("unknown action '" + action + "'");
  std::string n = TakeArg(rest, "boot mode number");
  cli::ExpectNoMoreArgs(rest);
  if (n.size() != 1 || n[0] < '0' || n[0] > '4') throw cli::UsageError("boot mode must be 0..4, not '" + n + "'");
  int mode = n[0] - '0';
  SetBootMode(static_cast<BOOTMODE>(mode));
  int stored = GetBootMode();
  cli::ExpectStored("BOOT_MODE", std::to_string(stored), n);
  PrintBootMode(stored, inv.json);
  return 0;
}

int RunAutoConf(const cli::Invocation& inv) {
  std::vector<std::string> rest = inv.args;
  std::string action = TakeArg(rest, "action (start, end or status)");
  cli::ExpectNoMoreArgs(rest);
  if (action == "start") {
    StartAutoConf();
  } else if (action == "end") {
    EndAutoConf();
  } else if (action != "status") {
    throw cli::UsageError("unknown action '" + action + "'");
  }
  bool running = IsAutoConf();
  if (action != "status") cli::ExpectStored("IS_BOOT", running ? "true" : "", action == "start" ? "true" : "");
  PrintBool("autoconf", running, inv.json);
  return 0;
}

int RunLiveInstall(const cli::Invocation& inv) {
  std::vector<std::string> rest = inv.args;
  std::string value = TakeArg(rest, "value (true or false)");
  cli::ExpectNoMoreArgs(rest);
  if (value != "true" && value != "false") throw cli::UsageError("value must be true or false, not '" + value + "'");
  int rc = SetLiveInstallBoot(value.c_str());
  if (rc != 0) {
    throw ConfigStoreException(CS_ERR_GENERIC, std::string("writing ") + POST_LIVE_INSTALL_BOOT +
                                                   " failed with rc = " + std::to_string(rc));
  }
  PrintBool("postLiveInstallBoot", value == "true", inv.json);
  return 0;
}

int RunInstallInfo(const cli::Invocation& inv) {
  std::vector<std::string> rest = inv.args;
  std::string action = TakeArg(rest, "action", "get");
  if (action == "set") {
    std::string text = TakeArg(rest, "install information text");
    cli::ExpectNoMoreArgs(rest);
    SetInstallInfo(text);
    cli::ExpectStored(kInstallInfoKey, GetInstallInfo(), text);
  } else if (action != "get") {
    throw cli::UsageError("unknown action '" + action + "'");
  }
  cli::ExpectNoMoreArgs(rest);
  std::string info = GetInstallInfo();
  if (inv.json) {
    rapidjson::Document d(rapidjson::kObjectType);
    auto& al = d.GetAllocator();
    d.AddMember("installInfo", cli::JsonText(info, al), al);
    cli::PrintJson(d);
  } else {
    std::printf("%s\n", cli::Printable(info).c_str());
  }
  return 0;
}

int RunBootState(const cli::Invocation& inv) {
  std::vector<std::string> rest = inv.args;
  std::string action = TakeArg(rest, "action (cleanup)");
  cli::ExpectNoMoreArgs(rest);
  if (action != "cleanup") throw cli::UsageError("unknown action '" + action + "'");
  CleanupBootState();
  if (inv.json) {
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
  cli::ExpectNoMoreArgs(inv.args);
  const std::vector<Answer> answers = {
      Ask("upgrade", "upgrade", IsUpgrade),
      Ask("bootbankChanged", "bootbank changed", HasBootbankChanged),
      Ask("installed", "installed", IsInstalled),
      Ask("debugUpgrade", "debug upgrade", IsDebugUpgrade),
      Ask("ferrinInstalled", "ferrin installed", IsFerrinInstalled),
      Ask("bootFsUuid", "boot fs uuid", [] { return GetBootFsUUID(true); }),
  };
  if (inv.json) {
    rapidjson::Document d(rapidjson::kObjectType);
    auto& al = d.GetAllocator();
    for (const Answer& ans : answers) {
      rapidjson::Value v;
      if (ans.failed) {
        rapidjson::Value err(rapidjson::kObjectType);
        if (ans.code != 0) err.AddMember("code", ans.code, al);
        err.AddMember("message", cli::JsonText(ans.error, al), al);
        v.SetObject();
        v.AddMember("error", err, al);
      } else if (ans.isText) {
        v = cli::JsonText(ans.text, al);
      } else {
        v.SetBool(ans.flag);
      }
      d.AddMember(rapidjson::StringRef(ans.jsonName), v, al);
    }
    cli::PrintJson(d);
  } else {
    for (const Answer& ans : answers) {
      std::string value = ans.isText ? cli::Printable(ans.text) : ans.flag ? "true" : "false";
      if (ans.failed) {
        value = cli::Paint(cli::Style::Red, ans.code != 0 ? "error " + std::to_string(ans.code) + ": " + ans.error
                                                           : "error: " + ans.error);
      }
      std::printf("%-18s %s\n", ans.label, value.c_str());
    }
  }
  // The first unanswered question makes the failure line; the others were shown above.
  for (const Answer& ans : answers) {
    if (ans.failed) {
      throw ConfigStoreException(ans.code != 0 ? ans.code : CS_ERR_GENERIC,
                                 std::string("no answer for \"") + ans.label + "\": " + ans.error);
    }
  }
  return 0;
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
