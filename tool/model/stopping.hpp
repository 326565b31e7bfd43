// Bringing transfers of one user to their end. A transfer sees the mark after its block and ends; a
// save that raced with the mark may have undone it, so that it is looked at again, and set again,
// until the transfer is gone.
#ifndef ZEVOBW_TOOL_MODEL_STOPPING_HPP
#define ZEVOBW_TOOL_MODEL_STOPPING_HPP

#include <chrono>
#include <cstddef>
#include <vector>

#include "model/names.hpp"
#include "model/transfer_list.hpp"

namespace tool {

class Stopping {
public:
    using Clock = std::chrono::steady_clock;

    // How long to wait between two steps.
    static constexpr std::chrono::milliseconds kLookAgain{50};

    // Those that run now; marks none yet. Throws Failure when they cannot be listed.
    Stopping(const Account &user, const TransferFilter &which);

    const std::vector<RunningTransfer> &found() const noexcept { return found_; }
    // Those not yet gone when last looked at.
    const std::vector<RunningTransfer> &left() const noexcept { return left_; }
    // Whether all of those bore the mark then.
    bool IsMarked() const;

    // Marks those that go on and looks who is left. Throws Failure as the constructor.
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
