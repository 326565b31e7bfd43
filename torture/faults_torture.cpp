// Makes every system call of every exported function fail in turn, in every way that is likely or
// nasty, has reads and writes move less than was asked for, and refuses every allocation: each once,
// and each from then on. A trial is one call of one function with one fault, in a process of its own,
// and is compared with the same call without a fault:
//
//  - it ends, by itself and soon, with the descriptors and the memory that it began with;
//  - every file is as it was at some moment of the faultless call, so that nobody else's section can
//    have changed, and no other file has come into being;
//  - a success has all of its effects; a failure is told by the error slot or the log, as promised;
//  - an interrupted open, read, write or fsync is made again, a failed fsync is not.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "fault_trap.hpp"
#include "operations.hpp"
#include "row.hpp"

using namespace torture;

namespace {

constexpr unsigned kMostSeconds = 20; // one trial; without a fault it takes milliseconds
constexpr int kErrors[] = {EIO,    EINTR,  ENOSPC, EDQUOT, EMFILE,
                           ENFILE, EACCES, EPERM,  EROFS,  ENOMEM};
// Those that may last; some only where something would be changed. An EINTR that never ends is nobody's
// to get over.
constexpr struct {
    int error;
    bool isOfChanges;
} kLastingErrors[] = {{EIO, false},   {EMFILE, false}, {ENOMEM, false}, {ENOSPC, true},
                      {EDQUOT, true}, {EACCES, true},  {EROFS, true}};

// What the faultless call does.
struct Reference {
    Texts before;
    Texts after;
    std::map<std::string, std::set<std::string>> texts; // of each file, at any moment
    int result = 0;
    int calls = 0;
    int allocations = 0;
    std::string given;
};

struct Trial {
    const Operation *pOperation;
    const Reference *pReference;
    Fault fault;
};

// A call of the operation in a process of its own: how the process ended.
int Run(const Operation &operation, const Fault &fault, Report &report,
        const std::function<void()> &beforeChange = nullptr)
{
    report = {};
    return WaitFor(Fork([&] {
        ::alarm(kMostSeconds);
        const std::int64_t heldBefore = HeldBytes();
        {
            Scratch scratch(kOwnPid, kNow);
            VLIBCErrSetEx(0, "", 0);
            report.result = RunTrapped(
                report, fault, [&] { return operation.run(scratch); }, beforeChange);
            report.code = VLIBCErrGet();
            (void)std::snprintf(report.szGiven, sizeof(report.szGiven), "%s",
                                scratch.Given().c_str());
        }
        report.leakedBytes = HeldBytes() - heldBefore;
        report.isDone = true;
        return 0;
    }));
}

void Stage(const Operation &operation)
{
    StageScene(kNow, kOwnPid);
    if (operation.stage != nullptr) operation.stage();
}

// The files as they were seen, path and text in turns, each with its NUL.
struct Seen {
    std::size_t cb;
    char text[std::size_t{64} << 20];
};

// Runs it without a fault, and looks at the files before each change.
Reference Record(const Operation &operation, Report &report, Seen &seen)
{
    Reference reference;
    Stage(operation);
    reference.before = SceneFiles();
    seen.cb = 0;
    const auto look = [&] {
        for (const auto &[path, text] : SceneFiles())
            for (const std::string &part : {path, text}) {
                if (part.size() >= sizeof(seen.text) - seen.cb) ::_exit(4);
                std::strcpy(seen.text + seen.cb, part.c_str());
                seen.cb += part.size() + 1;
            }
    };
    if (const int status = Run(operation, {}, report, look); status != 0 || !report.isDone)
        Die("%s without a fault ended with %d", operation.name, status);
    look();
    for (const char *p = seen.text; p < seen.text + seen.cb;) {
        const std::string path = p;
        const std::string text = p + path.size() + 1;
        reference.texts[path].insert(text);
        p += path.size() + text.size() + 2;
    }
    reference.after = SceneFiles();
    reference.result = report.result;
    reference.calls = report.calls;
    reference.allocations = report.allocations;
    reference.given = report.szGiven;
    return reference;
}

// ---- judging ----

std::string TextOf(const Trial &trial, const Report &report)
{
    const Fault &fault = trial.fault;
    std::string text = trial.pOperation->name;
    text += fault.isLasting ? ", from number " : ", number ";
    text += std::to_string(fault.at);
    if (fault.kind == Fault::Kind::kAllocation) return text + " of its allocations";
    text +=
        " of its system calls (" + std::to_string(report.number) + " on " + report.szPath + ") ";
    if (fault.kind == Fault::Kind::kShort) return text + (fault.isTiny ? "one byte" : "half");
    return text + ::strerrorname_np(fault.error);
}

// A text's sections without their comments, and each comment and blank line by itself, sorted.
using Pieces = std::multiset<std::string>;

Pieces PiecesOf(const std::string &text)
{
    Pieces pieces;
    std::string section;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find('\n', at), text.size() - 1) + 1;
        const std::string line = text.substr(at, end - at);
        at = end;
        const bool isApart = line[0] == '#' || line[0] == ';' || line[0] == '\n';
        if (isApart) {
            pieces.insert(line);
        } else if (line[0] == '[' && !section.empty()) {
            pieces.insert(section);
            section = line;
        } else {
            section += line;
        }
    }
    if (!section.empty()) pieces.insert(section);
    return pieces;
}

