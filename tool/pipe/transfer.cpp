#include "pipe/transfer.hpp"

#include <algorithm>
#include <ctime>
#include <memory>
#include <optional>
#include <set>
#include <utility>

#include "model/rate.hpp"
#include "model/section.hpp"

namespace tool {

namespace {

// Whether the rule applies and can decide a transfer's speed under the policy.
bool Decides(const ZEVO_BANDWIDTH_CONF &rule, const zevobw::Config &config)
{
    const bool isUsers = rule.ownerType == ZEVO_BW_OWNER_USER;
    const std::int32_t policy = config.policy().userGroupPolicy;
    const auto apply = [](const ZEVO_BANDWIDTH_CONF &conf) {
        return conf.currentState != ZEVO_BW_STATE_DISABLED;
    };
    const auto isOtherKind = [&](const ZEVO_BANDWIDTH_LIMIT &limit) {
        return limit.conf.ownerType != rule.ownerType && apply(limit.conf);
    };
    if (!apply(rule) || policy == (isUsers ? ZEVO_BW_USER_GROUP_POLICY_GROUP_ONLY
                                           : ZEVO_BW_USER_GROUP_POLICY_USER_ONLY))
        return false;
    return policy != (isUsers ? ZEVO_BW_USER_GROUP_POLICY_GROUP_FIRST
                              : ZEVO_BW_USER_GROUP_POLICY_USER_FIRST) ||
           std::none_of(config.begin(), config.end(), isOtherKind);
}

// The number of transfers that move data under the rule, own included, and own's equal part of its
// rate, in bytes per second. Nothing if the file cannot be read; the throttle call reports that. It
// reads section by section: the library's list would hold four kilobytes for each transfer, and
// among a thousand that costs more than the rest of the work.
std::optional<Sharing> CountUnder(const ZEVO_BANDWIDTH_CONF &rule, std::uint64_t rateBps,
                                  const ZEVO_BANDWIDTH_STATUS &own)
{
    const std::string path = StatusFile(rule.ownerType, rule.id);
    const List sections = ListSections(path);
    if (!sections) return std::nullopt;
    Hash hash = NewHash();
    const auto other = std::make_unique<ZEVO_BANDWIDTH_STATUS>();
    const std::int64_t freshSince = std::time(nullptr) - ZEVO_BW_STALE_AFTER_SECONDS;
    std::set<std::uint32_t> otherUsers;
    std::uint64_t sameUser = 1;
    Sharing sharing;
    for (const char *const section : Items(sections)) {
        *other = {};
        if (!ReadSection(path, section, hash) ||
            ZEVOBandwidthInitStatusFromHash(other.get(), hash.get()) != 0)
            continue;
        if (other->active == 0 || other->pid == own.pid || other->timestamp < freshSince) continue;
        if (other->protocol_type != own.protocol_type) continue;
        if (other->transfer_type != own.transfer_type) continue;
        if (other->uid == own.uid)
            ++sameUser;
        else
            otherUsers.insert(other->uid);
        if (other->current_speed != 0) ++sharing.transfers;
    }
    sharing.equalBps = rateBps / (sameUser * (otherUsers.size() + 1));
    return sharing;
}

} // namespace

zevobw::Transfer BeginTransfer(std::uint32_t uid, std::int32_t protocol, std::int32_t direction,
                               const std::string &name)
{
    zevobw::Result<zevobw::Config> config = zevobw::Config::Read(uid, protocol);
    if (!config)
        throw Failure(kFailed,
                      "the limits cannot be read; make sure that this user may read the files in "
                      "/usr/zevo/etc/bandwidth; 'zevobandwidth check' says what is wrong with "
                      "them");
    auto begun = zevobw::Transfer::Begin(std::move(config.value()), direction, name.c_str());
    Require(begun, "the transfer cannot be registered");
    return std::move(begun.value());
}

Sharing CountSharers(const zevobw::Transfer &transfer)
{
    Sharing all = {.transfers = 1, .equalBps = UINT64_MAX};
    const ZEVO_BANDWIDTH_STATUS &own = transfer.status();
    const bool upload = own.transfer_type == ZEVO_BW_TRANSFER_UPLOAD;
    for (const ZEVO_BANDWIDTH_LIMIT &limit : transfer.config()) {
        const ZEVO_BANDWIDTH_CONF &rule = limit.conf;
        const std::uint64_t rate = upload ? rule.currentUploadRate : rule.currentDownloadRate;
        if (rate == 0 || !Decides(rule, transfer.config())) continue;
        const std::optional<Sharing> one = CountUnder(rule, rate * kBytesPerKB, own);
        if (!one) continue;
        all.transfers = std::max(all.transfers, one->transfers);
        all.equalBps = std::min(all.equalBps, one->equalBps);
    }
    if (all.equalBps == UINT64_MAX) all.equalBps = 0;
    return all;
}

} // namespace tool
