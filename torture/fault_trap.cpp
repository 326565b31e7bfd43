#include "fault_trap.hpp"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <malloc.h>
#include <pthread.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include "row.hpp"

namespace torture {

namespace {

constexpr long kAsk = 60'000; // no system call: the filtered thread asks for the open descriptors
constexpr int kMostFds = 64;

// Set by the thread under test, read by the one that answers. Plain atomics: neither side may allocate
// or lock.
std::atomic<bool> g_isArmed{false};
std::atomic<int> g_listener{-1};
Report *g_pReport = nullptr;
Fault g_fault;
const std::function<void()> *g_pBeforeChange = nullptr;
thread_local bool g_isUnderTest = false;
thread_local std::int64_t g_heldBytes = 0;

// ---- answering ----

struct Answerer {
    int listener;
    pid_t tid;      // under test
    int count = 0;  // of its system calls
    pid_t gone = 0; // a child that has become another program
    bool isSyncFailed = false;
    struct stat synced = {};
};

bool IsHit(int count)
{
    return g_fault.at != 0 && (count == g_fault.at || (g_fault.isLasting && count > g_fault.at));
}

bool IsTransfer(int number)
{
    return number == SYS_read || number == SYS_pread64 || number == SYS_write ||
           number == SYS_writev;
}

// What a transfer moves, or the first of it.
struct iovec FirstPiece(const struct seccomp_data &call)
{
    if (call.nr == SYS_writev) return *reinterpret_cast<const struct iovec *>(call.args[1]);
    return {reinterpret_cast<void *>(call.args[1]), call.args[2]};
}

bool MayChange(const struct seccomp_data &call)
{
    constexpr int kChanging[] = {SYS_write,  SYS_writev, SYS_fsync,    SYS_fchmod,  SYS_renameat,
                                 SYS_rename, SYS_unlink, SYS_unlinkat, SYS_mkdirat, SYS_mkdir};
    if (call.nr == SYS_openat) return (call.args[2] & (O_WRONLY | O_RDWR | O_CREAT)) != 0;
    return std::find(std::begin(kChanging), std::end(kChanging), call.nr) != std::end(kChanging);
}

// The file that a call concerns, as far as one can tell: by its name, or by the descriptor.
void FindPath(const struct seccomp_data &call, char (&szPath)[256])
{
    const bool isAt = call.nr == SYS_openat || call.nr == SYS_newfstatat ||
                      call.nr == SYS_mkdirat || call.nr == SYS_unlinkat;
    const bool isNamed = isAt || call.nr == SYS_open || call.nr == SYS_access;
    const char *const szName =
        isNamed ? reinterpret_cast<const char *>(call.args[isAt ? 1 : 0]) : "";
    (void)std::snprintf(szPath, sizeof(szPath), "%s", szName == nullptr ? "" : szName);
    if (szPath[0] != '\0') return;
    char szLink[64];
    (void)std::snprintf(szLink, sizeof(szLink), "/proc/self/fd/%d", static_cast<int>(call.args[0]));
    const ssize_t cb = ::readlink(szLink, szPath, sizeof(szPath) - 1);
    szPath[cb < 0 ? 0 : cb] = '\0';
}

bool IsReadByLibc(const char *szPath)
{
    constexpr const char *kPlaces[] = {"/etc",  "/var",       "/usr/zevo/etc/bandwidth/addon",
                                       "/proc", "/usr/share", "/usr/lib"};
    for (const char *const szPlace : kPlaces)
        if (std::strncmp(szPath, szPlace, std::strlen(szPlace)) == 0) return true;
    return false;
}

// What the call comes to: an answer in its place, or that it shall go on by itself.
void Decide(Answerer &answerer, const struct seccomp_notif &request,
            struct seccomp_notif_resp &response)
{
    const struct seccomp_data &call = request.data;
    const auto pid = static_cast<pid_t>(request.pid);
    response.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
    if (call.nr == kAsk) {
        response.flags = 0;
        *reinterpret_cast<std::uint64_t *>(call.args[0]) = OpenFds();
        return;
    }
    if (!g_isArmed || pid == answerer.gone) return;
    Report &report = *g_pReport;
    const int count = ++answerer.count;
    report.calls = count;
    if (MayChange(call) && *g_pBeforeChange) (*g_pBeforeChange)();

    struct stat file = {};
    if (call.nr == SYS_fsync && answerer.isSyncFailed &&
        ::fstat(static_cast<int>(call.args[0]), &file) == 0 &&
        file.st_ino == answerer.synced.st_ino && file.st_dev == answerer.synced.st_dev)
        report.isSyncedAgain = true;

