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
#include <map>
#include <string>
#include <vector>

#include <sys/wait.h>

#include "field.hpp"
#include "measure.hpp"
#include "our_tool.hpp"

using namespace bench;

namespace {

OurTool tool({});
Measurements measurements;

Stream &StartPipe(Field &field, const std::string &user)
{
    return field.Start(tool.PipeAs(user), user, Zeros());
}

double Percent(double part)
{
    return part * 100;
}

// ---- scenarios ----

constexpr Rate kRates[] = {
    {"64K", "64 KiB/s", 64 * kKi},    {"1M", "1 MiB/s", kMi},
    {"10M", "10 MiB/s", 10 * kMi},    {"100M", "100 MiB/s", 100 * kMi},
    {"500M", "500 MiB/s", 500 * kMi},
};

void Alone(const Rate &rate)
{
    tool.LimitStaff(rate.text);
    Field field;
    const Stream &stream = StartPipe(field, "alice");
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

void Shared(const Rate &rate, int transfers)
{
    tool.LimitStaff(rate.text);
    Field field;
    for (int i = 0; i < transfers; ++i)
        StartPipe(field, i % 2 == 0 ? "alice" : "bob");
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

void Join(const Rate &rate)
{
    constexpr std::int64_t kStep = 4 * kSecond;
    tool.LimitStaff(rate.text);
    Field field;
    auto &streams = field.streams();
    const auto join = [&field](int count) {
        for (int i = 0; i < count; ++i)
            StartPipe(field, i % 2 == 0 ? "alice" : "bob");
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
    tool.LimitStaff(kSteps[0].text);
    Field field;
    for (int i = 0; i < transfers; ++i)
        StartPipe(field, i % 2 == 0 ? "alice" : "bob");
    std::vector<std::int64_t> changes = {field.began()};
    for (int i = 1; i < 5; ++i)
        field.At(i * kStep, [&, i] {
            changes.push_back(Now());
            tool.Run({"rule", "set", "-g", "staff", "-p", "rsync", "--up", kSteps[i].text});
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

double CostOf(const std::vector<std::string> &words, std::uint64_t bytes)
{
    Feed feed(bytes);
    Field field;
    const Stream &stream = field.Start(words, "", feed.fd());
    feed.LetGo();
    field.RunToTheEnd();
    if (stream.Bytes(0, INT64_MAX) != bytes) Die(words[0] + " did not bring all bytes");
    return stream.processorSeconds;
}

void CostFree()
{
    tool.LimitStaff("unlimited");
    const double pipe = CostOf(tool.PipeAs("alice"), kFreeGiBs * kGiB);
    const double pv = CostOf({"pv", "-q"}, kFreeGiBs * kGiB);
    std::fprintf(stderr, "  %.4f s by pipe, %.4f s by pv\n", pipe, pv);
    Report({"no limit: processor time over that of pv", pipe / pv, 1.05, ""});
}

void CostLimited(const Rate &rate)
{
    constexpr double kSeconds = 8;
    tool.LimitStaff(rate.text);
    const auto bytes = static_cast<std::uint64_t>(rate.bps * kSeconds);
    const double pipe = CostOf(tool.PipeAs("alice"), bytes) / kSeconds;
    const std::string limit = std::to_string(static_cast<std::uint64_t>(rate.bps));
    const double pv = CostOf({"pv", "-q", "-L", limit}, bytes) / kSeconds;
    std::fprintf(stderr, "  %.4f core by pipe, %.4f core by pv -L\n", pipe, pv);
    Report({std::string(rate.name) + ": cores more than pv -L", pipe - pv, 0.01, ""});
}

// ---- command line ----

struct Options {
    std::string toolPath;
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
            options.toolPath = argv[i + 1];
        else if (name == "--runs")
            options.runs = std::max(1, std::atoi(argv[i + 1]));
        else if (name == "--only")
            options.only.push_back(argv[i + 1]);
        else
            Die("unknown option " + name);
    }
    if (argc % 2 == 0 || options.toolPath.empty())
        Die("--tool PATH [--runs N] [--only alone|shared|join|change|cost]...");
    return options;
}

} // namespace

int main(int argc, char **argv)
{
    const Options options = Parse(argc, argv);
    tool = OurTool(options.toolPath);
    for (int run = 1; run <= options.runs; ++run) {
        std::fprintf(stderr, "run %d of %d\n", run, options.runs);
        Run(options);
    }
    return measurements.Print(options.runs) ? 0 : 1;
}
