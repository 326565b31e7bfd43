// What one rule leaves one transfer: what the others under the rule do not use of its rate, and
// never less than an equal share.

#include "bandwidth_frame.hpp"
#include "bandwidth_guard.hpp"
#include "bandwidth_speed.hpp"

using namespace bandwidth;

namespace {

// The running transfers of one rule's owner.
class Transfers {
public:
    ~Transfers() { ::ZEVOBandwidthStatusListFree(&pHead_); }
    Transfers() noexcept = default;
    Transfers(const Transfers &) = delete;
    Transfers &operator=(const Transfers &) = delete;

    ZEVO_BANDWIDTH_STATUS **address() noexcept { return &pHead_; }
    const ZEVO_BANDWIDTH_STATUS *head() const noexcept { return pHead_; }

private:
    ZEVO_BANDWIDTH_STATUS *pHead_ = nullptr;
};

// A user counts by his first record in the list, and not at all when that one is passed over.
bool IsFirstOfItsUser(const ZEVO_BANDWIDTH_STATUS *pHead,
                      const ZEVO_BANDWIDTH_STATUS *pRecord) noexcept
{
    while (pHead->uid != pRecord->uid)
        pHead = pHead->next;
    return pHead == pRecord;
}

uint64_t ShareWith(const ZEVO_BANDWIDTH_STATUS *pHead, uint32_t uid, pid_t pid,
                   uint64_t rateBps) noexcept
{
    uint64_t sameUser = 1;
    uint64_t users = 1;
    uint64_t remainingBps = rateBps;
    for (const ZEVO_BANDWIDTH_STATUS *p = pHead; p != nullptr; p = p->next) {
        if (p->active == 0 || p->pid == pid) continue;
        if (p->uid == uid)
            ++sameUser;
        else if (IsFirstOfItsUser(pHead, p))
            ++users;
        remainingBps = p->current_speed > remainingBps ? 0 : remainingBps - p->current_speed;
    }
    const uint64_t shareBps = rateBps / (sameUser * users);
    return remainingBps > shareBps ? remainingBps : shareBps;
}

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
    Transfers transfers;
    if (::ZEVOBandwidthStatusGetAll(pConf->ownerType, pConf->id, pConf->protocolType,
                                    static_cast<uint32_t>(transfer_type), transfers.address()) < 0)
        return BW_PASS("ZEVOBandwidthStatusGetAll failed. id:[%u] ", pConf->id);
    *pMaxSpeedBps = ShareWith(transfers.head(), uid, pid, rateBps);
    return 0;
}
