// Logging of the configuration store.
//
// Priorities: 0 error, 1 warning, 2 information, 3 detail. Every line goes to each sink whose level
// admits it: standard error (off unless the CLI turns it on), the system log (syslog on a real host,
// "<root>/var/log/syslog.log" in a sandbox root; errors and warnings only), named file loggers
// ("<root>/var/log/<name>.log", every priority) and in-memory captures for tests. Logging never
// throws into the caller.
#pragma once

#include <cstdarg>
#include <string>
#include <vector>

namespace CSLogger {

enum Priority : int { PRIO_ERROR = 0, PRIO_WARNING = 1, PRIO_INFO = 2, PRIO_DETAIL = 3 };

void Log(int priority, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void LogV(int priority, const char* fmt, va_list args);

// Logs the catalogue template of an error code (ErrorMessageForId) with printf-style arguments,
// prefixed with the code: "[1104] ...".
void LogErrCode(int priority, int code, ...);

// A line for the host's system log only (syslog on a real host); also shown to captures.
void SystemLog(int priority, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

using FileLoggerHandle = void*;
// Opens "<root>/var/log/<name>.log" for appending. Returns nullptr when it cannot be opened.
FileLoggerHandle AddFileLogger(const std::string& name);
void RemoveFileLogger(FileLoggerHandle handle);

// Standard-error sink: lines of priority <= maxPriority are written; -1 turns it off. Returns the
// level it replaces.
int SetStderrLevel(int maxPriority);

struct Line {
  int priority;
  std::string text;
  bool system;  // sent to the system log rather than the library log
};

// Collects every line logged while it lives (all priorities). Captures nest.
class Capture {
 public:
  Capture();
  ~Capture();
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;

  std::vector<Line> Lines() const;
  // True when some line of that priority (any when -1) contains `text`.
  bool Contains(const std::string& text, int priority = -1) const;
  size_t Count(const std::string& text) const;
  void Clear();

 private:
  friend void Deliver(const Line&);
  std::vector<Line> lines_;
};

}  // namespace CSLogger
