// A registered transfer. The times handed to the library are made from a clock that is never set:
// only the length of a block counts for it, and a correction of the wall clock neither stops a
// transfer nor lets it run.
#include "pipe_transfer.hpp"

#include <algorithm>
#include <ctime>
#include <set>

#include <zevocore.h>

#include "failure.hpp"

namespace tool {

namespace {

constexpr char kStatusDirectory[] = "/tmp/bandwidth";
constexpr std::uint64_t kFiveSeconds = 5;

[[noreturn]] void FailWith(const std::string &what, const std::string &remedy)
{
    throw Failure(kFailed, what + "; " + remedy);
}

// The library has told the system log in full; here stands what the administrator can do.
[[noreturn]] void FailWithSlot(const std::string &what)
{
    const std::string directory = kStatusDirectory;
    switch (VLIBCErrGet()) {
    case ZEVO_BW_ERROR_STOPPED:
        throw Failure(kFailed, "an administrator has stopped this transfer");
    case ZEVO_BW_ERROR_OPEN:
    case ZEVO_BW_ERROR_READ:
    case ZEVO_BW_ERROR_STAT:
        FailWith(what, "make sure that " + directory +
                           " is a directory everybody can write, and "
                           "that its files are ordinary ones");
    case ZEVO_BW_ERROR_WRITE:
    case ZEVO_BW_ERROR_RENAME:
        FailWith(what, "make sure that " + directory + " can be written and has room left");
    default:
        FailWith(what, "the system log says why");
    }
}

[[noreturn]] void FailReadingLimits(const std::string &what)
{
    FailWith(what, "make sure that this user may read the files in /usr/zevo/etc/bandwidth; "
                   "'zevobandwidth check' says what is wrong with them");
}

// What one rule's sharers leave: how many move data, and the part that is this user's own.
Sharing Share(const ZEVO_BANDWIDTH_STATUS *list, std::int32_t pid, std::uint32_t uid,
              std::uint64_t rateBps)
{
    std::set<std::uint32_t> otherUsers;
    std::uint64_t sameUser = 1;
    Sharing sharing;
    for (; list != nullptr; list = list->next) {
        if (list->active == 0 || list->pid == pid) continue;
        if (list->uid == uid)
            ++sameUser;
        else
            otherUsers.insert(list->uid);
        if (list->current_speed != 0) ++sharing.transfers;
    }
    sharing.equalBps = rateBps / (sameUser * (otherUsers.size() + 1));
    return sharing;
}

} // namespace

Transfer::Transfer(std::uint32_t uid, std::int32_t protocol, std::int32_t direction,
                   const std::string &name)
{
    if (ZEVOBandwidthConfigGet(uid, protocol, &config_) < 0) {
        ZEVOBandwidthConfigFree(&config_);
        FailReadingLimits("the limits cannot be read");
    }
    Evaluate();
    std::uint64_t timeUs = 0;
    if (ZEVOBandwidthStatusInit(&config_, direction, name.c_str(), &timeUs, &status_) == 0) return;
    const unsigned int code = VLIBCErrGet();
    ZEVOBandwidthStatusRemove(&config_, static_cast<std::uint32_t>(direction));
    ZEVOBandwidthConfigFree(&config_);
    VLIBCErrSetEx(code, __FILE_NAME__, __LINE__);
    FailWithSlot("the transfer cannot be registered");
}

// The groups that were charged by an earlier version of the rules must not keep a copy either, so
// the rules are not asked where that can be had.
Transfer::~Transfer()
{
    const std::uint32_t direction = status_.transfer_type;
    if (ZEVOBandwidthStatusForceRemoveAllByUID(config_.uid, direction) < 0)
        ZEVOBandwidthStatusRemove(&config_, direction);
    ZEVOBandwidthConfigFree(&config_);
}

bool Transfer::ProtocolLimited() const noexcept
{
    const std::int32_t state = config_.globalConf.state;
    return state != ZEVO_BW_STATE_NOT_EXISTED && state != ZEVO_BW_STATE_DISABLED;
}

void Transfer::Evaluate()
{
    onSchedule_ = ZEVOBandwidthInitConfig(&config_, 0) == 1;
}

// Asked for everything, the size estimate answers five seconds' worth.
std::uint64_t Transfer::ConfiguredBps()
{
    if (!ProtocolLimited()) return 0;
    if (onSchedule_) Evaluate();
    std::uint64_t most = UINT64_MAX;
    const auto direction = static_cast<std::int32_t>(status_.transfer_type);
    if (ZEVOBandwidthTransferSizeEstimate(&config_, direction, most, &most) < 0)
        FailWithSlot("the limits cannot be worked out");
    return most == UINT64_MAX ? 0 : most / kFiveSeconds;
}

void Transfer::Throttle(std::uint64_t bytes, std::int64_t lengthUs, std::uint32_t progress)
{
    std::uint64_t timeUs = ZEVOBandwidthCurrTimeGet() - static_cast<std::uint64_t>(lengthUs);
    if (ZEVOBandwidthSleepInLoop(&config_, bytes, progress, &timeUs, &status_) < 0)
        FailWithSlot("the transfer cannot be held to its limit");
}

void Transfer::Touch(std::uint32_t progress)
{
    Throttle(0, 0, progress);
}

void Transfer::CheckNotStopped() const
{
    ZEVO_BANDWIDTH_STATUS saved = {};
    const auto direction = static_cast<std::int32_t>(status_.transfer_type);
    const int result = ZEVOBandwidthStatusGet(ZEVO_BW_OWNER_USER, status_.id, direction, &saved);
    if (result < 0 || saved.active != 0) return;
    VLIBCErrSetEx(ZEVO_BW_ERROR_STOPPED, __FILE_NAME__, __LINE__);
    FailWithSlot("the transfer has been stopped");
}

// Until the next throttle call would save the transfer again, the others would take its part.
void Transfer::Reload(std::uint64_t bps)
{
    std::uint64_t ignoredUs = 0;
    if (ZEVOBandwidthHupRecv(&config_, &status_, &ignoredUs) < 0)
        FailWithSlot("the changed limits cannot be read");
    Evaluate();
    if (ConfiguredBps() == 0) return;
    const auto direction = static_cast<std::int32_t>(status_.transfer_type);
    if (ZEVOBandwidthExpectSpeedEstimateByPolicy(direction, &config_, &status_.expect_speed, 1) < 0)
        FailWithSlot("the limits cannot be worked out");
    CheckNotStopped();
    status_.timestamp = std::time(nullptr);
    status_.current_speed = bps == 0 ? status_.expect_speed : std::min(bps, status_.expect_speed);
    if (ZEVOBandwidthStatusSave(config_.uid, &config_, &status_) < 0)
        FailWithSlot("the transfer cannot be registered");
}

// Whether a rule in force can decide this transfer's speed, as the policy combines them.
bool Transfer::Bears(const ZEVO_BANDWIDTH_CONF &rule) const
{
    const auto inForce = [this](std::int32_t owner) {
        const ZEVO_BANDWIDTH_LIMIT *begin = config_.pLimit;
        const ZEVO_BANDWIDTH_LIMIT *end = begin + std::max(config_.iLimit, 0);
        return std::any_of(begin, end, [owner](const ZEVO_BANDWIDTH_LIMIT &limit) {
            return limit.conf.ownerType == owner &&
                   limit.conf.currentState != ZEVO_BW_STATE_DISABLED;
        });
    };
    if (rule.currentState == ZEVO_BW_STATE_DISABLED) return false;
    const bool isUsers = rule.ownerType == ZEVO_BW_OWNER_USER;
    switch (config_.globalConf.userGroupPolicy) {
    case ZEVO_BW_USER_GROUP_POLICY_USER_ONLY:
        return isUsers;
    case ZEVO_BW_USER_GROUP_POLICY_GROUP_ONLY:
        return !isUsers;
    case ZEVO_BW_USER_GROUP_POLICY_USER_FIRST:
        return isUsers || !inForce(ZEVO_BW_OWNER_USER);
    case ZEVO_BW_USER_GROUP_POLICY_GROUP_FIRST:
        return !isUsers || !inForce(ZEVO_BW_OWNER_GROUP);
    default:
        return true;
    }
}

Sharing Transfer::Look() const
{
    Sharing all = {.transfers = 1, .equalBps = UINT64_MAX};
    const bool upload = status_.transfer_type == ZEVO_BW_TRANSFER_UPLOAD;
    for (std::int32_t i = 0; i < config_.iLimit; ++i) {
        const ZEVO_BANDWIDTH_CONF &rule = config_.pLimit[i].conf;
        const std::uint64_t rate = upload ? rule.currentUploadRate : rule.currentDownloadRate;
        if (rate == 0 || !Bears(rule)) continue;
        ZEVO_BANDWIDTH_STATUS *list = nullptr;
        if (ZEVOBandwidthStatusGetAll(rule.ownerType, rule.id, rule.protocolType,
                                      status_.transfer_type, &list) < 0)
            continue; // the throttle call will meet it too, and say so
        const Sharing one = Share(list, status_.pid, config_.uid, rate * 1024);
        ZEVOBandwidthStatusListFree(&list);
        all.transfers = std::max(all.transfers, one.transfers);
        all.equalBps = std::min(all.equalBps, one.equalBps);
    }
    if (all.equalBps == UINT64_MAX) all.equalBps = 0;
    return all;
}

} // namespace tool
