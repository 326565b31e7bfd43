// What the torture programs share: their options, a seeded random, how long to go on, and the rows
// of the table that they print.
//
//   torture_NAME [--seconds N | --full | --short] [--seed N] [--disk DIR]
//
//   --seconds N  as much as fits into that time (10 unless something else is said)
//   --full       the full counts, however long they take
//   --short      small fixed counts, for the ordinary tests
//   --seed N     repeats what a run with that seed has tried, as far as processes can repeat
//   --disk DIR   a place on the machine's own disk; what needs one is left out without it
//
// The seed and every violation go to standard error, one line "what was tried<TAB>how many<TAB>how
// many violated" for each row to standard output. The exit status is 1 when anything was violated,
// 2 when the program could not do its work.
#ifndef ZEVOBW_TORTURE_ROW_HPP
#define ZEVOBW_TORTURE_ROW_HPP

#include <cstdint>
#include <deque>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include <sys/types.h>

namespace torture {

enum class Amount { kShort, kTimed, kFull };

struct Options {
    Amount amount = Amount::kTimed;
    double seconds = 10;
    std::uint64_t seed = 0;
    std::string disk;
};

// Reads the options, says the seed, and insists on the sandbox, since fixed directories are wiped.
Options ParseOptions(int argc, char **argv);

// Ends the program with exit status 2.
[[noreturn]] __attribute__((format(printf, 1, 2))) void Die(const char *szFormat, ...);

std::int64_t NowUs(); // of the monotonic clock
void SleepUs(std::int64_t us);

// ---- random ----

class Random {
public:
    // The stream tells workers and rows of one seed from each other.
    Random(std::uint64_t seed, std::uint64_t stream);
    std::uint64_t Below(std::uint64_t bound); // 0 to bound - 1
    std::int64_t UsBelow(std::int64_t boundUs)
    {
        return static_cast<std::int64_t>(Below(static_cast<std::uint64_t>(boundUs)));
    }
    std::string Letters(std::size_t count);

private:
    std::mt19937_64 engine_;
};

// ---- rows ----

// Counts what was tried and what was violated. Its counters are shared memory: processes forked after
// the row was made count in it, too.
class Row {
public:
    Row(std::string tried, std::uint64_t seed);
    Row(const Row &) = delete;
    Row &operator=(const Row &) = delete;

    void Try(std::uint64_t count = 1);
    // Says on standard error what was found; of very many, the first ones.
    __attribute__((format(printf, 2, 3))) void Violate(const char *szFormat, ...);
    // Adds what was measured to the row's name.
    void Add(const std::string &text) { tried_ += text; }

    std::uint64_t tried() const;
    std::uint64_t violated() const;
    const std::string &name() const { return tried_; }

private:
    struct Counters;

    std::string tried_;
    std::uint64_t seed_;
    Counters *pCounters_;
};

// The rows of a program.
class Table {
public:
    explicit Table(std::uint64_t seed) : seed_(seed) {}
    Row &Add(const std::string &tried);
    int Print() const; // the exit status of the program

private:
    std::uint64_t seed_;
    std::deque<Row> rows_;
};

// ---- how long ----

// How often a row is tried: its short count, its full count, or what fits into its share of the
// program's time, but no more than the full count. Begins when it is made.
class Budget {
public:
    Budget(const Options &options, double share, std::uint64_t shortCount, std::uint64_t fullCount);
    bool Allows(std::uint64_t done) const;
    std::uint64_t most() const { return most_; }

private:
    std::uint64_t most_;
    std::int64_t endUs_;
};

// ---- processes and places ----

// A forked process that runs the body and ends with its result; 2 when an exception ends it.
pid_t Fork(const std::function<int()> &body);
// Waits for it: its exit status, or 128 + the signal that ended it.
int WaitFor(pid_t pid);
// Ends it, and waits for it likewise.
int Kill(pid_t pid);
// Runs the body in so many processes at once and waits for them; Die when one does not end with 0.
void RunWorkers(int count, const std::function<void(int)> &body);

// Processes that are killed when the object goes.
class Children {
public:
    Children() = default;
    ~Children();
    Children(const Children &) = delete;
    Children &operator=(const Children &) = delete;
    void Add(pid_t pid) { pids_.push_back(pid); }

private:
    std::vector<pid_t> pids_;
};

// Shared memory, zero-filled, as long as the program lives.
void *Share(std::size_t cb);
template <class T> T *Share(std::size_t count = 1)
{
    return static_cast<T *>(Share(count * sizeof(T)));
}

// A fresh directory below another one (that of --disk, or /tmp), gone with the object in the process
// that made it.
class Directory {
public:
    explicit Directory(const std::string &parent);
    ~Directory();
    Directory(const Directory &) = delete;
    Directory &operator=(const Directory &) = delete;
    const std::string &path() const { return path_; }

private:
    std::string path_;
    pid_t owner_;
};

// From here on this process, and whoever it forks, sees that directory in place of a fixed one, which
// must exist. Other processes do not.
void Cover(const std::string &fixed, const std::string &directory);

std::string ReadFile(const std::string &path); // "" when it is not there
void WriteFile(const std::string &path, const std::string &text);
std::vector<std::string> Files(const std::string &directory); // names, sorted

} // namespace torture

#endif // ZEVOBW_TORTURE_ROW_HPP
