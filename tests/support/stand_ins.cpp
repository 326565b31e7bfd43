// The definitions the dynamic linker finds before libc's. They are exported from the test program
// (the build takes care of that), reach the real calls through dlsym and keep errno as those leave
// it. Beware: whatever else in the process makes these calls, streams of the C++ library included,
// passes through here too and counts.

// The fortified headers define some of these functions inline.
#undef _FORTIFY_SOURCE

#include "stand_ins.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <optional>
#include <regex>
#include <utility>

#include <dlfcn.h>
#include <fcntl.h>
#include <glob.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

namespace standins {
namespace {

constexpr int64_t kUsPerSecond = 1'000'000;

// Something that is to happen at a later call; `in` counts down to it.
template <class What> struct Due {
    int in = 0;
    What what{};

    // What is due at this very call.
    std::optional<What> Take()
    {
        if (in == 0 || --in > 0) return std::nullopt;
        return std::exchange(what, {});
    }
};

struct Plan {
    int count = 0;
    Due<int> failure;
    Due<std::function<void()>> action;
};

struct State {
    std::array<Plan, static_cast<size_t>(Call::kCount)> plans;
    std::optional<int64_t> clockUs;
    std::vector<int64_t> sleepsUs;
    std::optional<int64_t> interruptAfterUs;
    std::optional<size_t> cbNextWrite;
    std::vector<std::string> log;
};

std::mutex g_mutex;
thread_local bool t_inAction = false;

// Never destroyed: calls come in until the very end of the process.
State &TheState()
{
    static State &state = *new State;
    return state;
}

// A child must not inherit the mutex from a thread it does not have.
[[maybe_unused]] const int g_forkSafe =
    ::pthread_atfork([] { g_mutex.lock(); }, [] { g_mutex.unlock(); }, [] { g_mutex.unlock(); });

template <class Body> auto Locked(Body body)
{
    const std::lock_guard lock(g_mutex);
    return body(TheState());
}

Plan &PlanOf(State &state, Call call)
{
    return state.plans[static_cast<size_t>(call)];
}

// Counts a call and runs what is to happen before it. True with errno set when it is to fail.
bool Enter(Call call)
{
    if (t_inAction) return false;
    const int savedErrno = errno;
    const auto [failure, action] = Locked([&](State &state) {
        Plan &plan = PlanOf(state, call);
        ++plan.count;
        return std::pair(plan.failure.Take(), plan.action.Take());
    });
    if (action) {
        t_inAction = true;
        (*action)();
        t_inAction = false;
    }
    errno = failure.value_or(savedErrno);
    return failure.has_value();
}

std::optional<int64_t> FakeClock()
{
    return Locked([](State &state) { return state.clockUs; });
}

// Moves the fake clock over a sleep. Nothing when the sleep is to be a real one; true when a signal
// cut it short.
std::optional<bool> FakeSleep(int64_t lengthUs)
{
    return Locked([&](State &state) -> std::optional<bool> {
        state.sleepsUs.push_back(lengthUs);
        const auto interruptAfterUs = std::exchange(state.interruptAfterUs, std::nullopt);
        if (!state.clockUs && !interruptAfterUs) return std::nullopt;
        if (state.clockUs) *state.clockUs += interruptAfterUs.value_or(lengthUs);
        return interruptAfterUs.has_value();
    });
}

std::optional<size_t> TakeCut()
{
    return Locked([](State &state) { return std::exchange(state.cbNextWrite, std::nullopt); });
}

[[gnu::format(printf, 2, 0)]] void KeepLine(int priority, const char *szFormat, va_list args)
{
    const int savedErrno = errno; // the format may hold %m
    va_list again;
    va_copy(again, args);
    const int cb = std::vsnprintf(nullptr, 0, szFormat, args);
    std::string line(cb < 0 ? 0 : static_cast<size_t>(cb), '\0');
    errno = savedErrno;
    std::vsnprintf(line.data(), line.size() + 1, szFormat, again);
    va_end(again);
    EXPECT_EQ(LOG_PRI(priority), LOG_ERR) << "logged at another level: " << line;
    Locked([&](State &state) { state.log.push_back(std::move(line)); });
    errno = savedErrno;
}

} // namespace

void Reset()
{
    Locked([](State &state) { state = State(); });
}

void SetClock(int64_t nowUs)
{
    Locked([&](State &state) { state.clockUs = nowUs; });
}

void AdvanceClock(int64_t byUs)
{
    Locked([&](State &state) { state.clockUs = state.clockUs.value_or(0) + byUs; });
}

int64_t ClockUs()
{
    return FakeClock().value_or(0);
}

std::vector<int64_t> Sleeps()
{
    return Locked([](State &state) { return state.sleepsUs; });
}

void InterruptNextSleep(int64_t afterUs)
{
    Locked([&](State &state) { state.interruptAfterUs = afterUs; });
}

void FailNext(Call call, int error)
{
    FailNth(call, 1, error);
}

void FailNth(Call call, int nth, int error)
{
    Locked([&](State &state) { PlanOf(state, call).failure = {nth, error}; });
}

void CutNextWrite(size_t cbTaken)
{
    Locked([&](State &state) { state.cbNextWrite = cbTaken; });
}

void Before(Call call, int nth, std::function<void()> action)
{
    Locked([&](State &state) { PlanOf(state, call).action = {nth, std::move(action)}; });
}

int Count(Call call)
{
    return Locked([&](State &state) { return PlanOf(state, call).count; });
}

std::vector<std::string> Log()
{
    return Locked([](State &state) { return state.log; });
}

std::vector<std::string> TakeLog()
{
    auto lines = Locked([](State &state) { return std::exchange(state.log, {}); });
    for (std::string &line : lines)
        line = WithoutLineNumbers(line);
    return lines;
}

std::string WithoutLineNumbers(std::string_view line)
{
    static const std::regex kPlace(R"((\.[ch]pp):\d+)");
    return std::regex_replace(std::string(line), kPlace, "$1:#");
}

} // namespace standins

