// Status files under many writers: how many updates another writer undoes, whether a fresh save is
// ever purged, and whether a stop holds.
#include "operations.hpp"
#include "row.hpp"

#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>

#include <sys/wait.h>
#include <unistd.h>

using namespace torture;
namespace fs = std::filesystem;

namespace {

constexpr char kUserName[] = "alice";
constexpr std::int64_t kUsPerSecond = 1'000'000;
constexpr std::int64_t kSaveEveryUs = 100'000;

std::string SectionOf(pid_t pid)
{
    return std::to_string(pid) + "-1";
}

// A transfer of this process; its number is its current speed.
bool Save(std::uint64_t number, std::int64_t ageSeconds = 0)
{
    ZEVO_BANDWIDTH_STATUS status = AlicesUpload(getpid(), std::time(nullptr) - ageSeconds);
    status.current_speed = number;
    status.expect_speed = 1'000;
    std::strcpy(status.filename, "/volume1/a file");
    return ZEVOBandwidthStatusSave(kAlice, nullptr, &status) == 0;
}

// The number that stands in the own section; 0 when there is none.
std::uint64_t Saved()
{
    ZEVO_BANDWIDTH_STATUS status = {};
    if (ZEVOBandwidthStatusGet(ZEVO_BW_OWNER_USER, kAlice, ZEVO_BW_TRANSFER_UPLOAD, &status) < 0)
        return 0;
    return status.current_speed;
}

// A place for one scenario: in memory, or on the disk.
enum class Place { kMemory, kDisk };

// Runs the scenario with a fresh status directory there, in a process of its own.
template <class Scenario> void RunAt(Place place, const Options &options, Scenario scenario)
{
    const Directory directory(place == Place::kDisk ? options.disk : "/tmp");
    fs::permissions(directory.path(), fs::perms{0777});
    RunWorkers(1, [&](int) {
        fs::create_directories(kStatusDirectory);
        Cover(kStatusDirectory, directory.path());
        scenario();
    });
}

constexpr double kOnlyPrinted = -1; // no bound is promised

// A bound on the part that is bad. A short run has too few to hold it to the letter and stops at what
// no chance explains.
void Judge(Row &row, const Options &options, double bad, double all, double bound)
{
    char percent[100];
    (void)std::snprintf(percent, sizeof(percent), ": %.3f %%", all > 0 ? bad / all * 100 : 0);
    row.Add(percent);
    if (bound == kOnlyPrinted) return;
    const double allowed = bound * all;
    const double slack = options.amount == Amount::kShort ? 3 + 3 * std::sqrt(allowed) : 0;
    char text[100];
    (void)std::snprintf(text, sizeof(text), ", at most %.2f %%", bound * 100);
    row.Add(text);
    if (bad > allowed + slack) row.Violate("%.0f of %.0f", bad, all);
}

// ---- lost updates ----

struct Losses {
    const char *szName;
    Place place;
    int writers;
    std::int64_t fromUs; // between two saves
    std::int64_t toUs;
    double bound;
};

constexpr Losses kLosses[] = {
    {"tmpfs, 8 writers every 2 to 5 ms", Place::kMemory, 8, 2'000, 5'000, 0.01},
    {"tmpfs, 32 writers every 100 ms", Place::kMemory, 32, kSaveEveryUs, kSaveEveryUs, 0.005},
    {"disk, 8 writers every 100 ms", Place::kDisk, 8, kSaveEveryUs, kSaveEveryUs, 0.005},
    {"disk, 32 writers every 100 ms", Place::kDisk, 32, kSaveEveryUs, kSaveEveryUs, 0.02},
    // More than a server does: what is left when turns end after 25 ms.
    {"tmpfs, 32 writers every 2 to 5 ms", Place::kMemory, 32, 2'000, 5'000, kOnlyPrinted},
    {"disk, 32 writers every 2 to 5 ms", Place::kDisk, 32, 2'000, 5'000, kOnlyPrinted},
    {"tmpfs, 64 writers flat out", Place::kMemory, 64, 0, 0, kOnlyPrinted},
    {"disk, 64 writers flat out", Place::kDisk, 64, 0, 0, kOnlyPrinted},
};

// A writer looks, before each save, whether its last one still stands.
std::uint64_t WriteAndLook(const Losses &losses, Row &row, const Budget &budget, Random &random)
{
    std::uint64_t lost = 0;
    SleepUs(random.UsBelow(losses.toUs));
    for (std::uint64_t number = 1; budget.Allows(row.tried()); ++number) {
        if (number > 1) {
            lost += Saved() != number - 1;
            row.Try();
        }
        const std::int64_t nextUs =
            NowUs() + losses.fromUs + random.UsBelow(losses.toUs - losses.fromUs + 1);
        if (!Save(number)) Die("cannot save");
        SleepUs(nextUs - NowUs());
    }
    return lost;
}

void MeasureLosses(const Losses &losses, const Options &options, Table &table, double share)
{
    Row &row = table.Add("updates lost at the next save, " + std::string(losses.szName));
    auto &lost = *Share<std::atomic<std::uint64_t>>();
    const Budget budget(options, share, losses.fromUs == kSaveEveryUs ? 150 : 1'000, 50'000);
    RunAt(losses.place, options, [&] {
        RunWorkers(losses.writers, [&](int worker) {
            Random random(options.seed, static_cast<std::uint64_t>(worker + 1'000));
            lost += WriteAndLook(losses, row, budget, random);
        });
    });
    Judge(row, options, static_cast<double>(lost), static_cast<double>(row.tried()), losses.bound);
}

// ---- purges ----

constexpr std::uint64_t kQuietEach = 8; // for longer than a tick of the clock of files

// Goes stale and comes back at the moment others clear the file up.
void Revive(Row &row, const Budget &budget, Random &random)
{
    for (std::uint64_t number = 1; budget.Allows(row.tried()); ++number) {
        if (!Save(1'000'000 + number, 100)) Die("cannot save");
        SleepUs(random.UsBelow(number % kQuietEach == 0 ? 12'000 : 300));
        if (!Save(number)) Die("cannot save");
        SleepUs(random.UsBelow(1'000));
        row.Try();
        if (Saved() == number) continue;
        SleepUs(50'000); // a purge may be putting back what it has taken
        if (Saved() != number) row.Violate("save %llu", static_cast<unsigned long long>(number));
    }
}

void TryPurges(const Options &options, Table &table, double share)
{
    Row &row = table.Add("fresh saves beside purging readers, tmpfs, purged");
    const Budget budget(options, share, 300, 50'000);
    RunAt(Place::kMemory, options, [&] {
        Children readers;
        for (int i = 0; i < 3; ++i)
            readers.Add(Fork([] {
                for (;;) {
                    ZEVO_BANDWIDTH_STATUS *pList = nullptr;
                    (void)ZEVOBandwidthStatusGetAll(ZEVO_BW_OWNER_USER, kAlice,
                                                    ZEVO_BW_PROTOCOL_ALL, ZEVO_BW_TRANSFER_ALL,
                                                    &pList);
                    ZEVOBandwidthStatusListFree(&pList);
                }
                return 0;
            }));
        Random random(options.seed, 2'000);
        Revive(row, budget, random);
    });
}

// ---- stops ----

// As the throttle loop does: ends when it finds itself stopped, else saves and goes on.
[[noreturn]] void SaveUntilStopped(Random random)
{
    for (std::uint64_t number = 1;; ++number) {
        ZEVO_BANDWIDTH_STATUS saved = {};
        saved.active = 1;
        if (ZEVOBandwidthStatusGet(ZEVO_BW_OWNER_USER, kAlice, ZEVO_BW_TRANSFER_UPLOAD, &saved) ==
                0 &&
            saved.active == 0) {
            const std::string section = SectionOf(getpid());
            (void)ZEVOBandwidthStatusRemoveSection(kAlicesFile, section.c_str());
            ::_exit(0);
        }
        if (!Save(number)) ::_exit(1);
        SleepUs(2'000 + random.UsBelow(3'000));
    }
}

int Tool(const std::string &pid, const char *szSeconds)
{
    const char *const szTool = std::getenv("ZEVOBW_TOOL");
    if (szTool == nullptr) Die("ZEVOBW_TOOL does not name the tool");
    return WaitFor(Fork([&] {
        for (std::FILE *const pStream : {stdout, stderr})
            if (std::freopen("/dev/null", "w", pStream) == nullptr) return 126;
        ::execl(szTool, szTool, "stop", "-u", kUserName, "--pid", pid.c_str(), "--wait", szSeconds,
                nullptr);
        return 127;
    }));
}

bool HasEnded(pid_t pid, std::int64_t withinUs)
{
    const std::int64_t endUs = NowUs() + withinUs;
    do {
        if (::waitpid(pid, nullptr, WNOHANG) == pid) return true;
        SleepUs(1'000);
    } while (NowUs() < endUs);
    return false;
}

void TryStop(Row &row, const char *szSeconds, Random &random)
{
    const std::uint64_t stream = random.Below(UINT32_MAX);
    const pid_t pid = Fork([&]() -> int { SaveUntilStopped(Random(stream, 0)); });
    while (ReadFile(kAlicesFile).find("[" + SectionOf(pid) + "]") == std::string::npos)
        SleepUs(1'000);
    const int status = Tool(std::to_string(pid), szSeconds);
    row.Try();
    // Others' writes may undo the mark as the transfer's own do: what the tool has told must hold.
    if (status != 0) row.Violate("stop --wait %s ended with %d", szSeconds, status);
    if (HasEnded(pid, 2 * kUsPerSecond)) return;
    row.Violate("the transfer goes on after stop --wait %s", szSeconds);
    (void)Kill(pid);
}

void TryStops(const Options &options, Table &table, double share)
{
    Row &row = table.Add("stops beside 8 writers every 2 to 5 ms, tmpfs, undone");
    const Budget budget(options, share, 4, 1'000);
    RunAt(Place::kMemory, options, [&] {
        Children writers;
        for (int i = 0; i < 8; ++i)
            writers.Add(Fork([&, i]() -> int {
                SaveUntilStopped(Random(options.seed, 3'000 + static_cast<std::uint64_t>(i)));
            }));
        Random random(options.seed, 3'100);
        while (budget.Allows(row.tried()))
            TryStop(row, row.tried() % 2 == 0 ? "10" : "0", random);
    });
}

// A transfer at 100 MiB/s whose every block is saved; 0 when it ends as stopped.
int TransferUntilStopped()
{
    constexpr std::uint64_t kBlockBytes = std::uint64_t{256} << 10;
    ZEVO_BANDWIDTH_LIMIT limit = {};
    limit.conf.ownerType = ZEVO_BW_OWNER_USER;
    limit.conf.id = kAlice;
    limit.conf.protocolType = ZEVO_BW_PROTOCOL_FTP;
    limit.conf.state = limit.conf.currentState = ZEVO_BW_STATE_ENABLED;
    limit.conf.uploadRate = limit.conf.currentUploadRate = 100 << 10;
    ZEVO_BANDWIDTH_CONFIG config = {};
    config.uid = kAlice;
    config.globalConf.protocolType = ZEVO_BW_PROTOCOL_FTP;
    config.globalConf.state = config.globalConf.currentState = ZEVO_BW_STATE_ENABLED;
    config.globalConf.userGroupPolicy = ZEVO_BW_USER_GROUP_POLICY_USER_ONLY;
    config.pLimit = &limit;
    config.iLimit = 1;
    ZEVO_BANDWIDTH_STATUS status = {};
    std::uint64_t lastUs = 0;
    if (ZEVOBandwidthStatusInit(&config, ZEVO_BW_TRANSFER_UPLOAD, "/a", &lastUs, &status) < 0)
        return 1;
    while (ZEVOBandwidthSleepInLoop(&config, kBlockBytes, 0, &lastUs, &status) == 0) {
    }
    const bool isStopped = VLIBCErrGet() == ZEVO_BW_ERROR_STOPPED;
    return ZEVOBandwidthStatusRemove(&config, ZEVO_BW_TRANSFER_UPLOAD) == 0 && isStopped ? 0 : 1;
}

// A stop that the library has acknowledged must end the transfer, whatever that saves meanwhile.
void TryBareStops(const Options &options, Table &table, double share, Place place)
{
    Row &row = table.Add(std::string("stops beside the transfer's own saves, ") +
                         (place == Place::kDisk ? "disk" : "tmpfs") + ", lost");
    const Budget budget(options, share, 40, 10'000);
    RunAt(place, options, [&] {
        Random random(options.seed, 3'200);
        for (; budget.Allows(row.tried()); row.Try()) {
            const pid_t pid = Fork(TransferUntilStopped);
            const std::int64_t endUs = NowUs() + 10 * kUsPerSecond;
            SleepUs(static_cast<std::int64_t>(random.Below(6'000)));
            while (ZEVOBandwidthStatusSetActiveByUserName("alice", ZEVO_BW_TRANSFER_UPLOAD, pid,
                                                          0) < 0 &&
                   NowUs() < endUs)
                SleepUs(200); // it is not listed yet
            int status = -1;
            while (::waitpid(pid, &status, WNOHANG) == 0 && NowUs() < endUs)
                SleepUs(200);
            if (status == 0) continue;
            row.Violate("the transfer has ended with %d, or goes on", status);
            (void)Kill(pid);
        }
    });
}

} // namespace

int main(int argc, char **argv)
{
    const Options options = ParseOptions(argc, argv);
    Table table(options.seed);
    const double share = 1.0 / (options.disk.empty() ? 7 : 12);
    for (const Losses &losses : kLosses) {
        if (losses.place == Place::kDisk && options.disk.empty()) continue;
        if (losses.bound == kOnlyPrinted && options.amount == Amount::kShort) continue;
        MeasureLosses(losses, options, table, share);
    }
    TryPurges(options, table, share);
    TryStops(options, table, share);
    TryBareStops(options, table, share, Place::kMemory);
    if (!options.disk.empty()) TryBareStops(options, table, share, Place::kDisk);
    return table.Print();
}
