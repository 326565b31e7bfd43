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
#include <memory>
#include <span>
#include <vector>

#include <zevobandwidth.hpp>
#include <zevocore.h>

#include "command.hpp"
#include "model/evaluation.hpp"
#include "model/rate.hpp"
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
    int count = 1;
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

// The process that plays the transfer out writes it. The command reads it after that process ended.
struct Report {
    std::int64_t beganUs = 0;
    std::int64_t endedUs = 0; // 0 when it was killed
    bool isPlayedOut = false;
    unsigned code = 0; // of the error slot otherwise
};

[[noreturn]] void Play(const Task &task, Report &report)
{
    static_cast<void>(
        ::prctl(PR_SET_PDEATHSIG, SIGTERM)); // the parent takes the transfer off the list
    LeaveEndingToParent();
    report.beganUs = NowUs();
    report.isPlayedOut = ZEVOBandwidthSimulate(task.user.name.c_str(), task.protocol,
                                               task.direction, task.sizeKB) == 0;
    report.code = VLIBCErrGet();
    report.endedUs = NowUs();
    ::_exit(kDone);
}

enum class State { kRunning, kDone, kStopped, kFailed };

const char *StateText(State state)
{
    static constexpr std::array kTexts = {"running", "done", "stopped", "failed"};
    return kTexts[static_cast<std::size_t>(state)];
}

struct Played {
    pid_t pid = 0;
    State state = State::kRunning;
    unsigned code = 0; // of the error slot when it has failed; 0 when it was killed
    std::uint64_t gotKB = 0;
    std::int64_t beganUs = 0;
    std::int64_t endedUs = 0;
};

// Started, and not known to have ended.
bool IsLeft(const Played &played)
{
    return played.pid != 0 && played.state == State::kRunning;
}

std::uint64_t SpeedBps(const Played &played)
{
    return ZEVOBandwidthSpeedEstimate(played.endedUs - played.beganUs, played.gotKB * kBytesPerKB);
}

// ---- all of them ----

class Ensemble {
public:
    Ensemble(const Task &task, int count) : task_(task), all_(static_cast<std::size_t>(count))
    {
        void *const memory = ::mmap(nullptr, all_.size() * sizeof(Report), PROT_READ | PROT_WRITE,
                                    MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) throw std::bad_alloc();
        reports_ = {static_cast<Report *>(memory), all_.size()};
    }

    // A process that is killed during a save may leave a temporary file. The library removes it
    // later.
    ~Ensemble()
    {
        for (std::size_t i = 0; i < all_.size(); ++i) {
            if (!IsLeft(all_[i])) continue;
            ::kill(all_[i].pid, SIGTERM);
            ::waitpid(all_[i].pid, nullptr, 0);
            Settle(i);
        }
        ::munmap(reports_.data(), reports_.size_bytes());
    }

    Ensemble(const Ensemble &) = delete;
    Ensemble &operator=(const Ensemble &) = delete;

    // Throws Failure when the machine gives no more processes.
    void Start()
    {
        std::fflush(nullptr); // or each process would print the buffer again
        for (std::size_t i = 0; i < all_.size() && EndingSignal() == 0; ++i) {
            const pid_t pid = ::fork();
            if (pid == 0) Play(task_, reports_[i]);
            if (pid < 0)
                throw Failure(kFailed, "process " + std::to_string(i + 1) + " of " +
                                           std::to_string(all_.size()) + " cannot be started: " +
                                           std::strerror(errno) + "; ask for fewer with --count");
            all_[i].pid = pid;
        }
    }

    // Looks which processes have ended. False when none is left.
    bool Collect()
    {
        for (std::size_t i = 0; i < all_.size(); ++i)
            if (IsLeft(all_[i]) && ::waitpid(all_[i].pid, nullptr, WNOHANG) != 0) Settle(i);
        return std::any_of(all_.begin(), all_.end(), IsLeft);
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
                return IsLeft(played) && played.pid == status.pid;
            };
            if (std::none_of(all_.begin(), all_.end(), isOurs)) continue;
            figures.bytes += SavedKB(status) * kBytesPerKB;
            const bool isUnlimited = status.expect_speed == 0 || figures.allowedBps == 0;
            figures.allowedBps =
                isUnlimited ? 0 : figures.allowedBps.value_or(0) + status.expect_speed;
        }
        return figures;
    }

    const std::vector<Played> &all() const noexcept { return all_; }

    std::size_t Count(State state) const
    {
        const auto is = [state](const Played &played) { return played.state == state; };
        return static_cast<std::size_t>(std::count_if(all_.begin(), all_.end(), is));
    }

