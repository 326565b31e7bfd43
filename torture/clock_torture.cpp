// Clocks that step, zones that change to and from daylight saving, locales with a decimal comma and
// Turkish letters, and creation masks: what the library writes, prints and decides must be what it
// writes, prints and decides without them. The clock is this program's own.
#include "row.hpp"

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include "zevobandwidth.h"

using namespace torture;
namespace fs = std::filesystem;

namespace {

constexpr char kDirectory[] = "/tmp/bandwidth";
constexpr char kRules[] = "/usr/zevo/etc/bandwidth";
constexpr std::uint32_t kAlice = 2001;
constexpr std::uint32_t kBob = 2002;
constexpr std::uint32_t kStaff = 3001;
constexpr std::int64_t kHour = 3600;
constexpr std::int64_t kDay = 24 * kHour;
constexpr std::int64_t kUsPerSecond = 1'000'000;
constexpr std::int64_t kUsual = 1'699'790'400; // 2023-11-12 12:00:00 UTC, a Sunday
constexpr std::uint64_t kBlock = 65'536;
constexpr std::uint64_t kRateKBps = 64;
constexpr std::uint64_t kCustomKBps = 32;

std::int64_t clockUs = kUsual * kUsPerSecond;
std::vector<std::int64_t> sleepsUs;

void SetClock(std::int64_t seconds)
{
    clockUs = seconds * kUsPerSecond;
}

std::int64_t Seconds()
{
    return clockUs / kUsPerSecond;
}

void Store(std::int32_t ownerType, std::uint32_t id, const std::string &plan)
{
    ZEVO_BANDWIDTH_CONF rule = {};
    rule.id = id;
    rule.ownerType = ownerType;
    rule.protocolType = ZEVO_BW_PROTOCOL_FTP;
    rule.state = ZEVO_BW_STATE_SCHEDULE;
    rule.uploadRate = kRateKBps;
    rule.uploadRateCustom = kCustomKBps;
    plan.copy(rule.szSchedulePlan, sizeof(rule.szSchedulePlan) - 1);
    if (ZEVOBandwidthConfSetByID(&rule) < 0) Die("cannot store a rule");
}

void StoreAll(const std::string &plan)
{
    fs::remove_all(kDirectory);
    for (const auto &entry : fs::directory_iterator(kRules))
        fs::remove_all(entry.path());
    ZEVO_BANDWIDTH_GLOBAL_CONF policy = {};
    policy.state = ZEVO_BW_STATE_ENABLED;
    policy.protocolType = ZEVO_BW_PROTOCOL_FTP;
    policy.userGroupPolicy = ZEVO_BW_USER_GROUP_POLICY_MIN;
    policy.interGroupPolicy = ZEVO_BW_INTER_GROUP_POLICY_MAX;
    policy.occupyPolicy = ZEVO_BW_OCCUPY_POLICY_ALL;
    if (ZEVOBandwidthGlobalConfSet(&policy) < 0) Die("cannot store the policy");
    Store(ZEVO_BW_OWNER_USER, kAlice, plan);
    Store(ZEVO_BW_OWNER_GROUP, kStaff, std::string(168, '1'));
}

template <class... Record> std::string Printed(int (*print)(FILE *, Record...), Record... record)
{
    char *szText = nullptr;
    std::size_t cbText = 0;
    FILE *const fp = ::open_memstream(&szText, &cbText);
    if (fp == nullptr) Die("no memory");
    const int result = print(fp, record...);
    std::fclose(fp);
    const std::string text(szText, cbText);
    std::free(szText);
    return std::to_string(result) + " " + text;
}

// Times are told as they lie from now: what is written at another time is to look alike.
std::string Relative(std::string text)
{
    const std::string key = "timestamp=";
    for (std::size_t at = 0; (at = text.find(key, at)) != std::string::npos;) {
        at += key.size();
        const std::size_t end = text.find('\n', at);
        const std::int64_t stamp = std::strtoll(text.c_str() + at, nullptr, 10);
        text.replace(at, end - at, "now " + std::to_string(stamp - Seconds()));
    }
    return text;
}

std::string FilesOf(const std::string &directory)
{
    std::string all;
    for (const std::string &name : Files(directory)) {
        const std::string path = directory + "/" + name;
        struct stat s = {};
        if (::lstat(path.c_str(), &s) < 0) continue;
        all += path + " " + std::to_string(s.st_mode) + "\n";
        if (S_ISREG(s.st_mode)) all += Relative(ReadFile(path));
    }
    return all;
}

// ---- one transfer among others ----

class ClockedTransfer {
public:
    ClockedTransfer()
    {
        result_ = ZEVOBandwidthConfigGet(kAlice, ZEVO_BW_PROTOCOL_FTP, &config);
        if (result_ == 0)
            result_ = ZEVOBandwidthStatusInit(&config, ZEVO_BW_TRANSFER_UPLOAD, "/ıİ a file",
                                              &timeLast_, &status);
    }
    ~ClockedTransfer() { ZEVOBandwidthConfigFree(&config); }
    ClockedTransfer(const ClockedTransfer &) = delete;
    ClockedTransfer &operator=(const ClockedTransfer &) = delete;

