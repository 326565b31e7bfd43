// Import refuses what export would not have written, because a missing or misspelt key would become
// an unlimited rate. The JSON reader does not tell lines, so each of its events gets the number of
// the line that it has read by then.
#include "model/config_json.hpp"

#include <algorithm>
#include <cstring>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <unordered_map>

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

// The policies, or the rules.
void AppendList(ConfigText &config, const char *key, const std::vector<Setting> &settings,
                bool isOfRules)
{
    int line = static_cast<int>(std::count(config.text.begin(), config.text.end(), '\n')) + 1;
    const int before = line;
    config.text += std::string("  \"") + key + "\": [";
    for (const Setting &setting : settings) {
        if (setting.owner.has_value() != isOfRules) continue;
        Json json = ToJson(setting);
        // An id in digits would be read as a name.
        if (isOfRules && (OutputStyle().numeric || !IsKnown(*setting.owner)))
            json["name"] = nullptr;
        config.text += (line == before ? "\n    " : ",\n    ") + JsonText(json);
        config.sources[++line] = setting.Place();
    }
    config.text += line == before ? "]" : "\n  ]";
}

} // namespace

ConfigText ConfigToText(const std::vector<Setting> &settings)
{
    ConfigText config;
    config.text = std::string("{\n  \"format\": \"") + kFormat +
                  "\",\n  \"version\": " + std::to_string(kVersion) + ",\n";
    AppendList(config, kPolicies, settings, false);
    config.text += ",\n";
    AppendList(config, kRules, settings, true);
    config.text += "\n}";
    return config;
}

// ---- from text: where things stand ----

namespace {

// The lines of what the text holds, by paths such as "/rules/0/plan".
class Lines {
public:
    explicit Lines(std::string_view text) : text_(text), stream_(std::string(text)) {}

    // What the JSON reader reads; how far it is tells the line.
    std::istream &stream() { return stream_; }

    // Takes the reader's events. Depth 1 is the keys of the whole, depth 2 the entries of its lists,
    // depth 3 the keys of an entry.
    void Keep(int depth, Json::parse_event_t event, const Json &parsed, std::vector<Remark> &faults)
    {
        using Event = Json::parse_event_t;
        const bool begins = event == Event::object_start || event == Event::array_start;
        if (depth == 2 && (begins || event == Event::value)) {
            entry_ = list_ + "/" + std::to_string(count_++);
            lines_[entry_] = Reached();
        }
        if (event != Event::key || (depth != 1 && depth != 3)) return;
        const std::string path = (depth == 1 ? "/" : entry_ + "/") + parsed.get<std::string>();
        if (!lines_.emplace(path, Reached()).second)
            faults.push_back({line_, JsonText(parsed) + " stands twice in one entry"});
        if (depth == 1) {
            list_ = path;
            count_ = 0;
        }
    }

    // Nothing for what does not stand there.
    std::optional<int> Of(const std::string &path) const
    {
        const auto found = lines_.find(path);
        return found == lines_.end() ? std::nullopt : std::optional(found->second);
    }

    // The line of the last byte read. A line end belongs to the line that it ends.
    int Reached()
    {
        const std::streamoff read = stream_.rdbuf()->pubseekoff(0, std::ios::cur, std::ios::in);
        for (; counted_ + 1 < read; ++counted_)
            line_ += text_[static_cast<std::size_t>(counted_)] == '\n' ? 1 : 0;
        return line_;
    }

private:
    const std::string_view text_;
    std::istringstream stream_;
    std::streamoff counted_ = 0; // bytes whose line ends are in line_
    int line_ = 1;
    std::unordered_map<std::string, int> lines_;
    std::string list_;
    std::string entry_;
    std::size_t count_ = 0; // of the list's entries
};

// ---- from text: one entry ----

// Returns the values of an object's keys. A missing or wrong value is a fault, and so is a key that
// was never asked for.
class Entry {
public:
    Entry(const Json &json, std::string path, const Lines &lines, std::vector<Remark> &faults)
        : json_(json), path_(std::move(path)), lines_(lines), faults_(faults)
    {
    }

    int line() const { return lines_.Of(path_).value_or(1); }

    void Fault(const std::string &key, const std::string &text)
    {
        faults_.push_back({lines_.Of(path_ + "/" + key).value_or(line()), text});
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
            if (*value == name) return ValueOf(table, name);
        Fault(key, "\"" + key + "\" must be one of " + Joined(names, ", "));
        return std::nullopt;
    }