private:
    // Every user can write the file, so the figure may be any number.
    std::uint64_t SavedKB(const ZEVO_BANDWIDTH_STATUS &status) const
    {
        return std::min(status.progress, kWhole) * task_.sizeKB / kWhole;
    }

    void Settle(std::size_t index)
    {
        Played &played = all_[index];
        const Report &report = reports_[index];
        played.beganUs = report.beganUs;
        played.endedUs = report.endedUs != 0 ? report.endedUs : NowUs();
        if (report.isPlayedOut) {
            played.state = State::kDone;
            played.gotKB = task_.PlayedKB();
            return;
        }
        const bool isStopped = report.endedUs != 0 && report.code == ZEVO_BW_ERROR_STOPPED;
        played.state = isStopped ? State::kStopped : State::kFailed;
        played.code = report.endedUs != 0 ? report.code : 0;
        ZEVO_BANDWIDTH_STATUS saved = {};
        if (ZEVOBandwidthIStatusGet(ZEVO_BW_OWNER_USER, task_.user.id, played.pid, task_.direction,
                                    &saved) == 0)
            played.gotKB = SavedKB(saved);
        // What cannot be removed goes stale.
        static_cast<void>(ZEVOBandwidthStatusForceRemoveAllByUserName(
            task_.user.name.c_str(), static_cast<std::uint32_t>(task_.direction), played.pid));
    }

    const Task task_;
    std::vector<Played> all_;
    std::span<Report> reports_; // shared with the processes
};

// ---- the result ----

struct Total {
    std::uint64_t gotKB = 0;
    std::int64_t tookUs = 0;
    std::uint64_t speedBps = 0;
    double fairness = 1; // Jain's index of the mean speeds: 1 when all are equal
};

Total Sum(const std::vector<Played> &all)
{
    Total total;
    std::int64_t beganUs = INT64_MAX;
    std::int64_t endedUs = 0;
    double sum = 0;
    double squares = 0;
    for (const Played &played : all) {
        total.gotKB += played.gotKB;
        beganUs = std::min(beganUs, played.beganUs);
        endedUs = std::max(endedUs, played.endedUs);
        const auto speed = static_cast<double>(SpeedBps(played));
        sum += speed;
        squares += speed * speed;
    }
    total.tookUs = endedUs - beganUs;
    total.speedBps = ZEVOBandwidthSpeedEstimate(total.tookUs, total.gotKB * kBytesPerKB);
    if (squares > 0) total.fairness = sum * sum / (squares * static_cast<double>(all.size()));
    return total;
}

std::string Decimals(double value, int decimals)
{
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%.*f", decimals, value);
    return text.data();
}

double Seconds(std::int64_t us)
{
    return static_cast<double>(us) / static_cast<double>(kMicrosPerSecond);
}

void PrintTable(const std::vector<Played> &all, bool isLimited)
{
    const auto speed = [isLimited](std::uint64_t bps) {
        return isLimited ? FormatSpeed(bps) : FormatAllowedSpeed(0);
    };
    Table table({"PID", "RESULT", "KB", "SECONDS", "SPEED"}, {0, 2, 3, 4});
    for (const Played &played : all)
        table.AddRow(
            {std::to_string(played.pid), StateText(played.state), std::to_string(played.gotKB),
             Decimals(Seconds(played.endedUs - played.beganUs), 2), speed(SpeedBps(played))});
    const Total total = Sum(all);
    table.AddRow({"total", "", std::to_string(total.gotKB), Decimals(Seconds(total.tookUs), 2),
                  speed(total.speedBps)});
    table.Print();
    if (isLimited && all.size() > 1)
        PrintLine("Fairness (Jain's index, 1 is equal): " + Decimals(total.fairness, 3));
}

