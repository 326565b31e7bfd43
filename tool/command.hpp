// How each command joins the command line.
#ifndef ZEVOBW_TOOL_COMMAND_HPP
#define ZEVOBW_TOOL_COMMAND_HPP

#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "failure.hpp"

namespace tool {

// A command and its arguments, which live as long as the command line.
template <typename Arguments> struct Added {
    CLI::App &command;
    Arguments &arguments;
};

// The callback is run(arguments).
template <typename Arguments>
Added<Arguments> AddCommand(CLI::App &parent, const std::string &name, const std::string &about,
                            void (*run)(const Arguments &), const std::string &footer = "")
{
    const auto arguments = std::make_shared<Arguments>();
    CLI::App *command = parent.add_subcommand(name, about);
    command->footer(footer);
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

// The hidden command that the shells' scripts run. It takes every word after it as a plain word.
inline constexpr const char *kCompleteCommand = "__complete";

} // namespace tool

#endif // ZEVOBW_TOOL_COMMAND_HPP
