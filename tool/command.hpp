// What every command of the tool shares: how it joins the command line and how it ends.
#ifndef ZEVOBW_TOOL_COMMAND_HPP
#define ZEVOBW_TOOL_COMMAND_HPP

#include <stdexcept>
#include <string>

#include <CLI/CLI.hpp>

namespace tool {

enum ExitStatus {
    kDone = 0,
    kFailed = 1,
    kWrongUsage = 2,
    kNotPermitted = 3,
    kNotFound = 4, // no such user, group, protocol or transfer
    kFindings = 6, // 'check' has found something
};

// Thrown by a command that cannot go on: main prints the message to stderr, prefixed with the
// tool's name, and exits with the status. The message says what was wrong and what to do.
class Failure : public std::runtime_error {
public:
    Failure(ExitStatus status, const std::string &message)
        : std::runtime_error(message), status_(status)
    {
    }
    ExitStatus status() const noexcept { return status_; }

private:
    ExitStatus status_;
};

// Each adds its command with options, help and callback; the callback does the work.
void AddRuleCommand(CLI::App &app);
void AddPolicyCommand(CLI::App &app);
void AddPlanCommand(CLI::App &app);
void AddPreviewCommand(CLI::App &app);
void AddTransfersCommand(CLI::App &app);
void AddTopCommand(CLI::App &app);
void AddStopCommand(CLI::App &app);
void AddForgetCommand(CLI::App &app);
void AddPipeCommand(CLI::App &app);
void AddAddonCommand(CLI::App &app);
void AddCheckCommand(CLI::App &app);
void AddExportCommand(CLI::App &app);
void AddImportCommand(CLI::App &app);
void AddNotifyCommand(CLI::App &app);
void AddMetricsCommand(CLI::App &app);
void AddSimulateCommand(CLI::App &app);
void AddDumpCommand(CLI::App &app);
void AddCompletionCommand(CLI::App &app);

} // namespace tool

#endif // ZEVOBW_TOOL_COMMAND_HPP
