// A policy in words and as JSON, for every command that prints one.
#ifndef ZEVOBW_TOOL_MODEL_POLICY_TEXT_HPP
#define ZEVOBW_TOOL_MODEL_POLICY_TEXT_HPP

#include <array>
#include <cstdint>
#include <string>

#include <zevobandwidth.h>

#include "output.hpp"

namespace tool {

struct PolicyChoice {
    const char *option;
    const char *label;
    const char *key; // in JSON
    std::int32_t ZEVO_BANDWIDTH_GLOBAL_CONF::*field;
    const ZEVO_BW_ENUM_ENTRY *table;
    const char *help;
};

// Each source has its own, for its tables of names are its own, too: compare fields, never tables.
[[maybe_unused]] constexpr std::array kChoices = {
    PolicyChoice{"--state", "state", "state", &ZEVO_BANDWIDTH_GLOBAL_CONF::state,
                 ZEVO_BW_STATE_LIST,
                 "Whether the protocol's limits apply; those of a new policy do"},
    PolicyChoice{"--user-group", "user-group", "user_group",
                 &ZEVO_BANDWIDTH_GLOBAL_CONF::userGroupPolicy, ZEVO_BW_USER_GROUP_POLICY_LIST,
                 "How a user's own rule and those of his groups combine"},
    PolicyChoice{"--inter-group", "inter-group", "inter_group",
                 &ZEVO_BANDWIDTH_GLOBAL_CONF::interGroupPolicy, ZEVO_BW_INTER_GROUP_POLICY_LIST,
                 "How the rules of several groups combine"},
    PolicyChoice{"--occupy", "occupy", "occupy", &ZEVO_BANDWIDTH_GLOBAL_CONF::occupyPolicy,
                 ZEVO_BW_OCCUPY_POLICY_LIST, "To which of his groups a transfer is charged"},
};

std::string ChoiceText(const PolicyChoice &choice, const ZEVO_BANDWIDTH_GLOBAL_CONF &policy);

// "ftp: enabled, user-group user-first, inter-group max, occupy max", and the plan if there is one.
std::string OneLine(const ZEVO_BANDWIDTH_GLOBAL_CONF &policy);

Json ToJson(const ZEVO_BANDWIDTH_GLOBAL_CONF &policy);

} // namespace tool

#endif // ZEVOBW_TOOL_MODEL_POLICY_TEXT_HPP
