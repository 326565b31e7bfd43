// Moves bytes from one descriptor to another. It blocks only in waits, during which signals are let
// in. It uses splice(), which copies nothing, if both ends allow it; else it reads and writes. It
// sets no flag that other processes share.
#ifndef ZEVOBW_TOOL_PIPE_MOVER_HPP
#define ZEVOBW_TOOL_PIPE_MOVER_HPP

#include <cstddef>
#include <cstdint>
#include <vector>

namespace tool {

enum class MoveEnd {
    kFull,       // as much as was asked for
    kTime,       // the moment has passed
    kSignal,     // a notice or an ending signal came during a wait
    kEndOfInput, // and everything read has been written
    kReaderGone,
};

struct Moved {
    std::uint64_t bytes = 0;   // that have gone out
    std::int64_t heldUpUs = 0; // when the last wait for either end was over; 0 without one
    MoveEnd end = MoveEnd::kFull;
};

class Mover {
public:
    // The descriptors stay the caller's and open.
    Mover(int input, int output);
    ~Mover();
    Mover(const Mover &) = delete;
    Mover &operator=(const Mover &) = delete;

    // Throws Failure when reading or writing fails.
    Moved Move(std::uint64_t most, std::int64_t untilUs);

private:
    struct End {
        int fd = -1;
        bool owned = false; // a description of our own, which does not block
        bool isPipe = false;
        bool isSocket = false;
        bool pollFirst = false; // reading or writing may block
        std::size_t most = 0;   // at once, so as not to block after a poll
    };
    // The last three: nothing moves before a wait.
    enum class Step { kMoved, kEndOfInput, kReaderGone, kInputEmpty, kOutputFull, kEitherStuck };

    static End Open(int fd, bool forReading);
    Step Advance(std::uint64_t most, std::uint64_t *pMoved);
    Step Splice(std::size_t most, std::uint64_t *pMoved);
    Step Fill(std::size_t most);
    Step Drain(std::uint64_t *pMoved);
    Step WaitFor(Step stuck, std::int64_t untilUs, std::int64_t *pHeldUpUs);
    Step WaitForOne(bool forInput, std::int64_t untilUs);

    End in_;
    End out_;
    bool canSplice_ = false;
    std::vector<char> buffer_; // only where splice is no way
    std::size_t head_ = 0;     // read but not yet written: [head_, tail_)
    std::size_t tail_ = 0;
};

} // namespace tool

#endif // ZEVOBW_TOOL_PIPE_MOVER_HPP
