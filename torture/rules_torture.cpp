// Many writers of one rule file, killed at random instants: no acknowledged change may be lost, no
// section stand twice, and the file be a valid one whenever anybody looks.
#include "row.hpp"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <signal.h>
#include <unistd.h>

#include "zevobandwidth.h"

using namespace torture;
namespace fs = std::filesystem;

namespace {

constexpr int kWriters = 32;
constexpr std::uint64_t kChanges = 3'000; // of each writer
constexpr std::uint32_t kFirstId = 5'000;
constexpr char kDirectory[] = "/usr/zevo/etc/bandwidth";

// One writer's changes: the number that its rule has as its rate.
struct Progress {
    std::atomic<std::uint64_t> begun;
    std::atomic<std::uint64_t> done; // acknowledged
};

std::string RuleFile()
{
    char szPath[4096];
    if (ZEVOBandwidthConfPath(ZEVO_BW_PROTOCOL_FTP, szPath, sizeof(szPath)) < 0)
        Die("no path of a rule file");
    return szPath;
}

bool Change(int writer, std::uint64_t number)
{
    ZEVO_BANDWIDTH_CONF rule = {};
    rule.id = kFirstId + static_cast<std::uint32_t>(writer);
    rule.ownerType = ZEVO_BW_OWNER_USER;
    rule.protocolType = ZEVO_BW_PROTOCOL_FTP;
    rule.state = ZEVO_BW_STATE_ENABLED;
    rule.uploadRate = number;
    rule.downloadRate = number * 2;
    return ZEVOBandwidthConfSetByID(&rule) == 0;
}

int Write(int writer, Progress &progress, std::uint64_t until)
{
    while (progress.done < until) {
        const std::uint64_t number = progress.done + 1;
        progress.begun = number;
        if (!Change(writer, number)) return 1;
        progress.done = number;
    }
    return 0;
}

using Section = std::map<std::string, std::string>;

// The sections of a rule file, read without our own reader. What is wrong with it goes to the row.
std::map<std::string, Section> Parse(const std::string &text, Row &row)
{
    std::map<std::string, Section> sections;
    Section *pSection = nullptr;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        const std::size_t equals = line.find('=');
        if (line.empty()) continue;
        if (line.front() == '[' && line.back() == ']') {
            const std::string name = line.substr(1, line.size() - 2);
            if (sections.contains(name)) row.Violate("[%s] stands twice", name.c_str());
            pSection = &sections[name];
        } else if (pSection == nullptr || equals == line.npos) {
            row.Violate("a line of no meaning: %s", line.c_str());
        } else if (!pSection->emplace(line.substr(0, equals), line.substr(equals + 1)).second) {
            row.Violate("a key stands twice: %s", line.c_str());
        }
    }
    if (!text.empty() && text.back() != '\n') row.Violate("the last line has no end");
    return sections;
}

// Each writer's rule has what was acknowledged before the look, or what came after.
void Look(const std::string &path, const Progress *pProgress, Row &row)
{
    std::uint64_t least[kWriters];
    for (int i = 0; i < kWriters; ++i)
        least[i] = pProgress[i].done;
    const std::map<std::string, Section> sections = Parse(ReadFile(path), row);
    std::size_t keys = 0;
    for (int i = 0; i < kWriters; ++i) {
        const std::uint64_t most = pProgress[i].begun;
        const std::string name = "user-" + std::to_string(kFirstId + static_cast<std::uint32_t>(i));
        const auto found = sections.find(name);
        if (found == sections.end()) {
            if (least[i] != 0) row.Violate("[%s] is gone", name.c_str());
            continue;
        }
        const auto value = [&](const char *szKey) {
            const auto pair = found->second.find(szKey);
            return pair == found->second.end() ? 0
                                               : std::strtoull(pair->second.c_str(), nullptr, 10);
        };
        const std::uint64_t number = value("upload rate");
        if (number < least[i] || number > most || value("download rate") != number * 2)
            row.Violate("[%s] has %llu, where %llu were acknowledged and %llu begun", name.c_str(),
                        static_cast<unsigned long long>(number),
                        static_cast<unsigned long long>(least[i]),
                        static_cast<unsigned long long>(most));
        if (keys == 0) keys = found->second.size();
        if (found->second.size() != keys || keys == 0)
            row.Violate("[%s] has %zu keys", name.c_str(), found->second.size());
    }
    row.Try();
}

