// What one rule leaves one transfer: what the others under the rule do not use of its rate, and
// never less than an equal share. The others are counted as their file is walked over; none is kept.

#include "internal/frame.hpp"
#include "internal/guard.hpp"
#include "internal/speed.hpp"
#include "internal/status_walk.hpp"

#include <algorithm>
#include <cstddef>
#include <cstring>

using namespace bandwidth;

namespace {

// The users that a walk meets, one number for each of his records or runs of records: the uid above,
// the order of the walk in the middle, whether he counts by that record below.
class Users {
public:
    ~Users()
    {
        const zevo::KeepErrno keep;
        std::free(pMet_);
    }
    Users() noexcept = default;
    Users(const Users &) = delete;
    Users &operator=(const Users &) = delete;

    // false without memory.
    bool Meet(uint32_t uid, bool counts) noexcept
    {
        const bool isSameAgain = nMet_ > 0 && pMet_[nMet_ - 1] >> kUidShift == uid;
        if (!isSameAgain && nMet_ == nRoom_ && !Widen()) return false;
        if (!isSameAgain) ++nMet_;
        pMet_[nMet_ - 1] = uint64_t{uid} << kUidShift | uint64_t{nMet_} << 1 | (counts ? 1 : 0);
        return true;
    }
    // A user counts by his last record alone: the list of the transfers, the last of the file first,
    // has it before his others.
    uint64_t Count() noexcept
    {
        std::sort(pMet_, pMet_ + nMet_);
        uint64_t count = 0;
        for (size_t i = 0; i < nMet_; ++i)
            if (i + 1 == nMet_ || pMet_[i] >> kUidShift != pMet_[i + 1] >> kUidShift)
                count += pMet_[i] & 1;
        return count;
    }

private:
    static constexpr int kUidShift = 32;

    bool Widen() noexcept
    {
        const size_t nRoom = nRoom_ == 0 ? 256 : nRoom_ * 2;
        void *const pWider = std::realloc(pMet_, nRoom * sizeof(pMet_[0]));
        if (pWider == nullptr) return false;
        pMet_ = static_cast<uint64_t *>(pWider);
        nRoom_ = nRoom;
        return true;
    }

    uint64_t *pMet_ = nullptr;
    size_t nMet_ = 0;
    size_t nRoom_ = 0;
};

// What a transfer finds beside itself.
class Others final : public StatusTaker {
public:
    Others(uint32_t uid, pid_t pid, uint64_t rateBps) noexcept
        : uid_(uid), pid_(pid), rateBps_(rateBps), remainingBps_(rateBps)
    {
    }

    // The one record in turn, whose file name nobody looks at.
    ZEVO_BANDWIDTH_STATUS *Room() noexcept override
    {
        ClearButName(record_);
        return &record_;
    }
    bool Take() noexcept override
    {
        const bool counts = record_.active != 0 && record_.pid != pid_;
        if (record_.uid != uid_ && !users_.Meet(record_.uid, counts)) return false;
        if (!counts) return true;
        if (record_.uid == uid_) ++sameUser_;
        remainingBps_ -= std::min(record_.current_speed, remainingBps_);
        return true;
    }
    uint64_t Share() noexcept
    {
        return std::max(remainingBps_, rateBps_ / (sameUser_ * (1 + users_.Count())));
    }

private:
    const uint32_t uid_;
    const pid_t pid_;
    const uint64_t rateBps_;
    uint64_t remainingBps_;
    uint64_t sameUser_ = 1;
    Users users_;
    ZEVO_BANDWIDTH_STATUS record_ = {};
};

} // namespace

int ZEVOBandwidthExpectSpeedEstimate(uint32_t uid, const ZEVO_BANDWIDTH_CONF *pConf,
                                     int32_t transfer_type, uint64_t *pMaxSpeedBps,
                                     pid_t pid) noexcept
{
    const CancelScope cancel;
    BW_REQUIRE(pConf != nullptr, "((void *)0) != pConf");
    BW_REQUIRE(pMaxSpeedBps != nullptr, "((void *)0) != pMaxSpeedBps");
    BW_REQUIRE(transfer_type != ZEVO_BW_TRANSFER_ALL, "ZEVO_BW_TRANSFER_ALL != transfer_type");

    const uint64_t rateBps = CurrentSpeed(*pConf, transfer_type);
    if (rateBps == 0) {
        *pMaxSpeedBps = 0;
        return 0;
    }
    Others others(uid, pid, rateBps);
    if (WalkStatuses(pConf->ownerType, pConf->id, pConf->protocolType,
                     static_cast<uint32_t>(transfer_type), others) < 0)
        return BW_PASS("ZEVOBandwidthStatusGetAll failed. id:[%u] ", pConf->id);
    *pMaxSpeedBps = others.Share();
    return 0;
}
