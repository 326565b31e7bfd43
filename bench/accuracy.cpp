// accuracy: holds "zevobandwidth pipe" against what is promised of it. Starts real transfers under
// real rules, reads what comes out of them, and prints one table; each figure is taken several
// times and the worst run counts. The exit status is 1 when a promise is broken.
//
//   accuracy --tool PATH [--runs N] [--only alone|shared|join|change|cost]...
//
// Changes rules and policies of the machine it runs on: only for a sandbox with the users alice and
// bob in the group staff. Everything is measured at the reading end, by one process that throws the
// data away without copying it, so that it stays far from being the bottleneck.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "measure.hpp"

using namespace bench;

namespace {

constexpr std::int64_t kBin = 1'000;
constexpr double kKi = 1024;
constexpr double kMi = 1024 * 1024;

std::string toolPath;
int nowhere = -1;
Measurements measurements;

// ---- what came out ----

struct Arrival {
    std::int64_t at;
    std::uint64_t bytes;
};

using Arrivals = std::vector<Arrival>;

// Bytes by the millisecond from a moment on, summed up, for windows of any length.
class Flow {
public:
    Flow(std::int64_t from, std::int64_t to) : from_(from), sums_(Index(to) + 2) {}

    void Add(const Arrivals &arrivals)
    {
        for (const Arrival &arrival : arrivals) {
            const std::int64_t bin = (arrival.at - from_) / kBin;
            if (arrival.at >= from_ && static_cast<std::size_t>(bin) + 1 < sums_.size())
                sums_[static_cast<std::size_t>(bin) + 1] += static_cast<double>(arrival.bytes);
        }
    }

    void Finish()
    {
        for (std::size_t i = 1; i < sums_.size(); ++i)
            sums_[i] += sums_[i - 1];
    }

    // Bytes per second in the window of some length that begins at a moment.
    double Speed(std::int64_t at, std::int64_t length) const
    {
        const double bytes = sums_[Index(at + length)] - sums_[Index(at)];
        return bytes * kSecond / static_cast<double>(length);
    }

    double Most(std::int64_t from, std::int64_t to, std::int64_t length) const
    {
        double most = 0;
        for (std::int64_t at = from; at + length <= to; at += kBin)
            most = std::max(most, Speed(at, length));
        return most;
    }

    // The largest distance from a speed, as a part of it.
    double Deviation(std::int64_t from, std::int64_t to, std::int64_t length, double speed) const
    {
        double worst = 0;
        for (std::int64_t at = from; at + length <= to; at += kBin)
            worst = std::max(worst, std::abs(Speed(at, length) / speed - 1));
        return worst;
    }

    // How long after a moment the last window began that was further from the speed than allowed.
    double SettledAfter(std::int64_t from, std::int64_t to, std::int64_t length, double speed,
                        double allowed) const
    {
        std::int64_t last = from - kBin;
        for (std::int64_t at = from; at + length <= to; at += kBin)
            if (std::abs(Speed(at, length) / speed - 1) > allowed) last = at;
        return static_cast<double>(last + kBin - from) / kSecond;
    }

private:
    std::size_t Index(std::int64_t at) const
    {
        return static_cast<std::size_t>(std::max<std::int64_t>(0, at - from_) / kBin);
    }

