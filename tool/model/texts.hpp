// Rules and policies in words and as JSON, for every command that prints them.
#ifndef ZEVOBW_TOOL_MODEL_TEXTS_HPP
#define ZEVOBW_TOOL_MODEL_TEXTS_HPP

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include <zevobandwidth.h>

#include "model/store.hpp"
#include "output.hpp"

namespace tool {

struct RateOption {
    const char *name;
    const char *label;
    const char *key; // in JSON, in KB/s of 1024 bytes
    std::uint64_t ZEVO_BANDWIDTH_CONF::*field;
    const char *help;
};

// The normal rates, then the custom ones.
inline constexpr std::array kRates = {
    RateOption{"--up", "upload", "upload_kib_per_s", &ZEVO_BANDWIDTH_CONF::uploadRate,
               "Upload rate: from the client to this server"},
    RateOption{"--down", "download", "download_kib_per_s", &ZEVO_BANDWIDTH_CONF::downloadRate,
               "Download rate: from this server to the client"},
    RateOption{"--custom-up", "custom upload", "custom_upload_kib_per_s",
               &ZEVO_BANDWIDTH_CONF::uploadRateCustom,
               "Upload rate in the hours that a plan marks as custom"},
    RateOption{"--custom-down", "custom download", "custom_download_kib_per_s",
               &ZEVO_BANDWIDTH_CONF::downloadRateCustom, "Download rate in those hours"},
};

// A field of a rule or a policy in words. Different plans may have the same text, so compare exact.
struct Field {
    const char *label;
    std::string text;
    std::string exact = {};
};

// The label, in so many columns, and the text.
void PrintField(std::size_t width, const Field &field);

std::vector<Field> Fields(const ZEVO_BANDWIDTH_CONF &rule);
std::vector<Field> Fields(const ZEVO_BANDWIDTH_GLOBAL_CONF &policy);

std::string StateText(const ZEVO_BANDWIDTH_CONF &rule);

// Whether the custom rates matter for this rule.
bool HasCustomRates(const ZEVO_BANDWIDTH_CONF &rule);

// "user alice, ftp: enabled, upload 10 MiB/s, download unlimited". Custom rates and the plan follow
// if there are any, or if the state is schedule.
std::string OneLine(const Owner &owner, const ZEVO_BANDWIDTH_CONF &rule);

Json ToJson(const Owner &owner, const ZEVO_BANDWIDTH_CONF &rule);

struct PolicyChoice {
    const char *option;
    const char *label;
    const char *key; // in JSON
    std::int32_t ZEVO_BANDWIDTH_GLOBAL_CONF::*field;
    const ZEVO_BW_ENUM_ENTRY *table;
    const char *help;
};

// Each source file has its own copy, and its own name tables: compare fields, never tables.
[[maybe_unused]] constexpr std::array kChoices = {
    PolicyChoice{"--state", "state", "state", &ZEVO_BANDWIDTH_GLOBAL_CONF::state,
                 ZEVO_BW_STATE_LIST,
                 "Whether the protocol's limits apply; those of a new policy do"},
    PolicyChoice{"--user-group", "user-group", "user_group",
                 &ZEVO_BANDWIDTH_GLOBAL_CONF::userGroupPolicy, ZEVO_BW_USER_GROUP_POLICY_LIST,
                 "How a user's own rule and those of the user's groups combine"},
    PolicyChoice{"--inter-group", "inter-group", "inter_group",
                 &ZEVO_BANDWIDTH_GLOBAL_CONF::interGroupPolicy, ZEVO_BW_INTER_GROUP_POLICY_LIST,
                 "How the rules of several groups combine"},
    PolicyChoice{"--occupy", "occupy", "occupy", &ZEVO_BANDWIDTH_GLOBAL_CONF::occupyPolicy,
                 ZEVO_BW_OCCUPY_POLICY_LIST, "To which of the user's groups a transfer is charged"},
};

std::string ChoiceText(const PolicyChoice &choice, const ZEVO_BANDWIDTH_GLOBAL_CONF &policy);

// "ftp: enabled, user-group user-first, inter-group max, occupy max", and the plan if there is one.
std::string OneLine(const ZEVO_BANDWIDTH_GLOBAL_CONF &policy);

Json ToJson(const ZEVO_BANDWIDTH_GLOBAL_CONF &policy);

// The same of either; a policy is named "policy of ftp".
std::string NameOf(const Setting &setting);
std::string OneLine(const Setting &setting);
Json ToJson(const Setting &setting);
std::vector<Field> Fields(const Setting &setting);

} // namespace tool

#endif // ZEVOBW_TOOL_MODEL_TEXTS_HPP