// What is the same in all the texts that a file had, and all that was in any of them.
struct Bounds {
    Pieces always;
    std::set<std::string> ever;

    explicit Bounds(const std::set<std::string> &texts)
    {
        bool isFirst = true;
        for (const std::string &text : texts) {
            const Pieces pieces = PiecesOf(text);
            ever.insert(pieces.begin(), pieces.end());
            Pieces common;
            std::set_intersection(always.begin(), always.end(), pieces.begin(), pieces.end(),
                                  std::inserter(common, common.end()));
            always = isFirst ? pieces : common;
            isFirst = false;
        }
        const std::string own = "[" + std::to_string(kOwnPid) + "-";
        std::erase_if(always, [&](const std::string &piece) { return piece.starts_with(own); });
    }
};

// The first line in which two texts differ.
std::string Difference(const std::string &text, const std::string &expected)
{
    const auto at = std::mismatch(text.begin(), text.end(), expected.begin(), expected.end());
    const auto line = [](const std::string &whole, std::size_t where) {
        const std::size_t begin = whole.rfind('\n', where) + 1;
        return "\"" + whole.substr(begin, whole.find('\n', where) - begin) + "\"";
    };
    const auto where = static_cast<std::size_t>(at.first - text.begin());
    const std::size_t last = where == 0 ? 0 : where - 1;
    return line(text, last) + ", not " + line(expected, last);
}

// A temporary file beside one of the scene's.
bool IsLeftover(const std::string &path)
{
    const std::size_t dot = path.rfind('.');
    return dot != std::string::npos && path.size() - dot == sizeof(".XXXXXX") - 1;
}

class Judge {
public:
    Judge(const Trial &trial, const Report &report, Row &row)
        : trial_(trial), report_(report), row_(row)
    {
    }

    void Look(int status)
    {
        if (status == 128 + SIGALRM) return Blame("hangs");
        if (status != 0 || !report_.isDone) return Blame("ended with " + std::to_string(status));
        LookAtFiles();
        LookAtLeaks();
        if (report_.result < 0)
            LookAtFailure();
        else
            LookAtSuccess();
        if (report_.isSyncedAgain) Blame("syncs a file again whose fsync has failed");
        LookAtRetries();
    }

private:
    bool Waives(unsigned waiver) const { return (trial_.pOperation->waivers & waiver) != 0; }

    void Blame(const std::string &what)
    {
        row_.Violate("%s: %s; result %d, slot 0x%04X, log: %s", TextOf(trial_, report_).c_str(),
                     what.c_str(), report_.result, report_.code, report_.szLog);
    }