void KillAndRenew(std::vector<pid_t> &pids, Progress *pProgress, std::uint64_t until,
                  Random &random, Row &changes, std::uint64_t &kills)
{
    const std::size_t victim = random.Below(pids.size());
    if (pProgress[victim].done >= until) return;
    ::kill(pids[victim], SIGKILL);
    const int status = WaitFor(pids[victim]);
    if (status != 0 && status != 128 + SIGKILL)
        changes.Violate("writer %zu ended with %d", victim, status);
    ++kills;
    pids[victim] = Fork([&] { return Write(static_cast<int>(victim), pProgress[victim], until); });
}

void TryRules(const Options &options, Table &table)
{
    Row &changes = table.Add("changes of 32 writers of a rule file");
    Row &looks = table.Add("looks at the rule file meanwhile");
    auto *const pProgress = Share<Progress>(kWriters);
    auto &over = *Share<std::atomic<bool>>();
    const std::string path = RuleFile();
    fs::remove_all(kDirectory);

    const Budget budget(options, 0.9, kWriters * 40, kWriters * kChanges);
    const std::uint64_t until = budget.most() / kWriters;
    std::vector<pid_t> pids;
    for (int i = 0; i < kWriters; ++i)
        pids.push_back(Fork([&, i] { return Write(i, pProgress[i], until); }));
    const pid_t reader = Fork([&] {
        while (!over) {
            Look(path, pProgress, looks);
            SleepUs(100); // the writers need the processors, too
        }
        return 0;
    });

    Random random(options.seed, 0);
    std::uint64_t kills = 0;
    const auto done = [&] {
        std::uint64_t all = 0;
        for (int i = 0; i < kWriters; ++i)
            all += pProgress[i].done;
        return all;
    };
    while (budget.Allows(done())) {
        SleepUs(static_cast<std::int64_t>(random.Below(4'000)));
        KillAndRenew(pids, pProgress, until, random, changes, kills);
    }
    for (const pid_t pid : pids) {
        if (options.amount == Amount::kTimed) ::kill(pid, SIGKILL); // the time is up
        if (const int status = WaitFor(pid); status != 0 && status != 128 + SIGKILL)
            changes.Violate("a writer ended with %d", status);
    }
    over = true;
    if (WaitFor(reader) != 0) Die("the reader has failed");
    Look(path, pProgress, changes);
    changes.Try(done() - 1);
    changes.Add(", " + std::to_string(kills) + " killed");
}

// What the killed have left beside the file goes the way of all leftovers.
void TryLeftovers(Table &table)
{
    Row &row = table.Add("temporary files that they have left");
    const std::string path = RuleFile();
    for (const std::string &name : Files(kDirectory)) {
        const std::string leftover = std::string(kDirectory) + "/" + name;
        if (leftover == path) continue;
        fs::last_write_time(leftover, fs::file_time_type::clock::now() - std::chrono::seconds(12));
        ZEVO_BANDWIDTH_STATUS *pList = nullptr;
        (void)ZEVOBandwidthIStatusGetAll(leftover.c_str(), ZEVO_BW_PROTOCOL_ALL,
                                         ZEVO_BW_TRANSFER_ALL, &pList, 0);
        if (!leftover.starts_with(path + ".") || fs::exists(leftover))
            row.Violate("%s stays", leftover.c_str());
        row.Try();
    }
    if (row.tried() == 0) row.Try(); // then the look itself
}

} // namespace

int main(int argc, char **argv)
{
    const Options options = ParseOptions(argc, argv);
    Table table(options.seed);
    TryRules(options, table);
    TryLeftovers(table);
    return table.Print();
}
