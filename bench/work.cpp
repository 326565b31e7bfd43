// work: what the library's own work costs beside the least that its files cost at all. Each line of
// the table runs the library and the floor (floor.hpp) in turns, in rounds of a few milliseconds, on
// files of the same bytes, so that whatever else the machine does to caches hits both; medians of the
// processor time are printed, and the median of the rounds' shares of what is allowed is held against 1.
// The whole table is measured three times, and of each line the best time counts: a neighbour on a
// shared core slows the library down more than the floor, for seconds at a time, and work that is too
// slow is so each time. Then how the work grows with the number of running transfers, what the heap
// keeps, and which system calls a call makes that has nothing to do. The exit status is 1 when
// something is out of its bound.
//
//   work [--short] [--json FILE] [--table FILE]
//
// --short looks at growth and heap only, and says nothing of times: those are not this machine's
// alone. --json and --table write what was measured, the second in columns for a plot. Fills the rule
// files and the status files of the machine it runs on: only for a sandbox.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <vector>

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <malloc.h>
#include <nlohmann/json.hpp>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <zevobandwidth.h>
#include <zevocore.h>

#include "floor.hpp"
#include "measure.hpp"
#include "sections.hpp"

using namespace bench;

namespace {

constexpr const char *kStatusDirectory = "/tmp/bandwidth";
constexpr const char *kFloorDirectory = "/tmp/floor";
constexpr std::int32_t kProtocol = ZEVO_BW_PROTOCOL_RSYNC;
constexpr std::int32_t kDirection = ZEVO_BW_TRANSFER_UPLOAD;
constexpr std::uint32_t kUid = 5001;
constexpr std::uint32_t kFirstGid = 30'001;
constexpr std::int32_t kFirstPid = 10'000'001; // beyond every process
constexpr std::int64_t kDay = 86'400;
constexpr useconds_t kTickUs = 12'000; // longer than one of the kernel's clock

bool brief = false;

// ---- files of n running transfers ----

enum class Age { kLive, kStale };

ZEVO_BANDWIDTH_STATUS StatusOf(std::int32_t pid, std::uint32_t uid, Age age)
{
    ZEVO_BANDWIDTH_STATUS status = {};
    status.pid = pid;
    status.uid = uid;
    status.active = 1;
    status.timestamp = std::time(nullptr) + (age == Age::kLive ? kDay : -kDay);
    status.current_speed = 123'456;
    status.expect_speed = 125'000;
    status.protocol_type = kProtocol;
    status.transfer_type = kDirection;
    status.progress = 4'200;
    std::snprintf(status.filename, sizeof status.filename,
                  "/volume1/photos/2024/Summer by the sea/from the second camera, unsorted/"
                  "picture number %08d of many.jpg",
                  pid);
    return status;
}

std::string SectionOf(std::int32_t pid)
{
    return std::to_string(pid) + "-" + std::to_string(kDirection);
}

void CopyFile(const std::string &from, const std::string &to)
{
    std::filesystem::copy_file(from, to, std::filesystem::copy_options::overwrite_existing);
}

// One owner's status file, and beside it the same bytes for the floor.
class StatusFile {
public:
    // n sections, each of another user unless a user's own file is wanted; one of them, in the
    // middle, may be this process's.
    StatusFile(std::int32_t ownerType, std::uint32_t id, int n, bool withOwn, Age age = Age::kLive)
        : name_((ownerType == ZEVO_BW_OWNER_USER ? "/user-" : "/group-") + std::to_string(id)),
          floor_(kFloorDirectory + name_)
    {
        {
            SectionWriter writer(path());
            for (int i = 0; i < n; ++i) {
                const bool isOwn = withOwn && i == n / 2;
                const auto number = static_cast<std::uint32_t>(i);
                const bool isUsers = ownerType == ZEVO_BW_OWNER_USER || isOwn;
                ZEVO_BANDWIDTH_STATUS status = StatusOf(isOwn ? ::getpid() : kFirstPid + i,
                                                        isUsers ? kUid : 100'000 + number, age);
                status.owner_type = static_cast<std::uint32_t>(ownerType);
                status.id = id;
                writer.Write(SectionOf(status.pid), status, ZEVOBandwidthInitHashFromStatus);
            }
        }
        ::chmod(path().c_str(), 0666);
        CopyFile(path(), kFloorDirectory + name_);
    }

    std::string path() const { return kStatusDirectory + name_; }
    Floor &floor() { return floor_; }
    // As it was written first.
    void Restore() const { CopyFile(kFloorDirectory + name_, path()); }

private:
    std::string name_;
    Floor floor_;
};

ZEVO_BANDWIDTH_CONF RuleOf(std::int32_t ownerType, std::uint32_t id)
{
    ZEVO_BANDWIDTH_CONF rule = {};
    rule.ownerType = ownerType;
    rule.id = id;
    rule.protocolType = kProtocol;
    rule.state = rule.currentState = ZEVO_BW_STATE_ENABLED;
    rule.uploadRate = rule.downloadRate = 1'000'000;
    rule.currentUploadRate = rule.currentDownloadRate = 1'000'000;
    return rule;
}

// ---- measuring ----

using Work = std::function<void()>;

// A line of the table: what is allowed is so many times the floor and a constant.
struct Row {
    std::string name;
    int n = 0;
    double factor = 0;
    double constantUs = 0;
    double floorUs = 0;
    double libraryUs = 0;
    double ratio = 0; // medians of the rounds' own
    double share = 0; // of what is allowed