    void LookAtFiles()
    {
        files_ = SceneFiles();
        for (const auto &[path, text] : files_) {
            const auto known = trial_.pReference->texts.find(path);
            if (known == trial_.pReference->texts.end()) {
                if (!(IsLeftover(path) && report_.hasFailedUnlink)) Blame("leaves " + path);
            } else if (!known->second.contains(text) && !IsLeftover(path)) {
                LookAtPieces(path, text, Bounds(known->second));
            }
        }
        for (const auto &[path, text] : trial_.pReference->before)
            if (!files_.contains(path) && trial_.pReference->after.contains(path))
                Blame("has removed " + path);
    }

    // Sections of others are all there; what else there is, is a section that was meant to be.
    void LookAtPieces(const std::string &path, const std::string &text, const Bounds &bounds)
    {
        const Pieces pieces = PiecesOf(text);
        if (!std::includes(pieces.begin(), pieces.end(), bounds.always.begin(),
                           bounds.always.end()))
            Blame("has changed others' sections in " + path + ": " + text);
        if (Waives(kGoesOn) || (Waives(kTells) && report_.lines != 0)) return;
        for (const std::string &piece : pieces) {
            const auto isPart = [&](const std::string &whole) { return whole.starts_with(piece); };
            if (bounds.ever.contains(piece)) continue;
            if (Waives(kTorn) && report_.result < 0 &&
                std::any_of(bounds.ever.begin(), bounds.ever.end(), isPart))
                continue;
            Blame("leaves in " + path + ": " + piece);
        }
    }

    void LookAtLeaks()
    {
        if (Waives(kRemembers)) return;
        if (report_.leakedFds != 0) Blame("keeps descriptors " + std::to_string(report_.leakedFds));
        if (report_.leakedBytes != 0)
            Blame("keeps " + std::to_string(report_.leakedBytes) + " bytes");
    }

    void LookAtFailure()
    {
        if (Waives(kBlind | kMute)) return;
        if (report_.lines == 0 && (!Waives(kSilent) || report_.code == 0)) Blame("fails unheard");
        // A missing file alone has no code.
        if (report_.code == 0 && std::strstr(report_.szLog, "[0x0000") != nullptr)
            Blame("passes on no error");
    }

    void LookAtSuccess()
    {
        if (Waives(kBlind | kGoesOn) || (Waives(kTells) && report_.lines != 0)) return;
        if (report_.result != trial_.pReference->result) Blame("has another result");
        for (const auto &[path, text] : trial_.pReference->after) {
            const auto now = files_.find(path);
            if (now == files_.end() || now->second != text) Blame("has left " + path + " undone");
        }
        if (trial_.pReference->given != report_.szGiven)
            Blame("gives " + Difference(report_.szGiven, trial_.pReference->given));
    }

    static bool IsWrite(int number) { return number == SYS_write || number == SYS_writev; }

    void LookAtRetries()
    {
        const Fault &fault = trial_.fault;
        const bool isInterrupted = fault.kind == Fault::Kind::kError && fault.error == EINTR &&
                                   report_.isOurs &&
                                   (report_.number == SYS_openat || report_.number == SYS_read ||
                                    report_.number == SYS_pread64 || IsWrite(report_.number) ||
                                    report_.number == SYS_fsync);
        const bool isShortRead = fault.kind == Fault::Kind::kShort && report_.wasHit &&
                                 !fault.isLasting && !IsWrite(report_.number) && report_.isOurs;
        if ((isInterrupted || isShortRead) && report_.result != trial_.pReference->result)
            Blame("gives up for an interrupted or short call");
    }

    const Trial &trial_;
    const Report &report_;
    Row &row_;
    Texts files_;
};

// ---- the rows ----

using Trials = std::vector<Trial>;