    const bool isHit = IsHit(count) && g_fault.kind == Fault::Kind::kError &&
                       (!g_fault.isOfChanges || MayChange(call));
    const bool isCut = IsHit(count) && g_fault.kind == Fault::Kind::kShort && IsTransfer(call.nr) &&
                       FirstPiece(call).iov_len > 1 && pid == answerer.tid;
    if (!isHit && !isCut) {
        if (call.nr == SYS_execve && pid != answerer.tid) answerer.gone = pid;
        return;
    }
    if (!report.wasHit) {
        report.number = call.nr;
        FindPath(call, report.szPath);
        report.isOurs = pid == answerer.tid && !IsReadByLibc(report.szPath);
    }
    report.wasHit = true;
    response.flags = 0;
    if (isCut) {
        const struct iovec first = FirstPiece(call);
        const std::uint64_t cb = g_fault.isTiny ? 1 : (first.iov_len + 1) / 2;
        const auto number = call.nr == SYS_writev ? SYS_write : call.nr;
        response.val = ::syscall(number, call.args[0], first.iov_base, cb, call.args[3]);
        return;
    }
    response.error = -g_fault.error;
    if (call.nr == SYS_unlink || call.nr == SYS_unlinkat) report.hasFailedUnlink = true;
    // The kernel closes the descriptor, whatever it says.
    if (call.nr == SYS_close && pid == answerer.tid) ::close(static_cast<int>(call.args[0]));
    if (call.nr == SYS_fsync && g_fault.error != EINTR && !answerer.isSyncFailed)
        answerer.isSyncFailed = ::fstat(static_cast<int>(call.args[0]), &answerer.synced) == 0;
}

void Answer(pid_t tid)
{
    while (g_listener < 0)
        ::sched_yield();
    Answerer answerer = {.listener = g_listener, .tid = tid};
    for (;;) {
        struct seccomp_notif request = {};
        struct seccomp_notif_resp response = {};
        if (::ioctl(answerer.listener, SECCOMP_IOCTL_NOTIF_RECV, &request) < 0) {
            if (errno == EINTR || errno == ENOENT) continue;
            return;
        }
        response.id = request.id;
        Decide(answerer, request, response);
        // ENOENT: whoever asked has been killed meanwhile.
        if (::ioctl(answerer.listener, SECCOMP_IOCTL_NOTIF_SEND, &response) < 0 && errno != ENOENT)
            ::_exit(3);
    }
}

int InstallFilter()
{
    // What cannot fail by its nature goes through, and what ends a process or a signal handler.
    constexpr std::uint32_t kLetThrough[] = {
        SYS_exit,
        SYS_exit_group,
        SYS_rt_sigreturn,
        SYS_getpid,
        SYS_gettid,
        SYS_getppid,
        SYS_getuid,
        SYS_umask,
        SYS_sched_yield,
        SYS_futex,
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        // A sanitizer ends the process when it gets no memory or cannot look at its stack.
        SYS_mmap,
        SYS_munmap,
        SYS_mprotect,
        SYS_madvise,
        SYS_sigaltstack,
#endif
    };
    constexpr std::size_t kRules = std::size(kLetThrough);
    struct sock_filter program[kRules + 3];
    struct sock_filter *p = program;
    *p++ = BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr));
    for (std::size_t i = 0; i < kRules; ++i)
        *p++ = BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kLetThrough[i],
                        static_cast<std::uint8_t>(kRules - i), 0);
    *p++ = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF);
    *p++ = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
    struct sock_fprog filter = {static_cast<unsigned short>(std::size(program)), program};
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) < 0) return -1;
    return static_cast<int>(
        ::syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &filter));
}

std::uint64_t AskForFds()
{
    std::uint64_t fds = 0;
    ::syscall(kAsk, &fds);
    return fds;
}

// From here on another thread answers the system calls of this one.
void BeginAnswering()
{
    const std::int64_t heldBefore = g_heldBytes;
    std::thread(Answer, static_cast<pid_t>(::syscall(SYS_gettid))).detach();
    g_heldBytes = heldBefore; // the thread's own memory stays as long as the process
    const int listener = InstallFilter();
    if (listener < 0) Die("no seccomp filter: %s", std::strerror(errno));
#ifdef SECCOMP_USER_NOTIF_FD_SYNC_WAKE_UP
    (void)::ioctl(listener, SECCOMP_IOCTL_NOTIF_SET_FLAGS, SECCOMP_USER_NOTIF_FD_SYNC_WAKE_UP);
#endif
    g_listener = listener;
}

} // namespace

const char *WhyNoFilter()
{
    static char szWhy[256] = "";
    const int status = WaitFor(Fork([]() -> int {
        // Nobody answers the filtered calls, so there must be none on the way out.
        ::syscall(SYS_exit_group, InstallFilter() < 0 ? errno : 0);
        return 0;
    }));
    if (status == 0) return nullptr;
    (void)std::snprintf(szWhy, sizeof(szWhy), "the kernel refuses the seccomp filter here (%s)",
                        std::strerror(status));
    return szWhy;
}

std::int64_t HeldBytes()
{
    return g_heldBytes;
}

std::uint64_t OpenFds()
{
    std::uint64_t open = 0;
    for (int fd = 0; fd < kMostFds; ++fd)
        if (::fcntl(fd, F_GETFD) >= 0) open |= std::uint64_t{1} << fd;
    return open;
}

