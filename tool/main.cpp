// zevobandwidth, the administrator's command: limits of users and groups, the policies that combine
// them, and the transfers that run under them.
//
// Exit status: see ExitStatus. Results go to standard output, everything else to standard error.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <csignal>
#include <exception>
#include <new>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <zevobandwidth.h>

#include "command.hpp"
#include "help.hpp"
#include "output.hpp"

namespace {

using tool::Failure;

std::string Version()
{
    return "zevobandwidth " + std::to_string(ZEVO_BW_VERSION_MAJOR) + "." +
           std::to_string(ZEVO_BW_VERSION_MINOR) + "." + std::to_string(ZEVO_BW_VERSION_PATCH);
}

// Keeps a file that is opened later from becoming standard output by accident. The placeholder
// refuses to be read or written, so that the failure shows.
void KeepStandardStreamsTaken()
{
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(fd, F_GETFD) >= 0) continue;
        // Takes the lowest free number, which is fd: those below are taken by now.
        static_cast<void>(::open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY));
    }
}

// The innermost command that was recognised.
const CLI::App *Innermost(const CLI::App *app)
{
    for (;;) {
        const auto chosen = app->get_subcommands();
        if (chosen.empty()) return app;
        app = chosen.front();
    }
}

std::string FullName(const CLI::App *app)
{
    const CLI::App *parent = app->get_parent();
    return parent == nullptr ? app->get_name() : FullName(parent) + " " + app->get_name();
}

// Names an unknown command, where the parser would say that a command is missing.
std::string WhatWasWrong(const CLI::App &app, const CLI::ParseError &error)
{
    const std::vector<std::string> rest = app.remaining(true);
    const bool expectsCommand =
        !Innermost(&app)->get_subcommands([](const CLI::App *) { return true; }).empty();
    return expectsCommand && !rest.empty() ? "unknown command: " + rest.front() : error.what();
}

int EndParsing(const CLI::App &app, const CLI::ParseError &error)
{
    if (error.get_exit_code() != 0) {
        tool::PrintNote("zevobandwidth: " + WhatWasWrong(app, error));
        tool::PrintNote("Try '" + FullName(Innermost(&app)) + " --help'.");
        return tool::kWrongUsage;
    }
    std::ostringstream help;
    app.exit(error, help, help);
    std::string text = help.str();
    while (text.ends_with('\n'))
        text.pop_back();
    tool::PrintLine(text);
    tool::FlushOutput();
    return tool::kDone;
}

// The words after the tool's name. "--option=" becomes two words, the second of them empty, because
// the parser would take the next word as the value.
std::vector<std::string> Words(int argc, char **argv)
{
    std::vector<std::string> words(argv + std::min(argc, 1), argv + argc);
    if (!words.empty() && words.front() == tool::kCompleteCommand) return words;
    for (std::size_t i = 0; i < words.size() && words[i] != "--"; ++i) {
        const bool isOption = words[i].starts_with("--");
        if (!isOption || words[i].find('=') != words[i].size() - 1) continue;
        words[i].pop_back();
        words.emplace(words.begin() + static_cast<std::ptrdiff_t>(++i));
    }
    return words;
}

int Run(int argc, char **argv)
{
    CLI::App app("Bandwidth limits per user, group and protocol", "zevobandwidth");
    app.formatter(tool::MakeHelpFormatter()); // the commands inherit it
    app.require_subcommand(1);
    app.set_version_flag("--version", Version(), "Print the version and exit");
    app.footer("Upload always means from the client to this server, download from this server to\n"
               "the client.\n\nExamples:\n"
               "  zevobandwidth rule set -u alice -p ftp --up 10M --down unlimited\n"
               "  zevobandwidth policy set -p ftp\n"
               "  zevobandwidth plan show -u alice -p ftp\n"
               "  zevobandwidth transfers\n\n"
               "Exit status: 0 done, 1 failed, 2 wrong usage, 3 not permitted, 4 no such user,\n"
               "group, protocol or transfer, 6 'check' has found something.");
    for (const auto add :
         {tool::AddRuleCommand, tool::AddPolicyCommand, tool::AddPlanCommand,
          tool::AddPreviewCommand, tool::AddTransfersCommand, tool::AddTopCommand,
          tool::AddStopCommand, tool::AddForgetCommand, tool::AddPipeCommand,
          tool::AddExportCommand, tool::AddImportCommand, tool::AddNotifyCommand,
          tool::AddAddonCommand, tool::AddCheckCommand, tool::AddMetricsCommand,
          tool::AddSimulateCommand, tool::AddDumpCommand, tool::AddCompletionCommand})
        add(app);
    try {
        std::vector<std::string> words = Words(argc, argv);
        std::reverse(words.begin(), words.end()); // the parser's order
        app.parse(std::move(words));
    } catch (const CLI::ParseError &error) {
        return EndParsing(app, error);
    }
    tool::FlushOutput();
    return tool::kDone;
}

int Report(const std::string &message, int status)
{
    try {
        tool::FlushOutput(); // what was printed before the failure still belongs to the result
    } catch (const Failure &failure) {
        tool::PrintNote(std::string("zevobandwidth: ") + failure.what());
    }
    tool::PrintNote("zevobandwidth: " + message);
    return status;
}

} // namespace

int main(int argc, char **argv)
{
    // The notice that limits have changed is sent to every process of this name, also to this one.
    std::signal(SIGHUP, SIG_IGN);
    // So a write beyond the file-size limit fails, as on a full disk.
    std::signal(SIGXFSZ, SIG_IGN);
    KeepStandardStreamsTaken();
    std::setlocale(LC_CTYPE, "C.UTF-8"); // for the width of characters
    ::umask(022);                        // every service must be able to read the rules
    try {
        return Run(argc, argv);
    } catch (const Failure &failure) {
        return Report(failure.what(), failure.status());
    } catch (const std::bad_alloc &) {
        return Report("out of memory", tool::kFailed);
    } catch (const std::exception &error) {
        return Report(error.what(), tool::kFailed);
    }
}
