// A registered transfer. The times handed to the library are made from a clock that is never set:
// only the length of a block counts for it, and a correction of the wall clock neither stops a
// transfer nor lets it run.
#include "pipe/transfer.hpp"

#include <algorithm>
#include <optional>
#include <utility>

#include "failure.hpp"
#include "model/transfer_list.hpp"
#include "pipe/sharers.hpp"

namespace tool {

namespace {

[[noreturn]] void FailWith(const std::string &what, const std::string &remedy)
{
    throw Failure(kFailed, what + "; " + remedy);
}

// The library has told the system log in full; here stands what the administrator can do.
[[noreturn]] void FailWith(const std::string &what, const zevobw::Error &error)
{
    const std::string directory = ZEVO_BW_STATUS_DIRECTORY;
    switch (error.code()) {
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

void Require(const zevobw::Outcome &outcome, const std::string &what)
{
    if (!outcome) FailWith(what, outcome.error());
}

zevobw::Transfer Begin(std::uint32_t uid, std::int32_t protocol, std::int32_t direction,
                       const std::string &name)
{
    zevobw::Result<zevobw::Config> config = zevobw::Config::Read(uid, protocol);
    if (!config)
        FailWith("the limits cannot be read",
                 "make sure that this user may read the files in /usr/zevo/etc/bandwidth; "
                 "'zevobandwidth check' says what is wrong with them");
    auto begun = zevobw::Transfer::Begin(std::move(config.value()), direction, name.c_str());
    Require(begun, "the transfer cannot be registered");
    return std::move(begun.value());
}

} // namespace

Transfer::Transfer(std::uint32_t uid, std::int32_t protocol, std::int32_t direction,
                   const std::string &name)
    : transfer_(Begin(uid, protocol, direction, name))
{
}

bool Transfer::ProtocolLimited() const noexcept
{
    const std::int32_t state = transfer_.config().policy().state;
    return state != ZEVO_BW_STATE_NOT_EXISTED && state != ZEVO_BW_STATE_DISABLED;
}

std::uint64_t Transfer::ConfiguredBps()
{
    const auto bps = transfer_.ConfiguredBps();
    Require(bps, "the limits cannot be worked out");
    return bps.value();
}

void Transfer::Throttle(std::uint64_t bytes, std::int64_t lengthUs, std::uint32_t progress)
{
    Require(transfer_.Moved(bytes, progress, lengthUs), "the transfer cannot be held to its limit");
}

void Transfer::Touch(std::uint32_t progress)
{
    Throttle(0, 0, progress);
}

void Transfer::Reload(std::uint64_t bps)
{
    Require(transfer_.Reload(bps), "the changed limits cannot be taken up");
}

// Whether a rule in force can decide this transfer's speed, as the policy combines them.
bool Transfer::Bears(const ZEVO_BANDWIDTH_CONF &rule) const
{
    const zevobw::Config &config = transfer_.config();
    const auto inForce = [&config](std::int32_t owner) {
        return std::any_of(config.begin(), config.end(), [owner](const auto &limit) {
            return limit.conf.ownerType == owner &&
                   limit.conf.currentState != ZEVO_BW_STATE_DISABLED;
        });
    };
    if (rule.currentState == ZEVO_BW_STATE_DISABLED) return false;
    const bool isUsers = rule.ownerType == ZEVO_BW_OWNER_USER;
    switch (config.policy().userGroupPolicy) {
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
    const ZEVO_BANDWIDTH_STATUS &own = transfer_.status();
    const bool upload = own.transfer_type == ZEVO_BW_TRANSFER_UPLOAD;
    for (const ZEVO_BANDWIDTH_LIMIT &limit : transfer_.config()) {
        const ZEVO_BANDWIDTH_CONF &rule = limit.conf;
        const std::uint64_t rate = upload ? rule.currentUploadRate : rule.currentDownloadRate;
        if (rate == 0 || !Bears(rule)) continue;
        const std::optional<Sharing> one = CountSharers(rule, rate * 1024, own);
        if (!one) continue;
        all.transfers = std::max(all.transfers, one->transfers);
        all.equalBps = std::min(all.equalBps, one->equalBps);
    }
    if (all.equalBps == UINT64_MAX) all.equalBps = 0;
    return all;
}

} // namespace tool
