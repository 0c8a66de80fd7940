#include "platform/logging/Events.h"

#include <chrono>
#include <cstdarg>
#include <fstream>

#include "errors/ErrorTable.h"
#include "errors/Json.h"
#include "platform/host/Files.h"
#include "platform/host/HostRoot.h"
#include "platform/logging/CSLogger.h"

namespace {

const char* kEventsFile = "/var/log/configstore-events.jsonl";

std::string Render(const std::string& tmpl, const std::vector<std::string>& args) {
  std::string out;
  size_t next = 0;
  for (size_t i = 0; i < tmpl.size(); ++i) {
    if (tmpl[i] == '%' && i + 1 < tmpl.size() && tmpl[i + 1] == 's') {
      out += next < args.size() ? args[next++] : "";
      ++i;
    } else {
      out += tmpl[i];
    }
  }
  return out;
}

}  // namespace

void DumpZeb(const char* id, int nargs, ...) {
  try {
    std::vector<std::string> args;
    va_list ap;
    va_start(ap, nargs);
    for (int i = 0; i < nargs; ++i) {
      const char* a = va_arg(ap, const char*);
      args.emplace_back(a ? a : "");
    }
    va_end(ap);
    auto it = QorConfigStore::kEventTable.find(id ? id : "");
    std::string message;
    if (it != QorConfigStore::kEventTable.end()) {
      message = Render(it->second, args);
    } else {
      for (const auto& a : args) message += (message.empty() ? "" : " ") + a;
    }

    rapidjson::StringBuffer buf;
    rapidjson::Writer<rapidjson::StringBuffer> w(buf);
    w.StartObject();
    w.Key("time");
    w.Int64(std::chrono::duration_cast<std::chrono::milliseconds>(
                std::chrono::system_clock::now().time_since_epoch())
                .count());
    w.Key("id");
    w.String(id ? id : "");
    w.Key("args");
    w.StartArray();
    for (const auto& a : args) w.String(a.c_str(), static_cast<rapidjson::SizeType>(a.size()));
    w.EndArray();
    w.Key("message");
    w.String(message.c_str(), static_cast<rapidjson::SizeType>(message.size()));
    w.EndObject();
    Host::AppendLine(Host::Resolve(kEventsFile), buf.GetString());
    CSLogger::Log(CSLogger::PRIO_WARNING, "Event %s: %s", id ? id : "", message.c_str());
  } catch (...) {
    // Raising an event never throws into the caller.
  }
}

namespace Events {

std::vector<Event> Recorded() {
  std::vector<Event> events;
  std::ifstream in(Host::Resolve(kEventsFile));
  for (std::string line; std::getline(in, line);) {
    rapidjson::Document d;
    if (d.Parse(line.c_str()).HasParseError() || !d.IsObject()) continue;
    Event e;
    if (d.HasMember("id") && d["id"].IsString()) e.id = d["id"].GetString();
    if (d.HasMember("message") && d["message"].IsString()) e.message = d["message"].GetString();
    if (d.HasMember("args") && d["args"].IsArray()) {
      for (const auto& a : d["args"].GetArray()) {
        if (a.IsString()) e.args.emplace_back(a.GetString());
      }
    }
    events.push_back(std::move(e));
  }
  return events;
}

}  // namespace Events
