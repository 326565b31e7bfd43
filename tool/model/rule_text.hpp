// A rule in words and as JSON, for every command that prints one.
#ifndef ZEVOBW_TOOL_MODEL_RULE_TEXT_HPP
#define ZEVOBW_TOOL_MODEL_RULE_TEXT_HPP

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include <zevobandwidth.h>

#include "model/plan.hpp"
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

std::string StateText(const ZEVO_BANDWIDTH_CONF &rule);

// Whether there is anything to tell about the rates of custom hours.
bool HasCustomRates(const ZEVO_BANDWIDTH_CONF &rule);

// "user alice, ftp: enabled, upload 10 MiB/s, download unlimited"; custom rates and the plan where
// there are any or the state asks for them.
std::string OneLine(const Owner &owner, const ZEVO_BANDWIDTH_CONF &rule);

Json ToJson(const Owner &owner, const ZEVO_BANDWIDTH_CONF &rule);

} // namespace tool

#endif // ZEVOBW_TOOL_MODEL_RULE_TEXT_HPP
