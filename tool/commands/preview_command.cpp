// "preview": the speeds of a user's transfers, and how the rules lead to them. The library works
// out every figure. For a step of the combination it is asked about the same rules under another
// policy.
#include <algorithm>
#include <array>
#include <ctime>
#include <optional>

#include "command.hpp"
#include "model/evaluation.hpp"
#include "model/moment.hpp"
#include "model/rate.hpp"
#include "model/section.hpp"
#include "model/texts.hpp"
#include "options.hpp"
#include "output.hpp"

namespace tool {

namespace {

constexpr std::array<std::int32_t, 2> kDirections = {ZEVO_BW_TRANSFER_UPLOAD,
                                                     ZEVO_BW_TRANSFER_DOWNLOAD};

struct PreviewArguments {
    std::string user;
    std::string protocol;
    std::optional<std::string> at;
    bool isExplained = false;
};

// Upload and download.
using Speeds = std::array<std::uint64_t, kDirections.size()>; // bytes per second, 0 unlimited
using Cells = std::array<std::string, kDirections.size()>;

const Cells kNone = {"-", "-"};

// ---- one protocol ----

struct Preview {
    Preview(Account forUser, std::int32_t onProtocol, std::optional<std::time_t> at)
        : user(std::move(forUser)), protocol(onProtocol), isNow(!at),
          moment(at.value_or(std::time(nullptr))), evaluation(user.id, protocol, at.value_or(0)),
          byRules(Ask(evaluation.policy().userGroupPolicy)), whyOff(evaluation.WhyOff())
    {
    }

    // What the rules give a transfer alone under that policy.
    Speeds Ask(std::int32_t userGroupPolicy) const
    {
        Speeds speeds{};
        for (std::size_t i = 0; i < kDirections.size(); ++i)
            speeds[i] = evaluation.Ask(kDirections[i], Beside::kNobody, userGroupPolicy).bps;
        return speeds;
    }

