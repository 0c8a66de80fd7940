#include "configstore/frame/Documents.h"

#include <cmath>
#include <string_view>

#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>

#include "configstore/frame/CallFrame.h"
#include "errors/Printable.h"
#include "platform/host/Files.h"
#include "platform/schemastore/SchemaObject.h"
#include "platform/validator/ConfigStoreDocument.h"
#include "platform/validator/JsonValidator.h"

namespace QorConfigStore {
namespace {

constexpr size_t kChunkCapacity = 64;
constexpr size_t kParseStackCapacity = 1024;

// Offset of the first array or object opened deeper than kMaxJsonDepth in a JSON text, strings
// skipped; npos when there is none. Cheap next to parsing, and it keeps a hostile "[[[[..." from
// reaching code that recurses.
size_t TooDeepAt(const std::string& text) {
  int depth = 0;
  bool inString = false;
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (inString) {
      if (c == '\\') ++i;
      else if (c == '"') inString = false;
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > kMaxJsonDepth) return i;
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return std::string::npos;
}

// "line L, column C" of a byte offset (both counted from 1, columns in bytes).
std::string Where(const std::string& text, size_t offset) {
  size_t line = 1, column = 1;
  for (size_t i = 0; i < offset && i < text.size(); ++i) {
    if (text[i] == '\n') {
      ++line;
      column = 1;
    } else {
      ++column;
    }
  }
  return "line " + std::to_string(line) + ", column " + std::to_string(column);
}

// False when some number is infinite: rapidjson 1.1 reads a number just past the double range
// ("2e308") as infinity instead of refusing it as it refuses "1e309", and infinity cannot be
// written back as JSON. Recursion is bounded by kMaxJsonDepth.
bool AllNumbersFinite(const rapidjson::Value& value) {
  if (value.IsDouble()) return std::isfinite(value.GetDouble());
  if (value.IsArray()) {
    for (const rapidjson::Value& element : value.GetArray()) {
      if (!AllNumbersFinite(element)) return false;
    }
  } else if (value.IsObject()) {
    for (const auto& member : value.GetObject()) {
      if (!AllNumbersFinite(member.value)) return false;
    }
  }
  return true;
}

// Parses `text` into `doc`; "" on success, otherwise why not: a parse error, an infinite number or
// excessive nesting, with its line and column where there is one. The text is read as a plain
// memory stream: rapidjson would take a NUL byte for the end of the input (JSON text never holds a
// raw NUL), and its length-taking Parse skips any prefix of a byte-order mark.
std::string ParseInto(JsonDoc& doc, const std::string& text) {
  if (size_t nul = text.find('\0'); nul != std::string::npos) return Where(text, nul) + ": a NUL byte";
  if (size_t deep = TooDeepAt(text); deep != std::string::npos) {
    return Where(text, deep) + ": nested deeper than " + std::to_string(kMaxJsonDepth) + " levels";
  }
  rapidjson::MemoryStream stream(text.data(), text.size());
  doc.document->ParseStream<rapidjson::kParseDefaultFlags | rapidjson::kParseIterativeFlag>(stream);
  if (doc.document->HasParseError()) {
    return Where(text, doc.document->GetErrorOffset()) + ": " + rapidjson::GetParseError_En(doc.document->GetParseError());
  }
  if (!AllNumbersFinite(*doc.document)) return "a number beyond the range of a double";
  return "";
}

// The system's message of `code` with the cause after it.
template <typename... Args>
[[noreturn]] void ThrowWithCause(int code, const std::string& cause, Args... args) {
  throw InvalidArgumentException(code, Format(ErrorMessageForId(code), args...) + ": " + cause);
}

}  // namespace

JsonDoc::~JsonDoc() {
  document.reset();  // the document's values live in the allocator's pool: release it first
  allocator.reset();
}

rapidjson::Value* JsonDoc::GetJsonValuePtr() {
  rapidjson::Value* current = document.get();
  for (const JsonNode& node : path) {
    if (!current->HasMember(node.name.c_str())) {
      CSLogger::Log(CSLogger::PRIO_ERROR, "Cannot find subobject %s", Printable(node.name).c_str());
      throw ConfigStoreException(CS_ERR_GENERIC, "Subobject does not exists.");
    }
    current = &(*current)[node.name.c_str()];
    if (current->IsArray()) {
      rapidjson::Value* match = nullptr;
      for (auto& element : current->GetArray()) {
        const rapidjson::Value& key = element[node.key.c_str()];
        if (key.IsString() && node.value == key.GetString()) {
          match = &element;
          break;
        }
      }
      if (match == nullptr) {
        CSLogger::Log(CSLogger::PRIO_ERROR, "Cannot find subobject instance %s=%s", Printable(node.key).c_str(),
                      Printable(node.value).c_str());
        throw ConfigStoreException(CS_ERR_GENERIC, "Subobject instance does not exists.");
      }
      current = match;
    }
  }
  return current;
}

std::string ConfigStoreObjectId::toString() const {
  std::string text = "comp " + Printable(component) + " grp " + Printable(group) + " key " + Printable(key);
  if (!id.empty()) text += " id " + Printable(id);
  return text;
}

std::shared_ptr<JsonDoc> CreateDocument() {
  auto doc = std::make_shared<JsonDoc>();
  doc->allocator = std::make_shared<rapidjson::MemoryPoolAllocator<>>(kChunkCapacity);
  doc->document = std::make_shared<rapidjson::Document>(doc->allocator.get(), kParseStackCapacity);
  return doc;
}

std::shared_ptr<JsonDoc> CreateDocumentFromFile(const std::string& path) {
  auto doc = CreateDocument();
  std::string text, cause;
  if (!Host::ReadFile(path, &text, &cause)) ThrowWithCause(CS_ERR_JSON_PARSE_FILE, cause, path.c_str());
  cause = ParseInto(*doc, text);
  if (!cause.empty()) ThrowWithCause(CS_ERR_JSON_PARSE_FILE, cause, path.c_str());
  return doc;
}

std::shared_ptr<JsonDoc> CreateDocumentFromString(const std::string& text) {
  auto doc = CreateDocument();
  std::string cause = ParseInto(*doc, text);
  if (!cause.empty()) ThrowWithCause(CS_ERR_JSON_PARSE_STRING, cause);
  return doc;
}

bool ProcessConfig(rapidjson::Value& config, const rapidjson::Value& schema, const std::string& part) {
  const bool isUser = part == "user";
  if (schema.HasMember("instanceId") && schema["instanceId"].IsBool() && schema["instanceId"].GetBool()) {
    return true;
  }
  if (isUser) {
    if (schema.HasMember("vital") || schema.HasMember("cached")) return false;
  } else if (schema.HasMember(part.c_str())) {
    return true;
  }

  if (config.IsObject()) {
    if (config.MemberCount() == 0) return isUser;
    const rapidjson::Value& properties = schema["properties"];
    for (auto it = config.MemberBegin(); it != config.MemberEnd();) {
      if (ProcessConfig(it->value, properties[it->name], part)) {
        ++it;
      } else {
        it = config.EraseMember(it);  // keeps the order of the others
      }
    }
    if (config.MemberCount() == 0) return false;
    if (isUser || config.MemberCount() > 1) return true;
    // One member left: an object reduced to its instance identifier is not worth keeping.
    const rapidjson::Value& ps = properties[config.MemberBegin()->name];
    if (ps.HasMember(part.c_str()) && ps[part.c_str()].GetBool()) return true;
    if (!ps.HasMember("instanceId")) return true;
    return !ps["instanceId"].GetBool();
  }

  if (config.IsArray()) {
    if (config.Empty()) return isUser;
    const rapidjson::Value& items = schema["items"];
    if (std::string(items["type"].GetString()) != "object") return isUser;
    for (rapidjson::SizeType i = 0; i < config.Size();) {
      if (ProcessConfig(config[i], items, part)) {
        ++i;
      } else {
        config.Erase(config.Begin() + i);
      }
    }
    return !config.Empty();
  }
  return isUser;
}

namespace {

// Appends the compact text of `config` pruned to `part` the way ProcessConfig prunes it, without
// copying or erasing anything; true when anything of it is to be kept. What a false leaves in
// `out` is the caller's to drop. Reads the schema in the same order as ProcessConfig, so a mistyped
// schema throws exactly where it would.
class PartWriter {
  // The marks of a property's schema, found in one pass over its members (the first of a name counts).
  struct Marks {
    const rapidjson::Value* instanceId = nullptr;
    const rapidjson::Value* vital = nullptr;
    const rapidjson::Value* cached = nullptr;
    const rapidjson::Value* Part(std::string_view part) const { return part == "vital" ? vital : cached; }
  };
  static Marks MarksOf(const rapidjson::Value& schema) {
    if (!schema.IsObject()) (void)schema.HasMember("instanceId");  // fails as a member lookup does
    Marks marks;
    for (const auto& m : schema.GetObject()) {
      const std::string_view name(m.name.GetString(), m.name.GetStringLength());
      const rapidjson::Value** slot = name == "instanceId" ? &marks.instanceId
                                      : name == "vital"    ? &marks.vital
                                      : name == "cached"   ? &marks.cached
                                                           : nullptr;
      if (slot != nullptr && *slot == nullptr) *slot = &m.value;
    }
    return marks;
  }

