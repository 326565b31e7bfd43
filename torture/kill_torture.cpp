// Kills processes at random instants while they change a status file, and compares what is left with
// what must be: every other section byte for byte, the own one old, new or (half an append) never
// taken for a running transfer, temporary files gone once they are old enough and asked about, and
// the file fit to go on with.
#include "operations.hpp"
#include "row.hpp"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace torture;
namespace fs = std::filesystem;

namespace {

constexpr int kOwnPid = 4711;
constexpr int kNextPid = 4600;   // whoever appends next
constexpr int kForeignPid = 100; // the first of them
constexpr int kStalePid = 7000;
constexpr std::size_t kMostFilename = 4095;
constexpr std::int64_t kLongAgo = 1'000; // a time stamp, seconds
constexpr int kWorkers = 4;

// What a running child tells its parent. A number is the current speed of the section it saves.
struct Progress {
    std::atomic<std::uint64_t> begun;
    std::atomic<std::uint64_t> done;
    void Reset() { begun = 0, done = 0; }
};

std::string NameOf(int pid)
{
    return std::to_string(pid) + "-1";
}

// A record in which everything follows from its number, so that a mixture of two shows. Every other
// number has a long file name: sections then cross the borders of pages, where writes tear.
ZEVO_BANDWIDTH_STATUS Record(int pid, std::uint64_t number, std::int64_t timestamp)
{
    ZEVO_BANDWIDTH_STATUS status = AlicesUpload(pid, timestamp);
    status.current_speed = number;
    status.expect_speed = number * 3 + 1;
    const std::size_t cbName = number % 2 == 0 ? 20 : number * 2'654'435'761u % kMostFilename;
    const std::string name = "/" + std::to_string(number) + "/" + std::string(cbName, 'x');
    (void)std::snprintf(status.filename, sizeof(status.filename), "%s", name.c_str());
    status.progress = static_cast<std::uint32_t>(number * 7'919 % 10'000);
    return status;
}

class Hash {
public:
    explicit Hash(const ZEVO_BANDWIDTH_STATUS &status) : pHash_(VLIBCSzHashAlloc(64))
    {
        if (pHash_ == nullptr || ZEVOBandwidthInitHashFromStatus(&pHash_, &status) < 0)
            Die("no hash of a record");
    }
    ~Hash() { VLIBCSzHashFree(pHash_); }
    Hash(const Hash &) = delete;
    Hash &operator=(const Hash &) = delete;
    const VLIB_SZ_HASH *get() const { return pHash_; }

private:
    VLIB_SZ_HASH *pHash_;
};

std::string TextOf(const ZEVO_BANDWIDTH_STATUS &status)
{
    return SectionText(NameOf(status.pid).c_str(), Hash(status).get());
}

bool IsWhole(const ZEVO_BANDWIDTH_STATUS &status)
{
    return TextOf(status) == TextOf(Record(status.pid, status.current_speed, status.timestamp));
}

// The running transfers that anybody who asks is told of.
std::vector<ZEVO_BANDWIDTH_STATUS> Listed(const char *szPath = kAlicesFile)
{
    ZEVO_BANDWIDTH_STATUS *pList = nullptr;
    (void)ZEVOBandwidthIStatusGetAll(szPath, ZEVO_BW_PROTOCOL_ALL, ZEVO_BW_TRANSFER_ALL, &pList, 0);
    std::vector<ZEVO_BANDWIDTH_STATUS> all;
    for (const ZEVO_BANDWIDTH_STATUS *p = pList; p != nullptr; p = p->next)
        all.push_back(*p);
    ZEVOBandwidthStatusListFree(&pList);
    return all;
}

// The children's common ground: a file with other people's sections of all sizes, and notes.
class Scene {
public:
    Scene(Random &random, std::int64_t now) : now_(now), isTorn_(random.Below(3) == 0)
    {
        const std::size_t count = 1 + random.Below(8);
        for (std::size_t i = 0; i < count; ++i) {
            const int pid = kForeignPid + static_cast<int>(i);
            std::string text = TextOf(Record(pid, random.Below(1'000'000), now));
            if (random.Below(3) == 0) text += "# a note of " + random.Letters(30) + "\n";
            if (random.Below(3) == 0) text += "\n";
            sections_.push_back(text);
        }
    }

