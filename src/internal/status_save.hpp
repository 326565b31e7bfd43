// Saving a transfer, for callers that must know whether it has been stopped.
#ifndef INTERNAL_STATUS_SAVE_HPP
#define INTERNAL_STATUS_SAVE_HPP

#include "zevobandwidth.h"

namespace bandwidth {

// What becomes of a section of the transfer that stands in its user's status file marked inactive.
enum class IfStopped { kReplace, kLeave };

constexpr int kStopped = 2;

// ZEVOBandwidthStatusSetSection(), but kStopped where it leaves a stopped section as it is.
int SetSection(const char *szFile, const char *szSection, const VLIB_SZ_HASH *pHash,
               IfStopped ifStopped) noexcept;

// ZEVOBandwidthStatusSave() for the transfer itself: kStopped, and nothing is logged, where a stop
// came since the transfer looked for one. A stop must not be lost to the transfer's own save.
int SaveUnlessStopped(uint32_t uid, const ZEVO_BANDWIDTH_CONFIG *pConfig,
                      ZEVO_BANDWIDTH_STATUS *pStatus) noexcept;

} // namespace bandwidth

#endif // INTERNAL_STATUS_SAVE_HPP