 public:
  explicit PartWriter(const char* part) : part_(part), isUser_(std::string_view(part) == "user"), writer_(out_) {}

  // Writes this part of `config` (described by `schema`); true when it holds something. What is
  // written for a false answer is dropped by the caller, so a part that cannot keep a value does
  // not write it.
  bool Write(const rapidjson::Value& config, const rapidjson::Value& schema) {
    return Write(config, schema, MarksOf(schema));
  }

  bool Write(const rapidjson::Value& config, const rapidjson::Value& schema, const Marks& marks) {
    if (KeptWhole(marks)) return WriteWhole(config);
    if (isUser_ && (marks.vital != nullptr || marks.cached != nullptr)) return false;

    if (config.IsObject()) {
      if (config.MemberCount() == 0) return isUser_ && Put("{}");
      const rapidjson::Value& properties = schema["properties"];
      out_.Put('{');
      size_t kept = 0;
      const rapidjson::Value* lastKeptSchema = nullptr;
      for (const auto& member : config.GetObject()) {
        const rapidjson::Value& memberSchema = properties[member.name];
        const Marks memberMarks = MarksOf(memberSchema);
        // A scalar the vital or cached part does not keep whole is left out of it.
        if (!isUser_ && !member.value.IsObject() && !member.value.IsArray() && !KeptWhole(memberMarks)) continue;
        const size_t mark = out_.GetSize();
        if (kept != 0) out_.Put(',');
        WriteScalar(member.name);
        out_.Put(':');
        if (Write(member.value, memberSchema, memberMarks)) {
          ++kept;
          lastKeptSchema = &memberSchema;
        } else {
          out_.Pop(out_.GetSize() - mark);
        }
      }
      out_.Put('}');
      if (kept == 0) return false;
      if (isUser_ || kept > 1) return true;
      // One member left: an object reduced to its instance identifier is not worth keeping.
      const Marks last = MarksOf(*lastKeptSchema);
      if (const rapidjson::Value* part = last.Part(part_); part != nullptr && part->GetBool()) return true;
      if (last.instanceId == nullptr) return true;
      return !last.instanceId->GetBool();
    }

    if (config.IsArray()) {
      if (config.Empty()) return isUser_ && Put("[]");
      const rapidjson::Value& items = schema["items"];
      if (std::string_view(items["type"].GetString()) != "object") return isUser_ && WriteWhole(config);
      out_.Put('[');
      size_t kept = 0;
      for (const rapidjson::Value& element : config.GetArray()) {
        const size_t mark = out_.GetSize();
        if (kept != 0) out_.Put(',');
        if (Write(element, items)) {
          ++kept;
        } else {
          out_.Pop(out_.GetSize() - mark);
        }
      }
      out_.Put(']');
      return kept != 0;
    }
    return isUser_ && WriteWhole(config);
  }

