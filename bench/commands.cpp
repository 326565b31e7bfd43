// commands: how long the tool's reading commands take on a busy machine: 1000 rules and 1000 running
// transfers, first all of one user, then one of each of 1000 users. Each command runs many times;
// median and worst are held against the bound, as is the processor time of one refresh of "top".
// "dump" has the library look up the owner of each line by itself: what the user database takes for
// that is measured, too, and comes on top of its bound. The exit status is 1 when a command is too
// slow.
//
//   commands --tool PATH [--runs N]
//
// Fills the rule files, the status files and the user database of the machine it runs on: only for a
// sandbox. A command or option that the tool does not know is left out.
#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <pwd.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <zevobandwidth.h>
#include <zevocore.h>

#include "measure.hpp"
#include "sections.hpp"

using namespace bench;

namespace {

constexpr double kBoundMs = 50;
constexpr std::uint32_t kUsers = 1000;
constexpr std::uint32_t kGroups = 50; // each user is in one
constexpr std::uint32_t kFirstUid = 10'001;
constexpr std::uint32_t kFirstGid = 20'001;
constexpr std::uint32_t kTransfers = 1000;
constexpr std::int32_t kProtocol = ZEVO_BW_PROTOCOL_RSYNC;
constexpr const char *kStatusDirectory = "/tmp/bandwidth";

// u0001 has a rule, is in the group g01, which has one too, and transfers.
const char *const kAboutRules[] = {
    "rule list",
    "rule list --json",
    "rule show -u u0001 -p rsync",
    "policy list",
    "plan show -u u0001 -p rsync",
    "plan next -u u0001 -p rsync",
    "preview -u u0001",
    "dump policies",
    "export",
};
const char *const kAboutTransfers[] = {
    "transfers",
    "transfers --json",
    "transfers -u u0001",
    "transfers -g g01",
    "check",
    "metrics",
    "preview -u u0001 -p rsync --explain",
};

std::string toolPath;
int runs = 20;

// ---- the machine that is asked about ----

std::uint32_t GroupOf(std::uint32_t user)
{
    return user % kGroups;
}

std::string Numbered(const char *prefix, int digits, std::uint32_t number)
{
    char text[32];
    std::snprintf(text, sizeof text, "%s%0*u", prefix, digits, number + 1);
    return text;
}

std::string UserName(std::uint32_t user)
{
    return Numbered("u", 4, user);
}

void Cover(const std::string &path, const std::string &text)
{
    char file[] = "/tmp/commands.XXXXXX";
    const int fd = ::mkstemp(file);
    const bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    if (!written || ::fchmod(fd, 0644) < 0 || ::close(fd) < 0) Die("cannot write " + path);
    if (::mount(file, path.c_str(), nullptr, MS_BIND, nullptr) < 0) Die("cannot cover " + path);
}

void MakeUsers()
{
    std::ostringstream passwd;
    std::ostringstream group;
    passwd << "root:x:0:0::/root:/bin/bash\n";
    group << "root:x:0:\nusers:x:100:\n";
    for (std::uint32_t user = 0; user < kUsers; ++user)
        passwd << UserName(user) << ":x:" << kFirstUid + user << ":100::/tmp:/bin/sh\n";
    for (std::uint32_t number = 0; number < kGroups; ++number) {
        group << Numbered("g", 2, number) << ":x:" << kFirstGid + number << ":";
        for (std::uint32_t user = number; user < kUsers; user += kGroups)
            group << (user == number ? "" : ",") << UserName(user);
        group << "\n";
    }
    Cover("/etc/passwd", passwd.str());
    Cover("/etc/group", group.str());
}

void MakePolicies()
{
    for (const std::int32_t protocol : {ZEVO_BW_PROTOCOL_DOCUHALL, ZEVO_BW_PROTOCOL_WEBDAV,
                                        ZEVO_BW_PROTOCOL_FTP, ZEVO_BW_PROTOCOL_RSYNC}) {
        ZEVO_BANDWIDTH_GLOBAL_CONF policy = {};
        policy.state = ZEVO_BW_STATE_ENABLED;
        policy.protocolType = protocol;
        policy.userGroupPolicy = ZEVO_BW_USER_GROUP_POLICY_MIN;
        policy.interGroupPolicy = ZEVO_BW_INTER_GROUP_POLICY_MAX;
        policy.occupyPolicy = ZEVO_BW_OCCUPY_POLICY_ALL;
        if (ZEVOBandwidthGlobalConfSet(&policy) != 0) Die("cannot store a policy");
    }
}

// A rule for each group and for as many users as there are rules left.
void MakeRules()
{
    char path[4096];
    if (ZEVOBandwidthConfPath(kProtocol, path, sizeof path) != 0) Die("no path for the rules");
    SectionWriter writer(path);
    for (std::uint32_t i = 0; i < kUsers; ++i) {
        ZEVO_BANDWIDTH_CONF rule = {};
        const bool isGroup = i >= kUsers - kGroups;
        rule.ownerType = isGroup ? ZEVO_BW_OWNER_GROUP : ZEVO_BW_OWNER_USER;
        rule.id = isGroup ? kFirstGid + i - (kUsers - kGroups) : kFirstUid + i;
        rule.state = ZEVO_BW_STATE_SCHEDULE;
        rule.protocolType = kProtocol;
        rule.uploadRate = rule.downloadRate = 1000 + i;
        std::fill_n(rule.szSchedulePlan, 168, '1');
        writer.Write((isGroup ? "group-" : "user-") + std::to_string(rule.id), rule,
                     ZEVOBandwidthInitHashFromConf);
    }
}

// ---- the transfers that run on it ----

// Processes that do nothing: a transfer whose process is gone would be a leftover.
std::vector<pid_t> StartProcesses()
{
    std::vector<pid_t> pids;
    for (std::uint32_t i = 0; i < kTransfers; ++i) {
        const pid_t pid = ::fork();
        if (pid < 0) Die("fork failed");
        if (pid == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            for (;;)
                ::pause();
        }
        pids.push_back(pid);
    }
    return pids;
}

void EndProcesses(const std::vector<pid_t> &pids)
{
    for (const pid_t pid : pids)
        ::kill(pid, SIGKILL);
    for (const pid_t pid : pids)
        ::waitpid(pid, nullptr, 0);
}

ZEVO_BANDWIDTH_STATUS StatusOf(std::uint32_t user, pid_t pid)
{
    ZEVO_BANDWIDTH_STATUS status = {};
    status.pid = pid;
    status.uid = kFirstUid + user;
    status.active = 1;
    status.timestamp = std::time(nullptr);
    status.current_speed = 123'456;
    status.expect_speed = 125'000;
    status.protocol_type = kProtocol;
    status.transfer_type = ZEVO_BW_TRANSFER_UPLOAD;
    status.progress = 4'200;
    std::snprintf(status.filename, sizeof status.filename, "/volume1/photos/2024/%d.jpg", pid);
    return status;
}

// The copies of the transfers in one owner's file.
void WriteStatusFile(std::int32_t ownerType, std::uint32_t id,
                     std::vector<ZEVO_BANDWIDTH_STATUS> statuses)
{
    const char *const prefix = ownerType == ZEVO_BW_OWNER_USER ? "/user-" : "/group-";
    SectionWriter writer(kStatusDirectory + (prefix + std::to_string(id)));
    for (ZEVO_BANDWIDTH_STATUS &status : statuses) {
        status.owner_type = static_cast<std::uint32_t>(ownerType);
        status.id = id;
        writer.Write(std::to_string(status.pid) + "-" + std::to_string(status.transfer_type),
                     status, ZEVOBandwidthInitHashFromStatus);
    }
}

// Saves all transfers anew, as they do it every few seconds: after 30 they would be dead.
void SaveTransfers(const std::vector<pid_t> &pids, std::uint32_t users)
{
    std::vector<std::vector<ZEVO_BANDWIDTH_STATUS>> byUser(users);
    std::vector<std::vector<ZEVO_BANDWIDTH_STATUS>> byGroup(kGroups);
    for (std::uint32_t i = 0; i < pids.size(); ++i) {
        const std::uint32_t user = i % users;
        byUser[user].push_back(StatusOf(user, pids[i]));
        byGroup[GroupOf(user)].push_back(byUser[user].back());
    }
    for (std::uint32_t user = 0; user < users; ++user)
        WriteStatusFile(ZEVO_BW_OWNER_USER, kFirstUid + user, byUser[user]);
    for (std::uint32_t group = 0; group < kGroups; ++group)
        if (!byGroup[group].empty())
            WriteStatusFile(ZEVO_BW_OWNER_GROUP, kFirstGid + group, byGroup[group]);
}

// ---- the commands ----

using Words = std::vector<std::string>;

Words WordsOf(const std::string &command)
{
    std::istringstream stream(command);
    Words words = {toolPath};
    for (std::string word; stream >> word;)
        words.push_back(word);
    return words;
}

int WaitFor(pid_t pid)
{
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string HelpOn(const Words &words)
{
    char file[] = "/tmp/help.XXXXXX";
    const int fd = ::mkostemp(file, O_CLOEXEC);
    WaitFor(Spawn(words, fd, fd));
    ::close(fd);
    std::ostringstream text;
    text << std::ifstream(file).rdbuf();
    ::unlink(file);
    return text.str();
}

// Asks the command's own help: an unknown command answers with the help of what it stands behind.
bool IsKnown(const Words &words)
{
    Words question = {words[0]};
    std::string usage = "zevobandwidth";
    for (std::size_t i = 1; i < words.size() && !words[i].starts_with('-'); ++i) {
        question.push_back(words[i]);
        usage += " " + words[i];
    }
    question.emplace_back("--help");
    const std::string help = HelpOn(question);
    return help.find(usage + " ") != help.npos &&
           std::all_of(words.begin() + 1, words.end(), [&](const std::string &word) {
               return !word.starts_with("--") || help.find(word) != help.npos;
           });
}

double MillisecondsOf(const Words &words, int nowhere)
{
    const std::int64_t began = Now();
    const int status = WaitFor(Spawn(words, nowhere, nowhere));
    const double ms = static_cast<double>(Now() - began) / 1'000;
    constexpr int kFoundSomething = 6; // of "check"
    if (status != 0 && !(words[1] == "check" && status == kFoundSomething))
        Die("'" + words[1] + "' ended with status " + std::to_string(status));
    return ms;
}

void MeasureCommand(const Words &words, const std::string &name, double boundMs)
{
    const int nowhere = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    std::vector<double> ms(static_cast<std::size_t>(runs));
    for (double &run : ms)
        run = MillisecondsOf(words, nowhere);
    ::close(nowhere);
    std::sort(ms.begin(), ms.end());
    Report({name + ": median", ms[ms.size() / 2], boundMs, "ms"});
    Report({name + ": worst", ms.back(), boundMs, "ms"});
}

// The bare look-ups of all users; the median of several.
double LookUpAllMs()
{
    std::vector<double> ms(static_cast<std::size_t>(runs));
    for (double &run : ms) {
        const std::int64_t began = Now();
        for (std::uint32_t user = 0; user < kUsers; ++user)
            if (::getpwuid(kFirstUid + user) == nullptr) Die("the user database lacks a user");
        run = static_cast<double>(Now() - began) / 1'000;
    }
    std::sort(ms.begin(), ms.end());
    return ms[ms.size() / 2];
}

void MeasureDump(const char *command, std::uint32_t users)
{
    double boundMs = kBoundMs;
    if (users > 1) {
        const double lookUpMs = LookUpAllMs();
        boundMs += lookUpMs;
        std::printf("  the look-ups of %u users: %.1f ms\n", users, lookUpMs);
    }
    MeasureCommand(WordsOf(command), std::string(command) + " (of " + std::to_string(users) + ")",
                   boundMs);
}

// ---- the screen ----

constexpr std::int64_t kScreensUs = 6 * kSecond;
constexpr int kQuietMs = 300; // between one screen and the next, which follows after a second

// Reads what the terminal shows until it is quiet, or until the time has come; whether there was
// anything.
bool ReadScreen(int terminal, std::int64_t untilUs)
{
    bool any = false;
    for (char bytes[4096];;) {
        const int leftMs = static_cast<int>(std::max<std::int64_t>(untilUs - Now(), 0) / 1'000);
        struct pollfd input = {terminal, POLLIN, 0};
        if (::poll(&input, 1, any ? kQuietMs : leftMs) <= 0) return any;
        if (::read(terminal, bytes, sizeof bytes) <= 0) Die("top has ended");
        any = true;
    }
}

double ProcessorMsOf(pid_t pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/schedstat");
    double ns = 0;
    if (!(file >> ns)) Die("cannot read the processor time of top");
    return ns / 1e6;
}

void MeasureTop(std::uint32_t users)
{
    struct winsize size = {24, 80, 0, 0};
    int terminal = -1;
    const pid_t pid = ::forkpty(&terminal, nullptr, nullptr, &size);
    if (pid < 0) Die("no terminal");
    if (pid == 0) {
        ::setenv("TERM", "xterm-256color", 1);
        ::execl(toolPath.c_str(), toolPath.c_str(), "top", nullptr);
        ::_exit(127);
    }
    ReadScreen(terminal, Now() + kScreensUs); // the first one, with the program's start
    const double before = ProcessorMsOf(pid);
    int screens = 0;
    for (const std::int64_t untilUs = Now() + kScreensUs; Now() < untilUs;)
        screens += ReadScreen(terminal, untilUs) ? 1 : 0;
    const double ms = ProcessorMsOf(pid) - before;
    ::kill(pid, SIGTERM);
    ::close(terminal);
    WaitFor(pid);
    if (screens == 0) Die("top shows nothing");
    Report({"top: one refresh (of " + std::to_string(users) + ")", ms / screens, kBoundMs, "ms"});
}

template <std::size_t count>
void MeasureKnown(Measurements &measurements, const char *const (&commands)[count],
                  const std::string &suffix, const std::function<void()> &prepare)
{
    for (const char *const command : commands) {
        const Words words = WordsOf(command);
        if (!IsKnown(words)) continue;
        prepare();
        measurements.Take(MeasureCommand, words, command + suffix, kBoundMs);
    }
}

void MeasureBeside(Measurements &measurements, const std::vector<pid_t> &pids, std::uint32_t users)
{
    std::filesystem::remove_all(kStatusDirectory);
    std::filesystem::create_directory(kStatusDirectory);
    const std::string suffix = users == 1 ? " (of 1 user)" : " (of " + std::to_string(users) + ")";
    MeasureKnown(measurements, kAboutTransfers, suffix, [&] { SaveTransfers(pids, users); });
    SaveTransfers(pids, users);
    measurements.Take(MeasureDump, "dump transfers", users);
    measurements.Take(MeasureTop, users);
}

void Parse(int argc, char **argv)
{
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string name = argv[i];
        if (name == "--tool")
            toolPath = argv[i + 1];
        else if (name == "--runs")
            runs = std::max(1, std::atoi(argv[i + 1]));
        else
            Die("unknown option " + name);
    }
    if (argc % 2 == 0 || toolPath.empty()) Die("--tool PATH [--runs N]");
}

} // namespace

int main(int argc, char **argv)
{
    Parse(argc, argv);
    if (std::getenv("ZEVOBW_SANDBOX") == nullptr)
        Die("covers the user database: run scripts/bench");
    MakeUsers();
    MakePolicies();
    MakeRules();
    Measurements measurements;
    MeasureKnown(measurements, kAboutRules, "", [] {});
    measurements.Take(MeasureDump, "dump rules", kUsers);
    const std::vector<pid_t> pids = StartProcesses();
    for (const std::uint32_t users : {1U, kUsers})
        MeasureBeside(measurements, pids, users);
    EndProcesses(pids);
    return measurements.Print(1) ? 0 : 1;
}
