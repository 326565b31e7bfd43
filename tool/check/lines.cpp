// The readers of these files pass over what they do not understand; this one tells it. What a line means
// the platform's reader decides: it reads each line by itself, as a section of a scratch file.
#include "check/lines.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <map>
#include <optional>
#include <sstream>
#include <vector>

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

std::optional<std::uint64_t> Number(const std::string &text)
{
    std::uint64_t number = 0;
    const char *const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number);
    if (result.ec != std::errc() || result.ptr != end) return std::nullopt;
    return number;
}

bool IsNameOf(const ZEVO_BW_ENUM_ENTRY *table, const std::string &name)
{
    const std::vector<std::string> names = ValueNames(table);
    return std::find(names.begin(), names.end(), name) != names.end();
}

// What is wrong with the value, as a sentence goes on after it; empty when nothing is. sample: a value
// that the library has written.
std::string FaultOf(std::string_view key, const std::string &value, const std::string &sample,
                    const std::set<std::string> &protocols)
{
    for (const NamedKey &named : kNamedKeys)
        if (named.name == key) return IsNameOf(named.names, value) ? "" : "is no name known here";
    if (key == "protocol type") return protocols.contains(value) ? "" : "is no protocol known here";
    if (key == "schedule plan" && !value.empty() && !HasWholePlan(value))
        return "has " + std::to_string(value.size()) + " characters instead of " +
               std::to_string(kHoursOfWeek);
    return Number(sample) && !Number(value) ? "is no number" : "";
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

constexpr const char *kMendLine = "correct or remove the line in an editor";
constexpr std::size_t kLinesAtOnce = 1000;

struct Line {
    int number;
    std::string_view text;
    bool IsHeader() const
    {
        return VLIBCIFileIsSection(text.data(), static_cast<int>(text.size())) == 1;
    }
};

bool IsPassedOver(std::string_view line)
{
    return line.find_first_not_of(" \t\r") == line.npos || line.front() == ';' ||
           line.front() == '#';
}

// Goes through a file and tells what is wrong with single lines. What sections mean is up to those
// who derive from it.
class Walk {
public:
    Walk(const Keys &keys, const std::set<std::string> &protocols, const TellFault &tell)
        : keys_(keys), protocols_(protocols), tell_(tell)
    {
    }
    virtual ~Walk() = default;
    Walk(const Walk &) = delete;
    Walk &operator=(const Walk &) = delete;

    void Run(std::string_view text)
    {
        std::vector<Line> lines;
        for (int number = 1; !text.empty(); ++number) {
            const std::string_view line = text.substr(0, text.find('\n'));
            text.remove_prefix(std::min(line.size() + 1, text.size()));
            if (!IsPassedOver(line)) lines.push_back({number, line});
            if (lines.size() < kLinesAtOnce && !text.empty()) continue;
            Take(lines);
            lines.clear();
        }
        End();
    }

protected:
    // True when the section belongs to somebody: else its pairs are nobody's business.
    virtual bool Begin(const std::string &section) = 0;
    virtual void Pair(const std::string & /*key*/, const std::string & /*value*/) {}
    virtual void End() {} // of the section before the next one begins, and of the file

    void Tell(const std::string &what, const std::string &remedy) { tell_(line_, what, remedy); }
    const std::set<std::string> &protocols() const { return protocols_; }
    int line() const { return line_; }
    // Only the first section of a name is ever read.
    bool IsSecond(const std::string &section) { return !seen_.insert(section).second; }

private:
    void Take(const std::vector<Line> &lines)
    {
        std::string text;
        for (const Line &line : lines)
            if (!line.IsHeader())
                text += "[" + std::to_string(line.number) + "]\n" + std::string(line.text) + "\n";
        const ScratchFile file("lines.conf", text);
        const List sections = ListSections(file.path()); // makes the reading in order quick
        for (const Line &line : lines) {
            line_ = line.number;
            if (line.IsHeader()) {
                TakeHeader(line.text);
                continue;
            }
            static_cast<void>(ReadSection(file.path(), std::to_string(line.number).c_str(), pair_));
            TakePair();
        }
    }

    // A name is told without its quotes. One that a protocol has may need escapes.
    void TakeHeader(std::string_view text)
    {
        constexpr std::string_view kAround = " \t\"";
        End();
        const std::string_view inside = text.substr(1, text.rfind(']') - 1);
        const std::size_t first = std::min(inside.find_first_not_of(kAround), inside.size());
        section_ = inside.substr(first, inside.find_last_not_of(kAround) + 1 - first);
        for (const std::string &protocol : protocols_)
            if (VLIBCIFileMatchSection(text.data(), static_cast<int>(text.size()),
                                       protocol.c_str()) == 1)
                section_ = protocol;
        isKnown_ = Begin(section_);
    }

    void TakePair()
    {
        for (const auto &[key, sample] : keys_) {
            const char *const value = VLIBCSzHashGetValue(pair_.get(), key.c_str());
            if (value == nullptr) continue;
            if (!isKnown_) return;
            const std::string fault = FaultOf(key, value, sample, protocols_);
            if (!fault.empty())
                Tell("section [" + section_ + "]: " + FaultText(key, fault, value), kMendLine);
            return Pair(key, value);
        }
        const std::string text = TextOf(pair_);
        const std::string pair = text.substr(text.find('\n') + 1);
        if (pair.empty())
            Tell("the line is no section, setting or comment, and is passed over", kMendLine);
        else if (isKnown_)
            Tell("section [" + section_ + "]: unknown setting \"" + pair.substr(0, pair.find('=')) +
                     "\"",
                 kMendLine);
    }

    const Keys &keys_;
    const std::set<std::string> &protocols_;
    const TellFault &tell_;
    int line_ = 0;
    bool isKnown_ = false;
    std::string section_;
    std::set<std::string> seen_;
    Hash pair_ = NewHash(); // of the line in turn
};

constexpr const char *kSecondSection = "a second section of this name, which is never read: [";
constexpr const char *kNobodysSection = "the section belongs to nobody: [";
constexpr const char *kMendSection = "correct its name or remove it in an editor";

class RuleWalk : public Walk {
public:
    RuleWalk(std::int32_t protocol, const std::set<std::string> &protocols, const TellFault &tell)
        : Walk(RuleKeys(), protocols, tell), protocol_(protocol)
    {
    }
    bool hasRules() const { return hasRules_; }

protected:
    bool Begin(const std::string &section) override
    {
        const auto owner = ParseOwner(section);
        if (!owner)
            Tell(kNobodysSection + section + "]", kMendSection);
        else if (IsSecond(section))
            Tell(kSecondSection + section + "]", kMendSection);
        hasRules_ = hasRules_ || owner;
        owner_ = owner;
        if (owner) expected_ = RuleKeys(*owner, protocol_);
        return owner.has_value();
    }

    void Pair(const std::string &key, const std::string &value) override
    {
        // A rule that was cleared is none, whoever's it was.
        if (key == "state" && value != "NotExisted" && !IsKnown(*owner_))
            TellUnknown(OwnerById(owner_->type, owner_->account.id));
        const bool isOwners = key == "id" || key == "owner type" || key == "protocol type";
        if (isOwners && expected_[key] != value)
            Tell("\"" + key + "\" contradicts the section and its file: \"" + value +
                     "\" instead of \"" + expected_[key] + "\"",
                 kMendLine);
    }

private:
    void TellUnknown(const Owner &owner)
    {
        Tell("the rule of an unknown " + OwnerText(owner),
             "zevobandwidth rule clear " + RuleOptions(owner, protocol_));
    }

    const std::int32_t protocol_;
    decltype(ParseOwner("")) owner_; // of the section
    bool hasRules_ = false;
    Keys expected_; // what the library would write for it
};

class PolicyWalk : public Walk {
public:
    PolicyWalk(const std::set<std::string> &protocols, const TellFault &tell)
        : Walk(PolicyKeys(), protocols, tell)
    {
    }

protected:
    bool Begin(const std::string &section) override
    {
        const bool isKnown = protocols().contains(section);
        if (!isKnown)
            Tell("the policy of an unknown protocol: [" + section + "]",
                 "put the add-on's file back ('zevobandwidth addon list'), or remove the section");
        else if (IsSecond(section))
            Tell(kSecondSection + section + "]", kMendSection);
        return isKnown;
    }
};

// "4711-1": a process and a direction.
bool IsTransferSection(const std::string &section)
{
    const std::size_t dash = section.rfind('-');
    if (dash == section.npos) return false;
    const auto pid = Number(section.substr(0, dash));
    const auto direction = Number(section.substr(dash + 1));
    if (!pid || !direction) return false;
    return (*direction == ZEVO_BW_TRANSFER_UPLOAD || *direction == ZEVO_BW_TRANSFER_DOWNLOAD) &&
           std::to_string(*pid) + "-" + std::to_string(*direction) == section;
}

class TransferWalk : public Walk {
public:
    TransferWalk(const std::set<std::string> &protocols, std::time_t now, const TellFault &tell,
                 const std::function<void(int, const std::string &)> &stale)
        : Walk(TransferKeys(), protocols, tell), now_(static_cast<std::uint64_t>(now)),
          stale_(stale)
    {
    }

protected:
    bool Begin(const std::string &section) override
    {
        section_.clear();
        if (IsTransferSection(section)) {
            section_ = section;
            begin_ = line();
            savedAt_ = 0;
            return true;
        }
        Tell(kNobodysSection + section + "]", "remove the file: running transfers write it anew");
        return false;
    }

    void Pair(const std::string &key, const std::string &value) override
    {
        if (key == "timestamp") savedAt_ = Number(value).value_or(0);
    }

    void End() override
    {
        if (!section_.empty() && savedAt_ + ZEVO_BW_STALE_AFTER_SECONDS < now_)
            stale_(begin_, section_);
    }

private:
    const std::uint64_t now_;
    const std::function<void(int, const std::string &)> &stale_;
    std::string section_; // empty outside of one
    int begin_ = 0;
    std::uint64_t savedAt_ = 0; // seconds; one that does not say when counts as stale
};

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
    RuleWalk walk(protocol, protocols, tell);
    walk.Run(text);
    return walk.hasRules();
}

void CheckPolicies(std::string_view text, const std::set<std::string> &protocols,
                   const TellFault &tell)
{
    PolicyWalk(protocols, tell).Run(text);
}

void CheckTransfers(std::string_view text, const std::set<std::string> &protocols, std::time_t now,
                    const TellFault &tell,
                    const std::function<void(int line, const std::string &section)> &stale)
{
    TransferWalk(protocols, now, tell, stale).Run(text);
}

} // namespace tool
