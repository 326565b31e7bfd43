// The readers of these files ignore what they do not understand. This check reports it. The
// platform's reader decides what a line means: it reads each line as a section of its own in a
// scratch file. Any user can fill a status file with junk: equal lines are read once, at most so many
// are read, and the check ends when no more faults are wanted.
#include "check/lines.hpp"

#include <algorithm>
#include <array>
#include <map>
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

// ---- the sections of a text ----

constexpr const char *kNobodysSection = "the section belongs to nobody: [";
constexpr const char *kMendSection = "correct its name or remove it in an editor";
constexpr const char *kMendLine = "correct or remove the line in an editor";
constexpr std::size_t kMaxLines = 300'000; // checked of one file

struct Line {
    int number = 0;
    std::string_view text;
};

struct Section {
    int line = 0;
    std::string name;
    bool isKnown = false;
    std::vector<Line> lines; // without comments and empty ones
};

struct Pair {
    std::string key; // empty: the line is none
    std::string value;
};

bool IsPassedOver(std::string_view line)
{
    return line.find_first_not_of(" \t\r") == line.npos || line.front() == ';' ||
           line.front() == '#';
}

// Without quotes. An add-on's name may have escapes, so it is compared by the platform.
std::string NameIn(std::string_view header, const std::set<std::string> &protocols)
{
    constexpr std::string_view kAround = " \t\"";
    for (const std::string &protocol : protocols)
        if (VLIBCIFileMatchSection(header.data(), static_cast<int>(header.size()),
                                   protocol.c_str()) == 1)
            return protocol;
    const std::string_view inside = header.substr(1, header.rfind(']') - 1);
    const std::size_t first = std::min(inside.find_first_not_of(kAround), inside.size());
    return std::string(inside.substr(first, inside.find_last_not_of(kAround) + 1 - first));
}

using IsKnownName = std::function<bool(const std::string &)>;

// Up to kMaxLines; left is the text that follows. The first section holds the lines before the first
// header. A section of an unknown name gets no lines.
std::vector<Section> SectionsOf(std::string_view &left, const std::set<std::string> &protocols,
                                const IsKnownName &isKnown)
{
    std::vector<Section> sections = {{0, "", true, {}}};
    std::size_t kept = 0;
    for (int number = 1; !left.empty() && kept < kMaxLines; ++number) {
        const std::string_view line = left.substr(0, left.find('\n'));
        left.remove_prefix(std::min(line.size() + 1, left.size()));
        const bool isHeader = VLIBCIFileIsSection(line.data(), static_cast<int>(line.size())) == 1;
        if (!isHeader && (!sections.back().isKnown || IsPassedOver(line))) continue;
        ++kept;
        if (isHeader) {
            std::string name = NameIn(line, protocols);
            const bool known = isKnown(name);
            sections.push_back({number, std::move(name), known, {}});
        } else {
            sections.back().lines.push_back({number, line});
        }
    }
    return sections;
}

Pair PairIn(const Hash &hash, const Keys &keys)
{
    for (const auto &[key, sample] : keys)
        if (const char *const value = VLIBCSzHashGetValue(hash.get(), key.c_str()))
            return {key, value};
    const std::string text = TextOf(hash);
    const std::string rest = text.substr(text.find('\n') + 1);
    return {rest.substr(0, rest.find('=')), ""};
}

// The lines of a file, and what is wrong with each.
class CheckedText {
public:
    CheckedText(std::string_view text, const Keys &keys, const std::set<std::string> &protocols,
                const TellFault &tell, const IsKnownName &isKnown)
        : keys_(keys), protocols_(protocols), tell_(tell), left_(text),
          sections_(SectionsOf(left_, protocols, isKnown))
    {
        ReadLines();
        for (const Line &line : sections_.front().lines)
            Tell(line.number, "the line stands before the first section, and is passed over",
                 kMendLine);
    }

    // Until no more faults are wanted.
    void ForEachSection(const std::function<void(const Section &)> &check)
    {
        for (std::size_t i = 1; i < sections_.size() && !isOver_; ++i)
            check(sections_[i]);
        if (!left_.empty())
            Tell(0, "it has too many lines: the last ones are not checked", "mend the first ones");
    }

    void Tell(int line, const std::string &what, const std::string &remedy)
    {
        if (!isOver_) isOver_ = !tell_(line, what, remedy);
    }

    // Only the first section of a name is ever read.
    void TellIfSecond(const Section &section)
    {
        if (!seen_.insert(section.name).second)
            Tell(section.line,
                 "a second section of this name, which is never read: [" + section.name + "]",
                 kMendSection);
    }

