// Sixteen threads call every exported function at once, for a minute or as long as there is time. The
// thread sanitizer watches where the program was built with it, as scripts/torture does; without it
// only crashes and deadlocks show.
#include <atomic>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include "operations.hpp"
#include "row.hpp"

using namespace torture;

namespace {

constexpr int kThreads = 16;
constexpr double kShortSeconds = 3;
constexpr double kFullSeconds = 60;

double SecondsOf(const Options &options)
{
    switch (options.amount) {
    case Amount::kShort:
        return kShortSeconds;
    case Amount::kFull:
        return kFullSeconds;
    default:
        return options.seconds;
    }
}

// One at a time in a process: those belong to the first thread.
void CallUntil(std::int64_t endUs, Random random, bool isFirst, Row &row)
{
    while (NowUs() < endUs) {
        const Operation &operation = kOperations[random.Below(kOperations.size())];
        if ((operation.waivers & kAlone) != 0 && !isFirst) continue;
        Scratch scratch(::getpid(), std::time(nullptr));
        (void)operation.run(scratch);
        row.Try();
    }
}

void CallAtOnce(const Options &options, Row &row)
{
    const double seconds = SecondsOf(options);
    ::alarm(static_cast<unsigned>(seconds) * 2 + 60); // a deadlock ends by this signal
    const std::int64_t endUs = NowUs() + static_cast<std::int64_t>(seconds * 1e6);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i)
        threads.emplace_back([&, i] {
            CallUntil(endUs, Random(options.seed, static_cast<std::uint64_t>(i)), i == 0, row);
        });
    for (std::thread &thread : threads)
        thread.join();
}

std::atomic<int> g_reports{0};

} // namespace

#ifdef __SANITIZE_THREAD__
constexpr char kWatched[] = " under the thread sanitizer";

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
constexpr char kWatched[] = "";
#endif

int main(int argc, char **argv)
{
    const Options options = ParseOptions(argc, argv);
    ::umask(022);
    StageScene(std::time(nullptr), ::getpid());
    Table table(options.seed);
    Row &row = table.Add("Calls of 16 threads at once" + std::string(kWatched));
    CallAtOnce(options, row);
    if (g_reports != 0) row.Violate("the sanitizer has reported %d races", g_reports.load());
    return table.Print();
}
