// The manners of a guest in other people's processes: every exported function is called where the
// host calls them from many threads, cancels threads, forks beside them, has closed its standard
// streams, limits the size of files, gives its threads small stacks and is showered with signals; and
// nothing of the host's own is another afterwards. Built with the thread sanitizer there are only the
// many threads, and the sanitizer watches.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include "operations.hpp"
#include "row.hpp"

using namespace torture;

namespace {

constexpr unsigned kMostSeconds = 60; // one child; most take milliseconds
constexpr mode_t kHostMask = 027;     // one that no code of ours would choose

std::int64_t Now()
{
    return std::time(nullptr);
}

void Stage(const Operation &operation)
{
    StageScene(Now(), ::getpid());
    if (operation.stage != nullptr) operation.stage();
}

// Stages the operation in a process of its own and runs the body there; any end but 0 is a violation.
void Expect(Row &row, const Operation &operation, const std::function<int()> &body)
{
    row.Try();
    const int status = WaitFor(Fork([&] {
        ::alarm(kMostSeconds);
        Stage(operation);
        return body();
    }));
    if (status == 128 + SIGALRM)
        row.Violate("%s hangs", operation.name);
    else if (status != 0)
        row.Violate("%s: ended with %d", operation.name, status);
}

const Operation &Any(Random &random)
{
    return kOperations[random.Below(kOperations.size())];
}

// ---- threads of the host ----

// A thread; the stack is its own where one is given.
class Thread {
public:
    explicit Thread(std::function<void()> body, void *pStack = nullptr, std::size_t cbStack = 0)
        : body_(std::move(body))
    {
        pthread_attr_t attributes;
        ::pthread_attr_init(&attributes);
        if (pStack != nullptr) ::pthread_attr_setstack(&attributes, pStack, cbStack);
        const int error = ::pthread_create(&thread_, &attributes, Run, this);
        ::pthread_attr_destroy(&attributes);
        if (error != 0) Die("no thread: %s", std::strerror(error));
    }
    Thread(const Thread &) = delete;
    Thread &operator=(const Thread &) = delete;

    void Cancel() { ::pthread_cancel(thread_); }
    void Kill(int number) { ::pthread_kill(thread_, number); }
    bool WasCancelled() // waits for its end
    {
        void *pResult = nullptr;
        ::pthread_join(thread_, &pResult);
        return pResult == PTHREAD_CANCELED;
    }

private:
    static void *Run(void *pThread)
    {
        static_cast<Thread *>(pThread)->body_();
        return nullptr;
    }

