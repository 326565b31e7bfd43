// Saving a transfer, for callers that must know whether it has been stopped.
#ifndef INTERNAL_STATUS_SAVE_HPP
#define INTERNAL_STATUS_SAVE_HPP

#include "zevobandwidth.h"

namespace bandwidth {

enum class RewriteMode {
    kRemove,
    kSet,
    kSetUnlessStopped, // leaves a section that is marked inactive as it is
};

constexpr int kStopped = 2;

// Rewrites a status file with another text for one section, or without it: 1, 0 when there is no such
// section, kStopped when it was left, -1 on failure.
int ZEVOBandwidthIStatusSectionRewrite(const char *szFile, const char *szSection,
                                       const VLIB_SZ_HASH *pHash, RewriteMode mode) noexcept;

// ZEVOBandwidthStatusSave() for the transfer itself, which must not undo a stop that has come since it
// last looked: kStopped then, and nothing is logged.
int SaveUnlessStopped(uint32_t uid, const ZEVO_BANDWIDTH_CONFIG *pConfig,
                      ZEVO_BANDWIDTH_STATUS *pStatus) noexcept;

} // namespace bandwidth

#endif // INTERNAL_STATUS_SAVE_HPP
