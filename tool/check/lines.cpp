// The readers of these files ignore what they do not understand. This check reports it. The
// platform's reader decides what a line means: it reads each line as a section of its own in a
// scratch file. Any user can fill a status file with junk, so lines that nobody reads cost nothing,
// and the walk ends when no more faults are wanted.
#include "check/lines.hpp"

#include <algorithm>
#include <array>
#include <map>
#include <optional>
#include <sstream>
#include <vector>

#include "model/number.hpp"
#include "model/plan.hpp"
#include "model/scratch_file.hpp"
#include "model/section.hpp"
#include "model/store.hpp"
#include "output.hpp"

namespace tool {

namespace {

// ---- what belongs into a section ----

// The keys of a record, each with a value that the library has written for it.
using Keys = std::map<std::string, std::string, std::less<>>;

std::string TextOf(const Hash &hash)
{
    return Written([&hash](FILE *fp) { return VLIBCFileHash2File(fp, "", hash.get(), 0); });
}

template <typename Record>
Keys KeysOf(int (*toHash)(VLIB_SZ_HASH **, const Record *), const Record &sample)
{
    VLIB_SZ_HASH *filled = NewHash().release(); // may be replaced by a larger one
    static_cast<void>(toHash(&filled, &sample));
    std::istringstream lines(TextOf(Hash(filled, &VLIBCSzHashFree)));
    Keys keys;
    std::string line;
    std::getline(lines, line); // the header
    while (std::getline(lines, line)) {
        const std::size_t equals = std::min(line.find('='), line.size() - 1);
        keys.emplace(line.substr(0, equals), line.substr(equals + 1));
    }
    return keys;
}

Keys RuleKeys(const Owner &owner, std::int32_t protocol)
{
    ZEVO_BANDWIDTH_CONF rule{};
    rule.ownerType = owner.type;
    rule.id = owner.account.id;
    rule.protocolType = protocol;
    return KeysOf(ZEVOBandwidthInitHashFromConf, rule);
}

const Keys &RuleKeys()
{
    static const Keys keys = RuleKeys({}, ZEVO_BW_PROTOCOL_FTP);
    return keys;
}

const Keys &PolicyKeys()
{
    ZEVO_BANDWIDTH_GLOBAL_CONF policy{};
    policy.interGroupPolicy = ZEVO_BW_INTER_GROUP_POLICY_MAX;
    static const Keys keys = KeysOf(ZEVOBandwidthInitHashFromGlobalConf, policy);
    return keys;
}

const Keys &TransferKeys()
{
    ZEVO_BANDWIDTH_STATUS transfer{};
    transfer.owner_type = ZEVO_BW_OWNER_USER;
    transfer.protocol_type = ZEVO_BW_PROTOCOL_FTP;
    transfer.transfer_type = ZEVO_BW_TRANSFER_UPLOAD;
    static const Keys keys = KeysOf(ZEVOBandwidthInitHashFromStatus, transfer);
    return keys;
}

// The keys whose values are names.
struct NamedKey {
    std::string_view name;
    const ZEVO_BW_ENUM_ENTRY *names;
};

constexpr std::array kNamedKeys = {
    NamedKey{"state", ZEVO_BW_STATE_LIST},
    NamedKey{"owner type", ZEVO_BW_OWNER_TYPE_LIST},
    NamedKey{"transfer type", ZEVO_BW_TRANSFER_TYPE_LIST},
    NamedKey{"user-group policy", ZEVO_BW_USER_GROUP_POLICY_LIST},
    NamedKey{"inter-group policy", ZEVO_BW_INTER_GROUP_POLICY_LIST},
    NamedKey{"occupy policy", ZEVO_BW_OCCUPY_POLICY_LIST},
};

bool IsNameOf(const ZEVO_BW_ENUM_ENTRY *table, const std::string &name)
{
    const std::vector<std::string> names = ValueNames(table);
    return std::find(names.begin(), names.end(), name) != names.end();
}

// What is wrong with the value, such as "is no number"; empty when nothing is. sample: a value of
// this key that the library wrote.
std::string FaultOf(std::string_view key, const std::string &value, const std::string &sample,
                    const std::set<std::string> &protocols)
{
    for (const NamedKey &named : kNamedKeys)
        if (named.name == key) return IsNameOf(named.names, value) ? "" : "is no name known here";
    if (key == "protocol type") return protocols.contains(value) ? "" : "is no protocol known here";
    if (key == "schedule plan" && !value.empty() && !HasWholePlan(value))
        return "has " + std::to_string(value.size()) + " characters instead of " +
               std::to_string(kHoursOfWeek);
    return ReadNumber<std::uint64_t>(sample) && !ReadNumber<std::uint64_t>(value) ? "is no number"
                                                                                  : "";
}

// "\"state\" is no name known here: \"on\""
std::string FaultText(std::string_view key, const std::string &fault, const std::string &value)
{
    constexpr std::size_t kMaxShown = 200;
    return "\"" + std::string(key) + "\" " + fault + ": \"" + value.substr(0, kMaxShown) + "\"";
}

std::string UnknownName(const Keys &keys, const VLIB_SZ_HASH &section)
{
    for (const NamedKey &named : kNamedKeys) {
        const char *const value = VLIBCSzHashGetValue(&section, named.name.data());
        if (value == nullptr || !keys.contains(named.name)) continue;
        const std::string fault = FaultOf(named.name, value, "", {});
        if (!fault.empty()) return FaultText(named.name, fault, value);
    }
    return "";
}

// ---- the walk ----

constexpr const char *kNobodysSection = "the section belongs to nobody: [";
constexpr const char *kMendSection = "correct its name or remove it in an editor";
constexpr const char *kMendLine = "correct or remove the line in an editor";
constexpr std::size_t kLinesAtOnce = 1000;

struct Line {
    int number;
    std::string_view text;
    bool isHeader;
};

bool IsHeader(std::string_view line)
{
    return VLIBCIFileIsSection(line.data(), static_cast<int>(line.size())) == 1;
}

bool IsPassedOver(std::string_view line)
{
    return line.find_first_not_of(" \t\r") == line.npos || line.front() == ';' ||
           line.front() == '#';
}

// Walks over the lines of a file and reports what is wrong with each. The caller sets begin, pair,
// end.
class Walk {
public:
    Walk(const Keys &keys, const std::set<std::string> &protocols, const TellFault &tell)
        : keys_(keys), protocols_(protocols), tell_(tell)
    {
    }

