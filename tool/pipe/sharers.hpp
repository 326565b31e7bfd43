// Who shares a rule with a piped transfer. Counted section by section as the platform reads them: the
// library's list would hold four kilobytes for each transfer, which among a thousand costs each of
// them more than the rest of its work.
#ifndef ZEVOBW_TOOL_PIPE_SHARERS_HPP
#define ZEVOBW_TOOL_PIPE_SHARERS_HPP

#include <optional>

#include <zevobandwidth.h>

#include "pipe/block.hpp"

namespace tool {

// The transfers under a rule that move data, own included, and the part of the rule's rate that is
// own's user's, bytes per second. Nothing when the file cannot be read: the throttle call meets that,
// too, and says so.
std::optional<Sharing> CountSharers(const ZEVO_BANDWIDTH_CONF &rule, std::uint64_t rateBps,
                                    const ZEVO_BANDWIDTH_STATUS &own);

} // namespace tool

#endif // ZEVOBW_TOOL_PIPE_SHARERS_HPP
