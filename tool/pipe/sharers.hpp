// Counts the transfers that share a rule with a piped transfer, section by section. The library's
// list would hold four kilobytes for each transfer: among a thousand that costs more than the rest
// of the work.
#ifndef ZEVOBW_TOOL_PIPE_SHARERS_HPP
#define ZEVOBW_TOOL_PIPE_SHARERS_HPP

#include <optional>

#include <zevobandwidth.h>

#include "pipe/block.hpp"

namespace tool {

// The number of transfers that move data under the rule, own included, and own's equal part of its
// rate, in bytes per second. Nothing if the file cannot be read; the throttle call reports that.
std::optional<Sharing> CountSharers(const ZEVO_BANDWIDTH_CONF &rule, std::uint64_t rateBps,
                                    const ZEVO_BANDWIDTH_STATUS &own);

} // namespace tool

#endif // ZEVOBW_TOOL_PIPE_SHARERS_HPP