  // The text written so far.
  std::string Text() const { return std::string(out_.GetString(), out_.GetSize()); }

 private:
  // Whether this part takes the value whole: an instance identifier, or a value marked for this part.
  bool KeptWhole(const Marks& marks) const {
    if (marks.instanceId != nullptr && marks.instanceId->IsBool() && marks.instanceId->GetBool()) return true;
    return !isUser_ && marks.Part(part_) != nullptr;
  }

  bool Put(std::string_view text) {
    for (char c : text) out_.Put(c);
    return true;
  }

  void WriteScalar(const rapidjson::Value& value) {
    writer_.Reset(out_);  // one root per scalar: the writer keeps no state between them
    value.Accept(writer_);
  }

  // Containers go through SerializeValue, which does not recurse on deep values.
  bool WriteWhole(const rapidjson::Value& value) {
    if (!value.IsObject() && !value.IsArray()) {
      WriteScalar(value);
      return true;
    }
    ConfigStoreDocument::SerializeValue(value, scratch_);
    return Put(scratch_);
  }

  const char* part_;
  bool isUser_;
  rapidjson::StringBuffer out_;
  rapidjson::Writer<rapidjson::StringBuffer> writer_;
  std::string scratch_;
};

}  // namespace

std::unordered_map<std::string, std::string> SplitConfig(const rapidjson::Value& config,
                                                         const rapidjson::Value& schema) {
  std::unordered_map<std::string, std::string> parts;
  for (const char* part : {"user", "vital", "cached"}) {
    PartWriter writer(part);
    parts[part] = writer.Write(config, schema) ? writer.Text() : std::string();
  }
  return parts;
}

std::string GetInstanceIdFromValue(const rapidjson::Value& value,
                                   const std::shared_ptr<QorSchemaStore::SchemaObject>& schemaObject) {
  std::string name = schemaObject->GetInstanceIdName();
  if (name.empty()) return "";
  auto it = value.FindMember(name.c_str());
  if (it == value.MemberEnd() || !it->value.IsString()) {
    ThrowException<ConfigStoreException, const char*>(CS_ERR_INSTANCE_ID_MISSING, name.c_str());
  }
  return it->value.GetString();
}

bool ValidateUserObject(const rapidjson::Value& schema, const rapidjson::Value& value, const std::string& name,
                        bool allowDelete) {
  if (value.IsString() && allowDelete) return std::string(value.GetString()) == "DELETE_DEFAULT";
  rapidjson::MemoryPoolAllocator<> pool;
  rapidjson::Document errors(&pool, kParseStackCapacity);
  JsonValidator::Validate(schema, value, errors, kRulesUserObject, name);
  return checkValidationErrors(errors);
}

bool checkValidationErrors(const rapidjson::Value& errors) {
  if (errors.Empty()) return true;  // Empty() asserts IsArray()
  for (const auto& e : errors.GetArray()) {
    CSLogger::LogErrCode(CSLogger::PRIO_ERROR, CS_ERR_SCHEMA_VALIDATION, e["field"].GetString(),
                         e["error"].GetString());
  }
  return false;
}

}  // namespace QorConfigStore
