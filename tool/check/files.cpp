// Every file is opened without following a link and without waiting, and only if it is a regular
// file of bounded size. A repair opens its file anew and checks that it has only one name: a
// stranger could have planted a hard link to another user's file.
#include "check/files.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <set>
#include <system_error>

#include <zevocore.h>

#include "base/regular_file.hpp"

#include "check/lines.hpp"
#include "failure.hpp"
#include "model/names.hpp"
#include "model/store.hpp"
#include "model/transfer_list.hpp"

namespace tool {

namespace {

constexpr std::string_view kAddonDirectory = "addon";
constexpr std::string_view kRulePrefix = "bandwidth.";
constexpr std::string_view kRuleSuffix = ".conf";
constexpr std::size_t kTemporaryLetters = 6;
constexpr int kMaxFaultsOfFile = 20;
constexpr std::size_t kMaxStaleSections = 10000; // removed by one repair
constexpr mode_t kAllModeBits = 07777;
constexpr mode_t kStatusDirectoryMode = 0777;
constexpr mode_t kStatusFileMode = 0666;

// ---- modes ----

std::string Octal(mode_t mode)
{
    std::array<char, 8> text{};
    std::snprintf(text.data(), text.size(), "%04o", static_cast<unsigned>(mode));
    return text.data();
}

// Everybody reads the limits; only the administrator changes them.
mode_t WantedOfRules(const struct stat &status)
{
    const mode_t readable = S_ISDIR(status.st_mode) ? 0555 : 0444;
    return ((status.st_mode & kAllModeBits) & ~mode_t{022}) | readable;
}

mode_t WantedOfTransfers(const struct stat &status)
{
    if (S_ISDIR(status.st_mode)) return kStatusDirectoryMode;
    return kStatusFileMode;
}

bool SetMode(const std::string &path, mode_t mode)
{
    const zevo::Place place(path.c_str());
    if (place.fault()) return false;
    const zevo::Fd file = zevo::OpenAt(place.dir(), place.name(), O_RDONLY | O_NONBLOCK);
    struct stat opened {};
    if (!file || ::fstat(file.get(), &opened) != 0) return false;
    const nlink_t nNames = place.CountNames(opened);
    const bool isFit =
        S_ISDIR(opened.st_mode) ? nNames > 0 : nNames == 1 && S_ISREG(opened.st_mode);
    if (!isFit) errno = EMLINK;
    return isFit && ::fchmod(file.get(), mode) == 0;
}

// ---- leftovers ----

// NAME of "NAME.AbCdEf", a writer's temporary file; empty for any other name.
std::string_view NameOfTemporary(std::string_view file)
{
    const std::size_t dot = file.rfind('.');
    if (dot == file.npos || file.size() - dot - 1 != kTemporaryLetters) return {};
    const std::string_view letters = file.substr(dot + 1);
    const auto isLetter = [](unsigned char c) { return std::isalnum(c) != 0; };
    return std::all_of(letters.begin(), letters.end(), isLetter) ? file.substr(0, dot)
                                                                 : std::string_view();
}

bool IsOld(const struct stat &status)
{
    return status.st_mtime < std::time(nullptr) - ZEVO_BW_LEFTOVER_AFTER_SECONDS;
}

bool RemoveLeftover(const std::string &path)
{
    const zevo::Place place(path.c_str());
    struct stat now {};
    if (place.fault() || ::fstatat(place.dir(), place.name(), &now, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT;
    errno = EBUSY; // a writer uses it again
    return S_ISREG(now.st_mode) && IsOld(now) && ::unlinkat(place.dir(), place.name(), 0) == 0;
}

bool RemoveSections(const std::string &path, const std::vector<std::string> &sections)
{
    for (const std::string &section : sections)
        if (VLIBCFileRemoveSection(path.c_str(), section.c_str()) < 0) return false;
    return true;
}

// ---- the look-over ----

class LookOver {
public:
    std::vector<Finding> Run()
    {
        for (const Protocol &protocol : KnownProtocols())
            protocols_.insert(protocol.name);
        for (const Addon &addon : AddonFiles()) // only their names count
            if (!addon.fault.empty())
                Add(ZEVO_BW_ADDON_DIRECTORY "/" + addon.file, 0,
                    "an add-on that cannot be used: " + addon.fault, addon.remedy);
        CheckRuleDirectory();
        CheckStatusDirectory();
        return std::move(findings_);
    }

private:
    using WantedMode = mode_t (*)(const struct stat &);
    struct Entry {
        std::string name;
        struct stat status;
    };

    Finding &Add(const std::string &file, int line, const std::string &what,
                 const std::string &remedy)
    {
        findings_.push_back({file, line, what, remedy, false, {}, false});
        return findings_.back();
    }

    void CheckOwner(const std::string &path, const struct stat &status)
    {
        if (status.st_uid != 0)
            Add(path, 0, "it belongs to the user with the id " + std::to_string(status.st_uid),
                "chown root " + path);
    }

    void CheckMode(const std::string &path, const struct stat &status, WantedMode wanted)
    {
        const mode_t mode = status.st_mode & kAllModeBits;
        const mode_t right = wanted(status);
        if (mode == right) return;
        Add(path, 0, "its mode is " + Octal(mode) + " instead of " + Octal(right),
            "chmod " + Octal(right) + " " + path)
            .repair = [path, right] { return SetMode(path, right); };
    }

    // True when it is a directory.
    bool CheckDirectory(const std::string &path, WantedMode wanted)
    {
        struct stat status {};
        if (::lstat(path.c_str(), &status) != 0) {
            if (errno == ENOENT || errno == ENOTDIR) return false; // made when it is needed
            throw Failure(kNotPermitted, "not permitted to look at " + path + ": " +
                                             std::strerror(errno) +
                                             "; run this command as an administrator (root)");
        }
        if (!S_ISDIR(status.st_mode)) {
            Add(path, 0, "it is no directory, so nothing works that needs it",
                "remove it: it is made anew when it is needed");
            return false;
        }
        CheckOwner(path, status);
        CheckMode(path, status, wanted);
        return true;
    }

    static std::vector<Entry> Entries(const std::string &path)
    try {
        std::vector<Entry> entries;
        for (const std::string &name : FileNames(path)) {
            Entry found{name, {}};
            if (::lstat((path + "/" + name).c_str(), &found.status) == 0) entries.push_back(found);
        }
        return entries;
    } catch (const std::system_error &error) {
        const int code = error.code().value();
        throw Failure(StatusOf(code), "cannot read " + path + ": " + std::strerror(code));
    }

    // True for a writer's temporary file, also if the writer may still be at work.
    bool CheckTemporary(const std::string &path, const struct stat &status)
    {
        if (!S_ISREG(status.st_mode)) return false;
        if (IsOld(status))
            Add(path, 0, "a temporary file that its process has left behind", "rm " + path).repair =
                [path] { return RemoveLeftover(path); };
        return true;
    }

    // True when it is a regular file that could be read.
    bool ReadFile(const std::string &path, const struct stat &status, zevo::Bytes &text)
    {
        if (!S_ISREG(status.st_mode)) {
            Add(path, 0, "it is no regular file, and nobody reads it", "remove it");
            return false;
        }
        const zevo::Place place(path.c_str());
        const zevo::RegularFile file(place, O_RDONLY);
        if (!file.fault() && !file.ReadWhole(text)) return true;
        if (errno == EACCES)
            throw Failure(kNotPermitted, "not permitted to read " + path +
                                             "; run this command as an administrator (root)");
        if (errno != ENOENT) // it may have been replaced meanwhile
            Add(path, 0, std::string("it cannot be read: ") + std::strerror(errno), "remove it");
        return false;
    }

    void CheckRuleDirectory()
    {
        std::string directory = ConfPath(ZEVO_BW_PROTOCOL_ALL);
        directory.erase(directory.rfind('/'));
        if (!CheckDirectory(directory, WantedOfRules)) return;
        for (const Entry &entry : Entries(directory)) {
            const std::string path = directory + "/" + entry.name;
            if (entry.name == kAddonDirectory) {
                static_cast<void>(CheckDirectory(path, WantedOfRules));
            } else if (entry.name.starts_with(kRulePrefix)) {
                const bool isTemporary = NameOfTemporary(entry.name).ends_with(kRuleSuffix);
                if (isTemporary && CheckTemporary(path, entry.status)) continue;
                if (entry.name.ends_with(kRuleSuffix)) CheckRuleFile(path, entry);
            }
        }
    }

    void CheckRuleFile(const std::string &path, const Entry &entry)
    {
        zevo::Bytes text;
        if (!ReadFile(path, entry.status, text)) return;
        CheckOwner(path, entry.status);
        CheckMode(path, entry.status, WantedOfRules);
        if (path == ConfPath(ZEVO_BW_PROTOCOL_ALL))
            return CheckPolicies(text.view(), protocols_, Teller(path));
        std::string protocol = entry.name.substr(kRulePrefix.size());
        protocol.resize(protocol.size() - std::min(kRuleSuffix.size(), protocol.size()));
        if (!protocols_.contains(protocol)) {
            Add(path, 0, "rules of an unknown protocol",
                "put the add-on's file back ('zevobandwidth addon list'), or remove this one");
            return;
        }
        const std::int32_t number = FindProtocol(protocol);
        if (CheckRules(text.view(), number, protocols_, Teller(path))) HintAtPolicy(path, number);
    }

    void HintAtPolicy(const std::string &path, std::int32_t protocol)
    {
        ZEVO_BANDWIDTH_GLOBAL_CONF policy{};
        if (ZEVOBandwidthGlobalConfGet(protocol, &policy) != 0 ||
            policy.state != ZEVO_BW_STATE_NOT_EXISTED)
            return;
        const std::string name = ProtocolName(protocol);
        Add(path, 0, "its rules do not apply: " + name + " has no policy",
            "zevobandwidth policy set -p " + name)
            .isHint = true;
    }

    void CheckStatusDirectory()
    {
        const std::string directory = ZEVO_BW_STATUS_DIRECTORY;
        if (!CheckDirectory(directory, WantedOfTransfers)) return;
        for (const Entry &entry : Entries(directory)) {
            const std::string path = directory + "/" + entry.name;
            if (ParseOwner(NameOfTemporary(entry.name)) && CheckTemporary(path, entry.status))
                continue;
            if (ParseOwner(entry.name))
                CheckStatusFile(path, entry);
            else
                Add(path, 0, "the file belongs to nobody", "remove it");
        }
    }

    void CheckStatusFile(const std::string &path, const Entry &entry)
    {
        zevo::Bytes text;
        if (!ReadFile(path, entry.status, text)) return;
        CheckMode(path, entry.status, WantedOfTransfers);
        std::vector<std::string> stale;
        int first = 0;
        CheckTransfers(text.view(), protocols_, std::time(nullptr), Teller(path),
                       [&](int line, const std::string &section) {
                           first = stale.empty() ? line : first;
                           if (stale.size() < kMaxStaleSections) stale.push_back(section);
                       });
        if (stale.empty()) return;
        const bool isOne = stale.size() == 1;
        Add(path, first,
            (isOne ? "a transfer that has"
                   : std::to_string(stale.size()) + " transfers that have") +
                " ended without signing off: [" + stale.front() + (isOne ? "]" : "] and so on"),
            "zevobandwidth check --repair; listing the transfers forgets them too")
            .repair = [path, stale] { return RemoveSections(path, stale); };
    }

    // Reports the first faults of a file, and that there are more.
    TellFault Teller(const std::string &path)
    {
        faultsOfFile_ = 0;
        return [this, path](int line, const std::string &what, const std::string &remedy) {
            ++faultsOfFile_;
            if (faultsOfFile_ <= kMaxFaultsOfFile) Add(path, line, what, remedy);
            if (faultsOfFile_ == kMaxFaultsOfFile + 1)
                Add(path, line, "further faults are not told", "mend those above first");
            return faultsOfFile_ <= kMaxFaultsOfFile;
        };
    }

    std::vector<Finding> findings_;
    std::set<std::string> protocols_;
    int faultsOfFile_ = 0;
};

} // namespace

std::vector<Finding> FindFaults()
{
    return LookOver().Run();
}

} // namespace tool
