// The walk over the running transfers of one status file, for who wants to look at them and for who
// wants a list. Purges, skips and logs as ZEVOBandwidthIStatusGetAll() promises.
#ifndef BANDWIDTH_STATUS_WALK_HPP
#define BANDWIDTH_STATUS_WALK_HPP

#include "zevobandwidth.h"

namespace bandwidth {

// Who takes the records.
class StatusTaker {
public:
    // A zero-filled record for the next section; nullptr without memory, which ends the walk. What is
    // in it counts only when Take() follows.
    virtual ZEVO_BANDWIDTH_STATUS *Room() noexcept = 0;
    // It holds a live transfer that passes the masks. false without memory, which ends the walk.
    virtual bool Take() noexcept = 0;

protected:
    ~StatusTaker() = default;
};

// Shows the transfers of an owner to the taker, in the order of the file: 0, or -1.
int WalkStatuses(int32_t ownerType, uint32_t id, int32_t protocolMask, uint32_t transferMask,
                 StatusTaker &taker) noexcept;

} // namespace bandwidth

#endif // BANDWIDTH_STATUS_WALK_HPP