Json ToJson(const std::vector<Played> &all, bool isLimited)
{
    const auto speed = [isLimited](std::uint64_t bps) {
        return isLimited ? Json(bps) : Json(nullptr);
    };
    Json transfers = Json::array();
    for (const Played &played : all)
        transfers.push_back({{"pid", played.pid},
                             {"result", StateText(played.state)},
                             {"kib", played.gotKB},
                             {"seconds", Seconds(played.endedUs - played.beganUs)},
                             {"speed_bytes_per_s", speed(SpeedBps(played))}});
    const Total total = Sum(all);
    return {{"transfers", transfers},
            {"total",
             {{"kib", total.gotKB},
              {"seconds", Seconds(total.tookUs)},
              {"speed_bytes_per_s", speed(total.speedBps)}}},
            {"fairness", isLimited ? Json(total.fairness) : Json(nullptr)}};
}

std::string WhyAndWhatToDo(unsigned code)
{
    switch (code) {
    case 0:
        return "it was killed; find out by whom, and run the command again";
    case ZEVO_BW_ERROR_NO_MEMORY:
        return "out of memory; ask for fewer with --count";
    case ZEVO_BW_ERROR_OPEN:
    case ZEVO_BW_ERROR_READ:
    case ZEVO_BW_ERROR_STAT:
        return "a status file or a file of the limits cannot be opened or read; 'zevobandwidth "
               "check' says what is wrong with it";
    case ZEVO_BW_ERROR_WRITE:
    case ZEVO_BW_ERROR_RENAME:
        return "a status file in /tmp/bandwidth cannot be written; is the disk full? Make room "
               "there";
    default: {
        std::array<char, 32> text{};
        std::snprintf(text.data(), text.size(), "error 0x%04X", code);
        return std::string(text.data()) + "; mend what 'zevobandwidth check' finds, and look into "
                                          "the system log for more";
    }
    }
}

void CheckAllPlayedOut(const Ensemble &ensemble)
{
    const std::string of = " of " + std::to_string(ensemble.all().size()) + " transfers ";
    const auto &all = ensemble.all();
    const auto first = std::find_if(all.begin(), all.end(), [](const Played &played) {
        return played.state == State::kFailed;
    });
    if (first != all.end())
        throw Failure(kFailed, std::to_string(ensemble.Count(State::kFailed)) + of +
                                   "failed, that of process " + std::to_string(first->pid) + ": " +
                                   WhyAndWhatToDo(first->code));
    if (const std::size_t stopped = ensemble.Count(State::kStopped); stopped != 0)
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
    CheckAllPlayedOut(ensemble);
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
    const auto arguments = std::make_shared<SimulateArguments>();
    CLI::App *command =
        app.add_subcommand("simulate", "Play out transfers without data, and show what each got");
    AddUserOption(*command, arguments->user, "Whose transfers, by name or uid");
    AddProtocolOption(*command, arguments->protocol)->required();
    AddDirectionOption(*command, arguments->direction);
    command->add_option("size", arguments->size, "Of each transfer, from 1K, such as 20M")
        ->type_name("SIZE")
        ->required();
    command->add_option("--count", arguments->count, "How many at once, each in its own process")
        ->type_name("N")
        ->check(CLI::Range(1, kMaxTransfers));
    command->add_flag("-q,--quiet", arguments->isQuiet, "No progress line and no notes");
    AddOutputOptions(*command);
    command->footer(
        "They are listed, share the limits with all others, follow changed rules and can\n"
        "be stopped like real ones. They move blocks of 64 KiB, of which the last counts\n"
        "as a whole; a size is rounded up to whole KiB. At the end: what each got, the\n"
        "sum, and how evenly it was shared. A signal ends them all and takes them off the\n"
        "list.\n\n"
        "Examples:\n"
        "  zevobandwidth simulate -u alice -p ftp -d upload 20M\n"
        "  zevobandwidth simulate -u alice -p ftp -d download --count 4 5M\n");
    command->callback([arguments] { RunSimulate(*arguments); });
}

} // namespace tool
