// Running a program for a host whose way with children we do not know. It may ignore SIGCHLD, which
// makes the kernel throw exit statuses away, or reap whatever child it finds, ours included. A
// child that announces its end by no signal is exempt from both, but only until it runs a program.
// So there are two: a waiter, which shares our memory, announces nothing and runs nothing, and its
// child, which becomes the program. The waiter leaves the exit status in our memory.
//
// clone() with CLONE_VM | CLONE_VFORK: the calling thread stands still until the waiter is gone, so
// the two may use its thread-local storage; other threads go on. Each has its own signal handlers
// and descriptors, and shares the rest: neither may allocate, lock or change anything but the Run.
#include <csignal>
#include <memory>

#include <sched.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/descriptor.hpp"
#include "platform/internal/frame.hpp"

// Sanitizers keep books on each thread's stack, and do not know these.
#define ON_FOREIGN_STACK __attribute__((no_sanitize("address", "thread", "undefined")))

namespace zevo {
namespace {

constexpr size_t kStackBytes = size_t{64} << 10;
constexpr int kAsAThreadWould = CLONE_VM | CLONE_VFORK;

struct Run {
    const char *const *argv;
    sigset_t hostMask;
    char *programStack;
    int error = 0;   // why the program could not be run
    int status = -1; // as waitpid() gives it; -1 while unknown
};

// Raw kernel calls here and below: libc, a sanitizer or whatever the host has put in libc's place
// would take these for the host's own doing and remember them.
ON_FOREIGN_STACK void ResetSignalHandlers() noexcept
{
    const unsigned long kDefault[4] = {}; // SIG_DFL, no flags, an empty mask
    constexpr size_t kMaskBytes = _NSIG / 8;
    for (int number = 1; number < _NSIG; ++number)
        ::syscall(SYS_rt_sigaction, number, kDefault, nullptr, kMaskBytes);
}

// Everything is closed first: then the three take the lowest numbers, however many were open.
ON_FOREIGN_STACK bool OpenNullStreams() noexcept
{
    return ::close_range(0, ~0U, 0) == 0 &&
           ::syscall(SYS_openat, AT_FDCWD, "/dev/null", O_RDWR) == STDIN_FILENO &&
           ::dup(STDIN_FILENO) == STDOUT_FILENO && ::dup(STDIN_FILENO) == STDERR_FILENO;
}

ON_FOREIGN_STACK int BecomeProgram(void *pArg) noexcept
{
    Run &run = *static_cast<Run *>(pArg);
    if (OpenNullStreams()) {
        ::syscall(SYS_rt_sigprocmask, SIG_SETMASK, &run.hostMask, nullptr, size_t{_NSIG / 8});
        ::execve(run.argv[0], const_cast<char *const *>(run.argv), environ);
    }
    run.error = errno;
    return 127;
}

// The waiter, with all signals blocked: one sent to every process of the host's name must not end
// it.
ON_FOREIGN_STACK int WaitForProgram(void *pArg) noexcept
{
    Run &run = *static_cast<Run *>(pArg);
    ResetSignalHandlers();
    const pid_t pid = ::clone(BecomeProgram, run.programStack, kAsAThreadWould | SIGCHLD, pArg);
    if (pid < 0) {
        run.error = errno;
        return 1;
    }
    int status = -1;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return 1;
    }
    run.status = status;
    return 0;
}

// 0, or -1 with errno; the outcome is in run.
int RunAndWait(Run &run) noexcept
{
    const std::unique_ptr<char, void (*)(void *)> pStacks(
        static_cast<char *>(std::malloc(2 * kStackBytes)), std::free);
    if (!pStacks) return -1;
    char *const pMiddle = pStacks.get() + kStackBytes; // stacks grow downwards
    run.programStack = pMiddle;

    sigset_t all;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &run.hostMask);
    const pid_t pid = ::clone(WaitForProgram, pMiddle + kStackBytes, kAsAThreadWould, &run);
    if (pid < 0) run.error = errno;
    // Whatever this says, even that the host has reaped it after all: the outcome is known.
    if (pid > 0) RetryInterrupted([&] { return ::waitpid(pid, nullptr, __WALL); });
    ::pthread_sigmask(SIG_SETMASK, &run.hostMask, nullptr);

    if (run.error == 0 && run.status == -1) run.error = ECHILD;
    errno = run.error;
    return run.error == 0 ? 0 : -1;
}

} // namespace
} // namespace zevo

int VLIBCExec(const char *szProgram, const char *szArg1, const char *szArg2, const char *szArg3,
              const char *szArg4) noexcept
{
    if (szProgram == nullptr) return ZEVO_FAIL(zevo::kBadArgument);
    const zevo::CancelScope cancel;
    const char *const argv[] = {szProgram, szArg1, szArg2, szArg3, szArg4, nullptr};
    zevo::Run run = {.argv = argv, .hostMask = {}, .programStack = nullptr};
    if (zevo::RunAndWait(run) < 0) return ZEVO_FAIL(zevo::kCannotOpen);
    return WIFSIGNALED(run.status) ? 128 + WTERMSIG(run.status) : WEXITSTATUS(run.status);
}
