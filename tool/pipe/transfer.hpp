// The registered transfer of "pipe". The object takes it off the list when it goes out of scope.
#ifndef ZEVOBW_TOOL_PIPE_TRANSFER_HPP
#define ZEVOBW_TOOL_PIPE_TRANSFER_HPP

#include <cstdint>
#include <string>

#include <zevobandwidth.hpp>

#include "pipe/block.hpp"

namespace tool {

// A member that calls the library throws Failure, which says what to do or what an administrator
// did.
class PipedTransfer {
public:
    PipedTransfer(std::uint32_t uid, std::int32_t protocol, std::int32_t direction,
                  const std::string &name);

    // False when the protocol's policy is missing or disabled: no rule applies then.
    bool ProtocolLimited() const noexcept;

    // Evaluates the plans for this hour. Returns the configured speed of the user in bytes per
    // second, 0 when nothing limits this transfer now.
    std::uint64_t ConfiguredBps();

    // The speed that the last call allowed, beside the other transfers.
    std::uint64_t AllowedBps() const noexcept { return transfer_.AllowedBps(); }

    // The throttle call for a block that took lengthUs. It sleeps if the block was too fast.
    void Throttle(std::uint64_t bytes, std::int64_t lengthUs, std::uint32_t progress);

    // A throttle call without bytes and time, so that an unlimited transfer notices a new limit.
    void Touch(std::uint32_t progress);

    // Reads changed limits after a notice. The transfer is on the list again when it returns. bps:
    // its speed so far.
    void Reload(std::uint64_t bps);

    // Counts the transfers that share the limits. Reads the status files.
    Sharing Look() const;

private:
    bool Decides(const ZEVO_BANDWIDTH_CONF &rule) const;

    zevobw::Transfer transfer_;
};

} // namespace tool

#endif // ZEVOBW_TOOL_PIPE_TRANSFER_HPP
