#include "platform/host/Features.h"

#include <sstream>
#include <string>

#include "platform/host/Files.h"
#include "platform/host/HostRoot.h"

namespace Host {

namespace {
// A switch is a line of a few bytes.
constexpr size_t kMaxFeaturesBytes = 1024 * 1024;
}  // namespace

bool FeatureDefault(int feature) { return feature != FEATURE_REDUCED_BACKUP_RESERVATION; }

bool FeatureState_IsEnabled(int feature) {
  bool state = FeatureDefault(feature);
  std::string text;
  // An unreadable file (missing, not regular, over the cap) leaves every feature at its default.
  if (!ReadFile(Resolve("/etc/talvex/features"), &text, nullptr, kMaxFeaturesBytes)) return state;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    auto hash = line.find('#');
    if (hash != std::string::npos) line.erase(hash);
    auto eq = line.find('=');
    if (eq == std::string::npos) continue;
    std::string id = line.substr(0, eq), value = line.substr(eq + 1);
    auto trim = [](std::string& s) {
      s.erase(0, s.find_first_not_of(" \t\r"));
      s.erase(s.find_last_not_of(" \t\r") + 1);
    };
    trim(id);
    trim(value);
    if (id != std::to_string(feature)) continue;
    if (value == "on") state = true;
    if (value == "off") state = false;
  }
  return state;
}

}  // namespace Host

void FeatureState_InitSilentMode() {}
