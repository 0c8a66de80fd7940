#include "configstore/schema/SchemaFiles.h"

#include <dirent.h>

#include <algorithm>
#include <string_view>
#include <utility>

#include "configstore/frame/Documents.h"
#include "platform/logging/CSLogger.h"
#include "platform/logging/Events.h"

namespace QorConfigStore {
namespace {

constexpr std::string_view kJsonSuffix = ".json";

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// Length of the run of decimal digits at text[pos...].
size_t DigitRun(std::string_view text, size_t pos) {
  size_t end = pos;
  while (end < text.size() && IsDigit(text[end])) ++end;
  return end - pos;
}

// True when all of `text` is digit runs joined by single dots, at least `minParts` of them.
bool IsDottedNumber(std::string_view text, size_t minParts) {
  size_t parts = 0, pos = 0;
  while (true) {
    size_t run = DigitRun(text, pos);
    if (run == 0) return false;
    ++parts;
    pos += run;
    if (pos == text.size()) return parts >= minParts;
    if (text[pos] != '.') return false;
    ++pos;
  }
}

// The whole of `text` is a version as a schema name's suffix takes it: \d+(\.\d+)+_\d+(\.\d+)*.
bool IsNameVersionSuffix(std::string_view text) {
  size_t underscore = text.find('_');
  if (underscore == std::string_view::npos) return false;
  return IsDottedNumber(text.substr(0, underscore), 2) && IsDottedNumber(text.substr(underscore + 1), 1);
}

}  // namespace

std::vector<std::string> GetSchemaFiles(const std::string& directory) {
  std::vector<std::string> files;
  DIR* dir = opendir(directory.c_str());
  if (dir == nullptr) return files;
  while (const dirent* entry = readdir(dir)) {
    std::string_view name(entry->d_name);
    if (name.size() > kJsonSuffix.size() && name.ends_with(kJsonSuffix)) {
      files.emplace_back(name);
    } else {
      CSLogger::Log(CSLogger::PRIO_INFO, "[SchemaProcessor] Skip processing non-json file %s", entry->d_name);
    }
  }
  closedir(dir);
  return files;
}

std::string GetSchemaIDfromFile(const std::string& fileName, const rapidjson::Value& document) {
  if (document.HasMember("data") && document.HasMember("metadata")) {
    const rapidjson::Value& metadata = document["metadata"];
    if (metadata.HasMember("kitname") && metadata.HasMember("kitversion")) {
      return StringValue(metadata["kitname"]) + "-" + StringValue(metadata["kitversion"]);
    }
  }
  DumpZeb("zeb.user.cs.schema.metadata.error", 1, fileName.c_str());
  CSLogger::Log(CSLogger::PRIO_ERROR, "[SchemaProcessor] Invalid format in schema file %s", fileName.c_str());
  return "";
}

namespace {

// GenerateSchemaIdMap, also keeping the parsed document of each file with an identifier (by file
// name) in `documents` when given.
SchemaIdMap ReadSchemaIds(const std::vector<std::string>& files, const std::string& directory,
                          std::map<std::string, std::shared_ptr<JsonDoc>>* documents) {
  SchemaIdMap idMap;
  for (const std::string& name : files) {
    std::string path = directory + "/" + name;
    std::shared_ptr<JsonDoc> doc = CreateDocumentFromFile(path);
    std::string schemaId = GetSchemaIDfromFile(name, *doc->document);
    if (schemaId.empty()) continue;
    idMap[path] = std::move(schemaId);
    if (documents != nullptr) (*documents)[name] = std::move(doc);
  }
  return idMap;
}

}  // namespace

SchemaIdMap GenerateSchemaIdMap(const std::vector<std::string>& files, const std::string& directory) {
  return ReadSchemaIds(files, directory, nullptr);
}

// Hand-written equivalent of matching "(.*)-\d+(\.\d+)+_\d+(\.\d+)*" against the whole identifier.
// A version holds no "-", so only the last "-" can start it. Unlike std::regex, which backtracks
// recursively, this cannot exhaust the stack on a hostile, very long identifier.
std::string ExtractSchemaNameFromSchemaId(const std::string& schemaId) {
  size_t dash = schemaId.rfind('-');
  if (dash == std::string::npos || !IsNameVersionSuffix(std::string_view(schemaId).substr(dash + 1))) return "";
  return schemaId.substr(0, dash);
}

// Hand-written equivalent of the leftmost match of "-(\d+)\.(\d+)\.(\d+)_([\d]+)\.([\d]+)".
SchemaVersion ExtractVersionFromSchemaId(const std::string& schemaId) {
  std::string_view id(schemaId);
  static constexpr char kSeparators[] = {'.', '.', '_', '.'};
  for (size_t dash = id.find('-'); dash != std::string_view::npos; dash = id.find('-', dash + 1)) {
    std::array<std::string_view, 5> parts;
    size_t pos = dash + 1;
    bool matched = true;
    for (size_t i = 0; i < parts.size() && matched; ++i) {
      size_t run = DigitRun(id, pos);
      matched = run > 0;
      parts[i] = id.substr(pos, run);
      pos += run;
      if (matched && i < 4) {
        matched = pos < id.size() && id[pos] == kSeparators[i];
        ++pos;
      }
    }
    if (!matched) continue;
    SchemaVersion version{};
    for (size_t i = 0; i < parts.size(); ++i) version[i] = std::stoi(std::string(parts[i]), nullptr, 10);
    return version;
  }
  return SchemaVersion{};
}

SchemaVersion ExtractVersion(const SchemaIdMap& idMap, const std::string& fileName, const std::string& directory) {
  return ExtractVersionFromSchemaId(idMap.at(directory + "/" + fileName));
}

VersionCompare::VersionCompare(std::string directory, SchemaIdMap idMap) {
  auto data = std::make_shared<Data>();
  data->directory = std::move(directory);
  data->idMap = std::move(idMap);
  for (const auto& [path, schemaId] : data->idMap) data->versions[path] = ExtractVersionFromSchemaId(schemaId);
  data_ = std::move(data);
}

bool VersionCompare::operator()(const std::string& a, const std::string& b) const {
  const std::string& dir = data_->directory;
  return data_->versions.at(dir + "/" + a) > data_->versions.at(dir + "/" + b);
}

SchemaFileSelection::SchemaFileSelection(const std::string& directory, std::vector<std::string> files,
                                         bool versioning)
    : directory_(directory), versioning_(versioning) {
  if (!versioning_) {
    files_ = std::move(files);
    return;
  }
  idMap_ = ReadSchemaIds(files, directory_, &documents_);
  for (std::string& name : files) {
    if (idMap_.count(directory_ + "/" + name) != 0) files_.push_back(std::move(name));
  }
  std::stable_sort(files_.begin(), files_.end(), VersionCompare(directory_, idMap_));
}

std::string SchemaFileSelection::SchemaId(const std::string& fileName) const {
  if (!versioning_) return "";
  return idMap_.at(directory_ + "/" + fileName);
}

bool SchemaFileSelection::Select(const std::string& fileName) {
  if (!versioning_) return true;
  std::string schemaName = ExtractSchemaNameFromSchemaId(SchemaId(fileName));
  if (!schemaName.empty() && seenNames_.count(schemaName) != 0) {
    CSLogger::Log(CSLogger::PRIO_INFO, "Skipping schema file '%s' since latest version already processed.",
                  fileName.c_str());
    documents_.erase(fileName);
    return false;
  }
  CSLogger::Log(CSLogger::PRIO_INFO, "Processing schema file '%s'.", fileName.c_str());
  seenNames_.insert(std::move(schemaName));
  return true;
}

std::shared_ptr<JsonDoc> SchemaFileSelection::TakeDocument(const std::string& fileName) {
  auto held = documents_.find(fileName);
  if (held == documents_.end()) return CreateDocumentFromFile(directory_ + "/" + fileName);
  std::shared_ptr<JsonDoc> doc = std::move(held->second);
  documents_.erase(held);
  return doc;
}

}  // namespace QorConfigStore