    std::uint64_t RateOrUnlimited(const std::string &key)
    {
        const Json *value = Value(key);
        if (value == nullptr || value->is_null()) return 0;
        if (value->is_number_unsigned() && *value != 0 && *value <= kMaxRateKBps)
            return value->get<std::uint64_t>();
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
    const std::string path_;
    const Lines &lines_;
    std::vector<Remark> &faults_;
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

class ConfigReader {
public:
    explicit ConfigReader(std::string_view text) : lines_(text) {}

    Configuration Read()
    {
        if (Parse()) {
            ReadHead();
            ReadList(kPolicies, [this](Entry &entry) { ReadPolicy(entry); });
            ReadList(kRules, [this](Entry &entry) { ReadRule(entry); });
        }
        std::stable_sort(result_.faults.begin(), result_.faults.end(),
                         [](const Remark &a, const Remark &b) { return a.line < b.line; });
        return std::move(result_);
    }

private:
    // False after a fault.
    bool Parse()
    {
        try {
            json_ = Json::parse(lines_.stream(), [this](int depth, auto event, Json &parsed) {
                lines_.Keep(depth, event, parsed, result_.faults);
                return true;
            });
        } catch (const Json::exception &error) {
            result_.faults.push_back({lines_.Reached(), WhatIsNoJson(error.what())});
            return false;
        }
        if (!json_.is_object())
            result_.faults.push_back({1, "the whole must be an object, as export writes it"});
        return json_.is_object();
    }

    void ReadHead()
    {
        Entry head(json_, "", lines_, result_.faults);
        const Json *const format = head.Value("format");
        const Json *const version = head.Value("version");
        if (format != nullptr && *format != kFormat)
            head.Fault("format", std::string("\"format\" must be \"") + kFormat +
                                     "\": this is no exported configuration");
        if (version != nullptr && *version != kVersion)
            head.Fault("version", "\"version\" must be " + std::to_string(kVersion) +
                                      ": import it with a newer zevobandwidth");
        for (const char *const key : {kPolicies, kRules})
            if (const Json *const list = head.Value(key); list != nullptr && !list->is_array())
                head.Fault(key, std::string("\"") + key + "\" must be a list");
        head.RefuseOtherKeys();
    }

    template <typename Handle> void ReadList(const std::string &key, Handle handle)
    {
        const auto list = json_.find(key);
        if (list == json_.end() || !list->is_array()) return; // told already
        for (std::size_t i = 0; i < list->size(); ++i) {
            const std::string path = "/" + key + "/" + std::to_string(i);
            Entry entry((*list)[i], path, lines_, result_.faults);
            if (!(*list)[i].is_object()) {
                entry.Fault("", "an entry of \"" + key + "\" must be an object");
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
        Add(entry, Setting(policy));
    }

    void ReadRule(Entry &entry)
    {
        ZEVO_BANDWIDTH_CONF rule{};
        rule.protocolType = ReadProtocol(entry);
        const auto owner = ReadOwner(entry);
        const auto names = ValueNames(ZEVO_BW_STATE_LIST);
        rule.state = entry.Choice("state", names, ZEVO_BW_STATE_LIST).value_or(0);
        for (const RateOption &rate : kRates)
            rule.*rate.field = entry.RateOrUnlimited(rate.key);
        entry.Plan("plan", kRulePlanMarks, rule.szSchedulePlan);
        if (!owner) return;
        rule.ownerType = owner->type;
        rule.id = owner->account.id;
        Add(entry, Setting(*owner, rule));
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
        if (idValue->is_number_unsigned() && *idValue < kNobody) id = idValue->get<std::uint32_t>();
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

    void Add(Entry &entry, const Setting &setting)
    {
        result_.settings.push_back(setting);
        if (setting.protocol() == 0) return; // told already
        const auto [place, isNew] = seen_.try_emplace(setting.Key(), entry.line());
        if (!isNew)
            entry.Fault("", std::string("a second ") + (setting.owner ? "rule" : "policy") +
                                " for what line " + std::to_string(place->second) + " is about");
    }

    Configuration result_;
    Json json_;
    Lines lines_;
    std::map<std::string, std::int32_t> protocols_; // looked up once each
    std::map<Setting::SettingKey, int> seen_;       // lines
};

} // namespace

Configuration ConfigFromText(std::string_view text)
{
    return ConfigReader(text).Read();
}

} // namespace tool
