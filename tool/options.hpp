// Options that several commands take, with one wording and one meaning.
#ifndef ZEVOBW_TOOL_OPTIONS_HPP
#define ZEVOBW_TOOL_OPTIONS_HPP

#include <functional>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include <zevobandwidth.h>

#include "model/store.hpp"
#include "model/transfer_list.hpp"

namespace tool {

struct OwnerOption {
    std::string user;
    std::string group;
    bool IsGiven() const { return !user.empty() || !group.empty(); }
    // Throws Failure when no owner is given, or the user database does not know it.
    Owner Find() const;
    std::optional<Owner> FindIfGiven() const
    {
        return IsGiven() ? std::optional(Find()) : std::nullopt;
    }
    // The same for an owner that may have left the user database: its id is accepted if isStored()
    // says that something of it is stored.
    Owner FindStored(const std::function<bool(const Owner &)> &isStored) const;
    // The same for the owner of a rule of that protocol.
    Owner FindOfRule(std::int32_t protocol) const;
};

// -u USER or -g GROUP, at most one of them. Find() throws when there is none.
void AddOwnerOption(CLI::App &command, OwnerOption &owner);

// Refuses an empty name, which would look like an option that was not given.
extern const CLI::Validator kNotEmpty;

// -u USER alone, required.
void AddUserOption(CLI::App &command, std::string &user, const std::string &help);

// -p PROTOCOL.
CLI::Option *AddProtocolOption(CLI::App &command, std::string &protocol);

// An option whose value is a name of the table. The state NotExisted cannot be chosen.
CLI::Option *AddChoice(CLI::App &command, const std::string &name, std::string &value,
                       const std::string &type, const ZEVO_BW_ENUM_ENTRY *table,
                       const std::string &help);

// -d DIRECTION of one transfer, required.
void AddDirectionOption(CLI::App &command, std::string &direction);

// Selects running transfers.
struct TransferSelection {
    std::string protocol;
    std::string direction;
    // Throws Failure when there is no such protocol.
    TransferFilter Filter() const;
};
// -p PROTOCOL, -d DIRECTION.
void AddTransferSelection(CLI::App &command, TransferSelection &selection);

// The options of a command that ends transfers of one user.
struct EndingOptions {
    std::string user;
    pid_t pid = 0;    // 0: of every process
    bool yes = false; // asks no question
    bool isDryRun = false;
};
// -u USER, --pid PID, -y/--yes, -N/--dry-run, and the output options.
void AddEndingOptions(CLI::App &command, EndingOptions &ending, const std::string &yesHelp);

// A time of least to 86400 seconds.
CLI::Option *AddSecondsOption(CLI::App &command, const std::string &name, double &seconds,
                              const std::string &help, double least = 0.1);

// Why a command does not have an output option; null where it has it.
struct Senseless {
    const char *json = nullptr;
    const char *numeric = nullptr;
    const char *legend = nullptr;
};

// --json, -n, --no-legend, --no-color, which set OutputStyle(). Every command calls this. Senseless
// options are left out of the help, and refused with the reason.
void AddOutputOptions(CLI::App &command, const Senseless &senseless = {});

// The options of every command that changes something.
struct ChangeOptions {
    bool isDryRun = false; // only prints what the change would lead to
    bool isSilent = false; // does not notify the services
};
// -N/--dry-run.
CLI::Option *AddDryRunFlag(CLI::App &command, bool &isDryRun);
void AddChangeOptions(CLI::App &command, ChangeOptions &change);

// Writes the change and notifies the services. In a dry run it only prints that this is one.
void CarryOut(const ChangeOptions &change, const std::function<void()> &write);

struct PlanOptions {
    std::optional<std::string> rules;
    std::optional<std::string> base;
    std::optional<std::string> raw;
    // The 168 characters; nothing when no plan was given. Throws Failure as ParsePlan() does.
    std::optional<std::string> Read(PlanOf of) const;
};

// --plan with --base, or --plan-raw; PlanHelp() explains them.
void AddPlanOptions(CLI::App &command, PlanOf of, PlanOptions &plan);

// Prints a note if the plan is stored but the state is not schedule, and which command changes
// that. what: "the rule of user alice"; setter: the command that sets its state.
void NoteSleepingPlan(const std::string &what, std::int32_t state, const std::string &setter);

} // namespace tool

#endif // ZEVOBW_TOOL_OPTIONS_HPP
