// scale: many "zevobandwidth pipe" processes of twenty users under one group's limit, on one machine:
// whether they keep the limit together, what each gets, what they cost all together and each, and how
// soon one obeys a stop. Prints one table; the exit status is 1 when a promise is broken.
//
//   scale --tool PATH [--processes N] [--settle SECONDS]
//
// Changes rules, policies, users and groups of the machine it runs on: only for a sandbox.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "field.hpp"
#include "measure.hpp"
#include "our_tool.hpp"

using namespace bench;

namespace {

constexpr int kUsers = 20;
constexpr int kFirstUid = 7001;
constexpr const char *kGroup = "crowd";
constexpr const char *kGroupFile = "/tmp/bandwidth/group-7000";
constexpr double kLimitBps = 100 * kMi;
constexpr std::int64_t kMeasured = 60 * kSecond;
constexpr std::int64_t kWindow = 20 * kSecond;
constexpr std::int64_t kReadEvery = 20'000;
constexpr std::int64_t kStopWithin = 6 * kSecond;
constexpr std::size_t kStopped = 10;
constexpr int kStarts = 51;

std::string UserName(int number)
{
    return "crowd" + std::to_string(number);
}

void AddUsers()
{
    std::ofstream users("/etc/passwd", std::ios::app);
    std::ofstream groups("/etc/group", std::ios::app);
    groups << kGroup << ":x:7000:";
    for (int i = 0; i < kUsers; ++i) {
        const int uid = kFirstUid + i;
        users << UserName(i) << ":x:" << uid << ":" << uid << "::/tmp:/bin/sh\n";
        groups << (i == 0 ? "" : ",") << UserName(i);
    }
    groups << "\n";
    for (int i = 0; i < kUsers; ++i)
        groups << UserName(i) << ":x:" << kFirstUid + i << ":\n";
    if (!users.flush() || !groups.flush()) Die("cannot add users; run this in the sandbox");
}

void LimitCrowd(const OurTool &tool)
{
    tool.Run({"rule", "set", "-g", kGroup, "-p", "rsync", "--up", "100M"});
    tool.Run({"policy", "set", "-p", "rsync", "--user-group", "group-only", "--inter-group", "max",
              "--occupy", "all"});
}

// Each process is one descriptor here.
void RaiseDescriptors(std::size_t processes)
{
    rlimit limit = {};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, processes + 64);
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur < processes + 64)
        Die("too few descriptors; raise the hard limit with 'ulimit -Hn'");
}

