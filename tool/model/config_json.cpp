// Import refuses what export would not have written, because a missing or misspelt key would become
// an unlimited rate. The JSON reader does not tell lines. So an iterator counts the lines that the
// reader has taken, and each of the reader's events gets the number of its line.
#include "model/config_json.hpp"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <tuple>

#include "failure.hpp"
#include "model/rate.hpp"
#include "model/texts.hpp"

namespace tool {

namespace {

constexpr const char *kFormat = "zevobandwidth";
constexpr int kVersion = 1;
constexpr const char *kPolicies = "policies";
constexpr const char *kRules = "rules";
constexpr const char *kRulePlanMarks = "012";
constexpr const char *kPolicyPlanMarks = "01";
constexpr std::uint32_t kNobody = std::numeric_limits<std::uint32_t>::max();

// ---- to text ----

struct StoredEntry {
    Json json;
    std::string source;
};

class ConfigWriter {
public:
    void AddLine(const std::string &line)
    {
        config_.text += (line_ == 0 ? "" : "\n") + line;
        ++line_;
    }
    void AddList(const char *key, const std::vector<StoredEntry> &entries, const std::string &end)
    {
        const std::string begin = std::string("  \"") + key + "\": [";
        if (entries.empty()) return AddLine(begin + "]" + end);
        AddLine(begin);
        for (const StoredEntry &entry : entries) {
            AddLine("    " + JsonText(entry.json) + (&entry == &entries.back() ? "" : ","));
            config_.sources[line_] = entry.source;
        }
        AddLine("  ]" + end);
    }
    ConfigText Take() { return std::move(config_); }

private:
    ConfigText config_;
    int line_ = 0;
};

} // namespace

ConfigText ConfigToText(const std::vector<ZEVO_BANDWIDTH_GLOBAL_CONF> &policies,
                        const std::vector<StoredRule> &rules)
{
    std::vector<StoredEntry> policyEntries;
    for (const auto &policy : policies)
        if (policy.state != ZEVO_BW_STATE_NOT_EXISTED)
            policyEntries.push_back({ToJson(policy), PlaceOfPolicy(policy.protocolType)});
    std::vector<StoredEntry> ruleEntries;
    for (const auto &[owner, rule] : rules) {
        ruleEntries.push_back({ToJson(owner, rule), PlaceOfRule(owner, rule.protocolType)});
        // An id in digits would be read as a name.
        if (OutputStyle().numeric || !IsKnown(owner)) ruleEntries.back().json["name"] = nullptr;
    }
    ConfigWriter writer;
    writer.AddLine("{");
    writer.AddLine(std::string("  \"format\": \"") + kFormat + "\",");
    writer.AddLine("  \"version\": " + std::to_string(kVersion) + ",");
    writer.AddList(kPolicies, policyEntries, ",");
    writer.AddList(kRules, ruleEntries, "");
    writer.AddLine("}");
    return writer.Take();
}

// ---- from text: where things stand ----

namespace {

// The line of the last byte read. A line end belongs to the line that it ends.
struct LineCount {
    int line = 1;
    bool isEnded = false;
    void Pass(char c)
    {
        line += isEnded ? 1 : 0;
        isEnded = c == '\n';
    }
};

class CountingIterator {
public:
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char *;
    using reference = const char &;

    CountingIterator(const char *at, LineCount &count) : at_(at), count_(&count) {}
    reference operator*() const { return *at_; }
    CountingIterator &operator++()
    {
        count_->Pass(*at_++);
        return *this;
    }
    bool operator==(const CountingIterator &other) const { return at_ == other.at_; }

private:
    const char *at_;
    LineCount *count_;
};

// An entry of a list: where it begins, and its keys.
struct EntryLines {
    int line = 0;
    std::map<std::string, int> keys;
};

using Lists = std::map<std::string, std::vector<EntryLines>>;

// Takes the reader's events. Depth 1 is the keys of the whole, depth 2 the entries of its lists,
// depth 3 the keys of an entry.
class LineKeeper {
public:
    LineKeeper(const LineCount &count, EntryLines &whole, Lists &lists, std::vector<Remark> &faults)
        : count_(count), whole_(whole), lists_(lists), faults_(faults)
    {
    }

