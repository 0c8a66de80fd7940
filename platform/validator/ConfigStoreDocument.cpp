#include "platform/validator/ConfigStoreDocument.h"

#include <vector>

namespace ConfigStoreDocument {

bool ValueExists(const rapidjson::Value& value, const char* name) {
  return name != nullptr && value.IsObject() && value.HasMember(name);
}

void SerializeValue(const rapidjson::Value& value, std::string& text) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);

  // Explicit stack of open containers: a value nested a million levels deep must not exhaust
  // the thread's stack the way rapidjson's recursive Accept would.
  struct Open {
    const rapidjson::Value* container;
    size_t next;
  };
  std::vector<Open> open;
  const rapidjson::Value* current = &value;
  for (;;) {
    if (current != nullptr) {
      if (current->IsObject()) {
        writer.StartObject();
        open.push_back({current, 0});
      } else if (current->IsArray()) {
        writer.StartArray();
        open.push_back({current, 0});
      } else {
        current->Accept(writer);  // a scalar: no recursion
      }
      current = nullptr;
    }
    if (open.empty()) break;
    Open& top = open.back();
    if (top.container->IsObject()) {
      if (top.next == top.container->MemberCount()) {
        writer.EndObject(static_cast<rapidjson::SizeType>(top.next));
        open.pop_back();
        continue;
      }
      auto member = top.container->MemberBegin() + static_cast<long>(top.next++);
      writer.Key(member->name.GetString(), member->name.GetStringLength(), false);
      current = &member->value;
    } else {
      if (top.next == top.container->Size()) {
        writer.EndArray(static_cast<rapidjson::SizeType>(top.next));
        open.pop_back();
        continue;
      }
      current = &(*top.container)[static_cast<rapidjson::SizeType>(top.next++)];
    }
  }
  text.assign(buffer.GetString(), buffer.GetSize());
}

}  // namespace ConfigStoreDocument
