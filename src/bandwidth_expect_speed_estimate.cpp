// What one rule leaves one transfer: what the other transfers under the rule do not use of its rate,
// and never less than an equal share. The others are counted in one walk over their status file; none
// is kept.

#include "internal/frame.hpp"
#include "internal/guard.hpp"
#include "internal/speed.hpp"
#include "internal/status_walk.hpp"

#include "base/bytes.hpp"

#include <algorithm>

using namespace bandwidth;

namespace {

// The other users whose transfers a walk has seen. Records of one user that follow each other are one
// run. A run is one number, so that runs can be sorted: the uid in the upper half, then the run's
// place in the walk, and in the lowest bit whether the run's last record counts.
class OtherUsers {
public:
    // false without memory.
    bool Note(uint32_t uid, bool counts) noexcept
    {
        const bool isNew = runs_.size() == 0 || UidOf(runs_[runs_.size() - 1]) != uid;
        if (isNew && runs_.Append(0)) return false;
        runs_[runs_.size() - 1] = uint64_t{uid} << kUidShift | runs_.size() << 1 | (counts ? 1 : 0);
        return true;
    }
    // A user counts if the user's last record does: a list of transfers begins with the last one of
    // the file, and of each user its first record decides.
    uint64_t Count() noexcept
    {
        std::sort(runs_.begin(), runs_.end());
        uint64_t count = 0;
        for (size_t i = 0; i < runs_.size(); ++i)
            if (i + 1 == runs_.size() || UidOf(runs_[i]) != UidOf(runs_[i + 1]))
                count += runs_[i] & 1;
        return count;
    }

private:
    static constexpr int kUidShift = 32;

    static uint64_t UidOf(uint64_t run) noexcept { return run >> kUidShift; }

    zevo::Records<uint64_t> runs_;
};

// Counts the other transfers under the rule, and what they use of its rate.
class OtherTransfers final : public StatusVisitor {
public:
    OtherTransfers(uint32_t uid, pid_t pid, uint64_t rateBps) noexcept
        : uid_(uid), pid_(pid), rateBps_(rateBps), remainingBps_(rateBps)
    {
    }

    // The same record for all: only Visit() looks at it, and never at its file name.
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
    OtherUsers users_;
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
    OtherTransfers others(uid, pid, rateBps);
    if (WalkStatuses(pConf->ownerType, pConf->id, pConf->protocolType,
                     static_cast<uint32_t>(transfer_type), others) < 0)
        return BW_PASS("ZEVOBandwidthStatusGetAll failed. id:[%u] ", pConf->id);
    *pMaxSpeedBps = others.Share();
    return 0;
}
