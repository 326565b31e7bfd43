// The readers of these files pass over what they do not understand; this one tells it. It takes a
// line apart in the simplest way and is stricter than they are: what needs escapes is a file name,
// which may be anything, or nothing that belongs here.
#include "check/lines.hpp"

#include <array>
#include <charconv>
#include <map>
#include <optional>
#include <span>

#include <zevocore.h>

#include "model/plan.hpp"
#include "model/store.hpp"

namespace tool {

namespace {

// ---- lines ----

constexpr std::string_view kBlanks = " \t\r";

std::string_view Trim(std::string_view text)
{
    const std::size_t first = text.find_first_not_of(kBlanks);
    if (first == text.npos) return {};
    return text.substr(first, text.find_last_not_of(kBlanks) + 1 - first);
}

std::string Unquoted(std::string_view text)
{
    const bool isQuoted = text.size() > 1 && text.front() == '"' && text.back() == '"';
    return std::string(isQuoted ? text.substr(1, text.size() - 2) : text);
}

enum class LineKind { kHeader, kPair, kPassedOver, kJunk };

struct Line {
    LineKind kind = LineKind::kJunk;
    std::string name; // of the section, or the key
    std::string value;
};

Line ReadHeader(std::string_view text)
{
    if (VLIBCIFileIsSection(text.data(), static_cast<int>(text.size())) == 0) return {};
    const std::string_view inside = text.substr(1, text.rfind(']') - 1);
    return {LineKind::kHeader, Unquoted(Trim(inside)), ""};
}

Line ReadPair(std::string_view text)
{
    const std::size_t keyEnd = text.front() == '"' ? text.find('"', 1) : 0;
    const std::size_t equals = text.find('=', keyEnd);
    if (keyEnd == text.npos || equals == text.npos) return {};
    const std::string_view key = Trim(text.substr(0, equals));
    const std::string_view value = Trim(text.substr(equals + 1));
    const bool isOpen = value.starts_with('"') && (value.size() == 1 || !value.ends_with('"'));
    if (key.empty() || isOpen) return {};
    return {LineKind::kPair, Unquoted(key), Unquoted(value)};
}

Line ReadLine(std::string_view whole)
{
    const std::string_view text = Trim(whole);
    if (text.empty() || whole.front() == ';' || whole.front() == '#')
        return {LineKind::kPassedOver, "", ""};
    if (text.find('\0') != text.npos) return {};
    return whole.front() == '[' ? ReadHeader(whole) : ReadPair(text);
}

// ---- what belongs into a section ----

enum class Takes { kNumber, kName, kProtocol, kPlan, kAnything };

struct Key {
    std::string_view name;
    Takes takes;
    const ZEVO_BW_ENUM_ENTRY *names = nullptr;
};

constexpr std::array kRuleKeys = {
    Key{"id", Takes::kNumber},
    Key{"state", Takes::kName, ZEVO_BW_STATE_LIST},
    Key{"owner type", Takes::kName, ZEVO_BW_OWNER_TYPE_LIST},
    Key{"protocol type", Takes::kProtocol},
    Key{"upload rate", Takes::kNumber},
    Key{"download rate", Takes::kNumber},
    Key{"upload rate custom", Takes::kNumber},
    Key{"download rate custom", Takes::kNumber},
    Key{"schedule plan", Takes::kPlan},
};

constexpr std::array kPolicyKeys = {
    Key{"state", Takes::kName, ZEVO_BW_STATE_LIST},
    Key{"user-group policy", Takes::kName, ZEVO_BW_USER_GROUP_POLICY_LIST},
    Key{"inter-group policy", Takes::kName, ZEVO_BW_INTER_GROUP_POLICY_LIST},
    Key{"occupy policy", Takes::kName, ZEVO_BW_OCCUPY_POLICY_LIST},
    Key{"schedule plan", Takes::kPlan},
};

constexpr std::array kTransferKeys = {
    Key{"pid", Takes::kNumber},
    Key{"id", Takes::kNumber},
    Key{"uid", Takes::kNumber},
    Key{"active", Takes::kNumber},
    Key{"timestamp", Takes::kNumber},
    Key{"current speed", Takes::kNumber},
    Key{"expect speed", Takes::kNumber},
    Key{"filename", Takes::kAnything},
    Key{"owner type", Takes::kName, ZEVO_BW_OWNER_TYPE_LIST},
    Key{"protocol type", Takes::kProtocol},
    Key{"transfer type", Takes::kName, ZEVO_BW_TRANSFER_TYPE_LIST},
    Key{"progress", Takes::kNumber},
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
    for (const auto *row = table; row->name != nullptr; ++row)
        if (name == row->name) return true;
    return false;
}

// What is wrong with the value, as a sentence goes on after it; empty when nothing is.
std::string FaultOf(const Key &key, const std::string &value,
                    const std::set<std::string> &protocols)
{
    switch (key.takes) {
    case Takes::kNumber:
        return Number(value) ? "" : "is no number";
    case Takes::kName:
        return IsNameOf(key.names, value) ? "" : "is no name known here";
    case Takes::kProtocol:
        return protocols.contains(value) ? "" : "is no protocol known here";
    case Takes::kPlan:
        if (value.empty() || HasWholePlan(value)) return "";
        return "has " + std::to_string(value.size()) + " characters instead of " +
               std::to_string(kHoursOfWeek);
    case Takes::kAnything:
        break;
    }
    return "";
}

// "\"state\" is no name known here: \"on\""
std::string FaultText(const Key &key, const std::string &fault, const std::string &value)
{
    constexpr std::size_t kMostShown = 200;
    return "\"" + std::string(key.name) + "\" " + fault + ": \"" + value.substr(0, kMostShown) +
           "\"";
}

std::string UnknownName(std::span<const Key> keys, const VLIB_SZ_HASH &section)
{
    for (const Key &key : keys) {
        if (key.takes != Takes::kName) continue;
        const char *const value = VLIBCSzHashGetValue(&section, key.name.data());
        if (value == nullptr) continue;
        const std::string fault = FaultOf(key, value, {});
        if (!fault.empty()) return FaultText(key, fault, value);
    }
    return "";
}

// ---- the walk ----

constexpr const char *kMendLine = "correct or remove the line in an editor";

// Goes through a file and tells what is wrong with single lines. What sections mean is up to those
// who derive from it.
class Walk {
public:
    Walk(std::span<const Key> keys, const std::set<std::string> &protocols, const TellFault &tell)
        : keys_(keys), protocols_(protocols), tell_(tell)
    {
    }
    virtual ~Walk() = default;
    Walk(const Walk &) = delete;
    Walk &operator=(const Walk &) = delete;

