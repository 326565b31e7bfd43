#include "model/limit_book.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <ctime>

#include "failure.hpp"
#include "model/rate.hpp"
#include "model/store.hpp"
#include "pipe/signal.hpp"

namespace tool {

namespace {

std::uint64_t ToBps(std::uint64_t kBps)
{
    return std::min(kBps, UINT64_MAX / kBytesPerKB) * kBytesPerKB;
}

// Changes with the file, and with the minute: a plan changes with the hour, and nothing tells that
// a user has joined a group.
std::string StampOf(std::int32_t protocol)
{
    std::array<char, ZEVO_BW_FILENAME_SIZE> path{};
    struct stat file {};
    static_cast<void>(ZEVOBandwidthConfPath(protocol, path.data(), path.size()));
    static_cast<void>(::stat(path.data(), &file)); // a missing file has a stamp, too
    return std::to_string(file.st_ino) + " " + std::to_string(file.st_mtim.tv_sec) + " " +
           std::to_string(file.st_mtim.tv_nsec) + " " + std::to_string(std::time(nullptr) / 60);
}

} // namespace

bool LimitsApply(const ZEVO_BANDWIDTH_GLOBAL_CONF &policy)
{
    ZEVO_BANDWIDTH_CONFIG config{};
    config.globalConf = policy;
    static_cast<void>(ZEVOBandwidthInitConfig(&config, 0));
    return config.globalConf.currentState == ZEVO_BW_STATE_ENABLED;
}

ZEVO_BANDWIDTH_CONF EvaluatedNow(const ZEVO_BANDWIDTH_CONF &rule)
{
    ZEVO_BANDWIDTH_LIMIT limit{};
    limit.conf = rule;
    ZEVO_BANDWIDTH_CONFIG config{};
    config.iLimit = 1;
    config.pLimit = &limit;
    static_cast<void>(ZEVOBandwidthInitConfig(&config, 0)); // says whether it is on a schedule
    return limit.conf;
}

std::optional<Speeds> RatesNow(const ZEVO_BANDWIDTH_CONF &rule,
                               const ZEVO_BANDWIDTH_GLOBAL_CONF &policy)
{
    const ZEVO_BANDWIDTH_CONF now = EvaluatedNow(rule);
    if (!LimitsApply(policy) || now.currentState != ZEVO_BW_STATE_ENABLED) return std::nullopt;
    return Speeds{0, ToBps(now.currentUploadRate), ToBps(now.currentDownloadRate)};
}

void LimitBook::BeginRound(std::int64_t budgetUs)
{
    deadlineUs_ = NowUs() + budgetUs;
    stamps_.try_emplace(ZEVO_BW_PROTOCOL_ALL); // the file of the policies
    bool changed = false;
    for (auto &[protocol, stamp] : stamps_) {
        std::string now = StampOf(protocol);
        changed |= now != stamp;
        stamp = std::move(now);
    }
    if (!changed) return;
    limits_.clear();
    policies_.clear();
}

const ZEVO_BANDWIDTH_GLOBAL_CONF &LimitBook::Policy(std::int32_t protocol)
{
    const auto known = policies_.find(protocol);
    return known != policies_.end()
               ? known->second
               : policies_.emplace(protocol, ReadPolicy(protocol)).first->second;
}

std::optional<Speeds> LimitBook::Find(std::int32_t ownerType, std::uint32_t id,
                                      std::int32_t protocol)
{
    try {
        const ZEVO_BANDWIDTH_GLOBAL_CONF &policy = Policy(protocol);
        if (!LimitsApply(policy)) return Speeds{};
        if (ownerType == ZEVO_BW_OWNER_GROUP)
            return RatesNow(ReadRule({ownerType, {id, ""}}, protocol), policy).value_or(Speeds{});
        Speeds speeds{};
        if (ZEVOBandwidthPreview(id, protocol, speeds.data()) == 0) return speeds;
    } catch (const Failure &) {
        // A damaged or unreadable file. Other commands report it; the display shows "-".
    }
    return std::nullopt;
}

std::optional<std::uint64_t> LimitBook::Of(std::int32_t ownerType, std::uint32_t id,
                                           std::int32_t protocol, std::int32_t direction)
{
    const Key key(ownerType, id, protocol);
    auto known = limits_.find(key);
    if (known == limits_.end()) {
        if (NowUs() >= deadlineUs_) return std::nullopt;
        stamps_.try_emplace(protocol, StampOf(protocol));
        known = limits_.emplace(key, Find(ownerType, id, protocol)).first;
    }
    const std::optional<Speeds> &speeds = known->second;
    const auto index = static_cast<std::size_t>(direction);
    return speeds && index < speeds->size() ? std::optional((*speeds)[index]) : std::nullopt;
}

} // namespace tool
