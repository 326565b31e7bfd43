// One rule as a text that an administrator edits: a line for each field, explained by comments, and
// the plan as seven rows of hours, Monday first.
#ifndef ZEVOBW_TOOL_MODEL_RULE_FORM_HPP
#define ZEVOBW_TOOL_MODEL_RULE_FORM_HPP

#include <string>

#include "model/store.hpp"

namespace tool {

// A rule that is not stored is written as an enabled one.
std::string RuleToForm(const Owner &owner, const ZEVO_BANDWIDTH_CONF &rule);

// The rule with the fields that the text holds. Throws Failure with kFailed that names the wrong
// line.
ZEVO_BANDWIDTH_CONF RuleFromForm(const std::string &text, ZEVO_BANDWIDTH_CONF rule);

} // namespace tool

#endif // ZEVOBW_TOOL_MODEL_RULE_FORM_HPP
