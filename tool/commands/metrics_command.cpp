// "metrics": rules, policies and running transfers in the text format of Prometheus, for its
// collector of text files or for whatever else scrapes text.
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "command.hpp"
#include "model/limit_book.hpp"
#include "model/store.hpp"
#include "model/transfer_list.hpp"
#include "model/whole_file.hpp"
#include "options.hpp"
#include "output.hpp"

namespace tool {

namespace {

// Escapes quotes and backslashes as the format wants it. Printable() has escaped everything else.
std::string Quoted(const std::string &value)
{
    std::string text = "\"";
    for (const char c : Printable(value)) {
        if (c == '\\' || c == '"') text += '\\';
        text += c;
    }
    return text + "\"";
}

std::string Text(const Json &labels)
{
    std::string text;
    for (const auto &[name, value] : labels.items())
        text += (text.empty() ? "{" : ",") + name + "=" + Quoted(value.get<std::string>());
    return text.empty() ? text : text + "}";
}

// A metric with its samples. Samples with the same labels are added, because scrapers refuse two.
class Family {
public:
    Family(std::string name, std::string help) : name_(std::move(name)), help_(std::move(help)) {}

    void Add(const Json &labels, std::uint64_t value)
    {
        Sample &sample = samples_[Text(labels)];
        sample.labels = labels;
        sample.sum = value > UINT64_MAX - sample.sum ? UINT64_MAX : sample.sum + value;
    }

    // A speed, of which 0 means unlimited.
    void AddAllowed(const Json &labels, std::uint64_t speedBps)
    {
        Add(labels, speedBps);
        if (speedBps == 0) samples_[Text(labels)].isUnlimited = true;
    }

    std::string Exposition() const
    {
        std::string text = "# TYPE " + name_ + " gauge\n";
        if (!OutputStyle().noLegend) text = "# HELP " + name_ + " " + help_ + "\n" + text;
        for (const auto &[labels, sample] : samples_)
            text += name_ + labels + " " +
                    (sample.isUnlimited ? "+Inf" : std::to_string(sample.sum)) + "\n";
        return text;
    }

    Json ToJson() const
    {
        return {{"name", name_},
                {"help", help_},
                {"samples", JsonArray(samples_, [](const auto &entry) -> Json {
                     const Sample &sample = entry.second;
                     return {{"labels", sample.labels},
                             {"value", sample.isUnlimited ? Json(nullptr) : Json(sample.sum)}};
                 })}};
    }

private:
    struct Sample {
        Json labels;
        std::uint64_t sum = 0;
        bool isUnlimited = false;
    };
    std::string name_;
    std::string help_;
    std::map<std::string, Sample> samples_;
};

class Metrics {
public:
    void AddPolicies()
    {
        for (const ZEVO_BANDWIDTH_GLOBAL_CONF &policy : ReadPolicies()) {
            enabled_.Add({{"protocol", ProtocolName(policy.protocolType)}},
                         LimitsApply(policy) ? 1 : 0);
            policies_.emplace(policy.protocolType, policy);
        }
    }

    void AddRules()
    {
        for (const StoredRule &stored : ReadRules(ProtocolsToList(""), failures_))
            AddRule(stored);
    }

    void AddTransfers(std::int32_t ownerType)
    {
        const bool isUser = ownerType == ZEVO_BW_OWNER_USER;
        TransferList list;
        list.ReadAll(ownerType);
        for (const RunningTransfer &transfer : list.all()) {
            const Json labels = {{isUser ? "user" : "group", OwnerName(transfer)},
                                 {isUser ? "uid" : "gid", std::to_string(transfer.ownerId)},
                                 {"protocol", ProtocolOf(transfer)},
                                 {"direction", DirectionOf(transfer)}};
            (isUser ? userCount_ : groupCount_).Add(labels, 1);
            (isUser ? userSpeed_ : groupSpeed_).Add(labels, transfer.speedBps);
            (isUser ? userAllowed_ : groupAllowed_).AddAllowed(labels, transfer.allowedBps);
        }
        list.PrintComplaints();
        failures_ += static_cast<int>(list.complaints().size());
        if (list.status() == kNotPermitted) status_ = kNotPermitted;
    }

    int failures() const noexcept { return failures_; }
    ExitStatus status() const noexcept { return status_; } // when there are any

    std::string Exposition() const
    {
        std::string text;
        ForEach([&text](const Family &family) { text += family.Exposition(); });
        return text;
    }