    std::int64_t from_;
    std::vector<double> sums_;
};

// ---- programs under test ----

void Tool(std::vector<std::string> words)
{
    words.insert(words.begin(), toolPath);
    int status = 0;
    ::waitpid(Spawn(words, nowhere, nowhere), &status, 0);
    if (status != 0) Die("'" + words[1] + " " + words[2] + "' failed");
}

double ProcessorSeconds(const rusage &usage)
{
    const auto seconds = [](const timeval &value) {
        return static_cast<double>(value.tv_sec) + static_cast<double>(value.tv_usec) / kSecond;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

struct Stream {
    pid_t pid = -1;
    int fd = -1;
    std::string user;
    std::int64_t started = 0;
    std::int64_t ended = 0;
    double processorSeconds = 0;
    Arrivals arrivals;

    std::uint64_t Bytes(std::int64_t from, std::int64_t to) const
    {
        std::uint64_t sum = 0;
        for (const Arrival &arrival : arrivals)
            if (arrival.at >= from && arrival.at < to) sum += arrival.bytes;
        return sum;
    }
};

// Streams and the things that happen to them at their times.
class Field {
public:
    Field() = default;
    Field(const Field &) = delete;
    Field &operator=(const Field &) = delete;
    ~Field()
    {
        while (Stream *stream = AnyRunning())
            Stop(*stream);
    }

    Stream &Start(const std::vector<std::string> &words, const std::string &user, int input)
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

    Stream &StartPipe(const std::string &user)
    {
        const std::vector<std::string> words = {toolPath, "pipe",  "-q", "-u",    user,
                                                "-p",     "rsync", "-d", "upload"};
        return Start(words, user, zeros_);
    }

    void Stop(Stream &stream)
    {
        if (stream.pid > 0) ::kill(stream.pid, SIGTERM);
        End(stream);
    }

    void At(std::int64_t after, std::function<void()> action)
    {
        actions_.emplace(began_ + after, std::move(action));
    }

    void RunFor(std::int64_t length)
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

    // Until the first stream has ended.
    void RunToTheEnd()
    {
        while (streams_.front().pid > 0)
            ReadUntil(Now() + kSecond);
    }

    std::deque<Stream> &streams() { return streams_; }
    std::int64_t began() const { return began_; }

    Flow Sum(std::int64_t to) const
    {
        Flow flow(began_, to);
        for (const Stream &stream : streams_)
            flow.Add(stream.arrivals);
        flow.Finish();
        return flow;
    }

private:
    Stream *AnyRunning()
    {
        for (Stream &stream : streams_)
            if (stream.pid > 0) return &stream;
        return nullptr;
    }

    void End(Stream &stream)
    {
        ::close(stream.fd);
        stream.fd = -1;
        int status = 0;
        rusage usage = {};
        ::wait4(stream.pid, &status, 0, &usage);
        stream.pid = -1;
        stream.ended = Now();
        stream.processorSeconds = ProcessorSeconds(usage);
    }

    void ReadUntil(std::int64_t until)
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

    bool Read(Stream &stream)
    {
        const ssize_t got =
            ::splice(stream.fd, nullptr, nowhere, nullptr, 1 << 20, SPLICE_F_NONBLOCK);
        if (got > 0) stream.arrivals.push_back({Now(), static_cast<std::uint64_t>(got)});
        if (got != 0) return true;
        End(stream);
        return false;
    }

    const std::int64_t began_ = Now();
    const int zeros_ = ::open("/dev/zero", O_RDONLY | O_CLOEXEC);
    std::deque<Stream> streams_;
    std::multimap<std::int64_t, std::function<void()>> actions_;
};

double Percent(double part)
{
    return part * 100;
}

// ---- scenarios ----

struct Rate {
    const char *text; // as the tool takes it
    const char *name;
    double bps;
};

constexpr Rate kRates[] = {
    {"64K", "64 KiB/s", 64 * kKi},    {"1M", "1 MiB/s", kMi},
    {"10M", "10 MiB/s", 10 * kMi},    {"100M", "100 MiB/s", 100 * kMi},
    {"500M", "500 MiB/s", 500 * kMi},
};

void LimitStaff(const char *rate)
{
    Tool({"rule", "set", "-g", "staff", "-p", "rsync", "--up", rate});
    Tool({"policy", "set", "-p", "rsync", "--user-group", "group-only", "--inter-group", "max",
          "--occupy", "all"});
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

void Alone(const Rate &rate)
{
    LimitStaff(rate.text);
    Field field;
    const Stream &stream = field.StartPipe("alice");
    field.RunFor(10'500'000);
    const std::int64_t from = stream.started + 2 * kSecond;
    const std::int64_t to = stream.started + 10 * kSecond;
    const Flow flow = field.Sum(to + kSecond);
    const std::string name = std::string("alone, ") + rate.name;
    const double mean = MeanSpeed(stream.arrivals, from, to);
    const double bound = rate.bps > 400 * kMi ? 0.5 : 0.2;
    Report({name + ": mean of 8 s off by", Percent(std::abs(mean / rate.bps - 1)), bound});
    Report({name + ": highest second", Percent(flow.Most(from, to, kSecond) / rate.bps), 105});
    if (rate.bps < kMi) return;
    Report({name + ": highest 100 ms", Percent(flow.Most(from, to, kSecond / 10) / rate.bps), 130});
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

void Shared(const Rate &rate, int transfers)
{
    LimitStaff(rate.text);
    Field field;
    for (int i = 0; i < transfers; ++i)
        field.StartPipe(i % 2 == 0 ? "alice" : "bob");
    const std::int64_t from = Now() + 2 * kSecond;
    const std::int64_t to = from + 10 * kSecond;
    field.RunFor(to - field.began());
    const Flow flow = field.Sum(to);
    std::map<std::string, double> users;
    for (const Stream &stream : field.streams())
        users[stream.user] += static_cast<double>(stream.Bytes(from, to));
    const std::string name = std::to_string(transfers) + " sharing " + rate.name;
    Report({name + ": sum of any 5 s off by",
            Percent(flow.Deviation(from, to, 5 * kSecond, rate.bps)), transfers > 8 ? 3.0 : 2.0});
    const double half = (users["alice"] + users["bob"]) / 2;
    Report({name + ": a user's part off by", Percent(std::abs(users["alice"] / half - 1)), 5});
    Report({name + ": Jain's index", JainIndex(field.streams(), from, to), 0.99, "", true});
}

// The longest time that a stream which ran all the while brought nothing, around a moment.
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

void Join(const Rate &rate)
{
    constexpr std::int64_t kStep = 4 * kSecond;
    LimitStaff(rate.text);
    Field field;
    auto &streams = field.streams();
    const auto join = [&field](int count) {
        for (int i = 0; i < count; ++i)
            field.StartPipe(i % 2 == 0 ? "alice" : "bob");
    };
    const auto leave = [&field, &streams](std::size_t count) {
        for (std::size_t i = 0; i < count; ++i)
            for (Stream &stream : streams)
                if (stream.pid > 0) {
                    field.Stop(stream);
                    break;
                }
    };
    join(2);
    field.At(kStep, [&] { join(1); });
    field.At(2 * kStep, [&] { join(5); });
    field.At(3 * kStep, [&] { leave(4); });
    field.At(4 * kStep, [&] { leave(3); });
    field.RunFor(5 * kStep);
    const Flow flow = field.Sum(field.began() + 5 * kStep);
    const std::int64_t from = field.began() + 2 * kSecond;
    const std::int64_t end = field.began() + 5 * kStep;
    const std::string name = std::string("joining, ") + rate.name;
    double settled = 0;
    double pause = 0;
    for (int i = 1; i < 5; ++i) {
        const std::int64_t at = field.began() + i * kStep;
        settled = std::max(settled, flow.SettledAfter(at, at + kStep, kSecond / 2, rate.bps, 0.1));
        if (i < 3) pause = std::max(pause, LongestPause(streams, at));
    }
    Report({name + ": sum of any 5 s off by",
            Percent(flow.Deviation(from, end, 5 * kSecond, rate.bps)), 4});
    Report({name + ": settled after", settled, 1.5, "s"});
    Report({name + ": highest second", Percent(flow.Most(from, end, kSecond) / rate.bps), 110});
    Report({name + ": longest standstill", pause, 0.5, "s"});
}

void Change(int transfers)
{
    struct {
        const char *text;
        double bps;
    } constexpr kSteps[] = {
        {"1M", kMi}, {"4M", 4 * kMi}, {"1M", kMi}, {"512K", kMi / 2}, {"1M", kMi}};
    constexpr std::int64_t kStep = 3 * kSecond;
    constexpr std::int64_t kWindow = kSecond / 2;
    LimitStaff(kSteps[0].text);
    Field field;
    for (int i = 0; i < transfers; ++i)
        field.StartPipe(i % 2 == 0 ? "alice" : "bob");
    std::vector<std::int64_t> changes = {field.began()};
    for (int i = 1; i < 5; ++i)
        field.At(i * kStep, [&, i] {
            changes.push_back(Now());
            Tool({"rule", "set", "-g", "staff", "-p", "rsync", "--up", kSteps[i].text});
        });
    const std::int64_t end = field.began() + 5 * kStep;
    field.RunFor(5 * kStep);
    const Flow flow = field.Sum(end);
    double obeyed = 0;
    double highest = 0;
    for (std::size_t i = 1; i < 5; ++i) {
        const std::int64_t until = i + 1 < changes.size() ? changes[i + 1] : end;
        obeyed =
            std::max(obeyed, flow.SettledAfter(changes[i], until, kWindow, kSteps[i].bps, 0.1));
        const std::int64_t after = changes[i] + kSecond / 2;
        highest = std::max(highest, flow.Most(after, until, kSecond) / kSteps[i].bps);
    }
    const std::string name = "rule changed under " + std::to_string(transfers);
    Report({name + ": obeyed after", obeyed, 0.5, "s"});
    Report({name + ": highest second after", Percent(highest), 105});
}

// ---- what it costs ----

constexpr std::uint64_t kGiB = std::uint64_t{1} << 30;
constexpr std::uint64_t kFreeGiBs = 4;

// Pages that a pipe can hand on without copying them.
int Feeder(pid_t *pPid, std::uint64_t bytes)
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) < 0) Die("no more pipes");
    *pPid = ::fork();
    if (*pPid < 0) Die("fork failed");
    if (*pPid != 0) {
        ::close(ends[1]);
        return ends[0];
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

double CostOf(const std::vector<std::string> &words, std::uint64_t bytes)
{
    pid_t feeder = -1;
    const int input = Feeder(&feeder, bytes);
    Field field;
    const Stream &stream = field.Start(words, "", input);
    ::close(input);
    field.RunToTheEnd();
    ::waitpid(feeder, nullptr, 0);
    if (stream.Bytes(0, INT64_MAX) != bytes) Die(words[0] + " did not bring all bytes");
    return stream.processorSeconds;
}

const std::vector<std::string> PipeAs(const std::string &user)
{
    return {toolPath, "pipe", "-q", "-u", user, "-p", "rsync", "-d", "upload"};
}

void CostFree()
{
    LimitStaff("unlimited");
    const double pipe = CostOf(PipeAs("alice"), kFreeGiBs * kGiB);
    const double pv = CostOf({"pv", "-q"}, kFreeGiBs * kGiB);
    std::fprintf(stderr, "  %.4f s by pipe, %.4f s by pv\n", pipe, pv);
    Report({"no limit: processor time over that of pv", pipe / pv, 1.05, ""});
}

void CostLimited(const Rate &rate)
{
    constexpr double kSeconds = 8;
    LimitStaff(rate.text);
    const auto bytes = static_cast<std::uint64_t>(rate.bps * kSeconds);
    const double pipe = CostOf(PipeAs("alice"), bytes) / kSeconds;
    const std::string limit = std::to_string(static_cast<std::uint64_t>(rate.bps));
    const double pv = CostOf({"pv", "-q", "-L", limit}, bytes) / kSeconds;
    std::fprintf(stderr, "  %.4f core by pipe, %.4f core by pv -L\n", pipe, pv);
    Report({std::string(rate.name) + ": cores more than pv -L", pipe - pv, 0.01, ""});
}

// ---- command line ----

struct Options {
    int runs = 3;
    std::vector<std::string> only;

    bool Wants(const std::string &what) const
    {
        return only.empty() || std::find(only.begin(), only.end(), what) != only.end();
    }
};

void Run(const Options &options)
{
    if (options.Wants("alone"))
        for (const Rate &rate : kRates)
            measurements.Take(Alone, rate);
    if (options.Wants("shared"))
        for (const Rate &rate : {kRates[2], kRates[3]})
            for (const int transfers : {2, 8, 32})
                measurements.Take(Shared, rate, transfers);
    if (options.Wants("join"))
        for (const Rate &rate : {kRates[2], kRates[3]})
            measurements.Take(Join, rate);
    if (options.Wants("change"))
        for (const int transfers : {1, 4})
            measurements.Take(Change, transfers);
    if (options.Wants("cost")) {
        measurements.Take(CostFree);
        for (const Rate &rate : {kRates[1], kRates[2], kRates[3]})
            measurements.Take(CostLimited, rate);
    }
}

Options Parse(int argc, char **argv)
{
    Options options;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string name = argv[i];
        if (name == "--tool")
            toolPath = argv[i + 1];
        else if (name == "--runs")
            options.runs = std::max(1, std::atoi(argv[i + 1]));
        else if (name == "--only")
            options.only.push_back(argv[i + 1]);
        else
            Die("unknown option " + name);
    }
    if (argc % 2 == 0 || toolPath.empty())
        Die("--tool PATH [--runs N] [--only alone|shared|join|change|cost]...");
    return options;
}

} // namespace

int main(int argc, char **argv)
{
    const Options options = Parse(argc, argv);
    nowhere = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    for (int run = 1; run <= options.runs; ++run) {
        std::fprintf(stderr, "run %d of %d\n", run, options.runs);
        Run(options);
    }
    return measurements.Print(options.runs) ? 0 : 1;
}
