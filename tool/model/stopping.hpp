// Ends transfers of one user. Each is marked in the status file; it sees the mark after its block
// and ends. A save at the same time may undo the mark. So the mark is checked, and set again, until
// the transfer is gone.
#ifndef ZEVOBW_TOOL_MODEL_STOPPING_HPP
#define ZEVOBW_TOOL_MODEL_STOPPING_HPP

#include <chrono>
#include <vector>

#include "model/names.hpp"
#include "model/transfer_list.hpp"

namespace tool {

class Stopping {
public:
    using Clock = std::chrono::steady_clock;

    // How long to wait between two steps.
    static constexpr std::chrono::milliseconds kLookAgain{50};

    // Finds the transfers and marks none yet. Throws Failure when they cannot be listed.
    Stopping(const Account &user, const TransferFilter &which);

    const std::vector<RunningTransfer> &found() const noexcept { return found_; }
    // Those that were still there at the last look.
    const std::vector<RunningTransfer> &left() const noexcept { return left_; }
    // Whether all of those had the mark then.
    bool IsMarked() const;

    // Marks those that are left, and looks again. Throws Failure as the constructor.
    void Step();

    // From the first step to the last one.
    std::chrono::milliseconds Took() const;

private:
    std::vector<RunningTransfer> Look() const;
    void Mark(const RunningTransfer &transfer) const;

    Account user_;
    TransferFilter which_;
    std::vector<RunningTransfer> found_;
    std::vector<RunningTransfer> left_;
    Clock::time_point began_{};
    Clock::time_point looked_{};
};

} // namespace tool

#endif // ZEVOBW_TOOL_MODEL_STOPPING_HPP