    bool Holds() const { return share <= 1; }
};

double MedianOf(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// The processor's time, not the clock's: other programs are waited for, but not counted. On tmpfs
// nothing else is waited for.
double NowUs()
{
    struct timespec now = {};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

// Microseconds of one run out of several.
double Time(const Work &work, int runs, const Work &prepare)
{
    double us = 0;
    for (int i = 0; i < runs; ++i) {
        if (prepare) prepare();
        const double began = NowUs();
        if (prepare) {
            work();
        } else {
            for (; i < runs; ++i)
                work();
        }
        us += NowUs() - began;
    }
    return us / runs;
}

int RunsInRound(const Work &work, const Work &prepare)
{
    constexpr double kRoundUs = 2'000;
    const double us = Time(work, 1, prepare);
    return static_cast<int>(std::clamp(kRoundUs / std::max(us, 0.1), 1.0, 2'000.0));
}

Row Measure(Row row, const Work &library, const Work &floor, const Work &prepare = {})
{
    const int rounds = brief ? 7 : 61;
    (void)Time(library, 1, prepare); // warms both up
    (void)Time(floor, 1, prepare);
    const int libraryRuns = RunsInRound(library, prepare);
    const int floorRuns = RunsInRound(floor, prepare);
    std::vector<double> libraryUs;
    std::vector<double> floorUs;
    std::vector<double> ratios;
    std::vector<double> shares;
    for (int i = 0; i < rounds; ++i) {
        libraryUs.push_back(Time(library, libraryRuns, prepare));
        floorUs.push_back(Time(floor, floorRuns, prepare));
        ratios.push_back(libraryUs.back() / floorUs.back());
        shares.push_back(libraryUs.back() / (row.factor * floorUs.back() + row.constantUs));
    }
    row.libraryUs = MedianOf(libraryUs);
    row.floorUs = MedianOf(floorUs);
    row.ratio = MedianOf(ratios);
    row.share = MedianOf(shares);
    return row;
}

void Must(bool done, const char *what)
{
    if (!done) Die(std::string(what) + " failed");
}

// ---- the lines ----

constexpr const char *kExpectedSpeed = "expected speed of one rule";
constexpr const char *kListing = "public listing";
constexpr const char *kReplacing = "replacing one section";
constexpr const char *kPurging = "purging stale sections";
constexpr const char *kThrottling = "whole throttle call";
constexpr const char *kRule = "reading one rule";

Row ExpectedSpeed(int n)
{
    StatusFile file(ZEVO_BW_OWNER_GROUP, kFirstGid, n, false);
    const ZEVO_BANDWIDTH_CONF rule = RuleOf(ZEVO_BW_OWNER_GROUP, kFirstGid);
    const bool isLarge = n >= 100;
    return Measure(
        {kExpectedSpeed, n, isLarge ? 4.0 : 2.5, isLarge ? 0.0 : 5.0},
        [&] {
            std::uint64_t speed = 0;
            Must(ZEVOBandwidthExpectSpeedEstimate(kUid, &rule, kDirection, &speed, ::getpid()) == 0,
                 "the expected speed");
        },
        [&] { Must(file.floor().ReadAndScan() == static_cast<std::size_t>(n), "the scan"); });
}

void MakeRecords(int n)
{
    ZEVO_BANDWIDTH_STATUS *pHead = nullptr;
    for (int i = 0; i < n; ++i) {
        auto *const pNew =
            static_cast<ZEVO_BANDWIDTH_STATUS *>(std::calloc(1, sizeof(ZEVO_BANDWIDTH_STATUS)));
        Must(pNew != nullptr, "allocating");
        pNew->next = pHead;
        pHead = pNew;
    }
    ZEVOBandwidthStatusListFree(&pHead);
}

Row PublicListing(int n)
{
    StatusFile file(ZEVO_BW_OWNER_GROUP, kFirstGid, n, false);
    return Measure(
        {kListing, n, 4.0},
        [&] {
            ZEVO_BANDWIDTH_STATUS *pList = nullptr;
            Must(ZEVOBandwidthStatusGetAll(ZEVO_BW_OWNER_GROUP, kFirstGid, ZEVO_BW_PROTOCOL_ALL,
                                           ZEVO_BW_TRANSFER_ALL, &pList) == n,
                 "the listing");
            ZEVOBandwidthStatusListFree(&pList);
        },
        [&] {
            Must(file.floor().ReadAndScan() == static_cast<std::size_t>(n), "the scan");
            MakeRecords(n);
        });
}

Row Replacing(int n)
{
    StatusFile file(ZEVO_BW_OWNER_GROUP, kFirstGid, n, true);
    ZEVO_BANDWIDTH_STATUS status = StatusOf(::getpid(), kUid, Age::kLive);
    status.owner_type = ZEVO_BW_OWNER_GROUP;
    status.id = kFirstGid;
    VLIB_SZ_HASH *pHash = VLIBCSzHashAlloc(0);
    Must(ZEVOBandwidthInitHashFromStatus(&pHash, &status) == 0, "the hash");
    const std::string path = file.path();
    const std::string section = SectionOf(status.pid);
    Row row = Measure(
        {kReplacing, n, 1.4},
        [&] {
            Must(ZEVOBandwidthStatusSetSection(path.c_str(), section.c_str(), pHash) == 1,
                 "replacing");
        },
        [&] { file.floor().Rewrite(); });
    VLIBCSzHashFree(pHash);
    return row;
}

Row Purging(int n)
{
    StatusFile file(ZEVO_BW_OWNER_GROUP, kFirstGid, n, false, Age::kStale);
    // What is stale is decided anew about the text that is rewritten: the sections are written to a
    // file and listed once more. This happens once, after a crash.
    return Measure(
        {kPurging, n, n < 1'000 ? 3.0 : 6.0},
        [&] {
            ZEVO_BANDWIDTH_STATUS *pList = nullptr;
            Must(ZEVOBandwidthStatusGetAll(ZEVO_BW_OWNER_GROUP, kFirstGid, ZEVO_BW_PROTOCOL_ALL,
                                           ZEVO_BW_TRANSFER_ALL, &pList) == 0,
                 "purging");
        },
        [&] { file.floor().Rewrite(); },
        [&] {
            file.Restore();
            ::usleep(kTickUs); // as after a crash, whose files nobody has touched for a while
        });
}

// A limited transfer of a user with a rule of his own and two groups that it is charged to.
class ThrottledTransfer {
public:
    explicit ThrottledTransfer(std::int32_t policyState, std::uint64_t rateKBps = 1'000'000)
    {
        config_.uid = kUid;
        config_.iLimit = 3;
        config_.blUserConfExist = config_.blGroupConfExist = 1;
        config_.pLimit = limits_;
        config_.globalConf.state = config_.globalConf.currentState = policyState;
        config_.globalConf.protocolType = kProtocol;
        config_.globalConf.userGroupPolicy = ZEVO_BW_USER_GROUP_POLICY_MIN;
        config_.globalConf.interGroupPolicy = ZEVO_BW_INTER_GROUP_POLICY_MIN;
        config_.globalConf.occupyPolicy = ZEVO_BW_OCCUPY_POLICY_ALL;
        limits_[0].conf = RuleOf(ZEVO_BW_OWNER_USER, kUid);
        for (std::uint32_t i = 0; i < 2; ++i)
            limits_[i + 1].conf = RuleOf(ZEVO_BW_OWNER_GROUP, kFirstGid + i);
        for (ZEVO_BANDWIDTH_LIMIT &limit : limits_)
            limit.conf.currentUploadRate = rateKBps;
        status_.id = kUid;
        status_.owner_type = ZEVO_BW_OWNER_USER;
    }
    ThrottledTransfer(const ThrottledTransfer &) = delete;
    ThrottledTransfer &operator=(const ThrottledTransfer &) = delete;

    // Its last block is so long ago that there is nothing to sleep off.
    int Throttle() noexcept
    {
        std::uint64_t timeLast = 0;
        return ZEVOBandwidthSleepInLoop(&config_, 65'536, 4'200, &timeLast, &status_);
    }

private:
    ZEVO_BANDWIDTH_LIMIT limits_[3] = {};
    ZEVO_BANDWIDTH_CONFIG config_ = {};
    ZEVO_BANDWIDTH_STATUS status_ = StatusOf(::getpid(), kUid, Age::kLive);
};

Row Throttling(int n)
{
    StatusFile user(ZEVO_BW_OWNER_USER, kUid, n, true);
    StatusFile groupA(ZEVO_BW_OWNER_GROUP, kFirstGid, n, true);
    StatusFile groupB(ZEVO_BW_OWNER_GROUP, kFirstGid + 1, n, true);
    const std::string section(std::filesystem::file_size(groupA.path()) / static_cast<unsigned>(n),
                              ';');
    ThrottledTransfer transfer(ZEVO_BW_STATE_ENABLED);
    return Measure(
        {kThrottling, n, 2.0}, [&] { Must(transfer.Throttle() == 0, "the throttle call"); },
        [&] {
            user.floor().ReadAndScan();
            groupA.floor().ReadAndScan();
            groupB.floor().ReadAndScan();
            groupA.floor().Rewrite(section.size());
            groupB.floor().Rewrite(section.size());
            user.floor().ReadAndScan();
            user.floor().Rewrite();
            groupA.floor().Append(section);
            groupB.floor().Append(section);
        });
}

Row ReadingRule(int n)
{
    char path[4096];
    Must(ZEVOBandwidthConfPath(kProtocol, path, sizeof path) == 0, "the rules' path");
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    {
        SectionWriter writer(path);
        for (std::uint32_t i = 0; i < static_cast<std::uint32_t>(n); ++i) {
            ZEVO_BANDWIDTH_CONF rule = RuleOf(ZEVO_BW_OWNER_USER, kUid + i);
            std::fill_n(rule.szSchedulePlan, 168, '1');
            writer.Write("user-" + std::to_string(rule.id), rule, ZEVOBandwidthInitHashFromConf);
        }
    }
    Floor floor(path);
    const auto last = kUid + static_cast<std::uint32_t>(n) - 1;
    return Measure(
        {kRule, n, 2.0},
        [&] {
            ZEVO_BANDWIDTH_CONF rule;
            Must(ZEVOBandwidthConfGetByID(ZEVO_BW_OWNER_USER, last, kProtocol, &rule) == 0 &&
                     rule.uploadRate != 0,
                 "reading a rule");
        },
        [&] { Must(floor.ReadAndScan() == static_cast<std::size_t>(n), "the scan"); });
}

// ---- calls with nothing to do ----

Row Idle(const char *name, ThrottledTransfer transfer)
{
    constexpr double kMaxUs = 2;
    return Measure(
        {name, 0, 0, kMaxUs}, [&] { Must(transfer.Throttle() == 0, "the throttle call"); },
        [] { (void)ZEVOBandwidthCurrTimeGet(); });
}

// From here on any system call but the clock's and the end ends the process.
void AllowOnlyTheClock()
{
#define ALLOW(number)                                                                              \
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, (number), 0, 1),                                           \
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)
    struct sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
#ifdef __NR_gettimeofday
        ALLOW(__NR_gettimeofday),
#endif
        ALLOW(__NR_clock_gettime),
        ALLOW(__NR_exit_group),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
    };
#undef ALLOW
    struct sock_fprog program = {static_cast<unsigned short>(std::size(code)), code};
    Must(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
             ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0,
         "seccomp");
}

bool MakesNoSystemCall(ThrottledTransfer transfer)
{
    const pid_t pid = ::fork();
    if (pid == 0) {
        (void)transfer.Throttle(); // loads what is loaded once
        AllowOnlyTheClock();
        for (int i = 0; i < 1'000; ++i)
            if (transfer.Throttle() != 0) ::_exit(1);
        ::_exit(0);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// ---- the heap ----

// What a million calls leave behind on the heap: most of them have nothing to do, the others do the
// whole work.
double HeapGrowth()
{
    const int idle = brief ? 50'000 : 980'000;
    const int whole = brief ? 1'000 : 20'000;
    StatusFile user(ZEVO_BW_OWNER_USER, kUid, 2, true);
    StatusFile groupA(ZEVO_BW_OWNER_GROUP, kFirstGid, 2, true);
    StatusFile groupB(ZEVO_BW_OWNER_GROUP, kFirstGid + 1, 2, true);
    ThrottledTransfer limited(ZEVO_BW_STATE_ENABLED);
    ThrottledTransfer unlimited(ZEVO_BW_STATE_ENABLED, 0);
    for (int i = 0; i < 1'000; ++i) // fills what allocators keep
        Must(limited.Throttle() == 0, "the throttle call");
    const std::size_t before = ::mallinfo2().uordblks;
    for (int i = 0; i < whole; ++i)
        Must(limited.Throttle() == 0, "the throttle call");
    for (int i = 0; i < idle; ++i)
        Must(unlimited.Throttle() == 0, "the throttle call");
    return static_cast<double>(::mallinfo2().uordblks) - static_cast<double>(before);
}

// ---- everything ----

struct Growth {
    std::string name;
    double value;
    double bound;

    bool Holds() const { return value <= bound; }
};

const Row &Find(const std::vector<Row> &rows, const char *name, int n)
{
    return *std::find_if(rows.begin(), rows.end(),
                         [&](const Row &row) { return row.name == name && row.n == n; });
}

double GrowthOf(double Row::*time, const std::vector<Row> &rows, const char *name, int from, int to)
{
    return Find(rows, name, to).*time / (Find(rows, name, from).*time);
}

double Growths(const std::vector<Row> &rows, const char *name, int from, int to)
{
    return GrowthOf(&Row::libraryUs, rows, name, from, to) /
           GrowthOf(&Row::floorUs, rows, name, from, to);
}

// How much more than the floor the work grows with the transfers. A walk over all of them for each
// would come to ten or more, one walk to less than five: the floor hardly grows where it is mostly
// system calls.
std::vector<Growth> GrowthsOf(const std::vector<Row> &rows)
{
    constexpr double kGenerous = 5;
    constexpr double kOfManyTransfers = 1.2;
    std::vector<Growth> growths;
    for (const char *const name : {kExpectedSpeed, kListing, kReplacing, kPurging, kThrottling})
        growths.push_back({name + std::string(", 100 to 1000, by the floor's"),
                           Growths(rows, name, 100, 1'000), kGenerous});
    if (!brief)
        growths.push_back({kThrottling + std::string(", 1000 to 10000, by the floor's"),
                           Growths(rows, kThrottling, 1'000, 10'000), kOfManyTransfers});
    return growths;
}

std::vector<Row> MeasureOnce()
{
    std::vector<Row> rows;
    const std::vector<int> counts =
        brief ? std::vector{100, 1'000} : std::vector{1, 10, 100, 1'000};
    for (const int n : counts)
        rows.push_back(ExpectedSpeed(n));
    if (!brief) rows.push_back(ExpectedSpeed(10'000));
    for (const int n : {100, 1'000})
        rows.push_back(PublicListing(n));
    for (const int n : counts)
        rows.push_back(Replacing(n));
    for (const int n : {100, 1'000})
        rows.push_back(Purging(n));
    for (const int n : counts)
        rows.push_back(Throttling(n));
    if (brief) return rows;
    rows.push_back(Throttling(10'000));
    rows.push_back(ReadingRule(1'000));
    rows.push_back(
        Idle("throttle call without a policy", ThrottledTransfer(ZEVO_BW_STATE_NOT_EXISTED)));
    rows.push_back(
        Idle("throttle call without a limit", ThrottledTransfer(ZEVO_BW_STATE_ENABLED, 0)));
    return rows;
}

std::vector<Row> MeasureAll()
{
    const int passes = brief ? 1 : 3;
    std::vector<Row> best = MeasureOnce();
    for (int pass = 1; pass < passes; ++pass) {
        const std::vector<Row> rows = MeasureOnce();
        for (std::size_t i = 0; i < rows.size(); ++i)
            if (rows[i].share < best[i].share) best[i] = rows[i];
    }
    return best;
}

std::string Allowed(const Row &row)
{
    char text[64];
    if (row.factor == 0)
        std::snprintf(text, sizeof text, "%.0f us", row.constantUs);
    else if (row.constantUs == 0)
        std::snprintf(text, sizeof text, "%.1f x", row.factor);
    else
        std::snprintf(text, sizeof text, "%.1f x + %.0f us", row.factor, row.constantUs);
    return text;
}

void Print(const std::vector<Row> &rows)
{
    std::printf("%-31s %6s %11s %11s %7s %13s\n", "work", "N", "library us", "floor us", "ratio",
                "at most");
    for (const Row &row : rows) {
        const std::string n = row.n == 0 ? "" : std::to_string(row.n);
        char ratio[16] = "";
        if (row.factor != 0) std::snprintf(ratio, sizeof ratio, "%.2f", row.ratio);
        std::printf("%-31s %6s %11.2f %11.2f %7s %13s  %s\n", row.name.c_str(), n.c_str(),
                    row.libraryUs, row.floorUs, ratio, Allowed(row).c_str(),
                    row.Holds() ? "holds" : "BROKEN");
    }
}

void Print(const std::vector<Growth> &growths)
{
    std::printf("%-59s %9s %13s\n", "growth", "measured", "at most");
    for (const Growth &growth : growths)
        std::printf("%-59s %9.2f %13.2f  %s\n", growth.name.c_str(), growth.value, growth.bound,
                    growth.Holds() ? "holds" : "BROKEN");
}

void WriteJson(const std::string &path, const std::vector<Row> &rows,
               const std::vector<Growth> &growths)
{
    nlohmann::ordered_json json = {{"work", nlohmann::json::array()},
                                   {"growth", nlohmann::json::array()}};
    for (const Row &row : rows)
        json["work"].push_back(nlohmann::ordered_json{{"work", row.name},
                                                      {"n", row.n},
                                                      {"library_us", row.libraryUs},
                                                      {"floor_us", row.floorUs},
                                                      {"ratio", row.ratio},
                                                      {"most_times_floor", row.factor},
                                                      {"most_added_us", row.constantUs},
                                                      {"share_of_most", row.share}});
    for (const Growth &growth : growths)
        json["growth"].push_back(nlohmann::ordered_json{
            {"growth", growth.name}, {"value", growth.value}, {"most", growth.bound}});
    std::ofstream(path) << json.dump(2) << "\n";
}

// Columns for gnuplot, one block for each kind of work.
void WriteTable(const std::string &path, const std::vector<Row> &rows)
{
    std::ofstream file(path);
    std::string last;
    for (const Row &row : rows) {
        if (row.n == 0) continue;
        if (row.name != last) file << (last.empty() ? "" : "\n\n") << '"' << row.name << "\"\n";
        last = row.name;
        file << row.n << ' ' << row.libraryUs << ' ' << row.floorUs << '\n';
    }
}

struct Options {
    std::string json;
    std::string table;
};

Options Parse(int argc, char **argv)
{
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string name = argv[i];
        if (name == "--short")
            brief = true;
        else if (name == "--json" && i + 1 < argc)
            options.json = argv[++i];
        else if (name == "--table" && i + 1 < argc)
            options.table = argv[++i];
        else
            Die("[--short] [--json FILE] [--table FILE]");
    }
    return options;
}

} // namespace

int main(int argc, char **argv)
try {
    const Options options = Parse(argc, argv);
    if (std::getenv("ZEVOBW_SANDBOX") == nullptr)
        Die("fills the machine's status files: run scripts/bench work");
    std::filesystem::create_directory(kStatusDirectory);
    std::filesystem::create_directory(kFloorDirectory);

    const std::vector<Row> rows = MeasureAll();
    std::vector<Growth> growths = GrowthsOf(rows);
    growths.push_back({brief ? "heap over 51 thousand throttle calls, bytes"
                             : "heap over a million throttle calls, bytes",
                       HeapGrowth(), 0});
    for (const std::int32_t state : {ZEVO_BW_STATE_NOT_EXISTED, ZEVO_BW_STATE_ENABLED})
        growths.push_back({state == ZEVO_BW_STATE_ENABLED
                               ? "system calls without a limit, beside the clock"
                               : "system calls without a policy, beside the clock",
                           MakesNoSystemCall(ThrottledTransfer(state, 0)) ? 0.0 : 1.0, 0});

    if (!brief) Print(rows);
    Print(growths);
    if (!options.json.empty()) WriteJson(options.json, rows, growths);
    if (!options.table.empty()) WriteTable(options.table, rows);
    const auto holds = [](const auto &line) { return line.Holds(); };
    const bool allHold = std::all_of(growths.begin(), growths.end(), holds) &&
                         (brief || std::all_of(rows.begin(), rows.end(), holds));
    return allHold ? 0 : 1;
} catch (const std::exception &failure) {
    Die(failure.what());
}
