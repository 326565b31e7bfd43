// The arithmetic of a transfer between two throttle calls: how large a block is, at which speed it
// is moved, and when it is paid for. Pure: times are arguments, in microseconds of a clock that is
// never set; speeds are bytes per second and never 0 (an unlimited transfer needs none of this).
#ifndef ZEVOBW_TOOL_PIPE_BLOCK_HPP
#define ZEVOBW_TOOL_PIPE_BLOCK_HPP

#include <cstdint>

namespace tool {

constexpr std::int64_t kMicrosPerSecond = 1'000'000;
constexpr std::int64_t kShortestBlockUs = 25'000;
constexpr std::int64_t kLongestSharedBlockUs = 200'000;
constexpr std::int64_t kLongestBlockUs = 5'000'000;

// Whom a transfer shares its limits with.
struct Sharing {
    std::uint32_t transfers = 1; // that move data, this one included
    std::uint64_t equalBps = 0;  // the part that no rule takes from it; 0 when not known
};

// The time that bytes take at a speed, rounded up.
std::int64_t DurationUs(std::uint64_t bytes, std::uint64_t speedBps) noexcept;

// What a block carries, at least one byte.
std::uint64_t BlockBytes(std::uint64_t speedBps, std::int64_t blockUs) noexcept;

// A fortieth of a second; longer among many, who would all answer each other's blocks at once, and
// where the library's own work would take more than a hundredth of the time.
std::int64_t BlockTimeUs(std::int64_t workUs, std::uint32_t transfers) noexcept;

// What the library's part of a throttle call usually takes. Follows downwards faster than upwards:
// a call that merely had to wait for the processor says little.
class WorkEstimate {
public:
    void Add(std::int64_t us) noexcept;
    std::int64_t Us() const noexcept { return us_; }

private:
    std::int64_t us_ = 0;
    bool any_ = false;
};

// The speed a transfer takes out of what it is allowed. A fall counts at once. A rise is seen by
// all who share a limit in the same moment, and some of it is only a neighbour's section on its way
// from one version of the file to the next: so it counts when two looks agree, and each takes its
// part of it, together the whole. The equal part is everybody's own and is taken at once.
class Pace {
public:
    void Start(std::uint64_t allowedBps) noexcept;
    void Allow(std::uint64_t allowedBps, const Sharing &sharing) noexcept;
    // The rules have changed: no second look is needed.
    void AllowAnew(std::uint64_t allowedBps, const Sharing &sharing) noexcept;
    std::uint64_t Bps() const noexcept { return bps_; }

private:
    std::uint64_t bps_ = 0;
    std::uint64_t previousBps_ = 0;
};

// Up to which moment the bytes moved so far are paid for. What a block loses to late wake-ups and
// to work between the blocks stays owed to the transfer, for the next block starts where the last
// one was due; what it loses to a stalled input or output does not, nor more than half a block.
class Ledger {
public:
    void Start(std::int64_t nowUs) noexcept { settledUs_ = nowUs; }
    std::int64_t SettledUs() const noexcept { return settledUs_; }
    std::int64_t DueUs(std::uint64_t bytes, std::uint64_t speedBps) const noexcept;

    // Ends a block and returns how long it was. heldUpUs: when the last wait for input or output
    // ended; blockUs: the time a whole block takes.
    std::int64_t Settle(std::uint64_t bytes, std::uint64_t speedBps, std::int64_t heldUpUs,
                        std::int64_t nowUs, std::int64_t blockUs) noexcept;

    // The throttle call allowed the block less than expected and slept the rest off.
    void Lengthen(std::int64_t us) noexcept { settledUs_ += us; }

private:
    std::int64_t settledUs_ = 0;
};

} // namespace tool

#endif // ZEVOBW_TOOL_PIPE_BLOCK_HPP
