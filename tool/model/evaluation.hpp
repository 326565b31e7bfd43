// What rules and policy leave one user on one protocol at one moment, as the library works it out:
// the tool reads its records and asks it questions, and combines nothing itself.
#ifndef ZEVOBW_TOOL_MODEL_EVALUATION_HPP
#define ZEVOBW_TOOL_MODEL_EVALUATION_HPP

#include <cstdint>
#include <ctime>
#include <span>
#include <string>
#include <vector>

#include <zevobandwidth.hpp>

namespace tool {

// The speed of a transfer in bytes per second, 0 unlimited, and the rules as the library left them:
// what each gives, and the part of the transfer that each group is charged with.
struct Allowance {
    std::uint64_t bps = 0;
    std::vector<ZEVO_BANDWIDTH_LIMIT> limits;
};

// Whether the running transfers count.
enum class Beside { kNobody, kRunning };

class Evaluation {
public:
    // at: 0 for now. Throws Failure when policy or rules cannot be read.
    Evaluation(std::uint32_t uid, std::int32_t protocol, std::time_t at);

    const ZEVO_BANDWIDTH_GLOBAL_CONF &policy() const noexcept { return config_.policy(); }

    // The rules that can bear, evaluated: the user's own first, then his groups'.
    std::span<const ZEVO_BANDWIDTH_LIMIT> limits() const noexcept { return config_; }

    // A rule of this kind of owner bears at the moment.
    bool HasInForce(std::int32_t ownerType) const noexcept;

    // Why the protocol limits nobody at the moment, in a few words; empty when it does.
    std::string WhyOff() const;

    Allowance Ask(std::int32_t direction, Beside beside) const;

    // The same under another way of combining a user and his groups.
    Allowance AskUnder(std::int32_t userGroupPolicy, std::int32_t direction, Beside beside) const;

private:
    zevobw::Config config_;
};

} // namespace tool

#endif // ZEVOBW_TOOL_MODEL_EVALUATION_HPP