// ---- the calls ----

using standins::Call;
using standins::Enter;

// The next definition of this very function: libc's, or a sanitizer's on top of it.
#define REAL(name)                                                                                 \
    ([] {                                                                                          \
        static const auto real = reinterpret_cast<decltype(&::name)>(::dlsym(RTLD_NEXT, #name));   \
        return real;                                                                               \
    }())

// NOLINTBEGIN(bugprone-macro-parentheses,bugprone-reserved-identifier): a macro that declares, and
// names that are libc's.

// A call that goes through as it is unless it is to fail.
#define FORWARD(call, result, name, parameters, arguments)                                         \
    result name parameters                                                                         \
    {                                                                                              \
        return Enter(Call::call) ? -1 : REAL(name) arguments;                                      \
    }

// The mode, an argument only where a file may be created.
#define TAKE_MODE(mode, flags)                                                                     \
    mode_t mode = 0;                                                                               \
    if (__OPEN_NEEDS_MODE(flags)) {                                                                \
        va_list args;                                                                              \
        va_start(args, flags);                                                                     \
        mode = va_arg(args, mode_t);                                                               \
        va_end(args);                                                                              \
    }

#pragma GCC visibility push(default)
extern "C" {

int gettimeofday(struct timeval *__restrict pNow, void *__restrict pZone) noexcept
{
    const auto nowUs = standins::FakeClock();
    if (!nowUs) return REAL(gettimeofday)(pNow, pZone);
    pNow->tv_sec = *nowUs / standins::kUsPerSecond;
    pNow->tv_usec = *nowUs % standins::kUsPerSecond;
    return 0;
}

time_t time(time_t *pNow) noexcept
{
    const auto nowUs = standins::FakeClock();
    if (!nowUs) return REAL(time)(pNow);
    const time_t now = *nowUs / standins::kUsPerSecond;
    if (pNow != nullptr) *pNow = now;
    return now;
}

int usleep(useconds_t lengthUs)
{
    if (Enter(Call::Sleep)) return -1;
    const auto interrupted = standins::FakeSleep(lengthUs);
    if (!interrupted) return REAL(usleep)(lengthUs);
    if (!*interrupted) return 0;
    errno = EINTR;
    return -1;
}

int open(const char *szPath, int flags, ...)
{
    TAKE_MODE(mode, flags)
    return Enter(Call::Open) ? -1 : REAL(open)(szPath, flags, mode);
}

int openat(int dirFd, const char *szPath, int flags, ...)
{
    TAKE_MODE(mode, flags)
    return Enter(Call::Open) ? -1 : REAL(openat)(dirFd, szPath, flags, mode);
}

ssize_t write(int fd, const void *pData, size_t cb)
{
    if (Enter(Call::Write)) return -1;
    return REAL(write)(fd, pData, std::min(standins::TakeCut().value_or(cb), cb));
}

// A cut one writes within its first piece.
ssize_t writev(int fd, const struct iovec *pPieces, int count)
{
    if (Enter(Call::Write)) return -1;
    const auto cut = standins::TakeCut();
    if (!cut || count == 0 || *cut >= pPieces->iov_len) return REAL(writev)(fd, pPieces, count);
    return REAL(write)(fd, pPieces->iov_base, *cut);
}

// clang-format off
FORWARD(Read, ssize_t, read, (int fd, void *pData, size_t cb), (fd, pData, cb))
FORWARD(Read, ssize_t, pread, (int fd, void *pData, size_t cb, off_t at), (fd, pData, cb, at))
FORWARD(Stat, int, stat, (const char *__restrict szPath, struct stat *__restrict pStat) noexcept,
        (szPath, pStat))
FORWARD(Stat, int, lstat, (const char *__restrict szPath, struct stat *__restrict pStat) noexcept,
        (szPath, pStat))
FORWARD(Stat, int, fstat, (int fd, struct stat *pStat) noexcept, (fd, pStat))
FORWARD(Stat, int, fstatat, (int fd, const char *__restrict szPath, struct stat *__restrict pStat,
                             int flags) noexcept, (fd, szPath, pStat, flags))
FORWARD(Chmod, int, fchmod, (int fd, mode_t mode) noexcept, (fd, mode))
FORWARD(Fsync, int, fsync, (int fd), (fd))
FORWARD(Rename, int, rename, (const char *szOld, const char *szNew) noexcept, (szOld, szNew))
FORWARD(Rename, int, renameat, (int oldFd, const char *szOld, int newFd, const char *szNew) noexcept,
        (oldFd, szOld, newFd, szNew))
FORWARD(Mkdir, int, mkdir, (const char *szPath, mode_t mode) noexcept, (szPath, mode))
FORWARD(Mkdir, int, mkdirat, (int fd, const char *szPath, mode_t mode) noexcept, (fd, szPath, mode))
// clang-format on

int glob(const char *__restrict szPattern, int flags, int (*onError)(const char *, int),
         glob_t *__restrict pFound)
{
    return Enter(Call::Search) ? GLOB_ABORTED : REAL(glob)(szPattern, flags, onError, pFound);
}

void syslog(int priority, const char *szFormat, ...)
{
    va_list args;
    va_start(args, szFormat);
    standins::KeepLine(priority, szFormat, args);
    va_end(args);
}

// What the fortified build calls in its place.
[[gnu::format(printf, 3, 4)]] void __syslog_chk(int priority, int, const char *szFormat, ...);

void __syslog_chk(int priority, int, const char *szFormat, ...)
{
    va_list args;
    va_start(args, szFormat);
    standins::KeepLine(priority, szFormat, args);
    va_end(args);
}

} // extern "C"
#pragma GCC visibility pop
// NOLINTEND(bugprone-macro-parentheses,bugprone-reserved-identifier)
