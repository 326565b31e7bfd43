// Saving a transfer, for callers that must know whether it has been stopped.
#ifndef INTERNAL_STATUS_SAVE_HPP
#define INTERNAL_STATUS_SAVE_HPP

#include "zevobandwidth.h"

namespace bandwidth {

// What a save does with a section that is marked inactive.
enum class IfStopped { kReplace, kLeave };

constexpr int kStopped = 2;

// ZEVOBandwidthStatusSetSection(), or kStopped when it has left a section that is marked inactive.
int SetSection(const char *szFile, const char *szSection, const VLIB_SZ_HASH *pHash,
               IfStopped ifStopped) noexcept;

// ZEVOBandwidthStatusSave() for the transfer itself, which must not undo a stop that has come since it
// last looked: kStopped then, and nothing is logged.
int SaveUnlessStopped(uint32_t uid, const ZEVO_BANDWIDTH_CONFIG *pConfig,
                      ZEVO_BANDWIDTH_STATUS *pStatus) noexcept;

} // namespace bandwidth

#endif // INTERNAL_STATUS_SAVE_HPP
