#include "row.hpp"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace torture {

namespace {

constexpr std::uint64_t kMostExplained = 20;
constexpr std::int64_t kUsPerSecond = 1'000'000;

// One line in one write, so that those of several processes do not mix.
[[gnu::format(printf, 1, 0)]] void Say(const char *szFormat, std::va_list arguments,
                                       const std::string &before)
{
    char text[2048];
    std::vsnprintf(text, sizeof(text), szFormat, arguments);
    std::string line = before;
    for (const char *p = text; *p != '\0'; ++p)
        line += *p == '\n' ? std::string("\\n") : std::string(1, *p);
    line += '\n';
    if (::write(STDERR_FILENO, line.data(), line.size()) < 0) return; // nobody listens
}

[[noreturn]] void Usage()
{
    Die("[--seconds N | --full | --short] [--seed N] [--disk DIR]");
}

} // namespace

void Die(const char *szFormat, ...)
{
    std::va_list arguments;
    va_start(arguments, szFormat);
    Say(szFormat, arguments, std::string(program_invocation_short_name) + ": ");
    va_end(arguments);
    std::exit(2);
}

Options ParseOptions(int argc, char **argv)
{
    Options options;
    options.seed = std::random_device()();
    for (int i = 1; i < argc; ++i) {
        const std::string name = argv[i];
        if (name == "--full") {
            options.amount = Amount::kFull;
        } else if (name == "--short") {
            options.amount = Amount::kShort;
        } else {
            const char *const szValue = argv[++i];
            if (szValue == nullptr) Usage();
            if (name == "--seconds")
                options.seconds = std::strtod(szValue, nullptr);
            else if (name == "--seed")
                options.seed = std::strtoull(szValue, nullptr, 10);
            else if (name == "--disk")
                options.disk = szValue;
            else
                Usage();
        }
    }
    if (options.seconds <= 0) Usage();
    if (std::getenv("ZEVOBW_SANDBOX") == nullptr)
        Die("wipes fixed directories: run it through scripts/torture or tests/support/sandbox");
    std::fprintf(stderr, "%s: seed %llu\n", program_invocation_short_name,
                 static_cast<unsigned long long>(options.seed));
    return options;
}

std::int64_t NowUs()
{
    timespec now = {};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * kUsPerSecond + now.tv_nsec / 1'000;
}

void SleepUs(std::int64_t us)
{
    if (us <= 0) return;
    const timespec length = {us / kUsPerSecond, us % kUsPerSecond * 1'000};
    ::nanosleep(&length, nullptr);
}

// ---- random ----

Random::Random(std::uint64_t seed, std::uint64_t stream)
{
    std::seed_seq mixed{seed, seed >> 32, stream};
    engine_.seed(mixed);
}

std::uint64_t Random::Below(std::uint64_t bound)
{
    return bound == 0 ? 0 : engine_() % bound;
}

std::string Random::Letters(std::size_t count)
{
    std::string text(count, ' ');
    for (char &letter : text)
        letter = static_cast<char>('a' + Below(26));
    return text;
}

// ---- rows ----

struct Row::Counters {
    std::atomic<std::uint64_t> tried;
    std::atomic<std::uint64_t> violated;
};

Row::Row(std::string tried, std::uint64_t seed)
    : tried_(std::move(tried)), seed_(seed), pCounters_(Share<Counters>())
{
}

void Row::Try(std::uint64_t count)
{
    pCounters_->tried += count;
}

void Row::Violate(const char *szFormat, ...)
{
    const std::uint64_t before = pCounters_->violated++;
    if (before > kMostExplained) return;
    std::va_list arguments;
    va_start(arguments, szFormat);
    Say(before < kMostExplained ? szFormat : "and so on", arguments,
        "VIOLATED (seed " + std::to_string(seed_) + ") " + tried_ + ": ");
    va_end(arguments);
}

std::uint64_t Row::tried() const
{
    return pCounters_->tried;
}

std::uint64_t Row::violated() const
{
    return pCounters_->violated;
}

Row &Table::Add(const std::string &tried)
{
    return rows_.emplace_back(tried, seed_);
}

int Table::Print() const
{
    bool anyViolated = false;
    for (const Row &row : rows_) {
        std::printf("%s\t%llu\t%llu\n", row.name().c_str(),
                    static_cast<unsigned long long>(row.tried()),
                    static_cast<unsigned long long>(row.violated()));
        anyViolated |= row.violated() != 0;
        // A check that was never made has not held.
        if (row.tried() == 0) Die("nothing was tried of: %s", row.name().c_str());
    }
    return anyViolated ? 1 : 0;
}

// ---- how long ----

Budget::Budget(const Options &options, double share, std::uint64_t shortCount,
               std::uint64_t fullCount)
    : most_(options.amount == Amount::kShort ? shortCount : fullCount),
      endUs_(options.amount == Amount::kTimed
                 ? NowUs() + static_cast<std::int64_t>(options.seconds * share * kUsPerSecond)
                 : INT64_MAX)
{
}

bool Budget::Allows(std::uint64_t done) const
{
    return done < most_ && (done == 0 || NowUs() < endUs_);
}

// ---- processes and places ----

pid_t Fork(const std::function<int()> &body)
{
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid < 0) Die("cannot fork: %s", std::strerror(errno));
    if (pid != 0) return pid;
    int status = 2;
    try {
        status = body();
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "%s\n", failure.what());
    }
    std::fflush(nullptr);
    ::_exit(status);
}

int WaitFor(pid_t pid)
{
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0)
        if (errno != EINTR) Die("cannot wait for %d: %s", pid, std::strerror(errno));
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int Kill(pid_t pid)
{
    ::kill(pid, SIGKILL);
    return WaitFor(pid);
}

Children::~Children()
{
    for (const pid_t pid : pids_)
        (void)Kill(pid);
}

void RunWorkers(int count, const std::function<void(int)> &body)
{
    std::vector<pid_t> pids;
    for (int i = 0; i < count; ++i)
        pids.push_back(Fork([&, i] {
            body(i);
            return 0;
        }));
    for (const pid_t pid : pids)
        if (const int status = WaitFor(pid); status != 0) Die("a worker ended with %d", status);
}

void *Share(std::size_t cb)
{
    void *const p = ::mmap(nullptr, cb, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) Die("cannot share memory: %s", std::strerror(errno));
    return p;
}

Directory::Directory(const std::string &parent)
    : path_(parent + "/torture-XXXXXX"), owner_(getpid())
{
    if (::mkdtemp(path_.data()) == nullptr)
        Die("cannot make a directory in %s: %s", parent.c_str(), std::strerror(errno));
}

Directory::~Directory()
{
    std::error_code ignored; // what stays lies below the directory of --disk, or goes with /tmp
    if (owner_ == getpid()) fs::remove_all(path_, ignored);
}

void Cover(const std::string &fixed, const std::string &directory)
{
    if (::unshare(CLONE_NEWNS) < 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) < 0 ||
        ::mount(directory.c_str(), fixed.c_str(), nullptr, MS_BIND, nullptr) < 0)
        Die("cannot put %s in place of %s: %s", directory.c_str(), fixed.c_str(),
            std::strerror(errno));
}

std::string ReadFile(const std::string &path)
{
    const std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    if (in) text << in.rdbuf();
    return text.str();
}

void WriteFile(const std::string &path, const std::string &text)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text << std::flush;
    if (!out) Die("cannot write %s", path.c_str());
}

std::vector<std::string> Files(const std::string &directory)
{
    std::vector<std::string> names;
    for (const auto &entry : fs::directory_iterator(directory))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

} // namespace torture
