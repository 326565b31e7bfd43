// One registered transfer: the library's view of what pipe moves, with the failures told as the
// tool tells them. Off the list when it goes out of scope.
#ifndef ZEVOBW_TOOL_PIPE_TRANSFER_HPP
#define ZEVOBW_TOOL_PIPE_TRANSFER_HPP

#include <cstdint>
#include <string>

#include <zevobandwidth.hpp>

#include "pipe/block.hpp"

namespace tool {

// Every member that talks to the library throws Failure with what to do about it, or with what an
// administrator has done.
class Transfer {
public:
    Transfer(std::uint32_t uid, std::int32_t protocol, std::int32_t direction,
             const std::string &name);

    // False when the protocol's policy is missing or switched off: nobody's rules count then.
    bool ProtocolLimited() const noexcept;

    // Evaluates the plans for this hour. Returns the configured speed of the user, bytes per
    // second, 0 when nothing limits this transfer now.
    std::uint64_t ConfiguredBps();

    // What the last call allowed this transfer beside the others.
    std::uint64_t AllowedBps() const noexcept { return transfer_.AllowedBps(); }

    // The throttle call for a block that took lengthUs. Sleeps what the block was too fast.
    void Throttle(std::uint64_t bytes, std::int64_t lengthUs, std::uint32_t progress);

    // Keeps an unlimited transfer able to meet a limit: no bytes, no time, no debt.
    void Touch(std::uint32_t progress);

    // Obeys a notice that limits have changed, and is back on the list before it returns. bps: the
    // speed at which the transfer has been moving.
    void Reload(std::uint64_t bps);

    // Counts who shares the limits in force. Reads the status files.
    Sharing Look() const;

private:
    bool Bears(const ZEVO_BANDWIDTH_CONF &rule) const;

    zevobw::Transfer transfer_;
};

} // namespace tool

#endif // ZEVOBW_TOOL_PIPE_TRANSFER_HPP
