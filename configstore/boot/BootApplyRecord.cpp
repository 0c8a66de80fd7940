#include "configstore/boot/BootApplyRecord.h"

#include "configstore/frame/CallFrame.h"
#include "platform/validator/ConfigStoreDocument.h"

namespace QorConfigStore {
namespace {

const char* kBootApplyResultKey = "BOOT_APPLY_RESULT";

}  // namespace

void clearBootApplyRecord() {
  DBStore::Connection conn = GetDBConnection(DBStore::CONFIG_STORE, true);
  (void)DBStore::WriteKeyValue(kBootApplyResultKey, "{\"isBootComplete\":false}", conn);
}

void setBootApplyRecord(std::string record) {
  rapidjson::Document doc(rapidjson::kObjectType);
  auto& alloc = doc.GetAllocator();
  doc.AddMember("isBootComplete", true, alloc);
  doc.AddMember("bootApplyRecord",
                rapidjson::Value(record.c_str(), static_cast<rapidjson::SizeType>(record.size()), alloc), alloc);
  std::string text;
  ConfigStoreDocument::SerializeValue(doc, text);
  DBStore::Connection conn = GetDBConnection(DBStore::CONFIG_STORE, true);
  (void)DBStore::WriteKeyValue(kBootApplyResultKey, text, conn);
}

rapidjson::Document getBootApplyRecord() {
  DBStore::Connection conn = GetDBConnection(DBStore::CONFIG_STORE, true);
  std::string text;
  if (DBStore::ReadKeyValue(kBootApplyResultKey, &text, conn) != 0) {
    throw ConfigStoreException(CS_ERR_GENERIC, "Failed to read BOOT_APPLY_RESULT from database.");
  }
  rapidjson::Document doc;
  doc.Parse(text.c_str(), text.size());
  if (doc.HasParseError()) ThrowException<InvalidArgumentException>(CS_ERR_JSON_PARSE_STRING);
  return doc;
}

std::vector<FailureRecord> GetBootTimeRestoreFailures() {
  DBStore::Connection conn = GetDBConnection(DBStore::CONFIG_STORE, true);
  DBStore::SchemaStoreAttachment ss(conn);  // detached however this ends
  if (ss.Attach() != 0) throw ConfigStoreException(CS_ERR_GENERIC, "Failed to attach schema store");
  std::vector<FailureRecord> failures;
  // Columns: Name, Component, ConfigGroup, Identifier.
  auto keep = [&failures](const DBStore::Row& row) {
    FailureRecord& record = failures.emplace_back();
    record.Name = row.String(0);
    record.Component = row.String(1);
    record.ConfigGroup = row.String(2);
  };
  if (DBStore::QueryEach(
          conn,
          "SELECT c.Name, c.Component, c.ConfigGroup, c.Identifier FROM Config c, ss.ConfigSchema AS s "
          "WHERE c.Name = s.Name AND c.Component = s.Component AND c.ConfigGroup = s.ConfigGroup "
          "AND s.DSPIntegrated = 1 AND c.Success = 0 AND (s.SchemaType = 0 OR s.SchemaType = 2) "
          "AND c.UserValue IS NOT NULL;",
          keep) != 0) {
    throw ConfigStoreException(CS_ERR_GENERIC, "Failed to read from config store.");
  }
  if (ss.Detach() != 0) CSLogger::Log(CSLogger::PRIO_ERROR, "Failed to detach schema store");
  return failures;
}

}  // namespace QorConfigStore
