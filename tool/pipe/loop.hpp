// The life of a transfer between its registration and its end. It moves each block, sleeps until
// the block is due, and reports it to the library.
#ifndef ZEVOBW_TOOL_PIPE_LOOP_HPP
#define ZEVOBW_TOOL_PIPE_LOOP_HPP

#include <cstdint>

#include "pipe/mover.hpp"
#include "pipe/progress.hpp"
#include "pipe/transfer.hpp"

namespace tool {

// size: the expected bytes, 0 when not known. Returns why it ended: kEndOfInput, kReaderGone, or
// kSignal. Throws Failure as Require() and the mover do.
MoveEnd RunLoop(zevobw::Transfer &transfer, Mover &mover, Progress &progress, std::uint64_t size);

} // namespace tool

#endif // ZEVOBW_TOOL_PIPE_LOOP_HPP
