// The signals of a running transfer. They are blocked except inside SleepUntil() and WaitReady(),
// so that none slips in between looking at a flag and falling asleep, and the library's own sleep
// is never cut short. A handler stores one flag; SIGPIPE is ignored, for the transfer has to be
// taken off the list before anything ends.
#ifndef ZEVOBW_TOOL_PIPE_SIGNAL_HPP
#define ZEVOBW_TOOL_PIPE_SIGNAL_HPP

#include <csignal>
#include <cstdint>

#include <poll.h>

namespace tool {

// Microseconds of the clock that is never set.
std::int64_t NowUs() noexcept;

// Once, before the first transfer of the process.
void CatchSignals();

// True once for the notices (SIGHUP) that came since the last call.
bool TakeReloadNotice() noexcept;
bool ReloadNoticePending() noexcept;

// The signal that asked the transfer to end (SIGINT, SIGTERM), or 0.
int EndingSignal() noexcept;

// Ends the process by the signal, as it would have ended without us. Returns only if the signal was
// ignored when the process started.
void DieOf(int signal) noexcept;

// For a command without a transfer that runs until it is told to end: holds SIGINT, SIGTERM and
// SIGQUIT back until a wait or SignalsLetIn, and has EndingSignal() tell them.
void CatchEnding();

// Lets signals in while it lives, for output that nobody may take: EndingSignal() is to be asked
// afterwards.
class SignalsLetIn {
public:
    SignalsLetIn() noexcept;
    ~SignalsLetIn();
    SignalsLetIn(const SignalsLetIn &) = delete;
    SignalsLetIn &operator=(const SignalsLetIn &) = delete;

private:
    sigset_t saved_;
};

// In a child of a process that has called CatchSignals(): it ends by SIGTERM, which its parent sends;
// what the terminal sends to both is the parent's business.
void LeaveEndingToParent() noexcept;

// Polls until something is ready, a signal came, or the moment has passed; lets in what is pending
// in any case. Returns poll's result, 0 also for a signal.
int WaitReady(pollfd *fds, nfds_t count, std::int64_t untilUs) noexcept;

// Sleeps through notices, which keep for up to kNoticeKeepsUs; a call for the end cuts it short.
constexpr std::int64_t kNoticeKeepsUs = 200'000;
void SleepUntil(std::int64_t untilUs) noexcept;

} // namespace tool

#endif // ZEVOBW_TOOL_PIPE_SIGNAL_HPP
