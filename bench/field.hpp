// What comes out of programs that bring bytes: many are read by one process that notes when each
// piece arrived and throws the data away without copying it, so that it stays far from being the
// bottleneck; and the figures that are made of it.
#ifndef ZEVOBW_BENCH_FIELD_HPP
#define ZEVOBW_BENCH_FIELD_HPP

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <sys/types.h>

#include "measure.hpp"

namespace bench {

constexpr double kKi = 1024;
constexpr double kMi = 1024 * 1024;
constexpr double kGi = 1024 * 1024 * 1024;

int Nowhere(); // /dev/null, for reading and writing
int Zeros();   // /dev/zero, for programs that read what costs nothing to make

// ---- what came out ----

struct Arrival {
    std::int64_t at;
    std::uint64_t bytes;
};

using Arrivals = std::vector<Arrival>;

// Bytes by the millisecond from a moment on, summed up, for windows of any length.
class Flow {
public:
    Flow(std::int64_t from, std::int64_t to);

    void Add(const Arrivals &arrivals);
    // Once all are added, before anything is asked.
    void Finish();

    // Bytes per second in the window of some length that begins at a moment.
    double Speed(std::int64_t at, std::int64_t length) const;
    // That of the fastest window.
    double Most(std::int64_t from, std::int64_t to, std::int64_t length) const;
    // The largest distance from a speed, as a part of it.
    double Deviation(std::int64_t from, std::int64_t to, std::int64_t length, double speed) const;
    // How long after a moment the last window began that was further from the speed than allowed.
    double SettledAfter(std::int64_t from, std::int64_t to, std::int64_t length, double speed,
                        double allowed) const;

private:
    std::size_t Index(std::int64_t at) const;

    std::int64_t from_;
    std::vector<double> sums_;
};

// The mean from the first block at or after one moment to the first at or after another; 0 where
// there are no such blocks.
double MeanSpeed(const Arrivals &arrivals, std::int64_t from, std::int64_t to);

// ---- programs under test ----

struct Stream {
    pid_t pid = -1; // -1 once it has ended
    int fd = -1;
    int status = 0; // as wait tells it, once it has ended
    std::string user;
    std::int64_t started = 0;
    std::int64_t ended = 0;
    double processorSeconds = 0;
    Arrivals arrivals;

    std::uint64_t Bytes(std::int64_t from, std::int64_t to) const;
};

// 1 where all brought the same between two moments, 1/n where one of n brought everything.
double JainIndex(const std::deque<Stream> &streams, std::int64_t from, std::int64_t to);

// The longest time, in seconds, that a stream which ran all the while brought nothing, from a moment
// until 1.5 s after it.
double LongestPause(const std::deque<Stream> &streams, std::int64_t at);

// A process that writes so many bytes into a pipe, as fast as they are taken.
class Feed {
public:
    explicit Feed(std::uint64_t bytes);
    ~Feed();
    Feed(const Feed &) = delete;
    Feed &operator=(const Feed &) = delete;

    // The end to read from; to be let go of once the reader was started.
    int fd() const { return fd_; }
    void LetGo();

private:
    pid_t pid_ = -1;
    int fd_ = -1;
};

// Streams and the things that happen to them at their times.
class Field {
public:
    Field() = default;
    Field(const Field &) = delete;
    Field &operator=(const Field &) = delete;
    ~Field();

    // A program whose standard output is read.
    Stream &Start(const std::vector<std::string> &words, const std::string &user, int input);
    void Stop(Stream &stream);
    // For very many: reads what has come only so often, in microseconds.
    void ReadEvery(std::int64_t length) { rest_ = length; }
    // The longest running ones, all at once.
    void StopOldest(std::size_t count);

    // Times count from the field's own beginning.
    void At(std::int64_t after, std::function<void()> action);
    void RunFor(std::int64_t length);
    // Until the first stream has ended.
    void RunToTheEnd();

    std::deque<Stream> &streams() { return streams_; }
    const std::deque<Stream> &streams() const { return streams_; }
    std::int64_t began() const { return began_; }

    // All that all brought until a moment.
    Flow Sum(std::int64_t to) const;

private:
    static void End(Stream &stream);
    void ReadUntil(std::int64_t until);
    static bool Read(Stream &stream);

    const std::int64_t began_ = Now();
    std::int64_t rest_ = 0;
    std::deque<Stream> streams_;
    std::multimap<std::int64_t, std::function<void()>> actions_;
};

} // namespace bench

#endif // ZEVOBW_BENCH_FIELD_HPP
