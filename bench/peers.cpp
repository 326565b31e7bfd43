// peers: holds "zevobandwidth pipe" beside general-purpose tools that do the same work on the same
// machine in the same run, and prints one table. The exit status is 1 when ours is worse where it is
// promised to be the better one, or could not be measured.
//
//   peers --tool PATH [--short] [--only alone|shared]... [--json FILE]
//
// Everything is measured at the reading end. "mean off" is how far the mean is from the limit, once a
// transfer has run for two seconds; "100 ms" and "1 s" are the busiest window of that length from the
// first byte on, in times of the limit. Of processes that share, half join the other half: "settled" is when from then
// on the sum of any half second keeps within 10 % of where it comes to rest, and what the joining
// ones bring within 20 % of their part of it; "still" is the longest that one of the others brought
// nothing. Then those that came first leave, and the busiest windows after that are shown.
//
// "s/GiB" is the processor time of those who hold the limit: of the tools themselves, of the sender
// of rsync, and of a server with its sessions; below HTB of the sending server, less what the kernel
// does for it on nobody's account.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <sys/wait.h>

#include "field.hpp"
#include "measure.hpp"
#include "peer_setups.hpp"
#include "peer_table.hpp"

using namespace bench;

namespace {

constexpr int kMaxAttempts = 2;

constexpr Rate kRates[] = {
    {"64K", "64 KiB/s", 64 * kKi},
    {"1M", "1 MiB/s", kMi},
    {"100M", "100 MiB/s", 100 * kMi},
    {"1G", "1 GiB/s", kGi},
};
constexpr Rate kSharedRate = kRates[2];

// How long each part of a measurement takes.
struct Lengths {
    std::int64_t start;  // until all is as it stays
    std::int64_t window; // what is measured
    std::int64_t tail;   // for the block that ends it
    std::int64_t change; // after a join or a leave
};
constexpr Lengths kLong = {2 * kSecond, 8 * kSecond, 3 * kSecond / 2, 4 * kSecond};
constexpr Lengths kShort = {kSecond / 2, 6 * kSecond / 5, kSecond / 5, 8 * kSecond / 5};

// Processor time of those who hold the limit.
class Meter {
public:
    Meter(const Field &field, const SetUp &setUp) : limiter_(setUp.limiter)
    {
        for (const Stream &stream : field.streams())
            streams_.push_back(stream.pid);
        before_ = Times();
    }

    double Seconds() const
    {
        double sum = 0;
        for (const auto &[pid, seconds] : Times()) {
            const auto known = before_.find(pid);
            sum += seconds - (known != before_.end() ? known->second : 0);
        }
        return sum;
    }

private:
    std::map<pid_t, double> Times() const
    {
        std::map<pid_t, double> times;
        for (const pid_t pid : limiter_ > 0 ? WithDescendants(limiter_) : streams_)
            times[pid] = ProcessorTime(pid);
        return times;
    }

    pid_t limiter_;
    std::vector<pid_t> streams_;
    std::map<pid_t, double> before_;
};

// Starts transfers, one after the other.
class Transfers {
public:
    // The feeds are there before anything is timed.
    Transfers(Field *pField, const SetUp &setUp, int most) : field_(*pField), setUp_(setUp)
    {
        for (int i = 0; setUp.isFed && i < most; ++i)
            feeds_.push_back(std::make_unique<Feed>(UINT64_MAX));
    }