int RunTrapped(Report &report, const Fault &fault, const std::function<int()> &call,
               const std::function<void()> &beforeChange)
{
    g_pReport = &report;
    g_fault = fault;
    g_pBeforeChange = &beforeChange;
    const bool isFiltered = fault.kind != Fault::Kind::kAllocation;
    if (isFiltered) BeginAnswering();
    const std::uint64_t fdsBefore = isFiltered ? AskForFds() : OpenFds();
    g_isUnderTest = true;
    g_isArmed = true;
    const int result = call();
    g_isArmed = false;
    g_isUnderTest = false;
    report.leakedFds = (isFiltered ? AskForFds() : OpenFds()) & ~fdsBefore;
    return result;
}

// ---- allocations ----

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

namespace {

bool IsRefused()
{
    if (!g_isUnderTest) return false;
    const int count = ++g_pReport->allocations;
    if (g_fault.kind != Fault::Kind::kAllocation || !IsHit(count)) return false;
    g_pReport->wasHit = true;
    errno = ENOMEM;
    return true;
}

void *Held(void *p)
{
    if (p != nullptr) g_heldBytes += static_cast<std::int64_t>(::malloc_usable_size(p));
    return p;
}

void LetGo(void *p)
{
    if (p != nullptr) g_heldBytes -= static_cast<std::int64_t>(::malloc_usable_size(p));
}

} // namespace

} // namespace torture

// libc's own, under the names that remain when a program defines the usual ones.
// NOLINTBEGIN(bugprone-reserved-identifier)
#pragma GCC visibility push(default)
extern "C" {
void *__libc_malloc(std::size_t cb);
void *__libc_calloc(std::size_t count, std::size_t cb);
void *__libc_realloc(void *p, std::size_t cb);
void *__libc_memalign(std::size_t alignment, std::size_t cb);
void __libc_free(void *p);

void *malloc(std::size_t cb)
{
    return torture::IsRefused() ? nullptr : torture::Held(__libc_malloc(cb));
}

void *calloc(std::size_t count, std::size_t cb)
{
    return torture::IsRefused() ? nullptr : torture::Held(__libc_calloc(count, cb));
}

void *realloc(void *p, std::size_t cb)
{
    if (torture::IsRefused()) return nullptr;
    torture::LetGo(p);
    void *const pNew = __libc_realloc(p, cb);
    if (pNew == nullptr && cb != 0) torture::Held(p);
    return torture::Held(pNew);
}

void *memalign(std::size_t alignment, std::size_t cb)
{
    return torture::IsRefused() ? nullptr : torture::Held(__libc_memalign(alignment, cb));
}

void *aligned_alloc(std::size_t alignment, std::size_t cb)
{
    return memalign(alignment, cb);
}

void free(void *p)
{
    const int saved = errno;
    torture::LetGo(p);
    __libc_free(p);
    errno = saved;
}
} // extern "C"
#pragma GCC visibility pop
// NOLINTEND(bugprone-reserved-identifier)

namespace torture {

#endif

// ---- the log ----

[[gnu::format(printf, 2, 0)]] void KeepLine(int priority, const char *szFormat,
                                            std::va_list arguments)
{
    if (g_pReport == nullptr || !g_isUnderTest) return;
    Report &report = *g_pReport;
    char szLine[1024];
    (void)std::vsnprintf(szLine, sizeof(szLine), szFormat, arguments);
    const std::size_t used = std::strlen(report.szLog);
    (void)std::snprintf(report.szLog + used, sizeof(report.szLog) - used, "%s%s\n",
                        priority == LOG_ERR ? "" : "(priority!) ", szLine);
    ++report.lines;
}

} // namespace torture

// ---- clock, process id and log, as the libraries see them ----

// NOLINTBEGIN(bugprone-reserved-identifier)
#pragma GCC visibility push(default)
extern "C" {
pid_t getpid() noexcept
{
    return torture::kOwnPid;
}

time_t time(time_t *pTime) noexcept
{
    if (pTime != nullptr) *pTime = torture::kNow;
    return torture::kNow;
}

int gettimeofday(struct timeval *__restrict pTime, void *__restrict) noexcept
{
    *pTime = {torture::kNow, 0};
    return 0;
}

void syslog(int priority, const char *szFormat, ...)
{
    std::va_list arguments;
    va_start(arguments, szFormat);
    torture::KeepLine(priority, szFormat, arguments);
    va_end(arguments);
}

[[gnu::format(printf, 3, 4)]] void __syslog_chk(int priority, int, const char *szFormat, ...);

void __syslog_chk(int priority, int, const char *szFormat, ...)
{
    std::va_list arguments;
    va_start(arguments, szFormat);
    torture::KeepLine(priority, szFormat, arguments);
    va_end(arguments);
}
} // extern "C"
#pragma GCC visibility pop
// NOLINTEND(bugprone-reserved-identifier)
