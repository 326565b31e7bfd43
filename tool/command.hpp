// How each command joins the command line.
#ifndef ZEVOBW_TOOL_COMMAND_HPP
#define ZEVOBW_TOOL_COMMAND_HPP

#include <memory>
#include <string>
#include <utility>

#include <CLI/CLI.hpp>

#include "failure.hpp"

namespace tool {

// Adds a command below the parent. Its options are to be bound to the arguments that this returns,
// with which it runs.
template <typename Arguments>
std::pair<CLI::App &, Arguments &> AddCommand(CLI::App &parent, const char *name, const char *help,
                                              void (*run)(const Arguments &))
{
    const auto arguments = std::make_shared<Arguments>();
    CLI::App *command = parent.add_subcommand(name, help);
    command->callback([arguments, run] { run(*arguments); });
    return {*command, *arguments};
}

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
