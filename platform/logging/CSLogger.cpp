#include "platform/logging/CSLogger.h"

#include <syslog.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <memory>
#include <mutex>
#include <utility>

#include "errors/ErrorTable.h"
#include "platform/host/Files.h"
#include "platform/host/HostRoot.h"

namespace CSLogger {
namespace {

struct FileLogger {
  std::string path;
};

std::recursive_mutex gMutex;
int gStderrLevel = -1;
std::vector<std::unique_ptr<FileLogger>> gFileLoggers;
std::vector<Capture*> gCaptures;

const char* PriorityName(int priority) {
  switch (priority) {
    case PRIO_ERROR: return "error";
    case PRIO_WARNING: return "warning";
    case PRIO_INFO: return "info";
    default: return "detail";
  }
}

std::string Timestamp() {
  using namespace std::chrono;
  auto now = system_clock::now();
  std::time_t t = system_clock::to_time_t(now);
  auto ms = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm tm{};
  gmtime_r(&t, &tm);
  char buf[64];
  std::snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", tm.tm_year + 1900, tm.tm_mon + 1,
                tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<int>(ms));
  return buf;
}

std::string FormatV(const char* fmt, va_list args) {
  va_list copy;
  va_copy(copy, args);
  int n = std::vsnprintf(nullptr, 0, fmt, copy);
  va_end(copy);
  if (n < 0) return fmt;
  std::string text(static_cast<size_t>(n) + 1, '\0');
  std::vsnprintf(text.data(), text.size(), fmt, args);
  text.resize(static_cast<size_t>(n));
  return text;
}

int SyslogPriority(int priority) {
  switch (priority) {
    case PRIO_ERROR: return LOG_ERR;
    case PRIO_WARNING: return LOG_WARNING;
    case PRIO_INFO: return LOG_INFO;
    default: return LOG_DEBUG;
  }
}

void WriteSystemLog(int priority, const std::string& text) {
  if (Host::IsSandbox()) {
    Host::AppendLine(Host::Resolve("/var/log/syslog.log"),
                     Timestamp() + " configstore[" + PriorityName(priority) + "] " + text);
  } else {
    syslog(SyslogPriority(priority), "%s", text.c_str());
  }
}

}  // namespace

void Deliver(const Line& line) {
  std::lock_guard lock(gMutex);
  for (Capture* c : gCaptures) c->lines_.push_back(line);
  std::string stamped = Timestamp() + " [" + PriorityName(line.priority) + "] " + line.text;
  if (line.priority <= gStderrLevel) std::fprintf(stderr, "%s\n", line.text.c_str());
  if (line.system) {
    WriteSystemLog(line.priority, line.text);
    return;
  }
  for (auto& f : gFileLoggers) Host::AppendLine(f->path, stamped);
  if (line.priority <= PRIO_WARNING) WriteSystemLog(line.priority, line.text);
}

void LogV(int priority, const char* fmt, va_list args) {
  try {
    Deliver({priority, FormatV(fmt, args), false});
  } catch (...) {
    // Logging never throws into the caller.
  }
}

void Log(int priority, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  LogV(priority, fmt, args);
  va_end(args);
}

void LogErrCode(int priority, int code, ...) {
  va_list args;
  va_start(args, code);
  try {
    Deliver({priority, "[" + std::to_string(code) + "] " + FormatV(ErrorMessageForId(code), args), false});
  } catch (...) {
  }
  va_end(args);
}

void SystemLog(int priority, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  try {
    Deliver({priority, FormatV(fmt, args), true});
  } catch (...) {
  }
  va_end(args);
}

FileLoggerHandle AddFileLogger(const std::string& name) {
  std::string dir = Host::Resolve("/var/log");
  if (!Host::MakeDirs(dir)) return nullptr;
  std::lock_guard lock(gMutex);
  gFileLoggers.push_back(std::make_unique<FileLogger>(FileLogger{dir + "/" + name + ".log"}));
  return gFileLoggers.back().get();
}

void RemoveFileLogger(FileLoggerHandle handle) {
  std::lock_guard lock(gMutex);
  std::erase_if(gFileLoggers, [&](const auto& f) { return f.get() == handle; });
}

int SetStderrLevel(int maxPriority) {
  std::lock_guard lock(gMutex);
  return std::exchange(gStderrLevel, maxPriority);
}

Capture::Capture() {
  std::lock_guard lock(gMutex);
  gCaptures.push_back(this);
}

Capture::~Capture() {
  std::lock_guard lock(gMutex);
  std::erase(gCaptures, this);
}

std::vector<Line> Capture::Lines() const {
  std::lock_guard lock(gMutex);
  return lines_;
}

bool Capture::Contains(const std::string& text, int priority) const {
  std::lock_guard lock(gMutex);
  return std::any_of(lines_.begin(), lines_.end(), [&](const Line& l) {
    return (priority < 0 || l.priority == priority) && l.text.find(text) != std::string::npos;
  });
}

size_t Capture::Count(const std::string& text) const {
  std::lock_guard lock(gMutex);
  return std::count_if(lines_.begin(), lines_.end(),
                       [&](const Line& l) { return l.text.find(text) != std::string::npos; });
}

void Capture::Clear() {
  std::lock_guard lock(gMutex);
  lines_.clear();
}

}  // namespace CSLogger
