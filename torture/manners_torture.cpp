// The manners of a guest in other people's processes: every exported function
// is called where the host calls them from many threads, cancels threads, forks
// beside them, has closed its standard streams, limits the size of files, gives
// its threads small stacks and is showered with signals; and nothing of the
// host's own is another afterwards. Built with the thread sanitizer there are
// only the many threads, and the sanitizer watches.
#include <atomic>
#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
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

// Stages the operation in a process of its own and runs the body there; any end
// but 0 is a violation.
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

// A thread, with so much stack where that is said; whatever goes beyond it ends
// the process.
class Thread {
public:
    explicit Thread(std::function<void()> body, std::size_t cbStack = 0) : body_(std::move(body))
    {
        pthread_attr_t attributes;
        ::pthread_attr_init(&attributes);
        if (cbStack != 0) {
            ::pthread_attr_setstacksize(&attributes, cbStack);
            ::pthread_attr_setguardsize(&attributes, cbStack);
        }
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

// Cancels a thread that runs the operation again and again. It may only end
// between two calls: then no descriptor stays open, no lock taken, and the next
// caller finds everything in order.
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

using HostState = std::map<std::string, std::string>; // what it is, and how

HostState Look()
{
    HostState state;
    for (char **p = environ; *p != nullptr; ++p)
        state["environment"] += *p + std::string("\n");
    state["locale"] = std::setlocale(LC_ALL, nullptr);
    state["creation mask"] = std::to_string(::umask(kHostMask));
    sigset_t blocked = {};
    ::pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    for (int number = 1; number < _NSIG; ++number) {
        struct sigaction action = {};
        if (::sigaction(number, nullptr, &action) < 0) continue;
        const auto handler = reinterpret_cast<std::uintptr_t>(action.sa_handler);
        state["signal handlers"] +=
            std::to_string(handler) + "/" + std::to_string(action.sa_flags) + " ";
        state["signal mask"] += std::to_string(::sigismember(&blocked, number));
    }
    state["working directory"] = std::filesystem::current_path();
    state["niceness"] = std::to_string(::getpriority(PRIO_PROCESS, 0));
    int before = 0;
    ::pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &before);
    state["cancellation"] = std::to_string(before);
    ::pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &before);
    state["cancellation"] += std::to_string(before);
    return state;
}

std::string Changes(const HostState &before, const HostState &after)
{
    std::string changes;
    for (const auto &[what, how] : before)
        if (after.at(what) != how) changes += (changes.empty() ? "" : ", ") + what;
    return changes;
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kIsSanitized = true;
#else
constexpr bool kIsSanitized = false;
#endif

// ---- rows ----

// A host's threads may have 64 KiB of stack, of which it needs a part itself.
// Once as usual, once where nothing can be read or made: to fail takes a log
// line more.
int RunInSmallStack(const Operation &operation)
{
    constexpr std::size_t kStackBytes = std::size_t{48} << 10;
    for (const bool isBroken : {false, true}) {
        if (isBroken) {
            std::filesystem::remove_all(kStatusDirectory);
            WriteFile(kStatusDirectory, "");
            for (const char *const szFile : {"ftp", "global"}) {
                const std::string path =
                    std::string("/usr/zevo/etc/bandwidth/bandwidth.") + szFile + ".conf";
                std::filesystem::remove_all(path);
                std::filesystem::create_directories(path);
            }
        }
        Scratch scratch(::getpid(), Now());
        Thread thread([&] { (void)operation.run(scratch); }, kStackBytes);
        (void)thread.WasCancelled();
    }
    return 0;
}

void TryCancels(Row &row, const Budget &budget, Random &random)
{
    for (std::uint64_t done = 0; budget.Allows(done); ++done) {
        const Operation &operation = Any(random);
        Random own(random.Below(UINT64_MAX), 0);
        Expect(row, operation, [&] { return CancelAtRandom(operation, own); });
    }
}

// Threads that run everything until the object ends. Functions that go one at a
// time in a process are the first one's, or nobody's.
class Crew {
public:
    Crew(std::uint64_t count, std::uint64_t seed, bool areAllCalled, Row *pRow = nullptr)
    {
        for (std::uint64_t i = 0; i < count; ++i)
            threads_.push_back(std::make_unique<Thread>([=, this] {
                Random random(seed, i);
                while (!isOver_) {
                    const Operation &operation = Any(random);
                    if ((operation.waivers & kAlone) != 0 && (i != 0 || !areAllCalled)) continue;
                    Scratch scratch(::getpid(), Now());
                    (void)operation.run(scratch);
                    if (pRow != nullptr) pRow->Try();
                }
            }));
    }
    ~Crew()
    {
        isOver_ = true;
        for (const auto &thread : threads_)
            (void)thread->WasCancelled();
    }
    Crew(const Crew &) = delete;
    Crew &operator=(const Crew &) = delete;

private:
    std::atomic<bool> isOver_{false};
    std::vector<std::unique_ptr<Thread>> threads_;
};

// Four threads run everything while this one forks; each child looks everything
// up at once.
void ForkBesideThreads(Row &row, const Budget &budget, std::uint64_t seed)
{
    StageScene(Now(), ::getpid());
    ::umask(kHostMask);
    const Crew crew(4, seed, false);
    for (std::uint64_t done = 0; budget.Allows(done); ++done) {
        row.Try();
        const pid_t pid = ::fork();
        if (pid < 0) Die("cannot fork: %s", std::strerror(errno));
        if (pid == 0) {
            // Only what a child of a threaded process may use: our functions, no
            // iostreams, no rows.
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
    if (::umask(022) != kHostMask) row.Violate("the creation mask is another afterwards");
}

// ---- many threads at once ----

std::atomic<int> g_reports{0}; // of the thread sanitizer

void TryThreads(Row &row, const Options &options, double share)
{
    constexpr int kThreads = 16;
    const double seconds = options.amount == Amount::kShort  ? 3
                           : options.amount == Amount::kFull ? 60
                                                             : options.seconds * share;
    StageScene(Now(), ::getpid());
    ::alarm(static_cast<unsigned>(seconds) * 2 + kMostSeconds); // a deadlock ends by this signal
    {
        const Crew crew(kThreads, options.seed, true, &row);
        SleepUs(static_cast<std::int64_t>(seconds * 1e6));
    }
    ::alarm(0);
    if (g_reports != 0) row.Violate("the sanitizer has reported %d races", g_reports.load());
}

// ---- one host after the other ----

// The operation in a host without standard streams. What it opens meanwhile is
// watched by a second thread; that the three are closed again afterwards shows
// the rest.
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
            // One that is there for a moment only is being moved up, and tells
            // nothing.
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

// No SIGXFSZ, neither at once nor later, and every file as it was or as it
// should be.
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

// Signals every 50 us, to handlers without SA_RESTART; the operation has to
// come out as without.
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

int RunAndLook(const Operation &operation)
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
    std::fprintf(stderr, "%s\n", changes.c_str());
    return 19;
}

// One operation after the other, from the first one again where the budget
// allows more.
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

// Takes the place of the platform's, whose children share our memory: the
// sanitizer takes them for forks, and believes from the first one on that all
// other threads are gone.
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
        ForkBesideThreads(table.Add("Forks in a threaded host"), Budget(options, 0.3, 100, 10'000),
                          options.seed);
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
            RunAndLook);
    if (kIsSanitized)
        std::fprintf(stderr, "left out, for a sanitizer's frames are larger: small stacks\n");
    else
        TryEach(table.Add("Functions in a stack of 48 KiB"), Budget(options, 1, all, all),
                RunInSmallStack);
    return table.Print();
}
