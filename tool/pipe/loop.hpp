// The life of a transfer between its registration and its end. It moves each block, sleeps until
// the block is due, and reports it to the library.
#ifndef ZEVOBW_TOOL_PIPE_LOOP_HPP
#define ZEVOBW_TOOL_PIPE_LOOP_HPP

#include <cstdint>

#include "pipe/block.hpp"
#include "pipe/mover.hpp"
#include "pipe/progress.hpp"
#include "pipe/transfer.hpp"

namespace tool {

class PipeLoop {
public:
    // size: the expected bytes, 0 when not known.
    PipeLoop(PipedTransfer &transfer, Mover &mover, Progress &progress, std::uint64_t size)
        : transfer_(transfer), mover_(mover), progress_(progress), size_(size)
    {
    }

    // Returns why it ended: kEndOfInput, kReaderGone, or kSignal. Throws Failure as the transfer
    // and the mover do.
    MoveEnd Run();

private:
    Moved MoveFreely();
    Moved MoveBlock();
    void PayFor(const Moved &moved);
    void FollowLimits();
    void LookAround(std::int64_t nowUs);
    std::int64_t BlockUs() const noexcept;
    void ShowProgress();
    std::uint32_t ProgressPart() const noexcept;

    PipedTransfer &transfer_;
    Mover &mover_;
    Progress &progress_;
    const std::uint64_t size_;
    std::uint64_t total_ = 0;
    std::uint64_t configuredBps_ = 0; // 0: nothing limits the transfer now
    Pace pace_;
    Ledger ledger_;
    WorkEstimate work_;
    ProcessorEstimate processor_;
    Sharing sharing_;
    std::int64_t lookedUs_ = 0;
    std::uint64_t lookedBps_ = 0; // allowed at that look
};

} // namespace tool

#endif // ZEVOBW_TOOL_PIPE_LOOP_HPP
