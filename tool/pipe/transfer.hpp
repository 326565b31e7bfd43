// What "pipe" asks the library about its transfer.
#ifndef ZEVOBW_TOOL_PIPE_TRANSFER_HPP
#define ZEVOBW_TOOL_PIPE_TRANSFER_HPP

#include <cstdint>
#include <string>

#include <zevobandwidth.hpp>

#include "failure.hpp"
#include "model/transfer_list.hpp"
#include "pipe/block.hpp"

namespace tool {

// Throws Failure if a call of the library has failed. what: "the transfer cannot be registered".
template <typename Outcome> void Require(const Outcome &outcome, const std::string &what)
{
    if (outcome) return;
    if (outcome.error().IsStop())
        throw Failure(kFailed, "an administrator has stopped this transfer");
    throw Failure(kFailed, what + ": " + outcome.error().What() + "; " + kMendFiles);
}

// Registers a transfer. Throws Failure.
zevobw::Transfer BeginTransfer(std::uint32_t uid, std::int32_t protocol, std::int32_t direction,
                               const std::string &name);

// Counts the transfers that share the limits with this one. Reads the status files.
Sharing CountSharers(const zevobw::Transfer &transfer);

} // namespace tool

#endif // ZEVOBW_TOOL_PIPE_TRANSFER_HPP
