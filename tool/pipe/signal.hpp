// The signals of a running transfer. They are blocked except in SleepUntil() and WaitReady(). So no
// signal is missed between a look at its flag and the sleep, and none cuts the library's own sleep
// short. A handler stores one flag. SIGPIPE is ignored, because the transfer has to be taken off
// the list first.
#ifndef ZEVOBW_TOOL_PIPE_SIGNAL_HPP
#define ZEVOBW_TOOL_PIPE_SIGNAL_HPP

#include <csignal>
#include <cstdint>
#include <ctime>

#include <poll.h>

namespace tool {

std::int64_t ClockUs(clockid_t clock) noexcept;

// Microseconds of a clock that is never set.
inline std::int64_t NowUs() noexcept
{
    return ClockUs(CLOCK_MONOTONIC);
}

// Called once, before the first transfer of the process.
void CatchSignals();

// True if a notice (SIGHUP) came since the last call.
bool TakeReloadNotice() noexcept;
bool ReloadNoticePending() noexcept;

// The signal that asked the transfer to end (SIGINT, SIGTERM), or 0.
int EndingSignal() noexcept;

// Ends the process by the signal, as it would have ended without us. Returns only if the signal was
// ignored when the process started.
void DieOf(int signal) noexcept;

// For a command that runs until a signal ends it, without a transfer: blocks SIGINT, SIGTERM and
// SIGQUIT outside of waits and SignalsLetIn. EndingSignal() tells which one came.
void CatchEnding();

// Lets signals in while it lives, for output that may block. Ask EndingSignal() afterwards.
class SignalsLetIn {
public:
    SignalsLetIn() noexcept;
    ~SignalsLetIn();
    SignalsLetIn(const SignalsLetIn &) = delete;
    SignalsLetIn &operator=(const SignalsLetIn &) = delete;

private:
    sigset_t saved_;
};

// For a child of a process that has called CatchSignals(). SIGTERM from its parent ends the child;
// it ignores SIGINT, which the terminal sends to both.
void LeaveEndingToParent() noexcept;

// Polls until something is ready, a signal comes, or the moment is over. Pending signals are let in
// at least once. Returns the result of poll(), 0 also for a signal.
int WaitReady(pollfd *fds, nfds_t count, std::int64_t untilUs) noexcept;

// Sleeps until the moment. A notice shortens the sleep to kNoticeKeepsUs; an ending signal ends it.
constexpr std::int64_t kNoticeKeepsUs = 200'000;
void SleepUntil(std::int64_t untilUs) noexcept;

} // namespace tool

#endif // ZEVOBW_TOOL_PIPE_SIGNAL_HPP