    bool operator()(int depth, Json::parse_event_t event, const Json &parsed)
    {
        using Event = Json::parse_event_t;
        if (event == Event::key && depth == 1) list_ = Keep(whole_, parsed);
        if (event == Event::key && depth == 3) Keep(lists_[list_].back(), parsed);
        const bool begins = event == Event::object_start || event == Event::array_start;
        if (depth == 2 && (begins || event == Event::value))
            lists_[list_].push_back({count_.line, {}});
        return true;
    }

private:
    std::string Keep(EntryLines &entry, const Json &parsed)
    {
        const auto &key = parsed.get_ref<const std::string &>();
        if (!entry.keys.emplace(key, count_.line).second)
            faults_.push_back({count_.line, "\"" + key + "\" stands twice in one entry"});
        return key;
    }

    const LineCount &count_;
    EntryLines &whole_;
    Lists &lists_;
    std::vector<Remark> &faults_;
    std::string list_;
};

// ---- from text: one entry ----

// Returns the values of an object's keys. A missing or wrong value is a fault, and so is a key that
// was never asked for.
class Entry {
public:
    Entry(const Json &json, const EntryLines &lines, std::vector<Remark> &faults)
        : json_(json), lines_(lines), faults_(faults), faultsBefore_(faults.size())
    {
    }

    int line() const { return lines_.line; }
    bool IsSound() const { return faults_.size() == faultsBefore_; }

    void Fault(const std::string &key, const std::string &text)
    {
        const auto place = lines_.keys.find(key);
        faults_.push_back({place == lines_.keys.end() ? lines_.line : place->second, text});
    }

    // Null after a fault.
    const Json *Value(const std::string &key)
    {
        asked_.insert(key);
        const auto found = json_.find(key);
        if (found != json_.end()) return &*found;
        Fault(key, "\"" + key + "\" is missing");
        return nullptr;
    }

    // Empty after a fault.
    std::string Text(const std::string &key)
    {
        const Json *value = Value(key);
        if (value == nullptr) return "";
        if (value->is_string() && !value->get_ref<const std::string &>().empty())
            return value->get<std::string>();
        Fault(key, "\"" + key + "\" must be a text that is not empty");
        return "";
    }

    std::optional<std::int32_t> Choice(const std::string &key,
                                       const std::vector<std::string> &names,
                                       const ZEVO_BW_ENUM_ENTRY *table)
    {
        const Json *value = Value(key);
        if (value == nullptr) return std::nullopt;
        for (const std::string &name : names)
            if (value->is_string() && *value == name) return ValueOf(table, name);
        Fault(key, "\"" + key + "\" must be one of " + Joined(names, ", "));
        return std::nullopt;
    }

    std::uint64_t RateOrUnlimited(const std::string &key)
    {
        const Json *value = Value(key);
        if (value == nullptr || value->is_null()) return 0;
        if (value->is_number_unsigned()) {
            const auto rate = value->get<std::uint64_t>();
            if (rate != 0 && rate <= kMaxRateKBps) return rate;
        }
        Fault(key, "\"" + key + "\" must be a whole number of 1 to " +
                       std::to_string(kMaxRateKBps) + ", or null for unlimited");
        return 0;
    }

    void Plan(const std::string &key, const std::string &marks, char (&plan)[ZEVO_BW_PLAN_SIZE])
    {
        const Json *value = Value(key);
        if (value == nullptr) return;
        const std::string text = value->is_string() ? value->get<std::string>() : "?";
        const bool isFit = text.find_first_not_of(marks) == text.npos;
        if (isFit && (text.empty() || text.size() == kHoursOfWeek))
            text.copy(plan, text.size());
        else
            Fault(key, "\"" + key + "\" must be empty or " + std::to_string(kHoursOfWeek) +
                           " characters of \"" + marks + "\", and is " +
                           (isFit ? std::to_string(text.size()) + " of them" : "something else"));
    }