    Account user;
    std::int32_t protocol;
    bool isNow;
    std::time_t moment;
    Evaluation evaluation;
    Speeds byRules; // while the protocol's limits apply
    std::string whyOff;
};

// Rates are whole KB/s; only running transfers lead to other figures.
Cells RateCells(const Speeds &speeds)
{
    return {FormatRate(speeds[0] / kBytesPerKB), FormatRate(speeds[1] / kBytesPerKB)};
}

Cells SpeedCells(const Speeds &speeds)
{
    return {FormatAllowedSpeed(speeds[0]), FormatAllowedSpeed(speeds[1])};
}

Json SpeedsJson(const Speeds &speeds)
{
    return {{"upload_bytes_per_s", LimitJson(speeds[0])},
            {"download_bytes_per_s", LimitJson(speeds[1])}};
}

// ---- the table of protocols ----

std::string LimitsText(const Preview &preview)
{
    if (!preview.whyOff.empty()) return preview.whyOff + ": nothing is limited";
    const bool applies = preview.evaluation.Applies(ZEVO_BW_OWNER_USER) ||
                         preview.evaluation.Applies(ZEVO_BW_OWNER_GROUP);
    return applies ? "limits apply" : "no rule applies to this user";
}

void PrintTable(const std::vector<Preview> &previews)
{
    Table table({"PROTOCOL", "UPLOAD", "DOWNLOAD", "LIMITS"}, {1, 2});
    bool hasIdle = false;
    for (const Preview &preview : previews) {
        const Cells byRules = RateCells(preview.byRules);
        const bool idle = !preview.whyOff.empty() && preview.byRules != Speeds{};
        hasIdle = hasIdle || idle;
        const auto cell = [idle](const std::string &text) {
            return idle ? "(" + text + ")" : text;
        };
        table.AddRow({ProtocolName(preview.protocol), cell(byRules[0]), cell(byRules[1]),
                      LimitsText(preview)});
    }
    table.Print();
    if (hasIdle && !OutputStyle().noLegend)
        PrintLine("In parentheses: what the rules would give if the policy let them apply.");
}

// ---- the derivation ----

// A rule of the user or of a group, evaluated or not.
struct RuleView {
    Owner owner;
    std::string state;
    bool applies = false;
    Speeds rates{};
};

std::vector<Owner> OwnersThatCount(const Account &user)
{
    const List groups(VLIBGroupInfoListGet(user.name.c_str(), 0), &VLIBCSzListFree);
    if (!groups)
        throw Failure(kFailed, "the groups of user " + ShownName(user) + " cannot be looked up");
    std::vector<Owner> owners = {OwnerById(ZEVO_BW_OWNER_USER, user.id)};
    for (const char *const gid : Items(groups))
        owners.push_back(
            OwnerById(ZEVO_BW_OWNER_GROUP, static_cast<std::uint32_t>(std::stoul(gid))));
    return owners;
}

RuleView ViewEvaluated(const Owner &owner, const ZEVO_BANDWIDTH_CONF &rule)
{
    RuleView view{owner, ValueName(ZEVO_BW_STATE_LIST, rule.state)};
    view.applies = rule.currentState != ZEVO_BW_STATE_DISABLED;
    if (rule.state == ZEVO_BW_STATE_SCHEDULE) view.state += view.applies ? ", on" : ", off";
    if (view.applies)
        view.rates = {rule.currentUploadRate * kBytesPerKB, rule.currentDownloadRate * kBytesPerKB};
    return view;
}

RuleView ViewStored(const Owner &owner, std::int32_t protocol)
{
    const std::int32_t state = ReadRule(owner, protocol).state;
    if (state == ZEVO_BW_STATE_NOT_EXISTED) return {owner, "no rule"};
    const bool isLeftOut = state == ZEVO_BW_STATE_ENABLED || state == ZEVO_BW_STATE_SCHEDULE;
    return {owner, ValueName(ZEVO_BW_STATE_LIST, state) + (isLeftOut ? ", not asked" : "")};
}

std::vector<RuleView> ViewRules(const Preview &preview)
{
    std::vector<RuleView> views;
    for (const Owner &owner : OwnersThatCount(preview.user)) {
        const auto limits = preview.evaluation.limits();
        const auto found = std::find_if(limits.begin(), limits.end(), [&](const auto &limit) {
            return limit.conf.ownerType == owner.type && limit.conf.id == owner.account.id;
        });
        views.push_back(found == limits.end() ? ViewStored(owner, preview.protocol)
                                              : ViewEvaluated(owner, found->conf));
    }
    return views;
}

// The ten-thousandths of a transfer that a group is charged.
struct Charge {
    std::uint32_t gid = 0;
    std::array<std::uint64_t, kDirections.size()> weights{};
};

struct Explanation {
    std::vector<RuleView> rules;
    std::optional<Speeds> own;    // nothing if no such rule applies
    std::optional<Speeds> groups; // together
    Speeds alone{};
    std::optional<Speeds> now; // beside the running transfers; not with --at
    std::vector<Charge> charges;
};

// An unlimited transfer is not listed, so no group is charged.
std::vector<Charge> ChargesOf(const std::array<Allowance, kDirections.size()> &answers)
{
    std::vector<Charge> charges;
    for (std::size_t i = 0; i < answers[0].limits.size(); ++i) {
        Charge charge{answers[0].limits[i].conf.id};
        if (answers[0].limits[i].conf.ownerType != ZEVO_BW_OWNER_GROUP) continue;
        for (std::size_t d = 0; d < kDirections.size(); ++d)
            if (answers[d].bps != 0) charge.weights[d] = answers[d].limits[i].occupyWeight;
        if (charge.weights[0] != 0 || charge.weights[1] != 0) charges.push_back(charge);
    }
    return charges;
}

Explanation Explain(const Preview &preview)
{
    const Evaluation &evaluation = preview.evaluation;
    Explanation explanation;
    explanation.rules = ViewRules(preview);
    if (evaluation.Applies(ZEVO_BW_OWNER_USER))
        explanation.own = preview.Ask(ZEVO_BW_USER_GROUP_POLICY_USER_ONLY);
    if (evaluation.Applies(ZEVO_BW_OWNER_GROUP))
        explanation.groups = preview.Ask(ZEVO_BW_USER_GROUP_POLICY_GROUP_ONLY);
    if (!preview.whyOff.empty()) {
        if (preview.isNow) explanation.now.emplace();
        return explanation;
    }
    explanation.alone = preview.byRules;
    const Beside beside = preview.isNow ? Beside::kRunning : Beside::kNobody;
    const std::array answers = {evaluation.Ask(kDirections[0], beside),
                                evaluation.Ask(kDirections[1], beside)};
    explanation.charges = ChargesOf(answers);
    if (preview.isNow) explanation.now = {answers[0].bps, answers[1].bps};
    return explanation;
}

// ---- the derivation, printed ----

// "inter-group max".
std::string PolicyText(const Preview &preview, const char *label)
{
    for (const PolicyChoice &choice : kChoices)
        if (std::string_view(choice.label) == label)
            return std::string(label) + " " + ChoiceText(choice, preview.evaluation.policy());
    return "";
}

void AddLine(Table &table, const std::string &label, const std::string &how, const Cells &cells)
{
    table.AddRow({"  " + label, how, cells[0], cells[1]});
}

void AddRules(Table &table, const Explanation &explanation)
{
    table.AddTitle("Rules");
    std::size_t without = 0;
    for (const RuleView &view : explanation.rules) {
        if (view.owner.type == ZEVO_BW_OWNER_GROUP && view.state == "no rule")
            ++without;
        else
            AddLine(table, OwnerText(view.owner), view.state,
                    view.applies ? RateCells(view.rates) : kNone);
    }
    if (without != 0) AddLine(table, Counted(without, "other group"), "no rule", kNone);
}

void AddSteps(Table &table, const Preview &preview, const Explanation &explanation)
{
    const auto cells = [](const std::optional<Speeds> &speeds) {
        return speeds ? RateCells(*speeds) : kNone;
    };
    table.AddTitle("Combined");
    AddLine(table, "the user's own", "", cells(explanation.own));
    AddLine(table, "the groups together", PolicyText(preview, "inter-group"),
            cells(explanation.groups));
    AddLine(table, "user and groups", PolicyText(preview, "user-group"),
            RateCells(preview.byRules));
}

void AddCharges(Table &table, const Preview &preview, const Explanation &explanation)
{
    const std::string how = PolicyText(preview, "occupy");
    table.AddTitle("Charged to");
    if (explanation.charges.empty()) AddLine(table, "no group", how, kNone);
    for (const Charge &charge : explanation.charges) {
        Cells cells;
        for (std::size_t i = 0; i < cells.size(); ++i)
            cells[i] = FormatProgress(static_cast<std::uint32_t>(charge.weights[i]));
        AddLine(table, "group " + GroupName(charge.gid), how, cells);
    }
}

void AddResult(Table &table, const Preview &preview, const Explanation &explanation)
{
    table.AddTitle("Result");
    AddLine(table, "a transfer alone", preview.whyOff, RateCells(explanation.alone));
    if (explanation.now)
        AddLine(table, "a new one beside those running", "", SpeedCells(*explanation.now));
}

std::string Headline(const Preview &preview)
{
    const std::string what = "User " + UserName(preview.user.id) + " on " +
                             ProtocolName(preview.protocol) + ", " + MomentText(preview.moment) +
                             ": ";
    return Paint(Color::kBold, Printable(what)) +
           Paint(preview.whyOff.empty() ? Color::kGreen : Color::kYellow, LimitsText(preview));
}

void PrintExplanation(const Preview &preview)
{
    const Explanation explanation = Explain(preview);
    Table table({"", "HOW", "UPLOAD", "DOWNLOAD"}, {2, 3});
    AddRules(table, explanation);
    AddSteps(table, preview, explanation);
    AddCharges(table, preview, explanation);
    AddResult(table, preview, explanation);
    if (!OutputStyle().noLegend) PrintLine(Headline(preview));
    table.Print();
}

// ---- JSON ----

Json RuleJson(const RuleView &view)
{
    Json json = {{"owner", ValueName(ZEVO_BW_OWNER_TYPE_LIST, view.owner.type)},
                 {"name", ShownName(view.owner.account)},
                 {"id", view.owner.account.id},
                 {"state", view.state},
                 {"in_force", view.applies}};
    if (view.applies) json.update(SpeedsJson(view.rates));
    return json;
}

Json ChargeJson(const Charge &charge)
{
    return {{"group", GroupName(charge.gid)},
            {"gid", charge.gid},
            {"upload_percent", static_cast<double>(charge.weights[0]) / 100},
            {"download_percent", static_cast<double>(charge.weights[1]) / 100}};
}

Json ExplanationJson(const Preview &preview)
{
    const Explanation explanation = Explain(preview);
    Json json;
    for (const PolicyChoice &choice : kChoices)
        json["policy"][choice.key] = ChoiceText(choice, preview.evaluation.policy());
    json["rules"] = JsonArray(explanation.rules, RuleJson);
    if (explanation.own) json["own"] = SpeedsJson(*explanation.own);
    if (explanation.groups) json["groups"] = SpeedsJson(*explanation.groups);
    json["combined"] = SpeedsJson(preview.byRules);
    json["charged"] = JsonArray(explanation.charges, ChargeJson);
    if (explanation.now) json["new_transfer"] = SpeedsJson(*explanation.now);
    return json;
}

Json ToJson(const Preview &preview, bool isExplained)
{
    Json json = {{"user", UserName(preview.user.id)},
                 {"uid", preview.user.id},
                 {"protocol", ProtocolName(preview.protocol)},
                 {"at", IsoText(preview.moment)},
                 {"limits", LimitsText(preview)}};
    json.update(SpeedsJson(preview.whyOff.empty() ? preview.byRules : Speeds{}));
    json["by_rules"] = SpeedsJson(preview.byRules);
    if (isExplained) json["explanation"] = ExplanationJson(preview);
    return json;
}

// ---- the command ----

void Print(const std::vector<Preview> &previews, bool isExplained)
{
    if (OutputStyle().json)
        return PrintJson(JsonArray(previews, [isExplained](const Preview &preview) {
            return ToJson(preview, isExplained);
        }));
    if (!isExplained) return PrintTable(previews);
    for (const Preview &preview : previews) {
        if (&preview != &previews.front()) PrintLine("");
        PrintExplanation(preview);
    }
}

void RunPreview(const PreviewArguments &arguments)
{
    std::optional<std::time_t> at;
    if (arguments.at) at = ParseComingMoment(*arguments.at, std::time(nullptr));
    const Account user = FindUser(arguments.user);
    std::vector<Preview> previews;
    for (const std::int32_t protocol : ProtocolsToList(arguments.protocol))
        previews.emplace_back(user, protocol, at);
    Print(previews, arguments.isExplained);
    if (arguments.protocol.empty()) return;
    const std::string why = WhyNothingIsLimited(previews.front().evaluation.policy());
    if (!why.empty()) PrintNote("note: " + why);
}

} // namespace

void AddPreviewCommand(CLI::App &app)
{
    const auto [command, arguments] = AddCommand(
        app, "preview", "Show at which speed a user's transfers would be held", RunPreview);
    AddUserOption(command, arguments.user, "The user, by name or uid");
    AddProtocolOption(command, arguments.protocol);
    command.add_flag("--explain", arguments.isExplained,
                     "Show the rules, how they combine, whom a transfer is charged to, and what a "
                     "new transfer would get right now");
    command
        .add_option("--at", arguments.at, "The coming 'DAY HH:MM' instead of now, in local time")
        ->type_name("TIME");
    AddOutputOptions(command);
    command.footer(
        "Without -p: all protocols. Running transfers count only for the last line of\n"
        "--explain, which --at leaves out: nobody knows what will be running then.\n"
        "In parentheses stands what the rules would give where the policy limits nothing.\n\n"
        "Examples:\n"
        "  zevobandwidth preview -u alice\n"
        "  zevobandwidth preview -u alice -p ftp --explain\n"
        "  zevobandwidth preview -u alice -p ftp --at 'sun 02:30'\n");
}

} // namespace tool
