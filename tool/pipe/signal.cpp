#include "pipe/signal.hpp"

#include <algorithm>
#include <csignal>
#include <initializer_list>

#include <sys/prctl.h>

namespace tool {

namespace {

// The handlers write them. The one thread of the transfer reads and clears them while the signals
// are blocked.
volatile std::sig_atomic_t reloadNotice = 0;
volatile std::sig_atomic_t endingSignal = 0;

// Set once before the first wait: the mask inside waits, and whether SIGPIPE ended us by default.
sigset_t maskInWaits;
bool pipeSignalIgnoredAtStart = false;

void OnNotice(int)
{
    reloadNotice = 1;
}

void OnEnding(int signal)
{
    endingSignal = signal;
}

void Install(int signal, void (*handler)(int)) noexcept
{
    struct sigaction action = {};
    action.sa_handler = handler;
    ::sigemptyset(&action.sa_mask);
    ::sigaddset(&action.sa_mask, signal);
    ::sigaction(signal, &action, nullptr);
}

bool IsIgnored(int signal) noexcept
{
    struct sigaction action = {};
    return ::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

// Blocks the signals outside of waits.
void Block(std::initializer_list<int> signals) noexcept
{
    sigset_t ours;
    ::sigemptyset(&ours);
    for (const int signal : signals)
        ::sigaddset(&ours, signal);
    ::sigprocmask(SIG_BLOCK, &ours, &maskInWaits);
    for (const int signal : signals)
        ::sigdelset(&maskInWaits, signal);
}

// A shell starts its background jobs with SIGINT ignored, and that must stay so.
void CatchUnlessIgnored(std::initializer_list<int> signals) noexcept
{
    for (const int signal : signals)
        if (!IsIgnored(signal)) Install(signal, OnEnding);
}

} // namespace

std::int64_t ClockUs(clockid_t clock) noexcept
{
    timespec now = {};
    ::clock_gettime(clock, &now);
    return std::int64_t{now.tv_sec} * 1'000'000 + now.tv_nsec / 1'000;
}

void CatchSignals()
{
    Block({SIGHUP, SIGINT, SIGTERM});
    Install(SIGHUP, OnNotice);
    CatchUnlessIgnored({SIGINT, SIGTERM});
    pipeSignalIgnoredAtStart = IsIgnored(SIGPIPE);
    Install(SIGPIPE, SIG_IGN);
    ::prctl(PR_SET_TIMERSLACK, 1UL); // 1 ns: no sleep lasts 50 us too long
}

void CatchEnding()
{
    Block({SIGINT, SIGTERM, SIGQUIT});
    CatchUnlessIgnored({SIGINT, SIGTERM, SIGQUIT});
}

SignalsLetIn::SignalsLetIn() noexcept
{
    ::sigprocmask(SIG_SETMASK, &maskInWaits, &saved_);
}

SignalsLetIn::~SignalsLetIn()
{
    ::sigprocmask(SIG_SETMASK, &saved_, nullptr);
}

bool TakeReloadNotice() noexcept
{
    const bool taken = reloadNotice != 0;
    reloadNotice = 0;
    return taken;
}

bool ReloadNoticePending() noexcept
{
    return reloadNotice != 0;
}

int EndingSignal() noexcept
{
    return endingSignal;
}

void DieOf(int signal) noexcept
{
    if (signal == SIGPIPE && pipeSignalIgnoredAtStart) return;
    Install(signal, SIG_DFL);
    sigset_t one;
    ::sigemptyset(&one);
    ::sigaddset(&one, signal);
    ::raise(signal);
    ::sigprocmask(SIG_UNBLOCK, &one, nullptr);
}

void LeaveEndingToParent() noexcept
{
    Install(SIGINT, SIG_IGN);
    Install(SIGTERM, SIG_DFL);
    ::sigprocmask(SIG_SETMASK, &maskInWaits, nullptr);
}

int WaitReady(pollfd *fds, nfds_t count, std::int64_t untilUs) noexcept
{
    const std::int64_t leftUs = std::max<std::int64_t>(0, untilUs - NowUs());
    const timespec timeout = {leftUs / 1'000'000, leftUs % 1'000'000 * 1'000};
    return std::max(0, ::ppoll(fds, count, &timeout, &maskInWaits));
}

void SleepUntil(std::int64_t untilUs) noexcept
{
    // At least once, so that signals are let in without a sleep, too.
    do {
        if (reloadNotice != 0) untilUs = std::min(untilUs, NowUs() + kNoticeKeepsUs);
        WaitReady(nullptr, 0, untilUs);
    } while (endingSignal == 0 && NowUs() < untilUs);
}

} // namespace tool