    void Start(int count)
    {
        for (int i = 0; i < count; ++i, ++started_) {
            Feed *const feed = feeds_.empty() ? nullptr : feeds_[started_].get();
            field_.Start(setUp_.words(static_cast<int>(started_)), "",
                         feed != nullptr ? feed->fd() : Nowhere());
            if (feed != nullptr) feed->LetGo();
        }
    }

private:
    Field &field_;
    const SetUp &setUp_;
    std::vector<std::unique_ptr<Feed>> feeds_;
    std::size_t started_ = 0;
};

std::optional<double> PerGiB(double seconds, double bytes)
{
    if (bytes == 0) return std::nullopt;
    return seconds / (bytes / kGi);
}

// How many transfers ended by themselves, and how the first of them did; or nothing.
std::string EndedEarly(const Field &field, std::int64_t until)
{
    int ended = 0;
    std::string how;
    for (const Stream &stream : field.streams()) {
        if (stream.ended == 0 || stream.ended >= until || ++ended > 1) continue;
        const int status = stream.status;
        how = WIFSIGNALED(status) ? std::string("by ") + ::strsignal(WTERMSIG(status))
                                  : "with status " + std::to_string(WEXITSTATUS(status));
        how += " after " + std::to_string((stream.ended - stream.started) / 1'000) + " ms";
    }
    if (ended == 0) return "";
    return std::to_string(ended) + " of " + std::to_string(field.streams().size()) +
           " ended early, the first " + how;
}

// Where nobody brings anything, nothing else is worth telling.
std::string Stalled(const Field &field, std::int64_t from, std::int64_t to)
{
    for (const Stream &stream : field.streams())
        if (stream.Bytes(from, to) > 0) return "";
    return "all hang: nothing came for " + std::to_string((to - from) / kSecond) + " s";
}

AloneRow MeasureAlone(const World &world, const Peer &peer, const Rate &rate,
                      const Lengths &lengths)
{
    AloneRow row;
    row.peer = peer.name;
    row.limit = rate.name;
    const SetUp setUp = peer.Prepare(world, rate);
    row.why = setUp.cannot;
    row.remark = setUp.remark;
    if (!row.why.empty()) return row;
    Field field;
    Transfers transfers(&field, setUp, 1);
    transfers.Start(1);
    const std::int64_t end = lengths.start + lengths.window;
    std::unique_ptr<Meter> meter;
    double seconds = 0;
    field.At(lengths.start, [&] { meter = std::make_unique<Meter>(field, setUp); });
    field.At(end, [&] { seconds = meter->Seconds(); });
    field.RunFor(end + lengths.tail);

    const std::int64_t from = field.began() + lengths.start;
    const std::int64_t to = field.began() + end;
    row.why = EndedEarly(field, to);
    if (!row.why.empty()) return row;
    const Stream &stream = field.streams().front();
    const Flow flow = field.Sum(to + lengths.tail);
    const double mean = MeanSpeed(stream.arrivals, from, to);
    // Where no block began and ended in time, the window has to do.
    row.off = (mean > 0 ? mean : flow.Speed(from, lengths.window)) / rate.bps - 1;
    row.most100ms = flow.Most(field.began(), to, kSecond / 10) / rate.bps;
    row.mostSecond = flow.Most(field.began(), to, kSecond) / rate.bps;
    row.processor = PerGiB(seconds, static_cast<double>(stream.Bytes(from, to)));
    return row;
}

// What those brought that started at a moment or later.
Flow SumOfLater(const Field &field, std::int64_t started, std::int64_t to)
{
    Flow flow(field.began(), to);
    for (const Stream &stream : field.streams())
        if (stream.started >= started) flow.Add(stream.arrivals);
    flow.Finish();
    return flow;
}

// Half of the transfers start, the others join, all run together, and the first ones leave.
SharedRow MeasureShared(const World &world, const Peer &peer, int processes, const Lengths &lengths)
{
    SharedRow row;
    row.peer = peer.name;
    row.processes = processes;
    const SetUp setUp = peer.Prepare(world, kSharedRate);
    row.why = setUp.cannot;
    row.remark = setUp.remark;
    if (!row.why.empty()) return row;
    Field field;
    Transfers transfers(&field, setUp, processes);
    const int half = processes / 2;
    const std::int64_t begun = Now() - field.began(); // making the feeds took its time
    const std::int64_t together = begun + lengths.start + lengths.change;
    const std::int64_t end = together + lengths.window;
    std::unique_ptr<Meter> meter;
    double seconds = 0;
    std::int64_t joined = 0;
    std::int64_t left = 0;
    transfers.Start(half);
    field.At(begun + lengths.start, [&] {
        joined = Now();
        transfers.Start(processes - half);
    });
    field.At(together, [&] { meter = std::make_unique<Meter>(field, setUp); });
    field.At(end, [&] {
        seconds = meter->Seconds();
        left = Now();
        field.StopOldest(static_cast<std::size_t>(half));
    });
    field.RunFor(end + lengths.change);

    const std::int64_t from = field.began() + together;
    const std::int64_t to = field.began() + end;
    row.why = EndedEarly(field, to);
    if (row.why.empty()) row.why = Stalled(field, from, to);
    if (!row.why.empty()) return row;
    const Flow flow = field.Sum(left + lengths.change);
    const double rest = flow.Speed(from, lengths.window);
    const double part = rest * (processes - half) / processes;
    row.sum = rest / kSharedRate.bps;
    row.jain = JainIndex(field.streams(), from, to);
    row.processor = PerGiB(seconds, rest * static_cast<double>(lengths.window) / kSecond);

    constexpr std::int64_t kHalfSecond = kSecond / 2;
    const std::int64_t watched = joined + lengths.change;
    const double settled = std::max(
        flow.SettledAfter(joined, watched, kHalfSecond, rest, 0.1),
        SumOfLater(field, joined, watched).SettledAfter(joined, watched, kHalfSecond, part, 0.2));
    // The last window of all to be off: it never came to rest while it was watched.
    const bool isAtRest = settled * kSecond + kHalfSecond < static_cast<double>(lengths.change);
    if (isAtRest) row.settled = settled;
    row.still = LongestPause(field.streams(), joined);
    const std::int64_t last = left + lengths.change;
    row.burst100ms = flow.Most(left, last, kSecond / 10) / kSharedRate.bps;
    row.burstSecond = flow.Most(left, last, kSecond) / kSharedRate.bps;
    return row;
}

// ---- command line ----

struct Options {
    std::string toolPath;
    std::string jsonPath;
    bool isShort = false;
    std::vector<std::string> only;

    bool Wants(const std::string &what) const
    {
        return only.empty() || std::find(only.begin(), only.end(), what) != only.end();
    }
};

Options Parse(const std::vector<std::string> &words)
{
    constexpr const char *kUsage = "--tool PATH [--short] [--only alone|shared]... [--json FILE]";
    Options options;
    for (std::size_t i = 0; i < words.size(); ++i) {
        if (words[i] == "--short") {
            options.isShort = true;
            continue;
        }
        const bool isKnown = words[i] == "--tool" || words[i] == "--json" || words[i] == "--only";
        if (!isKnown || i + 1 == words.size()) Die(kUsage);
        const std::string &value = words[i + 1];
        if (words[i] == "--only" && value != "alone" && value != "shared") Die(kUsage);
        if (words[i] == "--tool") options.toolPath = value;
        if (words[i] == "--json") options.jsonPath = value;
        if (words[i] == "--only") options.only.push_back(value);
        ++i;
    }
    if (options.toolPath.empty()) Die(kUsage);
    return options;
}

PeerTable Measure(const Options &options, const World &world, int *pRepeated)
{
    const Lengths &lengths = options.isShort ? kShort : kLong;
    PeerTable table;
    for (const Rate &rate : kRates) {
        // A second has no part to be measured of where a block takes one.
        if (!options.Wants("alone") || (options.isShort && (rate.bps < kMi || rate.bps > kGi / 2)))
            continue;
        for (const Peer &peer : PeersAlone()) {
            std::fprintf(stderr, "%s at %s\n", peer.name, rate.name);
            table.alone.push_back(Undisturbed(kMaxAttempts, pRepeated, [&] {
                return MeasureAlone(world, peer, rate, lengths);
            }));
        }
    }
    for (const int processes : {2, 8, 32}) {
        if (!options.Wants("shared") || (options.isShort && processes > 2)) continue;
        for (const Peer &peer : PeersShared()) {
            std::fprintf(stderr, "%s with %d processes\n", peer.name, processes);
            table.shared.push_back(Undisturbed(kMaxAttempts, pRepeated, [&] {
                return MeasureShared(world, peer, processes, lengths);
            }));
        }
    }
    return table;
}

// Says what is wrong; false when something is.
bool Judge(const PeerTable &table, bool isShort)
{
    const std::vector<std::string> missing = table.Missing();
    for (const std::string &what : missing)
        std::printf("NOT MEASURED, %s\n", what.c_str());
    if (isShort) {
        std::printf("A short run: too short to tell which is the better one.\n");
        return missing.empty();
    }
    const std::vector<std::string> worse = table.Worse();
    for (const std::string &what : worse)
        std::printf("WORSE, %s\n", what.c_str());
    if (missing.empty() && worse.empty()) std::printf("Ours is nowhere worse than promised.\n");
    return missing.empty() && worse.empty();
}

} // namespace

int main(int argc, char **argv)
{
    const std::vector<std::string> words(argv + 1, argv + argc);
    if (words.size() > 2 && words[0] == "--relay") return Relay({words.begin() + 2, words.end()});
    const Options options = Parse(words);
    const World world{OurTool(options.toolPath)};
    int repeated = 0;
    const PeerTable table = Measure(options, world, &repeated);
    table.Print();
    std::printf("\n");
    PrintRepeated(repeated);
    if (!options.jsonPath.empty()) table.WriteJson(options.jsonPath);
    return Judge(table, options.isShort) ? 0 : 1;
}
