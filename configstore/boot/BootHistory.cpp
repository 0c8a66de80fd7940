// The boot history kept beside the last boot's report (LoadStore.h).
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "configstore/boot/LoadStore.h"
#include "configstore/frame/CallFrame.h"
#include "platform/host/Files.h"
#include "platform/host/HostRoot.h"

namespace QorConfigStore {
namespace {

constexpr int kMaxBootHistory = 1000;

int HistorySize() {
  const char* text = std::getenv("TALVEX_BOOT_HISTORY");
  if (text == nullptr || *text == '\0') return kBootHistoryDefault;
  char* end = nullptr;
  long size = std::strtol(text, &end, 10);
  if (*end != '\0' || size < 0 || size > kMaxBootHistory) {
    CSLogger::Log(CSLogger::PRIO_ERROR, "TALVEX_BOOT_HISTORY=\"%s\" is not a number from 0 to %d: %d boots kept",
                  text, kMaxBootHistory, kBootHistoryDefault);
    return kBootHistoryDefault;
  }
  return static_cast<int>(size);
}

// The number of "boot-NNNNNN.json" (six digits or more), or -1 for any other name.
int NumberOf(const std::string& name) {
  int number = -1, consumed = 0;
  if (std::sscanf(name.c_str(), "boot-%9d.json%n", &number, &consumed) != 1 ||
      static_cast<size_t>(consumed) != name.size() || number < 0) {
    return -1;
  }
  return number;
}

std::string FileName(int number) {
  char name[32];
  std::snprintf(name, sizeof name, "boot-%06d.json", number);
  return name;
}

// The numbered files in the history directory, newest first; with `leftovers`, the temporary
// files a killed write left.
std::vector<int> Numbers(const std::string& dir, std::vector<std::string>* leftovers = nullptr) {
  std::vector<int> numbers;
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return numbers;
  while (dirent* entry = readdir(d)) {
    std::string name = entry->d_name;
    int number = NumberOf(name);
    if (number >= 0) numbers.push_back(number);
    else if (leftovers != nullptr && name.starts_with("boot-") && name.ends_with(".tmp")) leftovers->push_back(name);
  }
  closedir(d);
  std::sort(numbers.rbegin(), numbers.rend());
  return numbers;
}

}  // namespace

void KeepInBootHistory(const std::string& reportText) {
  const int size = HistorySize();
  const std::string dir = Host::Resolve(kBootHistoryDir);
  std::vector<std::string> leftovers;
  std::vector<int> numbers = Numbers(dir, &leftovers);
  for (const std::string& name : leftovers) ::unlink((dir + "/" + name).c_str());
  if (size > 0) {
    const int next = numbers.empty() ? 1 : numbers.front() + 1;
    std::string error;
    if (!Host::WriteFileAtomically(dir + "/" + FileName(next), reportText, &error)) {
      throw ConfigStoreException(CS_ERR_GENERIC, "Failed to keep the boot report in the history: " + error);
    }
    numbers.insert(numbers.begin(), next);
  }
  for (size_t i = static_cast<size_t>(size); i < numbers.size(); ++i) {
    ::unlink((dir + "/" + FileName(numbers[i])).c_str());
  }
}

std::vector<BootHistoryEntry> ReadBootHistory() {
  std::vector<BootHistoryEntry> history;
  const std::string dir = Host::Resolve(kBootHistoryDir);
  for (int number : Numbers(dir)) {
    BootHistoryEntry entry;
    entry.number = number;
    entry.file = std::string(kBootHistoryDir) + "/" + FileName(number);
    try {
      entry.report = ReadBootReport(dir + "/" + FileName(number), entry.file);
    } catch (const std::exception& e) {
      entry.error = e.what();
    }
    history.push_back(std::move(entry));
  }
  return history;
}

BootReport ReadBootFromHistory(int nth) {
  const std::string dir = Host::Resolve(kBootHistoryDir);
  std::vector<int> numbers = Numbers(dir);
  if (nth < 1 || static_cast<size_t>(nth) > numbers.size()) {
    throw ConfigStoreException(CS_ERR_GENERIC, Format("No boot %d in the history: %s holds %zu", nth,
                                                      kBootHistoryDir, numbers.size()));
  }
  const std::string name = FileName(numbers[static_cast<size_t>(nth) - 1]);
  return ReadBootReport(dir + "/" + name, std::string(kBootHistoryDir) + "/" + name);
}

}  // namespace QorConfigStore
