// The event service: management events ("zebs").
//
// DumpZeb formats the template of the event (kEventTable) with its string arguments, appends one
// JSON line {"time", "id", "args", "message"} to "<root>/var/log/configstore-events.jsonl" and logs
// the message at warning priority. An unknown identifier is still recorded, with its arguments
// joined as the message. Never throws.
#pragma once

#include <string>
#include <vector>

void DumpZeb(const char* id, int nargs, ...);

namespace Events {

struct Event {
  std::string id;
  std::vector<std::string> args;
  std::string message;
};

// Events recorded under the current root, oldest first (for tests and the CLI).
std::vector<Event> Recorded();

}  // namespace Events
