// The limits in force at this hour, as the library evaluates them.
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

// Bytes per second, 0 unlimited, by direction: the indexes are ZEVO_BW_TRANSFER_UPLOAD and _DOWNLOAD.
using Speeds = std::array<std::uint64_t, ZEVO_BW_TRANSFER_DOWNLOAD + 1>;

// Whether the protocol's limits are switched on now.
bool LimitsApply(const ZEVO_BANDWIDTH_GLOBAL_CONF &policy);

// What a rule allows now; nothing when it does not bear.
std::optional<Speeds> RatesInForce(const ZEVO_BANDWIDTH_CONF &rule,
                                   const ZEVO_BANDWIDTH_GLOBAL_CONF &policy);

// Looks limits up for a display that is refreshed again and again: each once, until a file or the
// hour has changed, and no more at a time than the display can wait for.
class LimitBook {
public:
    // What is known stays known for another round unless it may have changed. budgetUs: how long
    // this round may take to find out about the rest.
    void BeginRound(std::int64_t budgetUs);

    // For a user what the rules and policies allow one transfer alone, for a group its own rule.
    // Nothing when that is not known, or not yet.
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
