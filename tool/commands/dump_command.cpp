// "dump": the library's own tables of fixed width, byte for byte, for programs that read them. With
// --json the same records, as the other commands print them.
#include <array>
#include <memory>
#include <vector>

#include "command.hpp"
#include "model/limit_book.hpp"
#include "model/texts.hpp"
#include "model/transfer_list.hpp"
#include "options.hpp"
#include "output.hpp"

namespace tool {

namespace {

struct DumpArguments {
    OwnerOption owner;
    std::string protocol;
};

// Each call prints one line with its end.
bool Emit(const StreamPrinter &print)
{
    std::string line = Written(print);
    if (line.empty()) return false;
    line.pop_back();
    PrintExactLine(line);
    return true;
}

void RequireNames()
{
    if (OutputStyle().numeric && !OutputStyle().json)
        throw Failure(kWrongUsage, "the library's tables name the owners: -n goes with --json");
}

void EmitHeader(int (*print)(FILE *))
{
    if (!OutputStyle().noLegend) static_cast<void>(Emit(print));
}

// The library has no line for an owner that the user database does not know.
void NoteOmission(const std::string &what, int &omissions)
{
    PrintNote("zevobandwidth: no line for " + what + ": the user database does not know the owner");
    ++omissions;
}

void CheckWhole(int omissions, ExitStatus status)
{
    if (omissions != 0) throw Failure(status, "the table is incomplete");
}

// ---- rules ----

std::vector<StoredRule> ChosenRules(const DumpArguments &arguments, int &failures)
{
    std::vector<StoredRule> rules = ReadRules(ProtocolsToList(arguments.protocol), failures);
    if (const auto wanted = arguments.owner.FindIfGiven())
        std::erase_if(rules, [&wanted](const StoredRule &stored) {
            return stored.owner.type != wanted->type ||
                   stored.owner.account.id != wanted->account.id;
        });
    return rules;
}

// With the rates of this hour, which only an evaluated rule has.
Json EvaluatedToJson(const StoredRule &stored)
{
    const auto &[owner, rule] = stored;
    Json json = ToJson(owner, rule);
    json["in_force"] = rule.currentState == ZEVO_BW_STATE_ENABLED;
    json["current_upload_kib_per_s"] = LimitJson(rule.currentUploadRate);
    json["current_download_kib_per_s"] = LimitJson(rule.currentDownloadRate);
    return json;
}

void PrintRuleTable(const std::vector<StoredRule> &rules, int &omissions)
{
    EmitHeader(ZEVOBandwidthConfDumpHeader);
    for (const auto &[owner, rule] : rules) {
        const auto print = [&rule = rule](FILE *fp) { return ZEVOBandwidthConfDump(fp, &rule); };
        if (!Emit(print))
            NoteOmission("the rule of " + OwnerText(owner) + " for " +
                             ProtocolName(rule.protocolType),
                         omissions);
    }
}

void DumpRules(const DumpArguments &arguments)
{
    RequireNames();
    int omissions = 0;
    std::vector<StoredRule> rules = ChosenRules(arguments, omissions);
    for (StoredRule &stored : rules)
        stored.rule = EvaluatedNow(stored.rule); // the table shows the rates of this hour
    if (OutputStyle().json)
        PrintJson(JsonArray(rules, EvaluatedToJson));
    else
        PrintRuleTable(rules, omissions);
    CheckWhole(omissions, kFailed);
}

// ---- policies ----

void DumpPolicies(const DumpArguments &arguments)
{
    std::vector<ZEVO_BANDWIDTH_GLOBAL_CONF> policies;
    for (const std::int32_t protocol : ProtocolsToList(arguments.protocol))
        policies.push_back(ReadPolicy(protocol));
    if (OutputStyle().json)
        return PrintJson(JsonArray(policies, [](const auto &policy) { return ToJson(policy); }));
    EmitHeader(ZEVOBandwidthGlobalConfDumpHeader);
    for (const ZEVO_BANDWIDTH_GLOBAL_CONF &policy : policies) {
        const auto print = [&policy](FILE *fp) { return ZEVOBandwidthGlobalConfDump(fp, &policy); };
        if (!Emit(print))
            throw Failure(kFailed,
                          "the policy of " + ProtocolName(policy.protocolType) + " has no line");
    }
}

// ---- transfers ----

// The fields of the record that its line shows.
std::unique_ptr<ZEVO_BANDWIDTH_STATUS> ToRecord(const RunningTransfer &transfer)
{
    auto record = std::make_unique<ZEVO_BANDWIDTH_STATUS>();
    record->pid = transfer.pid;
    record->id = transfer.ownerId;
    record->owner_type = static_cast<std::uint32_t>(transfer.ownerType);
    record->timestamp = transfer.timestamp;
    record->current_speed = transfer.speedBps;
    record->expect_speed = transfer.allowedBps;
    record->protocol_type = static_cast<std::uint32_t>(transfer.protocol);
    record->transfer_type = static_cast<std::uint32_t>(transfer.direction);
    record->progress = transfer.progress;
    transfer.file.copy(record->filename, sizeof record->filename - 1);
    return record;
}

void PrintTransferTable(const TransferList &list, int &omissions)
{
    for (const RunningTransfer &transfer : list.all()) {
        const auto record = ToRecord(transfer);
        if (!Emit([&record](FILE *fp) { return ZEVOBandwidthStatusDump(fp, record.get()); }))
            NoteOmission("a transfer of process " + std::to_string(transfer.pid), omissions);
    }
}

void DumpTransfers(const DumpArguments &arguments)
{
    RequireNames();
    TransferList list(TransferSelection{arguments.protocol, ""}.Filter());
    list.ReadChosen(arguments.owner.FindIfGiven());
    list.PrintComplaints();
    auto omissions = static_cast<int>(list.complaints().size());
    if (OutputStyle().json)
        PrintJson(JsonArray(list.all(), [](const auto &transfer) { return ToJson(transfer); }));
    else
        PrintTransferTable(list, omissions);
    CheckWhole(omissions, list.status());
}

// ---- the command ----

struct Kind {
    const char *name;
    const char *about;
    const char *columns;
    bool hasOwner;
    void (*dump)(const DumpArguments &);
};

constexpr std::array kKinds = {
    Kind{"rules", "The rules, with the rates that apply now",
         "State, protocol, kind of owner, owner, upload and download rate that apply, in KB/s;\n"
         "0 is unlimited, or a rule that does not apply.",
         true, DumpRules},
    Kind{"policies", "The policies of all protocols",
         "State, protocol, how the rules of a user and of the user's groups combine, how those of "
         "groups\n"
         "combine, to whom transfers are charged, and the plan.",
         false, DumpPolicies},
    Kind{"transfers", "The limited transfers that run now",
         "Owner, protocol, direction, process, last save in seconds since the epoch,\n"
         "allowed and measured speed in KB/s, percent done, file; no headline. Without -u\n"
         "and -g: those of all users. With -g: the part of each that the group is charged.",
         true, DumpTransfers},
};

void AddKind(CLI::App &parent, const Kind &kind)
{
    const auto [command, arguments] =
        AddCommand(parent, kind.name, kind.about, kind.dump,
                   std::string(kind.columns) + "\n\nExample:\n  zevobandwidth dump " + kind.name +
                       " -p ftp\n");
    if (kind.hasOwner) AddOwnerOption(command, arguments.owner);
    AddProtocolOption(command, arguments.protocol);
    AddOutputOptions(command);
}

} // namespace

void AddDumpCommand(CLI::App &app)
{
    CLI::App *command = app.add_subcommand("dump", "Print the library's fixed tables");
    command->require_subcommand(1);
    command->footer(
        "Columns of fixed width, for programs that read them. A terminal gets control\n"
        "characters escaped, anything else the table byte for byte. With --json: the\n"
        "records as the commands rule, policy and transfers write them, rules with the\n"
        "rates that apply now; -n goes with it.\n\n"
        "Example:\n  zevobandwidth dump rules\n");
    for (const Kind &kind : kKinds)
        AddKind(*command, kind);
}

} // namespace tool
