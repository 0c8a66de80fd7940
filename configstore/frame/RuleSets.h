// Rule sets handed to JsonValidator::Validate; docs/formats.md says what each number checks.
#pragma once

#include <set>

namespace QorConfigStore {

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
