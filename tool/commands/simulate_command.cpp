// "simulate": transfers without data, which show what limits do. The library plays out each in a
// process of its own. That process has the tool's name, so that notices reach it; its transfer is
// listed and can be stopped like any other.
//
// No process and no section of a status file is left behind. The command ends the processes that
// still run, and takes their transfers off the list, because a killed process cannot.
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <span>

#include <zevobandwidth.hpp>

#include "command.hpp"
#include "model/evaluation.hpp"
#include "model/rate.hpp"
#include "model/transfer_list.hpp"
#include "options.hpp"
#include "output.hpp"
#include "pipe/block.hpp"
#include "pipe/progress.hpp"
#include "pipe/signal.hpp"

namespace tool {

namespace {

constexpr std::uint64_t kBlockKB = 64; // the library plays out whole blocks
constexpr std::uint64_t kMaxBytes = std::uint64_t{1} << 50;
constexpr int kMaxTransfers = 1024;
constexpr std::int64_t kLookUs = 50'000;
constexpr std::int64_t kShowUs = 200'000;

struct SimulateArguments {
    std::string user;
    std::string protocol;
    std::string direction;
    std::string size;
    std::size_t count = 1;
    bool isQuiet = false;
};

struct Task {
    Account user;
    std::int32_t protocol = 0;
    std::int32_t direction = 0;
    std::uint64_t sizeKB = 0;
    // What is played out. The last block is a whole one, too.
    std::uint64_t PlayedKB() const { return (sizeKB + kBlockKB - 1) / kBlockKB * kBlockKB; }
};

// ---- one transfer, in its own process ----

// In memory that the command shares with the process.
struct Played {
    pid_t pid;
    bool isLeft; // started, and not known to have ended
    bool wasKilled;
    std::uint64_t gotKB;
    // The process writes these. The command reads them after the process ended.
    std::int64_t beganUs;
    std::int64_t endedUs; // 0 when it was killed
    bool isPlayedOut;
    zevobw::Error error; // otherwise
};

[[noreturn]] void Play(const Task &task, Played &played)
{
    static_cast<void>(
        ::prctl(PR_SET_PDEATHSIG, SIGTERM)); // the parent takes the transfer off the list
    LeaveEndingToParent();
    played.beganUs = NowUs();
    played.isPlayedOut = ZEVOBandwidthSimulate(task.user.name.c_str(), task.protocol,
                                               task.direction, task.sizeKB) == 0;
    played.error = zevobw::Error::FromSlot();
    played.endedUs = NowUs();
    ::_exit(kDone);
}

bool IsStopped(const Played &played)
{
    return !played.isPlayedOut && !played.wasKilled && played.error.IsStop();
}

bool HasFailed(const Played &played)
{
    return !played.isPlayedOut && !IsStopped(played);
}

const char *ResultOf(const Played &played)
{
    return played.isPlayedOut ? "done" : IsStopped(played) ? "stopped" : "failed";
}

std::uint64_t SpeedBps(const Played &played)
{
    return ZEVOBandwidthSpeedEstimate(played.endedUs - played.beganUs, played.gotKB * kBytesPerKB);
}

// ---- all of them ----

class Ensemble {
public:
    Ensemble(const Task &task, std::size_t count) : task_(task)
    {
        void *const zeros = ::mmap(nullptr, count * sizeof(Played), PROT_READ | PROT_WRITE,
                                   MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (zeros == MAP_FAILED) throw std::bad_alloc();
        all_ = {static_cast<Played *>(zeros), count};
    }

    // A process that is killed during a save may leave a temporary file. The library removes it
    // later.
    ~Ensemble()
    {
        for (Played &played : all_) {
            if (!played.isLeft) continue;
            ::kill(played.pid, SIGTERM);
            ::waitpid(played.pid, nullptr, 0);
            Settle(played);
        }
        ::munmap(all_.data(), all_.size_bytes());
    }

    Ensemble(const Ensemble &) = delete;
    Ensemble &operator=(const Ensemble &) = delete;

    // Throws Failure when the machine gives no more processes.
    void Start()
    {
        std::fflush(nullptr); // or each process would print the buffer again
        for (Played &played : all_) {
            if (EndingSignal() != 0) return;
            const pid_t pid = ::fork();
            if (pid == 0) Play(task_, played);
            if (pid < 0)
                throw Failure(kFailed, "process " + std::to_string(&played - all_.data() + 1) +
                                           " of " + std::to_string(all_.size()) +
                                           " cannot be started: " + std::strerror(errno) +
                                           "; ask for fewer with --count");
            played.pid = pid;
            played.isLeft = true;
        }
    }

    // Looks which processes have ended. False when none is left.
    bool Collect()
    {
        bool isAnyLeft = false;
        for (Played &played : all_) {
            if (played.isLeft && ::waitpid(played.pid, nullptr, WNOHANG) != 0) Settle(played);
            isAnyLeft |= played.isLeft;
        }
        return isAnyLeft;
    }

    // Reads the sections of those that run.
    ProgressFigures Look() const
    {
        ProgressFigures figures;
        figures.nowUs = NowUs();
        figures.hasBar = true;
        figures.size = task_.PlayedKB() * kBytesPerKB * all_.size();
        for (const Played &played : all_)
            figures.bytes += played.gotKB * kBytesPerKB;
        // Without them the figures are incomplete.
        const zevobw::Transfers running(ZEVO_BW_OWNER_USER, task_.user.id, task_.protocol,
                                        static_cast<std::uint32_t>(task_.direction));
        for (const ZEVO_BANDWIDTH_STATUS &status : running) {
            const auto isOurs = [&status](const Played &played) {
                return played.isLeft && played.pid == status.pid;
            };
            if (std::none_of(all_.begin(), all_.end(), isOurs)) continue;
            figures.bytes += SavedKB(status) * kBytesPerKB;
            const bool isUnlimited = status.expect_speed == 0 || figures.allowedBps == 0;
            figures.allowedBps =
                isUnlimited ? 0 : figures.allowedBps.value_or(0) + status.expect_speed;
        }
        return figures;
    }

    std::span<const Played> all() const noexcept { return all_; }

private:
    // Every user can write the file, so the figure may be any number.
    std::uint64_t SavedKB(const ZEVO_BANDWIDTH_STATUS &status) const
    {
        return std::min(status.progress, kWhole) * task_.sizeKB / kWhole;
    }

    void Settle(Played &played)
    {
        played.isLeft = false;
        played.wasKilled = played.endedUs == 0;
        if (played.wasKilled) played.endedUs = NowUs();
        if (played.isPlayedOut) {
            played.gotKB = task_.PlayedKB();
            return;
        }
        ZEVO_BANDWIDTH_STATUS saved = {};
        if (ZEVOBandwidthIStatusGet(ZEVO_BW_OWNER_USER, task_.user.id, played.pid, task_.direction,
                                    &saved) == 0)
            played.gotKB = SavedKB(saved);
        // What cannot be removed goes stale.
        static_cast<void>(ZEVOBandwidthStatusForceRemoveAllByUserName(
            task_.user.name.c_str(), static_cast<std::uint32_t>(task_.direction), played.pid));
    }

    const Task task_;
    std::span<Played> all_;
};

// ---- the result ----

// All together, as if it was one.
Played Sum(std::span<const Played> all)
{
    Played total{};
    total.beganUs = INT64_MAX;
    for (const Played &played : all) {
        total.gotKB += played.gotKB;
        total.beganUs = std::min(total.beganUs, played.beganUs);
        total.endedUs = std::max(total.endedUs, played.endedUs);
    }
    return total;
}

// Jain's index of the mean speeds: 1 when all are equal.
double Fairness(std::span<const Played> all)
{
    double sum = 0;
    double squares = 0;
    for (const Played &played : all) {
        const auto speed = static_cast<double>(SpeedBps(played));
        sum += speed;
        squares += speed * speed;
    }
    return squares > 0 ? sum * sum / (squares * static_cast<double>(all.size())) : 1;
}

std::string Decimals(double value, int decimals)
{
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%.*f", decimals, value);
    return text.data();
}

double Seconds(const Played &played)
{
    return static_cast<double>(played.endedUs - played.beganUs) /
           static_cast<double>(kMicrosPerSecond);
}

void PrintTable(std::span<const Played> all, bool isLimited)
{
    Table table({"PID", "RESULT", "KB", "SECONDS", "SPEED"}, {0, 2, 3, 4});
    const auto add = [&](const std::string &pid, const std::string &result, const Played &played) {
        table.AddRow({pid, result, std::to_string(played.gotKB), Decimals(Seconds(played), 2),
                      isLimited ? FormatSpeed(SpeedBps(played)) : FormatAllowedSpeed(0)});
    };
    for (const Played &played : all)
        add(std::to_string(played.pid), ResultOf(played), played);
    add("total", "", Sum(all));
    table.Print();
    if (isLimited && all.size() > 1)
        PrintLine("Fairness (Jain's index, 1 is equal): " + Decimals(Fairness(all), 3));
}

Json ToJson(std::span<const Played> all, bool isLimited)
{
    const auto figures = [isLimited](Json json, const Played &played) {
        json["kib"] = played.gotKB;
        json["seconds"] = Seconds(played);
        json["speed_bytes_per_s"] = isLimited ? Json(SpeedBps(played)) : Json(nullptr);
        return json;
    };
    return {
        {"transfers",
         JsonArray(all,
                   [&figures](const Played &played) {
                       return figures({{"pid", played.pid}, {"result", ResultOf(played)}}, played);
                   })},
        {"total", figures(Json::object(), Sum(all))},
        {"fairness", isLimited ? Json(Fairness(all)) : Json(nullptr)}};
}

void CheckAllPlayedOut(std::span<const Played> all)
{
    const std::string of = " of " + std::to_string(all.size()) + " transfers ";
    const auto first = std::find_if(all.begin(), all.end(), HasFailed);
    if (first != all.end())
        throw Failure(kFailed,
                      std::to_string(std::count_if(first, all.end(), HasFailed)) + of +
                          "failed, that of process " + std::to_string(first->pid) + ": " +
                          (first->wasKilled
                               ? "it was killed; find out by whom, and run the command again"
                               : std::string(first->error.What()) + "; " + kMendFiles));
    const auto stopped = std::count_if(all.begin(), all.end(), IsStopped);
    if (stopped != 0)
        throw Failure(kFailed, std::to_string(stopped) + of + "stopped by an administrator");
}

// ---- the command ----

std::uint64_t ReadSizeKB(const std::string &text)
{
    const std::uint64_t bytes = ParseSize(text);
    if (bytes == 0 || bytes > kMaxBytes)
        throw Failure(kWrongUsage, "the size must be from 1K to 1024T");
    return (bytes + kBytesPerKB - 1) / kBytesPerKB;
}

// Whether a limit applies to these transfers. Prints a note if none does.
bool IsLimited(const Task &task, bool isQuiet)
{
    const Evaluation evaluation(task.user.id, task.protocol, 0);
    const std::string whyOff = evaluation.WhyOff();
    if (whyOff.empty() && evaluation.Ask(task.direction, Beside::kNobody).bps != 0) return true;
    if (!isQuiet)
        PrintNote("note: no limit applies to this transfer" +
                  (whyOff.empty() ? "" : " (" + whyOff + ")") +
                  ", so it takes no time; 'zevobandwidth preview --explain' shows why");
    return false;
}

void PlayAll(Ensemble &ensemble, Progress &progress)
{
    std::int64_t shownUs = 0;
    const auto show = [&] {
        const ProgressFigures figures = ensemble.Look();
        progress.Show(figures);
        shownUs = figures.nowUs;
    };
    ensemble.Start();
    while (EndingSignal() == 0 && ensemble.Collect()) {
        if (progress.IsActive() && NowUs() - shownUs >= kShowUs) show();
        SleepUntil(NowUs() + kLookUs);
    }
    if (progress.IsActive()) show();
}

void Simulate(const Task &task, const SimulateArguments &arguments)
{
    const bool isLimited = IsLimited(task, arguments.isQuiet);
    CatchSignals();
    Ensemble ensemble(task, arguments.count);
    {
        Progress progress(arguments.isQuiet, "");
        PlayAll(ensemble, progress);
    }
    if (EndingSignal() != 0) return;
    if (OutputStyle().json)
        PrintJson(ToJson(ensemble.all(), isLimited));
    else
        PrintTable(ensemble.all(), isLimited);
    CheckAllPlayedOut(ensemble.all());
}

void RunSimulate(const SimulateArguments &arguments)
{
    Task task;
    task.sizeKB = ReadSizeKB(arguments.size);
    task.user = FindUser(arguments.user);
    task.protocol = FindProtocol(arguments.protocol);
    task.direction = ValueOf(ZEVO_BW_TRANSFER_TYPE_LIST, arguments.direction);
    Simulate(task, arguments);
    if (EndingSignal() != 0) DieOf(EndingSignal());
}

} // namespace

void AddSimulateCommand(CLI::App &app)
{
    const auto [command, arguments] = AddCommand(
        app, "simulate", "Play out transfers without data, and show what each got", RunSimulate,
        "They are listed, share the limits with all others, follow changed rules and can be "
        "stopped like real ones. They move blocks of 64 KiB, of which the last counts as a whole; "
        "a size is rounded up to whole KiB. At the end: what each got, the sum, and how evenly it "
        "was shared. A signal ends them all and takes them off the list.\n\n"
        "Examples:\n"
        "  zevobandwidth simulate -u alice -p ftp -d upload 20M\n"
        "  zevobandwidth simulate -u alice -p ftp -d download --count 4 5M\n");
    AddUserOption(command, arguments.user, "Whose transfers, by name or uid");
    AddProtocolOption(command, arguments.protocol)->required();
    AddDirectionOption(command, arguments.direction);
    command.add_option("size", arguments.size, "Of each transfer, from 1K, such as 20M")
        ->type_name("SIZE")
        ->required();
    command.add_option("--count", arguments.count, "How many at once, each in its own process")
        ->type_name("N")
        ->check(CLI::Range(1, kMaxTransfers));
    command.add_flag("-q,--quiet", arguments.isQuiet, "No progress line and no notes");
    AddOutputOptions(command);
}

} // namespace tool