    Json ToJson() const
    {
        Json json = Json::array();
        ForEach([&json](const Family &family) { json.push_back(family.ToJson()); });
        return json;
    }

private:
    void AddRule(const StoredRule &stored)
    {
        const auto &[owner, rule] = stored;
        Json labels = {{"owner", ValueName(ZEVO_BW_OWNER_TYPE_LIST, owner.type)},
                       {"protocol", ProtocolName(rule.protocolType)},
                       {"state", ValueName(ZEVO_BW_STATE_LIST, rule.state)}};
        rules_.Add(labels, 1);
        const std::optional<Speeds> speeds = RatesNow(rule, policies_[rule.protocolType]);
        if (!speeds) return;
        labels.erase("state");
        labels["name"] = owner.account.name;
        labels["id"] = std::to_string(owner.account.id);
        for (const std::int32_t direction : {ZEVO_BW_TRANSFER_UPLOAD, ZEVO_BW_TRANSFER_DOWNLOAD}) {
            labels["direction"] = ValueName(ZEVO_BW_TRANSFER_TYPE_LIST, direction);
            limits_.AddAllowed(labels, (*speeds)[static_cast<std::size_t>(direction)]);
        }
    }

    template <typename Visit> void ForEach(Visit visit) const
    {
        Family unreadable("zevobandwidth_unreadable",
                          "Rules and status files that could not be read and are missing here.");
        unreadable.Add(Json::object(), static_cast<std::uint64_t>(failures_));
        for (const Family *family :
             {&std::as_const(unreadable), &enabled_, &rules_, &limits_, &userCount_, &userSpeed_,
              &userAllowed_, &groupCount_, &groupSpeed_, &groupAllowed_})
            visit(*family);
    }

    std::map<std::int32_t, ZEVO_BANDWIDTH_GLOBAL_CONF> policies_;
    int failures_ = 0;
    ExitStatus status_ = kFailed;
    Family enabled_{"zevobandwidth_policy_enabled",
                    "Whether the limits of the protocol are switched on at this hour."};
    Family rules_{"zevobandwidth_rules", "Stored rules."};
    Family limits_{"zevobandwidth_rule_limit_bytes_per_second",
                   "Rate of a rule that applies at this hour."};
    Family userCount_{"zevobandwidth_user_transfers", "Limited transfers that the user runs."};
    Family userSpeed_{"zevobandwidth_user_speed_bytes_per_second",
                      "Measured speed of the user's transfers together."};
    Family userAllowed_{"zevobandwidth_user_allowed_bytes_per_second",
                        "Speed that the limits allow the user's transfers together."};
    Family groupCount_{"zevobandwidth_group_transfers", "Transfers charged to the group."};
    Family groupSpeed_{"zevobandwidth_group_speed_bytes_per_second",
                       "Measured speed that the group is charged."};
    Family groupAllowed_{"zevobandwidth_group_allowed_bytes_per_second",
                         "Speed that the group's rule allows the transfers charged to it."};
};

void Expose(const std::string &file)
{
    if (!file.empty() && OutputStyle().json)
        throw Failure(kWrongUsage, "--output writes the text format only: leave out --json");
    Metrics metrics;
    metrics.AddPolicies();
    metrics.AddRules();
    metrics.AddTransfers(ZEVO_BW_OWNER_USER);
    metrics.AddTransfers(ZEVO_BW_OWNER_GROUP);
    if (!file.empty())
        WriteWholeFile(file, metrics.Exposition());
    else if (OutputStyle().json)
        PrintJson(metrics.ToJson());
    else
        PrintText(metrics.Exposition());
    if (metrics.failures() != 0)
        throw Failure(metrics.status(),
                      "the metrics are incomplete, and say so in zevobandwidth_unreadable");
}

} // namespace

void AddMetricsCommand(CLI::App &app)
{
    const auto [command, file] = AddCommand(
        app, "metrics", "Print metrics in the text format of Prometheus", Expose,
        "All are gauges: policies and rules, the rates that apply at this hour, and of the running "
        "transfers number, speed and allowed speed by user or group, protocol and direction. "
        "Speeds are bytes per second, +Inf (null in JSON) is unlimited. Upload is from the client "
        "to this server, download from this server to the client.\n\n"
        "Examples:\n"
        "  zevobandwidth metrics\n"
        "  zevobandwidth metrics -o /var/lib/prometheus/node-exporter/zevobandwidth.prom\n");
    command
        .add_option("-o,--output", file,
                    "Write to this file, which is replaced whole, rather than to standard "
                    "output")
        ->type_name("FILE")
        ->check(kNotEmpty);
    AddOutputOptions(command);
}

} // namespace tool
