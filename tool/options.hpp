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
    // Throws Failure when none is given or the user database does not know it.
    Owner Find() const;
    // Find() for what is stored already: an id that the user database does not know any more is
    // taken as it is when isStored says that there is something of it.
    Owner FindStored(const std::function<bool(const Owner &)> &isStored) const;
    // The same for the owner of a rule of that protocol.
    Owner FindOfRule(std::int32_t protocol) const;
};

// -u USER or -g GROUP, at most one of them; Find() refuses none.
void AddOwnerOption(CLI::App &command, OwnerOption &owner);

// For names: an empty one would read as an option that was not given.
extern const CLI::Validator kNotEmpty;

// -u USER alone, required.
void AddUserOption(CLI::App &command, std::string &user, const std::string &help);

// -p PROTOCOL.
CLI::Option *AddProtocolOption(CLI::App &command, std::string &protocol);

// An option whose value is a name of the table. The states that can be chosen leave out NotExisted.
void AddChoice(CLI::App &command, const std::string &name, std::string &value,
               const std::string &type, const ZEVO_BW_ENUM_ENTRY *table, const std::string &help);

// Which of the running transfers.
struct TransferSelection {
    std::string protocol;
    std::string direction;
    // Throws Failure when there is no such protocol.
    TransferFilter Filter() const;
};
// -p PROTOCOL, -d DIRECTION.
void AddTransferSelection(CLI::App &command, TransferSelection &selection);

// What a command takes that ends transfers of one user.
struct EndingOptions {
    std::string user;
    pid_t pid = 0;    // 0: of every process
    bool yes = false; // does without a question
    bool isDryRun = false;
};
// -u USER, --pid PID, -y/--yes, -N/--dry-run; with the options of what is printed.
void AddEndingOptions(CLI::App &command, EndingOptions &ending, const std::string &yesHelp);

// How often something is done again: 0.1 to 86400 seconds.
CLI::Option *AddSecondsOption(CLI::App &command, const std::string &name, double &seconds,
                              const std::string &help, double least = 0.1);

// Why an option of the output makes no sense in a command; null where it does.
struct Senseless {
    const char *json = nullptr;
    const char *numeric = nullptr;
    const char *legend = nullptr;
};

// --json, -n, --no-legend, --no-color: into OutputStyle(). For every command. Those that make no
// sense are not in its help, and refused with the reason.
void AddOutputOptions(CLI::App &command, const Senseless &senseless = {});

// What every command that changes something takes.
struct ChangeOptions {
    bool isDryRun = false; // says what would hold, changes nothing
    bool isSilent = false; // tells no service of the change
};
// -N/--dry-run.
CLI::Option *AddDryRunFlag(CLI::App &command, bool &isDryRun);
void AddChangeOptions(CLI::App &command, ChangeOptions &change);

// Writes the change and tells the services; says instead that it is a dry run when it is.
void CarryOut(const ChangeOptions &change, const std::function<void()> &write);

struct PlanOptions {
    std::optional<std::string> rules;
    std::optional<std::string> base;
    std::optional<std::string> raw;
    // The 168 characters; nothing when none was given. Throws Failure as ParsePlan() does.
    std::optional<std::string> Read(PlanOf of) const;
};

// --plan with --base, or --plan-raw; PlanHelp() explains them.
void AddPlanOptions(CLI::App &command, PlanOf of, PlanOptions &plan);

// Says that a plan was given to something that is not on schedule, and how to set it going. what:
// "the rule of user alice"; setter: the command that sets its state.
void NoteSleepingPlan(const std::string &what, std::int32_t state, const std::string &setter);

} // namespace tool

#endif // ZEVOBW_TOOL_OPTIONS_HPP
