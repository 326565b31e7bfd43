// The walk over the running transfers of one status file, for the listing, which makes a list of them,
// and for the expected speed, which keeps none. Both purge, skip and log as
// ZEVOBandwidthIStatusGetAll() promises.
#ifndef INTERNAL_STATUS_WALK_HPP
#define INTERNAL_STATUS_WALK_HPP

#include "zevobandwidth.h"

#include <cstddef>
#include <cstring>

namespace bandwidth {

// Clears a record for the next section, but for its file name, which is most of the record.
inline void ClearButName(ZEVO_BANDWIDTH_STATUS &record) noexcept
{
    constexpr size_t kBehindName = offsetof(ZEVO_BANDWIDTH_STATUS, owner_type);
    auto *const pBytes = reinterpret_cast<char *>(&record);
    std::memset(pBytes, 0, offsetof(ZEVO_BANDWIDTH_STATUS, filename));
    std::memset(pBytes + kBehindName, 0, sizeof(record) - kBehindName);
}

// Clears what stands behind the NUL of the file name.
inline void ClearBehindName(ZEVO_BANDWIDTH_STATUS &record) noexcept
{
    const size_t cbName = ::strnlen(record.filename, sizeof(record.filename));
    std::memset(record.filename + cbName, 0, sizeof(record.filename) - cbName);
}

// ZEVOBandwidthInitStatusFromHash() without its CancelScope: a walk holds one for all sections.
int StatusFromHash(ZEVO_BANDWIDTH_STATUS *pStatus, const VLIB_SZ_HASH *pHash) noexcept;

// Receives the records of a walk.
class StatusVisitor {
public:
    // A zero-filled record for the next section; nullptr without memory, which ends the walk. Its
    // content counts only if Visit() follows.
    virtual ZEVO_BANDWIDTH_STATUS *NextRecord() noexcept = 0;
    // The record holds a live transfer that passes the masks. false without memory, which ends the
    // walk.
    virtual bool Visit() noexcept = 0;

protected:
    ~StatusVisitor() = default;
};

// Shows the transfers of an owner to the visitor, in the order of the file: 0, or -1.
int WalkStatuses(int32_t ownerType, uint32_t id, int32_t protocolMask, uint32_t transferMask,
                 StatusVisitor &visitor) noexcept;

} // namespace bandwidth

#endif // INTERNAL_STATUS_WALK_HPP