    void RefuseOtherKeys()
    {
        for (const auto &[key, value] : json_.items())
            if (!asked_.contains(key)) Fault(key, "unknown key \"" + key + "\"");
    }

private:
    const Json &json_;
    const EntryLines &lines_;
    std::vector<Remark> &faults_;
    const std::size_t faultsBefore_;
    std::set<std::string> asked_;
};

// ---- from text: the whole ----

// The reader's message without its codes and positions.
std::string WhatIsNoJson(const std::string &message)
{
    const std::size_t column = message.find(", column ");
    const std::size_t end =
        message.find(column == message.npos ? "] " : ": ", column == message.npos ? 0 : column);
    return "this is no JSON: " + (end == message.npos ? message : message.substr(end + 2));
}

// NOLINTNEXTLINE(bugprone-exception-escape): to move its members throws nothing
class ConfigReader {
public:
    Configuration Read(std::string_view text)
    {
        if (Parse(text)) {
            if (json_.is_object()) {
                ReadHead();
                ReadList(kPolicies, [this](Entry &entry) { ReadPolicy(entry); });
                ReadList(kRules, [this](Entry &entry) { ReadRule(entry); });
            } else {
                result_.faults.push_back({1, "the whole must be an object, as export writes it"});
            }
        }
        std::stable_sort(result_.faults.begin(), result_.faults.end(),
                         [](const Remark &a, const Remark &b) { return a.line < b.line; });
        return std::move(result_);
    }

private:
    bool Parse(std::string_view text)
    {
        LineCount count;
        try {
            const char *const end = text.data() + text.size();
            json_ = Json::parse(CountingIterator(text.data(), count), CountingIterator(end, count),
                                LineKeeper(count, whole_, lists_, result_.faults));
            return true;
        } catch (const Json::exception &error) {
            result_.faults.push_back({count.line, WhatIsNoJson(error.what())});
            return false;
        }
    }

    void ReadHead()
    {
        whole_.line = 1;
        Entry head(json_, whole_, result_.faults);
        const Json *const format = head.Value("format");
        const Json *const version = head.Value("version");
        if (format != nullptr && *format != kFormat)
            head.Fault("format", std::string("\"format\" must be \"") + kFormat +
                                     "\": this is no exported configuration");
        if (version != nullptr && *version != kVersion)
            head.Fault("version", "\"version\" must be " + std::to_string(kVersion) +
                                      ": import it with a newer zevobandwidth");
        head.Value(kPolicies);
        head.Value(kRules);
        head.RefuseOtherKeys();
    }

    template <typename Handle> void ReadList(const char *key, Handle handle)
    {
        const auto list = json_.find(key);
        if (list == json_.end()) return; // told already
        if (!list->is_array()) {
            result_.faults.push_back(
                {whole_.keys[key], std::string("\"") + key + "\" must be a list"});
            return;
        }
        for (std::size_t i = 0; i < list->size(); ++i) {
            Entry entry((*list)[i], lists_[key][i], result_.faults);
            if (!(*list)[i].is_object()) {
                entry.Fault("", std::string("an entry of \"") + key + "\" must be an object");
                continue;
            }
            handle(entry);
            entry.RefuseOtherKeys();
        }
    }

    void ReadPolicy(Entry &entry)
    {
        ZEVO_BANDWIDTH_GLOBAL_CONF policy{};
        policy.protocolType = ReadProtocol(entry);
        for (const PolicyChoice &choice : kChoices) {
            std::vector<std::string> names = ValueNames(choice.table);
            // A stored policy never has the state NotExisted.
            if (choice.field == &ZEVO_BANDWIDTH_GLOBAL_CONF::state) names.erase(names.begin());
            if (const auto value = entry.Choice(choice.key, names, choice.table))
                policy.*choice.field = *value;
        }
        entry.Plan("plan", kPolicyPlanMarks, policy.szSchedulePlan);
        if (policy.protocolType != 0) RefuseSecond(entry, policy.protocolType, 0, 0);
        result_.policies.push_back(policy);
    }

    void ReadRule(Entry &entry)
    {
        StoredRule stored{};
        ZEVO_BANDWIDTH_CONF &rule = stored.rule;
        rule.protocolType = ReadProtocol(entry);
        const auto owner = ReadOwner(entry);
        const auto names = ValueNames(ZEVO_BW_STATE_LIST);
        rule.state = entry.Choice("state", names, ZEVO_BW_STATE_LIST).value_or(0);
        for (const RateOption &rate : kRates)
            rule.*rate.field = entry.RateOrUnlimited(rate.key);
        entry.Plan("plan", kRulePlanMarks, rule.szSchedulePlan);
        if (!owner) return;
        stored.owner = *owner;
        rule.ownerType = owner->type;
        rule.id = owner->account.id;
        if (rule.protocolType != 0) RefuseSecond(entry, rule.protocolType, rule.ownerType, rule.id);
        result_.rules.push_back(std::move(stored));
    }