    // Called at a header. False: the section belongs to nobody, and its lines are not checked.
    std::function<bool(const std::string &section)> begin;
    std::function<void(const std::string &key, const std::string &value)> pair = [](auto...) {};
    // Called at the end of a section.
    std::function<void()> end = [] {};

    void Run(std::string_view text)
    {
        std::vector<Line> lines;
        bool hasHeader = false; // among those
        for (int number = 1; !text.empty() && !isOver_; ++number) {
            const std::string_view whole = text.substr(0, text.find('\n'));
            text.remove_prefix(std::min(whole.size() + 1, text.size()));
            const Line line = {number, whole, IsHeader(whole)};
            hasHeader = hasHeader || line.isHeader;
            // Lines of a section that belongs to nobody are not even kept.
            const bool isRead = hasHeader || isKnown_ || isBeforeFirst_;
            if (isRead && !IsPassedOver(whole)) lines.push_back(line);
            if (lines.size() < kLinesAtOnce && !text.empty()) continue;
            Take(lines);
            lines.clear();
            hasHeader = false;
        }
        if (!isOver_) end();
    }

    void Tell(const std::string &what, const std::string &remedy)
    {
        isOver_ = !tell_(line_, what, remedy) || isOver_;
    }
    int line() const { return line_; }
    // Only the first section of a name is ever read.
    void TellIfSecond(const std::string &section)
    {
        if (!seen_.insert(section).second)
            Tell("a second section of this name, which is never read: [" + section + "]",
                 kMendSection);
    }

private:
    void Take(const std::vector<Line> &lines)
    {
        std::string text;
        for (const Line &line : lines)
            if (!line.isHeader)
                text += "[" + std::to_string(line.number) + "]\n" + std::string(line.text) + "\n";
        const ScratchFile file("lines.conf", text);
        const List sections = ListSections(file.path()); // makes the reading in order quick
        for (const Line &line : lines) {
            if (isOver_) return;
            line_ = line.number;
            if (line.isHeader) {
                TakeHeader(line.text);
            } else if (isKnown_) {
                static_cast<void>(
                    ReadSection(file.path(), std::to_string(line.number).c_str(), pair_));
                TakePair();
            } else if (isBeforeFirst_) {
                Tell("the line stands before the first section, and is passed over", kMendLine);
            }
        }
    }

    // Takes the quotes off a name. An add-on's name may have escapes, so it is compared by the
    // platform.
    void TakeHeader(std::string_view text)
    {
        constexpr std::string_view kAround = " \t\"";
        end();
        isBeforeFirst_ = false;
        const std::string_view inside = text.substr(1, text.rfind(']') - 1);
        const std::size_t first = std::min(inside.find_first_not_of(kAround), inside.size());
        section_ = inside.substr(first, inside.find_last_not_of(kAround) + 1 - first);
        for (const std::string &protocol : protocols_)
            if (VLIBCIFileMatchSection(text.data(), static_cast<int>(text.size()),
                                       protocol.c_str()) == 1)
                section_ = protocol;
        isKnown_ = begin(section_);
    }