    void Run(std::string_view text)
    {
        while (!text.empty()) {
            const std::size_t end = text.find('\n');
            ++line_;
            Take(text.substr(0, end));
            text.remove_prefix(end == text.npos ? text.size() : end + 1);
        }
        End();
    }

protected:
    // True when the section belongs to somebody: else its lines are nobody's business.
    virtual bool Begin(const std::string &section) = 0;
    virtual void Pair(const Key & /*key*/, const std::string & /*value*/) {}
    virtual void End() {} // of the section before the next one begins, and of the file

    void Tell(const std::string &what, const std::string &remedy) { tell_(line_, what, remedy); }
    const std::set<std::string> &protocols() const { return protocols_; }
    int line() const { return line_; }

private:
    void Take(std::string_view text)
    {
        const Line line = ReadLine(text);
        if (line.kind == LineKind::kPassedOver) return;
        if (line.kind == LineKind::kHeader) {
            End();
            section_ = line.name;
            isKnown_ = Begin(line.name);
        } else if (line.kind == LineKind::kJunk) {
            Tell("the line is no section, setting or comment, and is passed over", kMendLine);
        } else if (isKnown_) {
            TakePair(line);
        }
    }

    void TakePair(const Line &line)
    {
        for (const Key &key : keys_) {
            if (key.name != line.name) continue;
            const std::string fault = FaultOf(key, line.value, protocols_);
            if (!fault.empty())
                Tell("section [" + section_ + "]: " + FaultText(key, fault, line.value), kMendLine);
            return Pair(key, line.value);
        }
        Tell("section [" + section_ + "]: unknown setting \"" + line.name + "\"", kMendLine);
    }

