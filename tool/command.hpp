// How each command joins the command line.
#ifndef ZEVOBW_TOOL_COMMAND_HPP
#define ZEVOBW_TOOL_COMMAND_HPP

#include <CLI/CLI.hpp>

#include "failure.hpp"

namespace tool {

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
