// Each question gets a copy of the configuration, because an estimate writes into the entries, and
// an entry that does not apply would keep the result of an earlier question.
#include "model/evaluation.hpp"

#include <algorithm>
#include <utility>

#include "failure.hpp"
#include "model/names.hpp"
#include "model/store.hpp"
#include "pipe/block.hpp"

namespace tool {

Evaluation::Evaluation(std::uint32_t uid, std::int32_t protocol, std::time_t at)
{
    // The library treats a file that this user may not read as empty, and reports a damaged section
    // only in the log. These two calls fail with the file and the remedy.
    static_cast<void>(ReadPolicy(protocol));
    static_cast<void>(ReadRule({ZEVO_BW_OWNER_USER, {uid, UserName(uid)}}, protocol));
    auto config = zevobw::Config::Read(uid, protocol);
    if (!config)
        throw Failure(kFailed, "the rules of " + ProtocolName(protocol) + " that apply to user " +
                                   UserName(uid) +
                                   " cannot be read; 'zevobandwidth rule list' names what is "
                                   "wrong, or the system log");
    config_ = std::move(config.value());
    if (at != 0) static_cast<void>(config_.Evaluate(at * kMicrosPerSecond));
}

bool Evaluation::Applies(std::int32_t ownerType) const noexcept
{
    const auto applies = [ownerType](const ZEVO_BANDWIDTH_LIMIT &limit) {
        return limit.conf.ownerType == ownerType &&
               limit.conf.currentState != ZEVO_BW_STATE_DISABLED;
    };
    return std::any_of(limits().begin(), limits().end(), applies);
}

std::string Evaluation::WhyOff() const
{
    if (policy().state == ZEVO_BW_STATE_NOT_EXISTED) return "no policy yet";
    if (policy().state == ZEVO_BW_STATE_DISABLED) return "policy disabled";
    if (policy().currentState == ZEVO_BW_STATE_DISABLED) return "policy off at this hour";
    return "";
}

Allowance Evaluation::Ask(std::int32_t direction, Beside beside,
                          std::optional<std::int32_t> userGroupPolicy) const
{
    Allowance answer{0, {limits().begin(), limits().end()}};
    ZEVO_BANDWIDTH_CONFIG asked = config_.record();
    asked.pLimit = answer.limits.data();
    asked.globalConf.userGroupPolicy = userGroupPolicy.value_or(policy().userGroupPolicy);
    if (ZEVOBandwidthExpectSpeedEstimateByPolicy(direction, &asked, &answer.bps,
                                                 beside == Beside::kRunning ? 1 : 0) < 0)
        throw Failure(kFailed, "the speed on " + ProtocolName(policy().protocolType) +
                                   " cannot be worked out: its policy holds an unknown value or "
                                   "a status file in /tmp/bandwidth cannot be read; the system "
                                   "log says which");
    return answer;
}

} // namespace tool