    std::span<const Key> keys_;
    const std::set<std::string> &protocols_;
    const TellFault &tell_;
    int line_ = 0;
    bool isKnown_ = false;
    std::string section_;
};

// Only the first section of a name is ever read.
class UniqueSections {
public:
    bool IsSecond(const std::string &section) { return !seen_.insert(section).second; }

private:
    std::set<std::string> seen_;
};

constexpr const char *kSecondSection = "a second section of this name, which is never read: [";
constexpr const char *kNobodysSection = "the section belongs to nobody: [";
constexpr const char *kMendSection = "correct its name or remove it in an editor";

class RuleWalk : public Walk {
public:
    RuleWalk(std::int32_t protocol, const std::set<std::string> &protocols, const TellFault &tell)
        : Walk(kRuleKeys, protocols, tell), protocol_(protocol),
          protocolName_(ProtocolName(protocol))
    {
    }
    bool hasRules() const { return hasRules_; }

protected:
    bool Begin(const std::string &section) override
    {
        const auto owner = ParseOwner(section);
        if (!owner)
            Tell(kNobodysSection + section + "]", kMendSection);
        else if (unique_.IsSecond(section))
            Tell(kSecondSection + section + "]", kMendSection);
        hasRules_ = hasRules_ || owner;
        owner_ = owner;
        if (owner)
            expected_ = {{"id", std::to_string(owner->account.id)},
                         {"owner type", ValueName(ZEVO_BW_OWNER_TYPE_LIST, owner->type)},
                         {"protocol type", protocolName_}};
        return owner.has_value();
    }

    void Pair(const Key &key, const std::string &value) override
    {
        // A rule that was cleared is none, whoever's it was.
        if (std::string_view(key.name) == "state" && value != "NotExisted" && !IsKnown(*owner_))
            TellUnknown(OwnerById(owner_->type, owner_->account.id));
        const auto expected = expected_.find(key.name);
        if (expected == expected_.end() || expected->second == value) return;
        Tell("\"" + std::string(key.name) + "\" contradicts the section and its file: \"" + value +
                 "\" instead of \"" + expected->second + "\"",
             kMendLine);
    }

private:
    void TellUnknown(const Owner &owner)
    {
        Tell("the rule of an unknown " + OwnerText(owner),
             "zevobandwidth rule clear " + RuleOptions(owner, protocol_));
    }

    const std::int32_t protocol_;
    const std::string protocolName_;
    UniqueSections unique_;
    decltype(ParseOwner("")) owner_; // of the section
    bool hasRules_ = false;
    std::map<std::string_view, std::string> expected_;
};

class PolicyWalk : public Walk {
public:
    PolicyWalk(const std::set<std::string> &protocols, const TellFault &tell)
        : Walk(kPolicyKeys, protocols, tell)
    {
    }

protected:
    bool Begin(const std::string &section) override
    {
        const bool isKnown = protocols().contains(section);
        if (!isKnown)
            Tell("the policy of an unknown protocol: [" + section + "]",
                 "put the add-on's file back ('zevobandwidth addon list'), or remove the section");
        else if (unique_.IsSecond(section))
            Tell(kSecondSection + section + "]", kMendSection);
        return isKnown;
    }

private:
    UniqueSections unique_;
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
        : Walk(kTransferKeys, protocols, tell), now_(static_cast<std::uint64_t>(now)), stale_(stale)
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

    void Pair(const Key &key, const std::string &value) override
    {
        if (key.name == "timestamp") savedAt_ = Number(value).value_or(0);
    }

    void End() override
    {
        if (!section_.empty() && savedAt_ + kStaleAfterSeconds < now_) stale_(begin_, section_);
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
    return UnknownName(kRuleKeys, section);
}

std::string UnknownNameInPolicy(const VLIB_SZ_HASH &section)
{
    return UnknownName(kPolicyKeys, section);
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
