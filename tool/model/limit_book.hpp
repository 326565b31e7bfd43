// The limits that apply at this hour, as the library evaluates them.
#ifndef ZEVOBW_TOOL_MODEL_LIMIT_BOOK_HPP
#define ZEVOBW_TOOL_MODEL_LIMIT_BOOK_HPP

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <tuple>

#include <zevobandwidth.h>

namespace tool {

// Bytes per second, 0 unlimited, by direction: the indexes are ZEVO_BW_TRANSFER_UPLOAD and
// _DOWNLOAD.
using Speeds = std::array<std::uint64_t, ZEVO_BW_TRANSFER_DOWNLOAD + 1>;

// Whether the protocol's limits are switched on now.
bool LimitsApply(const ZEVO_BANDWIDTH_GLOBAL_CONF &policy);

// The rule with its state and its rates of this hour filled in.
ZEVO_BANDWIDTH_CONF EvaluatedNow(const ZEVO_BANDWIDTH_CONF &rule);

// What a rule allows now; nothing when it does not apply.
std::optional<Speeds> RatesNow(const ZEVO_BANDWIDTH_CONF &rule,
                               const ZEVO_BANDWIDTH_GLOBAL_CONF &policy);

// Remembers limits for a display that is refreshed often. It looks up each limit once, until a file
// or the hour changes, and stops a round of look-ups when its time is over.
class LimitBook {
public:
    // Forgets the limits if they may have changed. budgetUs: how long the look-ups of this round
    // may take.
    void BeginRound(std::int64_t budgetUs);

    // For a user: what the rules and policies allow one transfer alone. For a group: its own rule.
    // Nothing when that is not known, or not yet looked up.
    std::optional<std::uint64_t> Of(std::int32_t ownerType, std::uint32_t id, std::int32_t protocol,
                                    std::int32_t direction);

private:
    using Key = std::tuple<std::int32_t, std::uint32_t, std::int32_t>; // owner's type, id, protocol

    std::optional<Speeds> Find(std::int32_t ownerType, std::uint32_t id, std::int32_t protocol);
    const ZEVO_BANDWIDTH_GLOBAL_CONF &Policy(std::int32_t protocol);

    std::map<Key, std::optional<Speeds>> limits_;
    std::map<std::int32_t, ZEVO_BANDWIDTH_GLOBAL_CONF> policies_;
    std::map<std::int32_t, std::string> stamps_; // of the rule files met so far
    std::int64_t deadlineUs_ = 0;
};

} // namespace tool

#endif // ZEVOBW_TOOL_MODEL_LIMIT_BOOK_HPP
