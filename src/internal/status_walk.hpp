// The walk over the running transfers of one status file, for who wants to look at them and for who
// wants a list. Purges, skips and logs as ZEVOBandwidthIStatusGetAll() promises.
#ifndef INTERNAL_STATUS_WALK_HPP
#define INTERNAL_STATUS_WALK_HPP

#include "zevobandwidth.h"

#include <cstddef>
#include <cstring>

namespace bandwidth {

// Makes a record that holds one section ready for the next. Its file name is most of it and mostly
// short.
inline void ClearButName(ZEVO_BANDWIDTH_STATUS &record) noexcept
{
    constexpr size_t kBehindName = offsetof(ZEVO_BANDWIDTH_STATUS, owner_type);
    auto *const pBytes = reinterpret_cast<char *>(&record);
    std::memset(pBytes, 0, offsetof(ZEVO_BANDWIDTH_STATUS, filename));
    std::memset(pBytes + kBehindName, 0, sizeof(record) - kBehindName);
}

// The rest, once a name has been written there.
inline void ClearBehindName(ZEVO_BANDWIDTH_STATUS &record) noexcept
{
    const size_t cbName = ::strnlen(record.filename, sizeof(record.filename));
    std::memset(record.filename + cbName, 0, sizeof(record.filename) - cbName);
}

// ZEVOBandwidthInitStatusFromHash() for who has seen to it that his thread is not cancelled: a walk
// asks for each section.
int StatusFromHash(ZEVO_BANDWIDTH_STATUS *pStatus, const VLIB_SZ_HASH *pHash) noexcept;

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

#endif // INTERNAL_STATUS_WALK_HPP
