// What one rule leaves one transfer: what the other transfers under the rule do not use of its rate,
// and never less than an equal share. The others are counted in one walk over their status file; none
// is kept.

#include "internal/frame.hpp"
#include "internal/guard.hpp"
#include "internal/speed.hpp"
#include "internal/status_walk.hpp"

#include <algorithm>
#include <cstddef>
#include <cstring>

using namespace bandwidth;

namespace {

// The users whose transfers a walk has seen. Each run of one user's records is one number: the uid in
// the upper half, then the place in the walk, and in the lowest bit whether the run's last record
// counts.
class Users {
public:
    ~Users()
    {
        const zevo::KeepErrno keep;
        std::free(pRuns_);
    }
    Users() noexcept = default;
    Users(const Users &) = delete;
    Users &operator=(const Users &) = delete;

    // false without memory.
    bool Note(uint32_t uid, bool counts) noexcept
    {
        const bool isSameAgain = nRuns_ > 0 && pRuns_[nRuns_ - 1] >> kUidShift == uid;
        if (!isSameAgain && nRuns_ == nRoom_ && !Widen()) return false;
        if (!isSameAgain) ++nRuns_;
        pRuns_[nRuns_ - 1] = uint64_t{uid} << kUidShift | uint64_t{nRuns_} << 1 | (counts ? 1 : 0);
        return true;
    }
    // A user counts if the last of its records does: in the list of the transfers, which begins with
    // the last of the file, that one is the user's first.
    uint64_t Count() noexcept
    {
        std::sort(pRuns_, pRuns_ + nRuns_);
        uint64_t count = 0;
        for (size_t i = 0; i < nRuns_; ++i)
            if (i + 1 == nRuns_ || pRuns_[i] >> kUidShift != pRuns_[i + 1] >> kUidShift)
                count += pRuns_[i] & 1;
        return count;
    }

private:
    static constexpr int kUidShift = 32;

    bool Widen() noexcept
    {
        const size_t nRoom = nRoom_ == 0 ? 256 : nRoom_ * 2;
        void *const pWider = std::realloc(pRuns_, nRoom * sizeof(pRuns_[0]));
        if (pWider == nullptr) return false;
        pRuns_ = static_cast<uint64_t *>(pWider);
        nRoom_ = nRoom;
        return true;
    }

    uint64_t *pRuns_ = nullptr;
    size_t nRuns_ = 0;
    size_t nRoom_ = 0;
};

// The other transfers under the rule.
class Others final : public StatusVisitor {
public:
    Others(uint32_t uid, pid_t pid, uint64_t rateBps) noexcept
        : uid_(uid), pid_(pid), rateBps_(rateBps), remainingBps_(rateBps)
    {
    }

    // The same record for all. Nobody looks at its file name, which is most of it.
    ZEVO_BANDWIDTH_STATUS *NextRecord() noexcept override
    {
        ClearButName(record_);
        return &record_;
    }
    bool Visit() noexcept override
    {
        const bool counts = record_.active != 0 && record_.pid != pid_;
        if (record_.uid != uid_ && !users_.Note(record_.uid, counts)) return false;
        if (!counts) return true;
        if (record_.uid == uid_) ++sameUser_;
        remainingBps_ -= std::min(record_.current_speed, remainingBps_);
        return true;
    }
    // At least 1: a share that is rounded down to 0 would be unlimited.
    uint64_t Share() noexcept
    {
        const uint64_t equalBps = rateBps_ / (sameUser_ * (1 + users_.Count()));
        return std::max({remainingBps_, equalBps, uint64_t{1}});
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