    std::int64_t now() const { return now_; }
    std::size_t count() const { return sections_.size(); }
    // What an append finds at the end: sometimes what is left of somebody else's.
    std::string Tail() const { return isTorn_ ? "[" + NameOf(kStalePid) + "]\npid=70" : ""; }
    std::string Text() const
    {
        std::string text = "\n";
        for (const std::string &section : sections_)
            text += section;
        return text;
    }
    // The own section in the midst of the others, as a rewrite finds it.
    std::string TextWith(const std::string &own) const
    {
        std::string text = "\n";
        for (std::size_t i = 0; i < sections_.size(); ++i)
            text += (i == sections_.size() / 2 ? own : "") + sections_[i];
        return text;
    }

private:
    std::int64_t now_;
    bool isTorn_;
    std::vector<std::string> sections_;
};

// One way of changing a file: how it begins, what a child does again and again, what may be left.
struct Change {
    const char *szName;
    void (*Prepare)(const Scene &scene);
    void (*Repeat)(const Scene &scene, Progress &progress);
    // "" when the file is one that may be left, else what is wrong with it.
    std::string (*Judge)(const Scene &scene, const Progress &progress, const std::string &text);
};

// Saves of the numbers from 1 on, by whatever the step does with each.
template <class Step> void Count(Progress &progress, Step step)
{
    for (std::uint64_t number = 1;; ++number) {
        progress.begun = number;
        if (!step(number)) ::_exit(3);
        progress.done = number;
    }
}

const char *Unless(bool isGood, const char *szWhat)
{
    return isGood ? "" : szWhat;
}

// ---- rewrite: the own section takes new values ----

void PrepareRewrite(const Scene &scene)
{
    WriteFile(kAlicesFile, scene.TextWith(TextOf(Record(kOwnPid, 0, scene.now()))));
}

void Rewrite(const Scene &scene, Progress &progress)
{
    Count(progress, [&](std::uint64_t number) {
        const Hash hash(Record(kOwnPid, number, scene.now()));
        return ZEVOBandwidthStatusSetSection(kAlicesFile, NameOf(kOwnPid).c_str(), hash.get()) == 1;
    });
}

std::string JudgeRewrite(const Scene &scene, const Progress &progress, const std::string &text)
{
    const auto with = [&](std::uint64_t number) {
        return scene.TextWith(TextOf(Record(kOwnPid, number, scene.now())));
    };
    return Unless(text == with(progress.done) || text == with(progress.begun),
                  "neither the values of the last save nor those of the one cut short");
}

// ---- append: the own section comes behind the others ----

void PrepareAppend(const Scene &scene)
{
    WriteFile(kAlicesFile, scene.Text() + scene.Tail());
}

void Append(const Scene &scene, Progress &progress)
{
    Count(progress, [&](std::uint64_t number) {
        // Sections of other names, so that one child appends many times.
        const int pid = kOwnPid + static_cast<int>(number) * 10;
        const Hash hash(Record(pid, number, scene.now()));
        return ZEVOBandwidthStatusAddSection(kAlicesFile, NameOf(pid).c_str(), hash.get()) == 1;
    });
}

std::string JudgeAppend(const Scene &scene, const Progress &progress, const std::string &text)
{
    std::string done = scene.Text() + scene.Tail();
    std::string whole = done + (scene.Tail().empty() ? "" : "\n");
    for (std::uint64_t number = 1; number <= progress.begun; ++number) {
        whole += TextOf(Record(kOwnPid + static_cast<int>(number) * 10, number, scene.now()));
        if (number == progress.done) done = whole;
    }
    return Unless(text.starts_with(done) && whole.starts_with(text),
                  "not the sections appended so far and a part of the one cut short");
}

// ---- purge: a listing drops what is stale ----

std::string StaleSection(int number)
{
    return TextOf(Record(kStalePid + number, static_cast<std::uint64_t>(number), kLongAgo));
}

constexpr int kStaleSections = 5;

std::string StaleSections()
{
    std::string text;
    for (int i = 0; i < kStaleSections; ++i)
        text += StaleSection(i);
    return text;
}

// In one step, for the child does it, too.
void PreparePurge(const Scene &scene)
{
    WriteFile("/tmp/prepared", scene.TextWith(StaleSections()));
    fs::rename("/tmp/prepared", kAlicesFile);
}

void Purge(const Scene &scene, Progress &progress)
{
    Count(progress, [&](std::uint64_t) {
        const bool isGood = Listed().size() == scene.count();
        PreparePurge(scene);
        return isGood;
    });
}

// Takes whole stale sections out: which of them are gone already is the purge's own affair.
std::string JudgePurge(const Scene &scene, const Progress &, const std::string &text)
{
    std::string rest = text;
    for (int i = 0; i < kStaleSections; ++i) {
        const std::string stale = StaleSection(i);
        const std::size_t at = rest.find(stale);
        if (at != rest.npos) rest.erase(at, stale.size());
    }
    return Unless(rest == scene.Text(),
                  "a live section has changed, or a stale one is left in part");
}

// ---- first creation: there is nothing yet ----

void PrepareCreation(const Scene &)
{
    fs::remove_all(kStatusDirectory);
}

bool Save(std::uint64_t number, std::int64_t now)
{
    ZEVO_BANDWIDTH_STATUS status = Record(kOwnPid, number, now);
    return ZEVOBandwidthStatusSave(kAlice, nullptr, &status) == 0;
}

void Create(const Scene &scene, Progress &progress)
{
    Count(progress, [&](std::uint64_t number) {
        const bool isGood = Save(number, scene.now());
        if (isGood) fs::remove_all(kStatusDirectory);
        return isGood;
    });
}

std::string JudgeCreation(const Scene &scene, const Progress &progress, const std::string &text)
{
    const std::string whole = "\n" + TextOf(Record(kOwnPid, progress.begun, scene.now()));
    if (!whole.starts_with(text)) return "not a part of the first section";
    struct stat status = {};
    if (::stat(kStatusDirectory, &status) == 0 && (status.st_mode & 07777) != 0777)
        return "the directory's mode is not 0777";
    if (::stat(kAlicesFile, &status) == 0 && (status.st_mode & 07777) != 0666)
        return "the file's mode is not 0666";
    return "";
}

constexpr Change kChanges[] = {
    {"a section is rewritten", PrepareRewrite, Rewrite, JudgeRewrite},
    {"a section is appended", PrepareAppend, Append, JudgeAppend},
    {"stale sections are purged", PreparePurge, Purge, JudgePurge},
    {"the first section is saved", PrepareCreation, Create, JudgeCreation},
};

// ---- one kill ----

// What the kills of a row have met.
struct Met {
    std::atomic<std::uint64_t> cutShort;
    std::atomic<std::uint64_t> leftovers;
    std::atomic<std::uint64_t> tornTails;
};

struct Attempt {
    const Change &operation;
    const Scene &scene;
    Progress &progress;
    Row &row;
    Met &met;
    std::int64_t delayUs;
};

void Violate(const Attempt &attempt, const std::string &what, const std::string &detail)
{
    attempt.row.Violate("%s after %lld us (save %llu begun, %llu done): %s", what.c_str(),
                        static_cast<long long>(attempt.delayUs),
                        static_cast<unsigned long long>(attempt.progress.begun.load()),
                        static_cast<unsigned long long>(attempt.progress.done.load()),
                        detail.c_str());
}

void CutShort(const Attempt &attempt)
{
    attempt.progress.Reset();
    const pid_t pid = Fork([&] {
        attempt.operation.Repeat(attempt.scene, attempt.progress);
        return 0;
    });
    SleepUs(attempt.delayUs);
    if (const int status = Kill(pid); status != 128 + SIGKILL)
        Violate(attempt, "the operation failed", "exit status " + std::to_string(status));
    attempt.met.cutShort += attempt.progress.begun != attempt.progress.done;
}

bool Exists(const std::string &path)
{
    return fs::exists(fs::symlink_status(path));
}

void Ask(const std::string &path)
{
    if (!Listed(path.c_str()).empty()) Die("%s is listed", path.c_str());
}

// A leftover may belong to a writer at work for 10 seconds, and is anybody's to remove then.
void CheckLeftovers(const Attempt &attempt)
{
    if (!Exists(kStatusDirectory)) return;
    for (const std::string &name : Files(kStatusDirectory)) {
        const std::string path = std::string(kStatusDirectory) + "/" + name;
        if (path == kAlicesFile) continue;
        ++attempt.met.leftovers;
        if (name.find('.') == name.npos) Violate(attempt, "a file of an unknown kind", name);
        Ask(path);
        if (!Exists(path)) Violate(attempt, "a temporary file is removed too early", name);
        const timespec old = {std::time(nullptr) - 12, 0};
        const timespec both[2] = {old, old};
        (void)::utimensat(AT_FDCWD, path.c_str(), both, AT_SYMLINK_NOFOLLOW);
        Ask(path);
        if (Exists(path)) Violate(attempt, "an old temporary file stays", name);
    }
}

// Everybody else is listed, and nobody in part.
void CheckListed(const Attempt &attempt, int more)
{
    std::size_t foreign = 0;
    bool isMoreThere = false;
    for (const ZEVO_BANDWIDTH_STATUS &status : Listed()) {
        foreign += status.pid >= kForeignPid && status.pid < kForeignPid + 100;
        isMoreThere |= status.pid == more;
        if (!IsWhole(status)) Violate(attempt, "a torn section is listed", TextOf(status));
    }
    const bool isAlone = attempt.operation.Prepare == PrepareCreation;
    if (!isAlone && foreign != attempt.scene.count())
        Violate(attempt, "somebody else is not listed", ReadFile(kAlicesFile));
    if (more != 0 && !isMoreThere)
        Violate(attempt, "whoever came next is not listed", ReadFile(kAlicesFile));
}

// Whoever appends next starts on a line of his own and finds his section whole.
void CheckNext(const Attempt &attempt)
{
    if (attempt.operation.Prepare == PrepareCreation) {
        if (!Save(2, attempt.scene.now())) Violate(attempt, "the next save fails", "");
        return CheckListed(attempt, kOwnPid);
    }
    const ZEVO_BANDWIDTH_STATUS next = Record(kNextPid, 2, attempt.scene.now());
    std::string expected = ReadFile(kAlicesFile);
    if (expected.empty() || expected.back() != '\n') expected += "\n";
    expected += TextOf(next);
    const Hash hash(next);
    if (ZEVOBandwidthStatusAddSection(kAlicesFile, NameOf(kNextPid).c_str(), hash.get()) != 1 ||
        ReadFile(kAlicesFile) != expected)
        Violate(attempt, "the next append is not on a line of its own", ReadFile(kAlicesFile));
    CheckListed(attempt, kNextPid);
}

void Try(const Attempt &attempt)
{
    attempt.operation.Prepare(attempt.scene);
    CutShort(attempt);
    const std::string text = ReadFile(kAlicesFile);
    attempt.met.tornTails += !text.empty() && text.back() != '\n';
    if (const std::string wrong = attempt.operation.Judge(attempt.scene, attempt.progress, text);
        !wrong.empty())
        Violate(attempt, wrong, text);
    CheckLeftovers(attempt);
    CheckListed(attempt, 0);
    CheckNext(attempt);
    attempt.row.Try();
}

// ---- a row of kills ----

// How long the operation takes here, with what forking takes: the kills are spread over some of them.
std::int64_t CycleUs(const Change &operation, const Scene &scene, Progress &progress)
{
    operation.Prepare(scene);
    progress.Reset();
    const std::int64_t beganUs = NowUs();
    const pid_t pid = Fork([&] {
        operation.Repeat(scene, progress);
        return 0;
    });
    while (progress.done < 5 && NowUs() - beganUs < 1'000'000)
        SleepUs(100);
    (void)Kill(pid);
    return (NowUs() - beganUs) / 5;
}

void Work(const Change &operation, Row &row, Met &met, const Budget &budget, Random random)
{
    Progress *const pProgress = Share<Progress>();
    const Scene first(random, std::time(nullptr));
    const std::int64_t spreadUs = 3 * CycleUs(operation, first, *pProgress);
    while (budget.Allows(row.tried())) {
        const Scene scene(random, std::time(nullptr));
        // Some of the delays are so short that the child has hardly begun.
        const std::int64_t boundUs = random.Below(4) == 0 ? spreadUs / 4 : spreadUs;
        Try({operation, scene, *pProgress, row, met, random.UsBelow(boundUs + 1)});
    }
}

void KillAt(const std::string &parent, const std::string &placeName, const Options &options,
            Table &table, const Change &operation, double share, std::uint64_t fullCount)
{
    const std::uint64_t stream =
        (placeName == "disk" ? 100 : 200) + static_cast<std::uint64_t>(&operation - kChanges) * 10;
    Row &row = table.Add("kills while " + std::string(operation.szName) + ", " + placeName);
    Met &met = *Share<Met>();
    const Directory places(parent);
    const Budget budget(options, share, 40, fullCount);
    RunWorkers(kWorkers, [&](int worker) {
        const std::string place = places.path() + "/" + std::to_string(worker);
        fs::create_directory(place);
        Cover("/tmp", place);
        if (operation.Prepare != PrepareCreation) {
            fs::create_directory(kStatusDirectory);
            fs::permissions(kStatusDirectory, fs::perms{0777});
        }
        Work(operation, row, met, budget,
             Random(options.seed, stream + static_cast<std::uint64_t>(worker)));
    });
    row.Add(" (" + std::to_string(met.cutShort.load()) + " in the midst, " +
            std::to_string(met.leftovers.load()) + " temporary files, " +
            std::to_string(met.tornTails.load()) + " torn tails)");
}

} // namespace

int main(int argc, char **argv)
{
    const Options options = ParseOptions(argc, argv);
    Table table(options.seed);
    const double places = options.disk.empty() ? 1 : 2;
    const double share = 1 / (static_cast<double>(std::size(kChanges)) * places);
    for (const Change &operation : kChanges)
        KillAt("/tmp", "tmpfs", options, table, operation, share, 10'000);
    if (!options.disk.empty())
        for (const Change &operation : kChanges)
            KillAt(options.disk, "disk", options, table, operation, share, 2'000);
    return table.Print();
}