// User and system time that a running process has taken, in seconds.
double ProcessorSeconds(pid_t pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    std::getline(file, text);
    const std::size_t behindName = text.rfind(')');
    unsigned long long user = 0;
    unsigned long long system = 0;
    if (behindName == text.npos ||
        std::sscanf(text.c_str() + behindName,
                    ") %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %llu %llu", &user, &system) != 2)
        return 0;
    return static_cast<double>(user + system) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

double ProcessorSeconds(const Field &field)
{
    double sum = 0;
    for (const Stream &stream : field.streams())
        if (stream.pid > 0) sum += ProcessorSeconds(stream.pid);
    return sum;
}

// What a process has for itself, in bytes.
double PrivateBytes(pid_t pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/smaps_rollup");
    double sum = 0;
    unsigned long long kib = 0;
    for (std::string line; std::getline(file, line);)
        if (line.rfind("Private_", 0) == 0 && std::sscanf(line.c_str(), "%*s %llu", &kib) == 1)
            sum += static_cast<double>(kib) * kKi;
    return sum;
}

double FileBytes(const char *szPath)
{
    struct stat status = {};
    return ::stat(szPath, &status) == 0 ? static_cast<double>(status.st_size) : 0;
}

void ReportMemory(const Field &field)
{
    double most = 0;
    for (const Stream &stream : field.streams())
        if (stream.pid > 0) most = std::max(most, PrivateBytes(stream.pid));
    const double cbFile = FileBytes(kGroupFile);
    Report({"private memory of a process, beside 3 x the status file",
            std::max(0.0, most - 3 * cbFile) / kMi, 2, "MiB"});
    Report({"that status file", cbFile / kKi, 4096, "KiB"});
}

void ReportParts(Field &field, std::int64_t from, std::int64_t to)
{
    const double part = kLimitBps / static_cast<double>(field.streams().size()) *
                        static_cast<double>(to - from) / kSecond;
    double least = 0;
    double most = 0;
    for (const Stream &stream : field.streams()) {
        const double off = static_cast<double>(stream.Bytes(from, to)) / part - 1;
        least = std::min(least, off);
        most = std::max(most, off);
    }
    Report({"a process below its equal part, over a minute", -least * 100, 10});
    Report({"a process above its equal part, over a minute", most * 100, 10});
}

// Ends the oldest ones by the tool, and tells how long the slowest took.
void ReportStops(const std::string &toolPath, Field &field)
{
    std::vector<Stream *> stopped;
    for (Stream &stream : field.streams())
        if (stream.pid > 0 && stopped.size() < kStopped) stopped.push_back(&stream);
    const std::int64_t at = Now();
    std::vector<pid_t> commands;
    commands.reserve(stopped.size());
    for (const Stream *const stream : stopped)
        commands.push_back(Spawn({toolPath, "stop", "-y", "-u", stream->user, "--pid",
                                  std::to_string(stream->pid), "--wait", "0"},
                                 Nowhere(), Nowhere()));
    field.RunFor(at + 2 * kStopWithin - field.began());
    double slowest = 0;
    for (const Stream *const stream : stopped) {
        const std::int64_t ended = stream->ended == 0 ? at + 2 * kStopWithin : stream->ended;
        slowest = std::max(slowest, static_cast<double>(ended - at) / kSecond);
    }
    for (const pid_t pid : commands)
        ::waitpid(pid, nullptr, 0);
    Report({"a stop is obeyed within", slowest, static_cast<double>(kStopWithin) / kSecond, "s"});
}

void Crowd(const OurTool &tool, const std::string &toolPath, std::size_t processes,
           std::int64_t settle)
{
    Field field;
    field.ReadEvery(kReadEvery);
    for (std::size_t i = 0; i < processes; ++i) {
        const std::string user = UserName(static_cast<int>(i) % kUsers);
        field.Start(tool.PipeAs(user), user, Zeros());
    }
    const std::int64_t from = Now() + settle;
    const std::int64_t to = from + kMeasured;
    field.RunFor(from - field.began());
    const double before = ProcessorSeconds(field);
    field.RunFor(to - field.began());
    const double cores =
        (ProcessorSeconds(field) - before) / (static_cast<double>(kMeasured) / kSecond);
    const Flow flow = field.Sum(to);
    Report({"sum over any 20 s off by", flow.Deviation(from, to, kWindow, kLimitBps) * 100, 4});
    ReportParts(field, from, to);
    Report({"processors that all take together", cores, 1, ""});
    ReportMemory(field);
    ReportStops(toolPath, field);
}

// From the start of a process that finds nothing to move to its end.
void ReportStart(const OurTool &tool)
{
    std::vector<double> times;
    for (int i = 0; i < kStarts; ++i) {
        const std::int64_t began = Now();
        ::waitpid(Spawn(tool.PipeAs(UserName(0)), Nowhere(), Nowhere()), nullptr, 0);
        times.push_back(static_cast<double>(Now() - began) / 1e3);
    }
    std::sort(times.begin(), times.end());
    Report({"a process alone starts and ends within", times[times.size() / 2], 10, "ms"});
}

} // namespace

int main(int argc, char **argv)
{
    std::string toolPath;
    std::size_t processes = 1000;
    std::int64_t settle = 60;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string option = argv[i];
        if (option == "--tool") toolPath = argv[i + 1];
        if (option == "--processes") processes = std::strtoul(argv[i + 1], nullptr, 10);
        if (option == "--settle") settle = std::strtol(argv[i + 1], nullptr, 10);
    }
    if (toolPath.empty() || processes == 0 || ::getenv("ZEVOBW_SANDBOX") == nullptr)
        Die("usage, in the sandbox: scale --tool PATH [--processes N] [--settle SECONDS]");
    RaiseDescriptors(processes);
    AddUsers();
    const OurTool tool(toolPath);
    LimitCrowd(tool);
    Measurements measurements;
    measurements.Take(ReportStart, tool);
    measurements.Take(Crowd, tool, toolPath, processes, settle * kSecond);
    return measurements.Print(1) ? 0 : 1;
}
