// What the commands that change a single rule have in common.
#ifndef ZEVOBW_TOOL_COMMANDS_RULE_COMMAND_HPP
#define ZEVOBW_TOOL_COMMANDS_RULE_COMMAND_HPP

#include <CLI/CLI.hpp>

#include "model/store.hpp"
#include "options.hpp"

namespace tool {

// What the commands take that change one rule.
struct RuleChange {
    OwnerOption owner;
    std::string protocol;
    ChangeOptions change;
};
// -u or -g, -p.
void AddRuleOptions(CLI::App &command, RuleChange &arguments);
// The same, and the options of a change and of the output.
void AddRuleChangeOptions(CLI::App &command, RuleChange &arguments);

// Stores the rule, notifies the services, prints the rule, and notes why it would not apply. A dry
// run stores nothing; --no-notify notifies nobody.
void StoreRule(const Owner &owner, const ZEVO_BANDWIDTH_CONF &rule, const ChangeOptions &change);

// Each adds its command to "rule".
void AddRuleEdit(CLI::App &rule);

} // namespace tool

#endif // ZEVOBW_TOOL_COMMANDS_RULE_COMMAND_HPP
