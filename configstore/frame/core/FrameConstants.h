// The event table and the validator rule sets, the same in every source file that includes them.
#pragma once

#include <map>
#include <set>
#include <string>

namespace QorConfigStore {

// Management events ("zebs"): identifier -> message template, formatted by the event service.
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

// Rule sets handed to JsonValidator::Validate; docs/formats.md says what each number checks.
using RuleSet = std::set<int>;
inline const RuleSet kRulesBasic = {0, 1};
inline const RuleSet kRulesUserObject = {0, 1, 3, 7, 8};
inline const RuleSet kRulesDefaultConfig = {0, 1, 4, 8};
inline const RuleSet kRulesUserNoInstanceId = {0, 1, 7, 8};
inline const RuleSet kRulesUserNoConstraints = {0, 1, 3, 7};
inline const RuleSet kRules015 = {0, 1, 5};
inline const RuleSet kRules019 = {0, 1, 9};
inline const RuleSet kRulesUserObject11 = {0, 1, 3, 7, 8, 11};
inline const RuleSet kRulesUserObject11And19 = {0, 1, 3, 7, 8, 11, 19};
inline const RuleSet kRules13_14 = {0, 13, 14, 18};
inline const RuleSet kRules13_15 = {0, 13, 15, 18, 20};
inline const RuleSet kRules13_16 = {0, 13, 16, 17, 18, 19};

}  // namespace QorConfigStore