    std::function<void()> body_;
    pthread_t thread_ = {};
};

int CountFds()
{
    int count = 0;
    for (int fd = 0; fd < 256; ++fd)
        count += ::fcntl(fd, F_GETFD) >= 0;
    return count;
}

// Cancels a thread that runs the operation again and again. It may only end between two calls: then
// no descriptor stays open, no lock taken, and the next caller finds everything in order.
int CancelAtRandom(const Operation &operation, Random &random)
{
    Scratch first(::getpid(), Now());
    (void)operation.run(first); // what libc keeps for its own use it has then
    const int before = CountFds();
    {
        Scratch scratch(::getpid(), Now());
        Thread thread([&] {
            for (;;) {
                (void)operation.run(scratch);
                ::pthread_testcancel();
            }
        });
        SleepUs(static_cast<std::int64_t>(random.Below(3'000)));
        thread.Cancel();
        if (!thread.WasCancelled()) return 10;
    }
    if (CountFds() > before) return 11;
    Scratch next(::getpid(), Now());
    (void)operation.run(next);
    return 0;
}

// ---- what is the host's ----

extern "C" void HandleQuietly(int) {}

struct HostState {
    std::vector<std::string> environment;
    std::string locale;
    mode_t mask = 0;
    std::vector<void *> handlers; // and their flags
    sigset_t blocked = {};
    std::string directory;
    struct itimerval timer = {};
    int niceness = 0;
    int cancelState = 0;
    int cancelType = 0;
};

HostState Look()
{
    HostState state;
    for (char **p = environ; *p != nullptr; ++p)
        state.environment.emplace_back(*p);
    state.locale = std::setlocale(LC_ALL, nullptr);
    state.mask = ::umask(kHostMask);
    for (int number = 1; number < _NSIG; ++number) {
        struct sigaction action = {};
        if (::sigaction(number, nullptr, &action) < 0) continue;
        state.handlers.push_back(reinterpret_cast<void *>(action.sa_handler));
        state.handlers.push_back(
            reinterpret_cast<void *>(static_cast<std::intptr_t>(action.sa_flags)));
    }
    ::pthread_sigmask(SIG_SETMASK, nullptr, &state.blocked);
    char directory[4096];
    state.directory = ::getcwd(directory, sizeof(directory)) == nullptr ? "" : directory;
    ::getitimer(ITIMER_REAL, &state.timer);
    state.niceness = ::getpriority(PRIO_PROCESS, 0);
    ::pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &state.cancelState);
    ::pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &state.cancelType);
    return state;
}

std::string Changes(const HostState &before, const HostState &after)
{
    std::string changes;
    const auto note = [&](bool isSame, const char *szWhat) {
        if (!isSame) changes += std::string(changes.empty() ? "" : ", ") + szWhat;
    };
    note(before.environment == after.environment, "environment");
    note(before.locale == after.locale, "locale");
    note(before.mask == after.mask, "creation mask");
    note(before.handlers == after.handlers, "signal handlers");
    note(std::memcmp(&before.blocked, &after.blocked, sizeof(sigset_t)) == 0, "signal mask");
    note(before.directory == after.directory, "working directory");
    note(before.niceness == after.niceness, "niceness");
    note(before.cancelState == after.cancelState && before.cancelType == after.cancelType,
         "cancellation");
    return changes;
}

// ---- stacks ----

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kIsSanitized = true;
#else
constexpr bool kIsSanitized = false;
#endif
constexpr std::size_t kStackBytes = std::size_t{64} << 10;
constexpr std::size_t kMostUsedBytes = std::size_t{48} << 10;
constexpr unsigned char kPaint = 0xA5;

// A stack with a page that must not be touched below it.
class Stack {
public:
    Stack()
        : p_(static_cast<unsigned char *>(::mmap(nullptr, kStackBytes + kGuard,
                                                 PROT_READ | PROT_WRITE,
                                                 MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)))
    {
        if (p_ == MAP_FAILED || ::mprotect(p_, kGuard, PROT_NONE) < 0) Die("no stack");
    }
    ~Stack() { ::munmap(p_, kStackBytes + kGuard); }
    Stack(const Stack &) = delete;
    Stack &operator=(const Stack &) = delete;

    unsigned char *bottom() const { return p_ + kGuard; }
    void Paint(const unsigned char *pEnd) { std::memset(bottom(), kPaint, Below(pEnd)); }
    // How far below the place the deepest touched byte lies.
    std::size_t UsedBelow(const unsigned char *pEnd) const
    {
        const unsigned char *p = bottom();
        while (p < pEnd && *p == kPaint)
            ++p;
        return static_cast<std::size_t>(pEnd - p);
    }

private:
    static constexpr std::size_t kGuard = 4096;
    std::size_t Below(const unsigned char *p) const
    {
        return static_cast<std::size_t>(p - bottom());
    }

    unsigned char *p_;
};

// How much stack the call of the operation takes, everything below it included.
std::size_t StackOf(const Operation &operation)
{
    constexpr std::size_t kOwnFrame = 512; // of what paints
    Scratch scratch(::getpid(), Now());
    Stack stack;
    std::size_t used = 0;
    Thread thread(
        [&] {
            const auto *const pHere =
                static_cast<unsigned char *>(__builtin_frame_address(0)) - kOwnFrame;
            stack.Paint(pHere);
            (void)operation.run(scratch);
            used = stack.UsedBelow(pHere) + kOwnFrame;
        },
        stack.bottom(), kStackBytes);
    (void)thread.WasCancelled();
    return used;
}

// ---- rows ----

// Where nothing can be read or made any more.
void BreakScene()
{
    std::filesystem::remove_all("/tmp/bandwidth");
    WriteFile("/tmp/bandwidth", "");
    for (const char *const szFile : {"ftp", "global"}) {
        const std::string path =
            std::string("/usr/zevo/etc/bandwidth/bandwidth.") + szFile + ".conf";
        std::filesystem::remove_all(path);
        std::filesystem::create_directories(path);
    }
}

void TryCancels(Row &row, const Budget &budget, Random &random)
{
    for (std::uint64_t done = 0; budget.Allows(done); ++done) {
        const Operation &operation = Any(random);
        Random own(random.Below(UINT64_MAX), 0);
        Expect(row, operation, [&] { return CancelAtRandom(operation, own); });
    }
}

// Four threads run everything while a fifth forks; each child looks everything up at once.
int ForkBesideThreads(std::uint64_t count, Row &row,
                      const std::function<bool(std::uint64_t)> &allows, std::uint64_t seed)
{
    std::atomic<bool> isOver{false};
    std::vector<std::unique_ptr<Thread>> threads;
    for (std::uint64_t i = 0; i < 4; ++i)
        threads.push_back(std::make_unique<Thread>([&, i] {
            Random random(seed, i);
            while (!isOver) {
                const Operation &operation = Any(random);
                if ((operation.waivers & kAlone) != 0) continue;
                Scratch scratch(::getpid(), Now());
                (void)operation.run(scratch);
            }
        }));
    Random random(seed, 100);
    for (std::uint64_t done = 0; done < count && allows(done); ++done) {
        row.Try();
        const pid_t pid = ::fork();
        if (pid < 0) Die("cannot fork: %s", std::strerror(errno));
        if (pid == 0) {
            // Only what a child of a threaded process may use: our functions, no iostreams, no rows.
            ::alarm(kMostSeconds);
            char text[4096];
            ZEVO_BANDWIDTH_CONFIG config = {};
            ZEVO_BANDWIDTH_STATUS *pList = nullptr;
            bool isWell =
                ZEVOBandwidthEnumToName(ZEVO_BW_PROTOCOL_TYPE_LIST, kAddon, text, 4096) == 1 &&
                ZEVOBandwidthEnumToValue(ZEVO_BW_PROTOCOL_TYPE_LIST, kAddonName) == kAddon &&
                ZEVOBandwidthConfPath(kAddon, text, sizeof(text)) == 0 &&
                ZEVOBandwidthConfigGet(kAlice, ZEVO_BW_PROTOCOL_FTP, &config) == 0 &&
                ZEVOBandwidthStatusGetAll(ZEVO_BW_OWNER_GROUP, kStaff, -1, 3, &pList) >= 0;
            ZEVOBandwidthStatusListFree(&pList);
            ZEVOBandwidthConfigFree(&config);
            isWell = isWell && ::umask(0) == kHostMask;
            ::_exit(isWell ? 0 : 1);
        }
        if (const int status = WaitFor(pid); status != 0)
            row.Violate("the child of fork %llu ended with %d",
                        static_cast<unsigned long long>(done), status);
    }
    isOver = true;
    for (const auto &thread : threads)
        (void)thread->WasCancelled();
    return ::umask(kHostMask) == kHostMask ? 0 : 12;
}

// ---- many threads at once ----

std::atomic<int> g_reports{0}; // of the thread sanitizer

// Every function in every thread but those that go one at a time in a process, which are the first's.
void TryThreads(Row &row, const Options &options, double share)
{
    constexpr int kThreads = 16;
    const double seconds = options.amount == Amount::kShort  ? 3
                           : options.amount == Amount::kFull ? 60
                                                             : options.seconds * share;
    StageScene(Now(), ::getpid());
    ::alarm(static_cast<unsigned>(seconds) * 2 + kMostSeconds); // a deadlock ends by this signal
    const std::int64_t endUs = NowUs() + static_cast<std::int64_t>(seconds * 1e6);
    std::vector<std::unique_ptr<Thread>> threads;
    for (int i = 0; i < kThreads; ++i)
        threads.push_back(std::make_unique<Thread>([&, i] {
            Random random(options.seed, static_cast<std::uint64_t>(i));
            while (NowUs() < endUs) {
                const Operation &operation = Any(random);
                if ((operation.waivers & kAlone) != 0 && i != 0) continue;
                Scratch scratch(::getpid(), Now());
                (void)operation.run(scratch);
                row.Try();
            }
        }));
    for (const auto &thread : threads)
        (void)thread->WasCancelled();
    ::alarm(0);
    if (g_reports != 0) row.Violate("the sanitizer has reported %d races", g_reports.load());
}

// ---- one host after the other ----

// The operation in a host without standard streams. What it opens meanwhile is watched by a second
// thread; that the three are closed again afterwards shows the rest.
int RunWithoutStreams(const Operation &operation)
{
    Scratch scratch(::getpid(), Now());
    for (int fd = 0; fd <= 2; ++fd)
        ::close(fd);
    std::atomic<bool> isOver{false};
    Thread runner([&] {
        for (int i = 0; i < 20; ++i)
            (void)operation.run(scratch);
        isOver = true;
    });
    int low = 0;
    while (!isOver)
        for (int fd = 0; fd <= 2; ++fd) {
            // One that is there for a moment only is being moved up, and tells nothing.
            struct stat file = {};
            if (::fstat(fd, &file) == 0 && !S_ISSOCK(file.st_mode)) {
                SleepUs(50'000);
                struct stat later = {};
                if (::fstat(fd, &later) == 0 && later.st_ino == file.st_ino &&
                    !S_ISSOCK(later.st_mode))
                    low = 20 + fd;
            }
        }
    (void)runner.WasCancelled();
    for (int fd = 0; fd <= 2; ++fd) {
        struct stat file = {};
        if (::fstat(fd, &file) == 0 && !S_ISSOCK(file.st_mode)) low = 30 + fd;
    }
    return low;
}

// No SIGXFSZ, neither at once nor later, and every file as it was or as it should be.
int RunWithSmallFiles(const Operation &operation, rlim_t cbMost)
{
    Scratch scratch(::getpid(), Now());
    struct rlimit old = {};
    ::getrlimit(RLIMIT_FSIZE, &old);
    const struct rlimit limit = {cbMost, old.rlim_max};
    if (::setrlimit(RLIMIT_FSIZE, &limit) < 0) return 15;
    (void)operation.run(scratch);
    ::setrlimit(RLIMIT_FSIZE, &old);
    sigset_t pending;
    ::sigpending(&pending);
    return ::sigismember(&pending, SIGXFSZ) != 0 ? 16 : 0;
}

// Signals every 50 us, to handlers without SA_RESTART; the operation has to come out as without.
int RunUnderSignals(const Operation &operation)
{
    int expected = 0;
    {
        Scratch scratch(::getpid(), Now());
        expected = operation.run(scratch);
    }
    Stage(operation);
    Scratch scratch(::getpid(), Now());
    struct sigaction action = {};
    action.sa_handler = HandleQuietly;
    ::sigaction(SIGUSR1, &action, nullptr);
    std::atomic<bool> isOver{false};
    int result = 0;
    Thread runner([&] {
        result = operation.run(scratch);
        isOver = true;
        SleepUs(1'000'000); // stays to be signalled; the join below needs no more of it
    });
    while (!isOver) {
        runner.Kill(SIGUSR1);
        SleepUs(50);
    }
    const bool isSame = result == expected;
    ::_exit(isSame ? 0 : 17);
}

int RunAndLook(const Operation &operation, int channel)
{
    Scratch scratch(::getpid(), Now());
    struct sigaction action = {};
    action.sa_handler = HandleQuietly;
    for (const int number : {SIGHUP, SIGUSR2, SIGCHLD, SIGPIPE, SIGXFSZ})
        ::sigaction(number, &action, nullptr);
    ::umask(kHostMask);
    const HostState before = Look();
    (void)operation.run(scratch);
    const std::string changes = Changes(before, Look());
    // Playing a transfer out takes over SIGHUP, and says so.
    const bool isTold = (operation.waivers & kAlone) != 0 && changes == "signal handlers";
    if (changes.empty() || isTold) return 0;
    if (::write(channel, changes.data(), changes.size()) < 0) return 18;
    return 19;
}

// One operation after the other, from the first one again where the budget allows more.
void TryEach(Row &row, const Budget &budget, const std::function<int(const Operation &)> &run)
{
    for (std::uint64_t done = 0; budget.Allows(done); ++done) {
        const Operation &operation = kOperations[done % kOperations.size()];
        Expect(row, operation, [&] { return run(operation); });
    }
}

} // namespace

#ifdef __SANITIZE_THREAD__
constexpr bool kIsWatched = true;

// The sanitizer calls this with each of its reports.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the sanitizer's name
extern "C" __attribute__((visibility("default"))) void __tsan_on_report(const void *);

// NOLINTNEXTLINE(bugprone-reserved-identifier)
void __tsan_on_report(const void *)
{
    ++g_reports;
}

// Takes the place of the platform's, whose children share our memory: the sanitizer takes them for
// forks, and believes from the first one on that all other threads are gone.
int VLIBCExec(const char *, const char *, const char *, const char *, const char *) noexcept
{
    return 0;
}
#else
constexpr bool kIsWatched = false;
#endif

int main(int argc, char **argv)
{
    const Options options = ParseOptions(argc, argv);
    ::umask(022); // for the scene
    Table table(options.seed);
    if (kIsWatched) {
        TryThreads(table.Add("Calls of 16 threads at once under the thread sanitizer"), options, 1);
        return table.Print();
    }
    TryThreads(table.Add("Calls of 16 threads at once"), options, 0.1);
    Random random(options.seed, 0);
    const std::uint64_t all = kOperations.size();

    TryCancels(table.Add("Functions in threads cancelled at random"),
               Budget(options, 0.2, 100, 20'000), random);
    if (kIsSanitized) {
        std::fprintf(stderr, "left out, for a sanitizer's locks do not survive it: forks in a "
                             "threaded host\n");
    } else {
        Row &row = table.Add("Forks in a threaded host");
        StageScene(Now(), ::getpid());
        ::umask(kHostMask);
        const Budget budget(options, 0.3, 100, 10'000);
        if (const int status = ForkBesideThreads(
                budget.most(), row, [&](std::uint64_t done) { return budget.Allows(done); },
                options.seed);
            status != 0)
            row.Violate("the creation mask is another afterwards");
        ::umask(022);
    }
    TryEach(table.Add("Functions in a host without standard streams"),
            Budget(options, 0.1, all, all), RunWithoutStreams);
    TryEach(table.Add("Functions under a limit of the file size"),
            Budget(options, 0.1, all, 20 * all), [&](const Operation &operation) {
                return RunWithSmallFiles(operation, static_cast<rlim_t>(random.Below(1'500)));
            });
    TryEach(table.Add("Functions under a signal every 50 us"), Budget(options, 0.2, all, 50 * all),
            RunUnderSignals);
    TryEach(table.Add("Functions that leave the host's own alone"), Budget(options, 1, all, all),
            [](const Operation &operation) { return RunAndLook(operation, STDERR_FILENO); });
    if (kIsSanitized) {
        std::fprintf(stderr, "left out, for a sanitizer's frames are larger: stacks of 64 KiB\n");
    } else {
        Row &row = table.Add("Functions in a stack of 64 KiB");
        auto *const pDeepest = Share<std::size_t>();
        for (const Operation &operation : kOperations) {
            Expect(row, operation, [&] {
                const std::size_t well = StackOf(operation);
                BreakScene(); // to fail takes a log line more
                const std::size_t used = std::max(well, StackOf(operation));
                if (std::getenv("ZEVOBW_TORTURE_TELL") != nullptr)
                    std::fprintf(stderr, "%-32s %6zu bytes of stack\n", operation.name, used);
                if (used > *pDeepest) *pDeepest = used;
                return used <= kMostUsedBytes ? 0 : 40;
            });
        }
        row.Add(": at most " + std::to_string(*pDeepest) + " bytes used");
    }
    return table.Print();
}
