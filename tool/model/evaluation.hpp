// What the rules and the policy allow one user on one protocol at one moment. The library works it
// out; the tool combines nothing itself.
#ifndef ZEVOBW_TOOL_MODEL_EVALUATION_HPP
#define ZEVOBW_TOOL_MODEL_EVALUATION_HPP

#include <cstdint>
#include <ctime>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <zevobandwidth.hpp>

namespace tool {

// The speed of a transfer in bytes per second, 0 unlimited. The limits hold what each rule allows,
// and the part of the transfer that each group is charged.
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

    // The evaluated rules that can apply: the user's own first, then those of the groups.
    std::span<const ZEVO_BANDWIDTH_LIMIT> limits() const noexcept { return config_; }

    // Whether a rule of this kind of owner applies at the moment.
    bool Applies(std::int32_t ownerType) const noexcept;

    // Why the protocol has no limits at the moment, in a few words; empty when it has.
    std::string WhyOff() const;

    // userGroupPolicy: how the rules of the user and of the groups combine, if not by the policy.
    Allowance Ask(std::int32_t direction, Beside beside,
                  std::optional<std::int32_t> userGroupPolicy = {}) const;

private:
    zevobw::Config config_;
};

} // namespace tool

#endif // ZEVOBW_TOOL_MODEL_EVALUATION_HPP