    // 0 after a fault.
    std::int32_t ReadProtocol(Entry &entry)
    {
        const std::string name = entry.Text("protocol");
        if (name.empty()) return 0;
        const auto [place, isNew] = protocols_.try_emplace(name, 0);
        try {
            if (isNew) place->second = FindProtocol(name);
            if (place->second == 0) entry.Fault("protocol", "no such protocol: \"" + name + "\"");
        } catch (const Failure &failure) {
            if (failure.status() != kNotFound) throw;
            entry.Fault("protocol", failure.what());
        }
        return place->second;
    }

    std::optional<Owner> ReadOwner(Entry &entry)
    {
        const auto type = entry.Choice("owner",
                                       {ValueName(ZEVO_BW_OWNER_TYPE_LIST, ZEVO_BW_OWNER_USER),
                                        ValueName(ZEVO_BW_OWNER_TYPE_LIST, ZEVO_BW_OWNER_GROUP)},
                                       ZEVO_BW_OWNER_TYPE_LIST);
        const Json *const nameValue = entry.Value("name");
        const Json *const idValue = entry.Value("id");
        if (!type || nameValue == nullptr || idValue == nullptr) return std::nullopt;
        std::optional<std::string> name;
        std::optional<std::uint32_t> id;
        if (!nameValue->is_null()) name = entry.Text("name");
        if (name && name->empty()) return std::nullopt;
        if (idValue->is_number_unsigned() && idValue->get<std::uint64_t>() < kNobody)
            id = idValue->get<std::uint32_t>();
        if (!id && !idValue->is_null())
            entry.Fault("id", "\"id\" must be a whole number below " + std::to_string(kNobody) +
                                  ", or null to go by the name alone");
        else if (!name && !id)
            entry.Fault("name", "the owner has neither a name nor an id");
        else
            return FindOwner(entry, *type, name, id);
        return std::nullopt;
    }

    std::optional<Owner> FindOwner(Entry &entry, std::int32_t type,
                                   const std::optional<std::string> &name,
                                   const std::optional<std::uint32_t> &id)
    {
        const std::string kind = ValueName(ZEVO_BW_OWNER_TYPE_LIST, type);
        const auto note = [&](const std::string &text) {
            result_.notes.push_back({entry.line(), text});
        };
        if (name) {
            if (const auto account = FindByName(type, *name)) {
                if (id && *id != account->id)
                    note(kind + " " + *name + " has the id " + std::to_string(account->id) +
                         " here, not " + std::to_string(*id) + ": the rule goes by the name");
                return Owner{type, *account};
            }
            if (!id) {
                entry.Fault("name", "no such " + kind + ": \"" + *name + "\"");
                return std::nullopt;
            }
        }
        const Owner owner = OwnerById(type, *id);
        if (name && IsKnown(owner)) {
            entry.Fault("name", "no such " + kind + ": \"" + *name + "\", and the id " +
                                    std::to_string(*id) + " belongs to " + owner.account.name +
                                    " here; add the " + kind + " or correct the entry");
            return std::nullopt;
        }
        if (!IsKnown(owner))
            note("no such " + kind + (name ? " here: \"" + *name + "\"" : " here") +
                 "; the rule is kept for the id " + std::to_string(*id));
        return owner;
    }

    // The owner type is 0 for a policy.
    void RefuseSecond(Entry &entry, std::int32_t protocol, std::int32_t ownerType, std::uint32_t id)
    {
        const auto [place, isNew] = seen_.try_emplace({protocol, ownerType, id}, entry.line());
        if (!isNew)
            entry.Fault("", std::string("a second ") + (ownerType == 0 ? "policy" : "rule") +
                                " for what line " + std::to_string(place->second) + " is about");
    }

    Configuration result_;
    Json json_;
    EntryLines whole_;
    Lists lists_;
    std::map<std::string, std::int32_t> protocols_; // looked up once each
    std::map<std::tuple<std::int32_t, std::int32_t, std::uint32_t>, int> seen_; // lines
};

} // namespace

Configuration ConfigFromText(std::string_view text)
{
    return ConfigReader().Read(text);
}

} // namespace tool
