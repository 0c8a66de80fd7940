#include "platform/host/Features.h"

#include <fstream>
#include <string>

#include "platform/host/HostRoot.h"

namespace Host {

bool FeatureDefault(int feature) { return feature != FEATURE_REDUCED_BACKUP_RESERVATION; }

bool FeatureState_IsEnabled(int feature) {
  bool state = FeatureDefault(feature);
  std::ifstream in(Resolve("/etc/talvex/features"));
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