// The faults of a kind that an operation can meet, by what it does without one.
std::vector<Fault> FaultsOf(const Fault &fault, const Reference &reference)
{
    std::vector<Fault> faults;
    const bool isAllocation = fault.kind == Fault::Kind::kAllocation;
    Fault next = fault;
    for (next.at = 1; next.at <= (isAllocation ? reference.allocations : reference.calls);
         ++next.at) {
        if (isAllocation) {
            faults.push_back(next);
        } else if (fault.kind == Fault::Kind::kShort) {
            for (const int form : {0, 1, 2, 3}) {
                next.isTiny = form / 2 != 0;
                next.isLasting = form % 2 != 0;
                faults.push_back(next);
            }
        } else if (fault.isLasting) {
            for (const auto &[error, isOfChanges] : kLastingErrors) {
                next.error = error;
                next.isOfChanges = isOfChanges;
                faults.push_back(next);
            }
        } else {
            for (const int error : kErrors) {
                next.error = error;
                faults.push_back(next);
            }
        }
    }
    return faults;
}

constexpr std::uint64_t kSlowness = kCountsAllocations ? 1 : 4; // of forks under a sanitizer

struct Kind {
    const char *szRow;
    Fault fault;
    std::uint64_t shortCount;
    double share;
};

constexpr Kind kKinds[] = {
    {"Functions with a system call that fails", {.kind = Fault::Kind::kError}, 250, 0.45},
    {"Functions with system calls that fail from one on",
     {.kind = Fault::Kind::kError, .isLasting = true},
     100,
     0.2},
    {"Functions with short reads and writes", {.kind = Fault::Kind::kShort}, 100, 0.15},
    {"Functions with an allocation that fails", {.kind = Fault::Kind::kAllocation}, 200, 0.1},
    {"Functions with allocations that fail from one on",
     {.kind = Fault::Kind::kAllocation, .isLasting = true},
     200,
     0.1},
};

// In an order by the seed, so that a short run tries something of everything.
void Shuffle(Trials &trials, Random &random)
{
    for (std::size_t i = trials.size(); i > 1; --i)
        std::swap(trials[i - 1], trials[random.Below(i)]);
}

void TryAll(Row &row, const Trials &trials, const Budget &budget, Report &report)
{
    for (std::uint64_t done = 0; budget.Allows(done) && done < trials.size(); ++done) {
        const Trial &trial = trials[done];
        Stage(*trial.pOperation);
        const int status = Run(*trial.pOperation, trial.fault, report);
        if (trial.fault.kind == Fault::Kind::kShort && !report.wasHit) continue; // moves no bytes
        row.Try();
        Judge(trial, report, row).Look(status);
    }
}

} // namespace

int main(int argc, char **argv)
{
    const Options options = ParseOptions(argc, argv);
    if (const char *const szWhy = WhyNoFilter(); szWhy != nullptr) {
        std::fprintf(stderr, "torture_faults is skipped: %s\n", szWhy);
        return 77;
    }
    ::umask(022);
    auto *const pReport = Share<Report>();
    auto *const pSeen = Share<Seen>();
    std::vector<Reference> references;
    references.reserve(kOperations.size());
    for (const Operation &operation : kOperations) {
        Stage(operation);
        Scratch warm(kOwnPid, kNow); // what libc keeps for its own use it has then
        (void)operation.run(warm);
        references.push_back(Record(operation, *pReport, *pSeen));
        if (std::getenv("ZEVOBW_TORTURE_TELL") != nullptr)
            std::fprintf(stderr, "%-32s %5d calls %4d allocations, result %d\n", operation.name,
                         references.back().calls, references.back().allocations,
                         references.back().result);
    }

    Table table(options.seed);
    Random random(options.seed, 0);
    for (const Kind &kind : kKinds) {
        if (kind.fault.kind == Fault::Kind::kAllocation && !kCountsAllocations) {
            std::fprintf(stderr, "left out, for the sanitizer allocates by itself: %s\n",
                         kind.szRow);
            continue;
        }
        Trials trials;
        for (std::size_t i = 0; i < references.size(); ++i)
            for (const Fault &fault : FaultsOf(kind.fault, references[i]))
                trials.push_back({&kOperations[i], &references[i], fault});
        Shuffle(trials, random);
        TryAll(table.Add(kind.szRow), trials,
               Budget(options, kind.share, kind.shortCount / kSlowness, trials.size()), *pReport);
    }
    return table.Print();
}
