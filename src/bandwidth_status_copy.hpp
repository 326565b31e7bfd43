// A transfer's copy in the file of a group that is charged for it.
#ifndef BANDWIDTH_STATUS_COPY_HPP
#define BANDWIDTH_STATUS_COPY_HPP

#include "zevobandwidth.h"

namespace bandwidth {

// Gives the group's copy its new values in place, so that nobody finds it missing. True when there is
// nothing left to take away: it has them, or there is none. False when the group is not charged any
// more, or the file cannot be rewritten; nothing is logged then.
bool RenewGroupCopy(const ZEVO_BANDWIDTH_CONFIG &config, uint32_t gid,
                    ZEVO_BANDWIDTH_STATUS *pStatus) noexcept;

} // namespace bandwidth

#endif // BANDWIDTH_STATUS_COPY_HPP