    void Block()
    {
        sleepsUs.clear();
        clockUs += 100'000;
        result_ = ZEVOBandwidthSleepInLoop(&config, kBlock, 5'000, &timeLast_, &status);
    }
    std::string Tell() const
    {
        std::string text = std::to_string(result_) + ": allowed " +
                           std::to_string(status.expect_speed) + ", reached " +
                           std::to_string(status.current_speed) + ", slept";
        for (const std::int64_t us : sleepsUs)
            text += " " + std::to_string(us);
        for (std::int32_t i = 0; i < config.iLimit; ++i)
            text += "; " + std::to_string(config.pLimit[i].conf.currentState) + " " +
                    std::to_string(config.pLimit[i].conf.currentUploadRate) + " " +
                    std::to_string(config.pLimit[i].occupyWeight);
        return text + "\n";
    }

    ZEVO_BANDWIDTH_CONFIG config = {};
    ZEVO_BANDWIDTH_STATUS status = {};

private:
    std::uint64_t timeLast_ = 0;
    int result_ = 0;
};

// Bob's transfer in the group's file, saved now.
void SavePeer()
{
    ZEVO_BANDWIDTH_STATUS peer = {};
    peer.pid = 4800;
    peer.id = kStaff;
    peer.uid = kBob;
    peer.active = 1;
    peer.timestamp = Seconds();
    peer.current_speed = peer.expect_speed = 20'480;
    peer.owner_type = ZEVO_BW_OWNER_GROUP;
    peer.protocol_type = ZEVO_BW_PROTOCOL_FTP;
    peer.transfer_type = ZEVO_BW_TRANSFER_UPLOAD;
    ZEVO_BANDWIDTH_LIMIT limit = {};
    limit.conf.ownerType = ZEVO_BW_OWNER_GROUP;
    limit.conf.id = kStaff;
    limit.occupyWeight = 10'000;
    limit.maxSpeedBps = 20'480;
    ZEVO_BANDWIDTH_CONFIG config = {};
    config.pLimit = &limit;
    config.iLimit = 1;
    config.blGroupConfExist = 1;
    if (ZEVOBandwidthStatusSave(kBob, &config, &peer) < 0) Die("cannot save the other transfer");
}

std::string Tables(const ClockedTransfer &transfer)
{
    std::string all = Printed(ZEVOBandwidthConfDumpHeader) +
                      Printed(ZEVOBandwidthGlobalConfDumpHeader) +
                      Printed<const ZEVO_BANDWIDTH_GLOBAL_CONF *>(ZEVOBandwidthGlobalConfDump,
                                                                  &transfer.config.globalConf);
    for (std::int32_t i = 0; i < transfer.config.iLimit; ++i)
        all += Printed<const ZEVO_BANDWIDTH_CONF *>(ZEVOBandwidthConfDump,
                                                    &transfer.config.pLimit[i].conf);
    ZEVO_BANDWIDTH_STATUS *pList = nullptr;
    const int count = ZEVOBandwidthStatusGetAll(ZEVO_BW_OWNER_GROUP, kStaff, ZEVO_BW_PROTOCOL_ALL,
                                                ZEVO_BW_TRANSFER_ALL, &pList);
    all += std::to_string(count) + " listed\n";
    for (ZEVO_BANDWIDTH_STATUS *p = pList; p != nullptr; p = p->next) {
        p->timestamp -= Seconds() - 1'000;
        all += Printed<const ZEVO_BANDWIDTH_STATUS *>(ZEVOBandwidthStatusDump, p);
    }
    ZEVOBandwidthStatusListFree(&pList);
    return all;
}

// A whole transfer: what was decided, what lies in the files, what is printed. At the third block the
// clock does what it is told, and what follows is what counts then.
std::string Play(const std::function<void()> &atThird, bool onlyAfter)
{
    StoreAll(std::string(168, '1'));
    SavePeer();
    ClockedTransfer transfer;
    std::string all = transfer.Tell();
    for (int block = 1; block <= 6; ++block) {
        if (block == 3) atThird();
        SavePeer();
        transfer.Block();
        all += transfer.Tell();
        if (block == 4 && onlyAfter) all.clear();
    }
    return all + Tables(transfer) + FilesOf(kDirectory) + FilesOf(kRules);
}

// Runs something in a process of its own and hands over what it tells.
std::string Apart(const std::function<std::string()> &body, int &status)
{
    constexpr char kTold[] = "/tmp/told";
    ::unlink(kTold);
    status = WaitFor(Fork([&] {
        ::alarm(60);
        WriteFile(kTold, body());
        return 0;
    }));
    return ReadFile(kTold);
}

// The first line in which they differ.
std::string Difference(const std::string &a, const std::string &b)
{
    std::size_t at = 0;
    while (at < a.size() && at < b.size() && a[at] == b[at])
        ++at;
    if (at > 0) at = a.rfind('\n', at - 1) == a.npos ? 0 : a.rfind('\n', at - 1) + 1;
    return "[" + a.substr(at, a.find('\n', at) - at) + "] but [" +
           b.substr(at, b.find('\n', at) - at) + "]";
}

void Compare(Row &row, const std::string &what, const std::string &reference,
             const std::function<std::string()> &body)
{
    int status = 0;
    const std::string told = Apart(body, status);
    row.Try();
    if (status != 0 || told.empty())
        row.Violate("%s: ended with %d", what.c_str(), status);
    else if (told != reference)
        row.Violate("%s: %s", what.c_str(), Difference(reference, told).c_str());
}

// ---- rows ----

void TrySteps(Row &row)
{
    struct Step {
        const char *szName;
        std::int64_t from;
        std::int64_t to;
    };
    const std::vector<Step> steps = {
        {"an hour forth", kUsual, kUsual + kHour},
        {"an hour back", kUsual, kUsual - kHour},
        {"a day forth", kUsual, kUsual + kDay},
        {"a day back", kUsual, kUsual - kDay},
        {"a second back", kUsual, kUsual - 1},
        {"31 seconds forth", kUsual, kUsual + 31},
        {"to 1970", kUsual, 100},
        {"from 1970", 100, kUsual},
        {"to the last second of 31 bits", kUsual, 0x7FFFFFFE},
        {"past 2038", kUsual, 0x80000000LL + kDay},
        {"back from past 2038", 0x80000000LL + kDay, kUsual},
        {"past 2106", kUsual, 0x100000000LL + kDay},
    };
    for (const Step &step : steps) {
        int status = 0;
        const std::string reference = Apart(
            [&] {
                SetClock(step.to);
                return Play([] {}, true);
            },
            status);
        Compare(row, step.szName, reference, [&] {
            SetClock(step.from);
            return Play([&] { SetClock(step.to); }, true);
        });
    }
    // Back and forth, with every block another time: no sleep is longer than a block takes alone.
    row.Try();
    int status = 0;
    const std::string told = Apart(
        [] {
            SetClock(kUsual);
            StoreAll(std::string(168, '1'));
            ClockedTransfer transfer;
            std::string bad = "-";
            for (int block = 0; block < 48; ++block) {
                SetClock(kUsual + (block % 2 == 0 ? 1 : -1) * (block % 3 == 0 ? kHour : kDay));
                transfer.Block();
                for (const std::int64_t us : sleepsUs)
                    if (us > static_cast<std::int64_t>(kBlock * kUsPerSecond / (kRateKBps * 1024)))
                        bad = "slept " + std::to_string(us);
            }
            return bad;
        },
        status);
    if (status != 0 || told != "-") row.Violate("back and forth: %d, %s", status, told.c_str());
}

struct Zone {
    const char *szName;
    const char *szTz; // spelled out, since not every machine has the zones' files
    std::int64_t changes[2];
    std::int64_t offsets[3]; // before, between, after
};

constexpr Zone kZones[] = {
    {"Europe/Berlin", "CET-1CEST,M3.5.0,M10.5.0/3", {1711846800, 1729990800}, {3600, 7200, 3600}},
    {"America/New_York",
     "EST5EDT,M3.2.0,M11.1.0",
     {1710054000, 1730613600},
     {-18000, -14400, -18000}},
    {"Australia/Lord_Howe",
     "<+1030>-10:30<+11>-11,M10.1.0,M4.1.0",
     {1712415600, 1728142200},
     {39600, 37800, 39600}},
};

std::int64_t OffsetAt(const Zone &zone, std::int64_t t)
{
    return zone.offsets[t < zone.changes[0] ? 0 : t < zone.changes[1] ? 1 : 2];
}

// What the plan says at a time, worked out without the library and without libc.
char HourOf(const std::string &plan, const Zone &zone, std::int64_t t)
{
    const std::int64_t local = t + OffsetAt(zone, t);
    return plan[static_cast<std::size_t>((local / kDay + 4) % 7 * 24 + local % kDay / kHour)];
}

bool Obeys(const ZEVO_BANDWIDTH_CONFIG &config, char hour)
{
    if (config.iLimit < 1 || config.pLimit == nullptr) return false;
    const ZEVO_BANDWIDTH_CONF &rule = config.pLimit[0].conf;
    if (hour == '0') return rule.currentState == ZEVO_BW_STATE_DISABLED;
    return rule.currentState == ZEVO_BW_STATE_ENABLED &&
           rule.currentUploadRate == (hour == '1' ? kRateKBps : kCustomKBps);
}

void UseZone(const char *szTz)
{
    ::setenv("TZ", szTz, 1);
    ::tzset();
}

std::string Plan(Random &random)
{
    std::string plan(168, '1');
    for (char &hour : plan)
        hour = static_cast<char>('0' + random.Below(3));
    return plan;
}

// Past a change of the clocks, in steps of ten minutes: a running transfer, and one that begins then.
void TryZone(Row &row, const Zone &zone, std::int64_t change, const std::string &plan)
{
    row.Try();
    int status = 0;
    const std::string told = Apart(
        [&] {
            UseZone(zone.szTz);
            SetClock(change - 4 * kHour);
            StoreAll(plan);
            ClockedTransfer running;
            for (std::int64_t t = change - 4 * kHour; t < change + 4 * kHour; t += 600) {
                SetClock(t);
                running.Block();
                const char hour = HourOf(plan, zone, t);
                if (!Obeys(running.config, hour))
                    return "running, " + std::to_string(t) + ", hour " + hour;
                SetClock(t);
                const ClockedTransfer fresh;
                if (!Obeys(fresh.config, hour))
                    return "begun, " + std::to_string(t) + ", hour " + hour;
            }
            return std::string("-");
        },
        status);
    if (status != 0 || told != "-")
        row.Violate("%s at %lld: %d, %s", zone.szName, static_cast<long long>(change), status,
                    told.c_str());
}

void TryZones(const Options &options, Row &row)
{
    const Budget budget(options, 0.5, 3, 1'000);
    Random random(options.seed, 1);
    for (std::uint64_t done = 0; budget.Allows(done); ++done)
        for (const Zone &zone : kZones)
            for (const std::int64_t change : zone.changes)
                TryZone(row, zone, change, Plan(random));
}

// The environment changes under a running service: it goes on in the zone it began with, and a
// service that starts then takes the new one.
void TryOtherZone(const Options &options, Row &row)
{
    Random random(options.seed, 2);
    for (const Zone &zone : kZones) {
        for (const Zone &other : kZones) {
            if (&zone == &other) continue;
            const std::string plan = Plan(random);
            const auto run = [&](bool isNew) -> std::string {
                UseZone(zone.szTz);
                const std::int64_t start = zone.changes[1] + 30 * kDay;
                SetClock(start);
                StoreAll(plan);
                ClockedTransfer running;
                ::setenv("TZ", other.szTz, 1);
                if (isNew) ::tzset(); // as the first call of a new process does
                const Zone &expected = isNew ? other : zone;
                for (std::int64_t t = start; t < start + kDay; t += kHour) {
                    SetClock(t);
                    ClockedTransfer fresh;
                    if (!Obeys(fresh.config, HourOf(plan, expected, t)))
                        return std::to_string(t) + " begun";
                    SetClock(t);
                    running.Block();
                    if (t != start && !Obeys(running.config, HourOf(plan, expected, t)))
                        return std::to_string(t) + " running";
                }
                return "-";
            };
            for (const bool isNew : {false, true})
                Compare(row,
                        std::string(zone.szName) + " to " + other.szName +
                            (isNew ? ", restarted" : ", running"),
                        "-", [&] { return run(isNew); });
        }
    }
}

void TryPlaces(Row &row)
{
    SetClock(kUsual);
    int status = 0;
    const std::string reference = Apart([] { return Play([] {}, false); }, status);
    for (const mode_t mask : {0000u, 0022u, 0077u, 0777u})
        Compare(row, "mask " + std::to_string(mask), reference, [&] {
            ::umask(mask);
            std::string all = Play([] {}, false);
            if (::umask(0) != mask) all += "the mask has changed";
            return all;
        });
    if (std::system("mkdir -p /tmp/locale && cd /tmp/locale && "
                    "localedef -c -i de_DE -f UTF-8 ./xx_DE >/dev/null 2>&1; "
                    "localedef -c -i tr_TR -f UTF-8 ./xx_TR >/dev/null 2>&1; "
                    "localedef -c -i tr_TR -f ISO-8859-9 ./xx_TR8 >/dev/null 2>&1; "
                    "test -e xx_DE/LC_NUMERIC && test -e xx_TR/LC_CTYPE && "
                    "test -e xx_TR8/LC_CTYPE") != 0)
        Die("cannot make locales: the package locales is missing");
    ::setenv("LOCPATH", "/tmp/locale", 1);
    for (const char *const szLocale : {"xx_DE", "xx_TR", "xx_TR8"})
        Compare(row, std::string("locale ") + szLocale, reference, [&] {
            if (std::setlocale(LC_ALL, szLocale) == nullptr) Die("no locale %s", szLocale);
            return Play([] {}, false);
        });
}

} // namespace

int main(int argc, char **argv)
{
    const Options options = ParseOptions(argc, argv);
    ::umask(022);
    UseZone("UTC0");
    fs::create_directories(kRules);

    Table table(options.seed);
    TrySteps(table.Add("clock steps, from the second block on as if always then"));
    TryZones(options, table.Add("changes to and from daylight saving in three zones"));
    TryOtherZone(options, table.Add("TZ changed under a running service"));
    TryPlaces(table.Add("creation masks and locales, as in the reference run"));
    return table.Print();
}

// The program's definitions, which the dynamic linker prefers to libc's.

#pragma GCC visibility push(default)

int gettimeofday(struct timeval *pNow, void *) noexcept
{
    *pNow = {clockUs / kUsPerSecond, clockUs % kUsPerSecond};
    return 0;
}

time_t time(time_t *pNow) noexcept
{
    if (pNow != nullptr) *pNow = Seconds();
    return Seconds();
}

pid_t getpid() noexcept
{
    return 4711; // the same in every run
}

int usleep(useconds_t us)
{
    sleepsUs.push_back(us);
    clockUs += us;
    return 0;
}

#pragma GCC visibility pop