    void CheckLines(const Section &section,
                    const std::function<void(int line, const Pair &)> &alsoCheck = {})
    {
        for (const Line &line : section.lines) {
            if (isOver_) return;
            const Pair &pair = pairs_.at(line.text);
            CheckPair(line.number, section.name, pair);
            if (alsoCheck && keys_.contains(pair.key)) alsoCheck(line.number, pair);
        }
    }

private:
    void ReadLines()
    {
        std::vector<std::pair<std::string, Pair *>> places; // section of the scratch file, its pair
        std::string text;
        for (std::size_t i = 1; i < sections_.size(); ++i) {
            for (const Line &line : sections_[i].lines) {
                const auto [place, isNew] = pairs_.try_emplace(line.text);
                if (!isNew) continue;
                places.emplace_back(std::to_string(places.size()), &place->second);
                text += "[" + places.back().first + "]\n" + std::string(line.text) + "\n";
            }
        }
        const ScratchFile file("lines.conf", text);
        const List sections = ListSections(file.path()); // makes the reading in order quick
        Hash hash = NewHash();
        for (const auto &[section, pair] : places) {
            static_cast<void>(ReadSection(file.path(), section.c_str(), hash));
            *pair = PairIn(hash, keys_);
        }
    }

    void CheckPair(int line, const std::string &section, const Pair &pair)
    {
        const auto known = keys_.find(pair.key);
        if (pair.key.empty()) {
            Tell(line, "the line is no section, setting or comment, and is passed over", kMendLine);
        } else if (known == keys_.end()) {
            Tell(line, "section [" + section + "]: unknown setting \"" + pair.key + "\"",
                 kMendLine);
        } else {
            const std::string fault = FaultOf(pair.key, pair.value, known->second, protocols_);
            if (!fault.empty())
                Tell(line, "section [" + section + "]: " + FaultText(pair.key, fault, pair.value),
                     kMendLine);
        }
    }

    const Keys &keys_;
    const std::set<std::string> &protocols_;
    const TellFault &tell_;
    std::string_view left_; // too much to be checked
    const std::vector<Section> sections_;
    std::map<std::string_view, Pair> pairs_;
    bool isOver_ = false;
    std::set<std::string> seen_;
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
    CheckedText checked(text, RuleKeys(), protocols, tell,
                        [](const std::string &name) { return ParseOwner(name).has_value(); });
    bool hasRules = false;
    checked.ForEachSection([&](const Section &section) {
        const auto owner = ParseOwner(section.name);
        if (!section.isKnown)
            return checked.Tell(section.line, kNobodysSection + section.name + "]", kMendSection);
        checked.TellIfSecond(section);
        hasRules = true;
        Keys expected = RuleKeys(*owner, protocol);
        checked.CheckLines(section, [&](int line, const Pair &pair) {
            const auto &[key, value] = pair;
            // A rule that was cleared counts as none.
            if (key == "state" && value != "NotExisted" && !IsKnown(*owner)) {
                const Owner unknown = OwnerById(owner->type, owner->account.id);
                checked.Tell(line, "the rule of an unknown " + OwnerText(unknown),
                             "zevobandwidth rule clear " + RuleOptions(unknown, protocol));
            }
            const bool isOwners = key == "id" || key == "owner type" || key == "protocol type";
            if (isOwners && expected[key] != value)
                checked.Tell(line,
                             "\"" + key + "\" contradicts the section and its file: \"" + value +
                                 "\" instead of \"" + expected[key] + "\"",
                             kMendLine);
        });
    });
    return hasRules;
}

void CheckPolicies(std::string_view text, const std::set<std::string> &protocols,
                   const TellFault &tell)
{
    CheckedText checked(text, PolicyKeys(), protocols, tell,
                        [&](const std::string &name) { return protocols.contains(name); });
    checked.ForEachSection([&](const Section &section) {
        if (!section.isKnown)
            return checked.Tell(
                section.line, "the policy of an unknown protocol: [" + section.name + "]",
                "put the add-on's file back ('zevobandwidth addon list'), or remove the section");
        checked.TellIfSecond(section);
        checked.CheckLines(section);
    });
}

void CheckTransfers(std::string_view text, const std::set<std::string> &protocols, std::time_t now,
                    const TellFault &tell,
                    const std::function<void(int line, const std::string &section)> &stale)
{
    CheckedText checked(text, TransferKeys(), protocols, tell, IsTransferSection);
    checked.ForEachSection([&](const Section &section) {
        if (!section.isKnown)
            return checked.Tell(section.line, kNobodysSection + section.name + "]",
                                "remove the file: running transfers write it anew");
        std::uint64_t savedAt = 0; // seconds; a transfer that does not say when counts as stale
        checked.CheckLines(section, [&](int, const Pair &pair) {
            if (pair.key == "timestamp")
                savedAt = ReadNumber<std::uint64_t>(pair.value).value_or(0);
        });
        if (savedAt + ZEVO_BW_STALE_AFTER_SECONDS < static_cast<std::uint64_t>(now))
            stale(section.line, section.name);
    });
}

} // namespace tool
