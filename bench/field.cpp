#include "field.hpp"

#include <algorithm>
#include <cmath>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace bench {

namespace {

constexpr std::int64_t kBin = 1'000;

int MustOpen(const char *path, int flags)
{
    const int fd = ::open(path, flags | O_CLOEXEC);
    if (fd < 0) Die(std::string("cannot open ") + path);
    return fd;
}

double ProcessorSeconds(const rusage &usage)
{
    const auto seconds = [](const timeval &value) {
        return static_cast<double>(value.tv_sec) + static_cast<double>(value.tv_usec) / kSecond;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// The first block to begin at or after a moment. Reads of one block follow each other closely;
// where the flow never pauses any read will do.
std::size_t BlockStart(const Arrivals &arrivals, std::int64_t at)
{
    constexpr std::int64_t kPause = 4'000;
    std::size_t first = arrivals.size();
    for (std::size_t i = 1; i < arrivals.size(); ++i) {
        if (arrivals[i].at < at) continue;
        if (first == arrivals.size()) first = i;
        if (arrivals[i].at > at + kSecond / 4) break;
        if (arrivals[i].at - arrivals[i - 1].at >= kPause) return i;
    }
    return first;
}

} // namespace

int Nowhere()
{
    static const int fd = MustOpen("/dev/null", O_RDWR);
    return fd;
}

int Zeros()
{
    static const int fd = MustOpen("/dev/zero", O_RDONLY);
    return fd;
}

// ---- what came out ----

Flow::Flow(std::int64_t from, std::int64_t to) : from_(from), sums_(Index(to) + 2) {}

std::size_t Flow::Index(std::int64_t at) const
{
    return static_cast<std::size_t>(std::max<std::int64_t>(0, at - from_) / kBin);
}

void Flow::Add(const Arrivals &arrivals)
{
    for (const Arrival &arrival : arrivals) {
        const std::int64_t bin = (arrival.at - from_) / kBin;
        if (arrival.at >= from_ && static_cast<std::size_t>(bin) + 1 < sums_.size())
            sums_[static_cast<std::size_t>(bin) + 1] += static_cast<double>(arrival.bytes);
    }
}

void Flow::Finish()
{
    for (std::size_t i = 1; i < sums_.size(); ++i)
        sums_[i] += sums_[i - 1];
}

double Flow::Speed(std::int64_t at, std::int64_t length) const
{
    const double bytes = sums_[Index(at + length)] - sums_[Index(at)];
    return bytes * kSecond / static_cast<double>(length);
}

double Flow::Most(std::int64_t from, std::int64_t to, std::int64_t length) const
{
    double most = 0;
    for (std::int64_t at = from; at + length <= to; at += kBin)
        most = std::max(most, Speed(at, length));
    return most;
}

double Flow::Deviation(std::int64_t from, std::int64_t to, std::int64_t length, double speed) const
{
    double worst = 0;
    for (std::int64_t at = from; at + length <= to; at += kBin)
        worst = std::max(worst, std::abs(Speed(at, length) / speed - 1));
    return worst;
}

double Flow::SettledAfter(std::int64_t from, std::int64_t to, std::int64_t length, double speed,
                          double allowed) const
{
    std::int64_t last = from - kBin;
    for (std::int64_t at = from; at + length <= to; at += kBin)
        if (std::abs(Speed(at, length) / speed - 1) > allowed) last = at;
    return static_cast<double>(last + kBin - from) / kSecond;
}

double MeanSpeed(const Arrivals &arrivals, std::int64_t from, std::int64_t to)
{
    const std::size_t first = BlockStart(arrivals, from);
    const std::size_t last = BlockStart(arrivals, to);
    if (last >= arrivals.size() || first >= last) return 0;
    double bytes = 0;
    for (std::size_t i = first; i < last; ++i)
        bytes += static_cast<double>(arrivals[i].bytes);
    return bytes * kSecond / static_cast<double>(arrivals[last].at - arrivals[first].at);
}

std::uint64_t Stream::Bytes(std::int64_t from, std::int64_t to) const
{
    std::uint64_t sum = 0;
    for (const Arrival &arrival : arrivals)
        if (arrival.at >= from && arrival.at < to) sum += arrival.bytes;
    return sum;
}

double JainIndex(const std::deque<Stream> &streams, std::int64_t from, std::int64_t to)
{
    double sum = 0;
    double squares = 0;
    for (const Stream &stream : streams) {
        const auto bytes = static_cast<double>(stream.Bytes(from, to));
        sum += bytes;
        squares += bytes * bytes;
    }
    return squares == 0 ? 0 : sum * sum / (static_cast<double>(streams.size()) * squares);
}

double LongestPause(const std::deque<Stream> &streams, std::int64_t at)
{
    const std::int64_t until = at + 1'500'000;
    std::int64_t longest = 0;
    for (const Stream &stream : streams) {
        if (stream.started > at - kSecond / 2) continue;
        if (stream.ended != 0 && stream.ended < until) continue;
        std::int64_t last = at;
        for (const Arrival &arrival : stream.arrivals) {
            if (arrival.at <= at || arrival.at > until) continue;
            longest = std::max(longest, arrival.at - last);
            last = arrival.at;
        }
        longest = std::max(longest, until - last);
    }
    return static_cast<double>(longest) / kSecond;
}

// ---- programs under test ----

// Whole pages, which a pipe can hand on without copying them.
Feed::Feed(std::uint64_t bytes)
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) < 0) Die("no more pipes");
    pid_ = ::fork();
    if (pid_ < 0) Die("fork failed");
    if (pid_ != 0) {
        ::close(ends[1]);
        fd_ = ends[0];
        return;
    }
    ::close(ends[0]);
    std::vector<char> buffer(1 << 16, 'x');
    while (bytes > 0) {
        const ssize_t put =
            ::write(ends[1], buffer.data(), std::min<std::uint64_t>(bytes, buffer.size()));
        if (put <= 0) break;
        bytes -= static_cast<std::uint64_t>(put);
    }
    ::_exit(0);
}