    void TakePair()
    {
        for (const auto &[key, sample] : keys_) {
            const char *const value = VLIBCSzHashGetValue(pair_.get(), key.c_str());
            if (value == nullptr) continue;
            const std::string fault = FaultOf(key, value, sample, protocols_);
            if (!fault.empty())
                Tell("section [" + section_ + "]: " + FaultText(key, fault, value), kMendLine);
            return pair(key, value);
        }
        const std::string text = TextOf(pair_);
        const std::string rest = text.substr(text.find('\n') + 1);
        if (rest.empty())
            Tell("the line is no section, setting or comment, and is passed over", kMendLine);
        else
            Tell("section [" + section_ + "]: unknown setting \"" + rest.substr(0, rest.find('=')) +
                     "\"",
                 kMendLine);
    }

    const Keys &keys_;
    const std::set<std::string> &protocols_;
    const TellFault &tell_;
    int line_ = 0;
    bool isKnown_ = false;
    bool isBeforeFirst_ = true;
    bool isOver_ = false;
    std::string section_;
    std::set<std::string> seen_;
    Hash pair_ = NewHash(); // of the line in turn
};

// "4711-1": a process and a direction.
bool IsTransferSection(const std::string &section)
{
    const std::size_t dash = section.rfind('-');
    if (dash == section.npos) return false;
    const auto pid = ReadNumber<std::uint64_t>(section.substr(0, dash));
    const auto direction = ReadNumber<std::uint64_t>(section.substr(dash + 1));
    if (!pid || !direction) return false;
    return (*direction == ZEVO_BW_TRANSFER_UPLOAD || *direction == ZEVO_BW_TRANSFER_DOWNLOAD) &&
           std::to_string(*pid) + "-" + std::to_string(*direction) == section;
}

} // namespace

std::string UnknownNameInRule(const VLIB_SZ_HASH &section)
{
    return UnknownName(RuleKeys(), section);
}

std::string UnknownNameInPolicy(const VLIB_SZ_HASH &section)
{
    return UnknownName(PolicyKeys(), section);
}

bool CheckRules(std::string_view text, std::int32_t protocol,
                const std::set<std::string> &protocols, const TellFault &tell)
{
    Walk walk(RuleKeys(), protocols, tell);
    bool hasRules = false;
    Owner owner;   // of the section
    Keys expected; // what the library would write for that owner
    walk.begin = [&](const std::string &section) {
        const auto named = ParseOwner(section);
        if (!named) {
            walk.Tell(kNobodysSection + section + "]", kMendSection);
            return false;
        }
        walk.TellIfSecond(section);
        hasRules = true;
        owner = *named;
        expected = RuleKeys(owner, protocol);
        return true;
    };
    walk.pair = [&](const std::string &key, const std::string &value) {
        // A rule that was cleared counts as none.
        if (key == "state" && value != "NotExisted" && !IsKnown(owner)) {
            const Owner unknown = OwnerById(owner.type, owner.account.id);
            walk.Tell("the rule of an unknown " + OwnerText(unknown),
                      "zevobandwidth rule clear " + RuleOptions(unknown, protocol));
        }
        const bool isOwners = key == "id" || key == "owner type" || key == "protocol type";
        if (isOwners && expected[key] != value)
            walk.Tell("\"" + key + "\" contradicts the section and its file: \"" + value +
                          "\" instead of \"" + expected[key] + "\"",
                      kMendLine);
    };
    walk.Run(text);
    return hasRules;
}

void CheckPolicies(std::string_view text, const std::set<std::string> &protocols,
                   const TellFault &tell)
{
    Walk walk(PolicyKeys(), protocols, tell);
    walk.begin = [&](const std::string &section) {
        const bool isKnown = protocols.contains(section);
        if (isKnown)
            walk.TellIfSecond(section);
        else
            walk.Tell("the policy of an unknown protocol: [" + section + "]",
                      "put the add-on's file back ('zevobandwidth addon list'), or remove the "
                      "section");
        return isKnown;
    };
    walk.Run(text);
}

void CheckTransfers(std::string_view text, const std::set<std::string> &protocols, std::time_t now,
                    const TellFault &tell,
                    const std::function<void(int line, const std::string &section)> &stale)
{
    Walk walk(TransferKeys(), protocols, tell);
    std::string transfer; // its section; empty outside of one
    int firstLine = 0;
    std::uint64_t savedAt = 0; // seconds; a transfer that does not say when counts as stale
    walk.begin = [&](const std::string &section) {
        const bool isTransfer = IsTransferSection(section);
        transfer = isTransfer ? section : "";
        firstLine = walk.line();
        savedAt = 0;
        if (!isTransfer)
            walk.Tell(kNobodysSection + section + "]",
                      "remove the file: running transfers write it anew");
        return isTransfer;
    };
    walk.pair = [&](const std::string &key, const std::string &value) {
        if (key == "timestamp") savedAt = ReadNumber<std::uint64_t>(value).value_or(0);
    };
    walk.end = [&] {
        if (!transfer.empty() &&
            savedAt + ZEVO_BW_STALE_AFTER_SECONDS < static_cast<std::uint64_t>(now))
            stale(firstLine, transfer);
    };
    walk.Run(text);
}

} // namespace tool
