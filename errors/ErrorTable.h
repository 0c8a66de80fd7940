// Every code the store raises or logs, with its message template, and every management event
// ("zeb") with its template: the one table of what the library can report.
#pragma once

#include <map>
#include <string>

namespace QorConfigStore {

// Error codes shared with the host's configuration tools (plain integers on purpose).
enum CSErrorCodes : int {
  CS_ERR_DESIRED_CONFIG_NOT_FOUND = 1005,
  CS_ERR_HOSTAPI_DELETE_NOT_ALLOWED = 1012,
  CS_ERR_INSTANCE_ID_MISSING = 1032,
  CS_ERR_JSON_PARSE_STRING = 1080,
  CS_ERR_JSON_PARSE_FILE = 1081,
  CS_ERR_JSON_TYPE = 1082,
  CS_ERR_SCHEMA_VALIDATION = 1083,
  CS_ERR_PROCESS_START = 1102,
  CS_ERR_PROCESS_WAIT = 1103,
  CS_ERR_PROCESS_EXIT = 1104,
  CS_ERR_GENERIC = 2000,
};

// printf-style message template of each code.
inline const std::map<int, const char*> kErrorTemplates = {
    {CS_ERR_DESIRED_CONFIG_NOT_FOUND, "The requested object does not exist: %s."},
    {CS_ERR_HOSTAPI_DELETE_NOT_ALLOWED, "The operation is not allowed %s."},
    {CS_ERR_INSTANCE_ID_MISSING, "Instance identifier property '%s' is missing or not a string."},
    {CS_ERR_JSON_PARSE_STRING, "The JSON text could not be parsed."},
    {CS_ERR_JSON_PARSE_FILE, "The JSON file %s could not be read or parsed."},
    {CS_ERR_JSON_TYPE, "A JSON value has the wrong type: %s"},
    {CS_ERR_SCHEMA_VALIDATION, "Schema validation error at %s: %s"},
    {CS_ERR_PROCESS_START, "Failed to start the child process: %s"},
    {CS_ERR_PROCESS_WAIT, "Failed to wait for child process %d: %s"},
    {CS_ERR_PROCESS_EXIT, "The child process exited with status %d."},
    {CS_ERR_GENERIC, "ConfigStore operation failed: %s"},
};

// Management events: identifier -> message template, formatted by the event service (DumpZeb).
inline const std::map<std::string, std::string> kEventTable = {
    {"zeb.user.cs.createstore.copy.backup.error", "Error copying ConfigStore from backup %s."},
    {"zeb.user.cs.db.operation.error", "ConfigStore database operation failed."},
    {"zeb.user.cs.schema.file.error", "Error processing schema file %s."},
    {"zeb.user.cs.schema.metadata.error", "Invalid metadata in schema file %s."},
    {"zeb.user.cs.schema.validation.error", "KitId validation failed for schema file %s."},
    {"zeb.user.cs.dfs.restore.error", "DataFile store cannot be restored."},
    {"zeb.user.cs.dfs.cleanup.error", "Error cleaning up Datafile store."},
    {"zeb.user.cs.desired.config.error", "Failed to setup desired configuration."},
    {"zeb.user.cs.upgrade.config.error", "Error in upgrading config %s."},
};

}  // namespace QorConfigStore

// printf-style template of an error code; a generic text for codes outside the table.
const char* ErrorMessageForId(int code);