void Feed::LetGo()
{
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

Feed::~Feed()
{
    LetGo();
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
}

Field::~Field()
{
    StopOldest(streams_.size());
}

Stream &Field::Start(const std::vector<std::string> &words, const std::string &user, int input)
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) < 0) Die("no more pipes");
    Stream &stream = streams_.emplace_back();
    stream.user = user;
    stream.started = Now();
    stream.pid = Spawn(words, input, ends[1]);
    ::close(ends[1]);
    stream.fd = ends[0];
    ::fcntl(stream.fd, F_SETFL, O_NONBLOCK);
    return stream;
}

void Field::Stop(Stream &stream)
{
    if (stream.pid > 0) ::kill(stream.pid, SIGTERM);
    End(stream);
}

void Field::StopOldest(std::size_t count)
{
    std::vector<Stream *> leaving;
    for (Stream &stream : streams_)
        if (stream.pid > 0 && leaving.size() < count) leaving.push_back(&stream);
    for (const Stream *const stream : leaving)
        ::kill(stream->pid, SIGTERM);
    for (Stream *const stream : leaving)
        End(*stream);
}

void Field::At(std::int64_t after, std::function<void()> action)
{
    actions_.emplace(began_ + after, std::move(action));
}

void Field::RunFor(std::int64_t length)
{
    const std::int64_t end = began_ + length;
    while (Now() < end) {
        std::int64_t next = end;
        if (!actions_.empty()) next = std::min(next, actions_.begin()->first);
        ReadUntil(next);
        while (!actions_.empty() && actions_.begin()->first <= Now()) {
            const auto action = actions_.begin()->second;
            actions_.erase(actions_.begin());
            action();
        }
    }
}

void Field::RunToTheEnd()
{
    while (streams_.front().pid > 0)
        ReadUntil(Now() + kSecond);
}

Flow Field::Sum(std::int64_t to) const
{
    Flow flow(began_, to);
    for (const Stream &stream : streams_)
        flow.Add(stream.arrivals);
    flow.Finish();
    return flow;
}

void Field::End(Stream &stream)
{
    ::close(stream.fd);
    stream.fd = -1;
    rusage usage = {};
    ::wait4(stream.pid, &stream.status, 0, &usage);
    stream.pid = -1;
    stream.ended = Now();
    stream.processorSeconds = ProcessorSeconds(usage);
}

void Field::ReadUntil(std::int64_t until)
{
    std::vector<pollfd> fds;
    std::vector<Stream *> owners;
    for (Stream &stream : streams_) {
        if (stream.fd < 0) continue;
        fds.push_back({.fd = stream.fd, .events = POLLIN, .revents = 0});
        owners.push_back(&stream);
    }
    for (;;) {
        const std::int64_t left = until - Now();
        if (left <= 0) return;
        const timespec timeout = {left / kSecond, left % kSecond * 1'000};
        ::ppoll(fds.data(), fds.size(), &timeout, nullptr);
        for (std::size_t i = 0; i < fds.size(); ++i)
            if (fds[i].revents != 0 && !Read(*owners[i])) return;
    }
}

bool Field::Read(Stream &stream)
{
    const ssize_t got =
        ::splice(stream.fd, nullptr, Nowhere(), nullptr, 1 << 20, SPLICE_F_NONBLOCK);
    if (got > 0) stream.arrivals.push_back({Now(), static_cast<std::uint64_t>(got)});
    if (got != 0) return true;
    End(stream);
    return false;
}

} // namespace bench
