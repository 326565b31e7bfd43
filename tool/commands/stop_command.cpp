// "stop": asks transfers to end and waits until they have.
#include <chrono>
#include <string>
#include <thread>

#include "command.hpp"
#include "model/stopping.hpp"
#include "options.hpp"
#include "output.hpp"

namespace tool {

namespace {

// A save may undo a mark that is set meanwhile. So a mark counts after it was seen this many times.
constexpr int kLooksToHold = 3;
constexpr int kMaxLooks = 40;

struct StopArguments {
    EndingOptions ending;
    TransferSelection selection;
    double waitSeconds = 10;
};

// False if the person at the terminal says no.
bool IsWanted(const Account &user, const Stopping &stopping, bool yes)
{
    const std::size_t count = stopping.found().size();
    if (count == 1 || yes) return true;
    const std::string what = Counted(count, "transfer") + " of user " + ShownName(user);
    const Answer answer = Ask("Stop " + what + "?");
    if (answer == Answer::kNobodyThere)
        throw Failure(kWrongUsage, "this would stop " + what +
                                       ", and nobody is there to ask: add --yes, or name one with "
                                       "--pid");
    return answer == Answer::kYes;
}

void WaitFor(Stopping &stopping, double seconds)
{
    const auto deadline = Stopping::Clock::now() + std::chrono::duration<double>(seconds);
    for (int held = 0, looks = 0;; ++looks) {
        stopping.Step();
        held = stopping.IsMarked() ? held + 1 : 0;
        const bool isSure = held >= kLooksToHold || looks >= kMaxLooks;
        if (stopping.left().empty() || (isSure && Stopping::Clock::now() >= deadline)) return;
        std::this_thread::sleep_for(Stopping::kLookAgain);
    }
}

Json ToJson(const Account &user, const Stopping &stopping)
{
    Json left = Json::array();
    for (const RunningTransfer &transfer : stopping.left())
        left.push_back({{"pid", transfer.pid}, {"direction", DirectionOf(transfer)}});
    return {{"user", ShownName(user)},
            {"uid", user.id},
            {"stopped", stopping.found().size() - stopping.left().size()},
            {"milliseconds", stopping.Took().count()},
            {"left", left}};
}

// In a dry run all are left.
void Report(const Account &user, const Stopping &stopping, bool isDryRun)
{
    if (OutputStyle().json) return PrintJson(ToJson(user, stopping));
    const std::size_t stopped = stopping.found().size() - (isDryRun ? 0 : stopping.left().size());
    if (stopped != 0)
        PrintLine(Printable(
            "user " + ShownName(user) + ": " + Counted(stopped, "transfer") +
            (isDryRun ? " would be stopped"
                      : " stopped after " + std::to_string(stopping.Took().count()) + " ms")));
}

void Stop(const StopArguments &arguments)
{
    const Account user = FindUser(arguments.ending.user);
    TransferFilter which = arguments.selection.Filter();
    which.pid = arguments.ending.pid;
    Stopping stopping(user, which);
    if (stopping.found().empty())
        throw Failure(kNotFound, "user " + ShownName(user) +
                                     " has no such transfer; 'zevobandwidth transfers' lists what "
                                     "is running");
    if (arguments.ending.isDryRun) return Report(user, stopping, true);
    if (!IsWanted(user, stopping, arguments.ending.yes)) return PrintNote("Nothing was stopped.");
    WaitFor(stopping, arguments.waitSeconds);
    Report(user, stopping, false);
    if (stopping.left().empty()) return;
    const std::string left =
        Counted(stopping.left().size(), "transfer") + " of user " + ShownName(user);
    if (arguments.waitSeconds == 0) return PrintNote(left + " will end after the next block");
    throw Failure(kFailed, left + " marked but not ended within " +
                               std::to_string(stopping.Took().count() / 1000) +
                               " s: the processes may be waiting for data, and end with the next "
                               "block. What no process saves any more is forgotten after 30 "
                               "seconds, or now with 'zevobandwidth forget'");
}

} // namespace

void AddStopCommand(CLI::App &app)
{
    const auto [command, arguments] = AddCommand(
        app, "stop", "Stop a user's running transfers", Stop,
        "A transfer ends after the block it is moving; its service reports it as failed. Upload is "
        "from the client to this server, download from this server to the client.\n\n"
        "Examples:\n"
        "  zevobandwidth stop -u alice\n"
        "  zevobandwidth stop -u alice --pid 4711 -d upload\n"
        "  zevobandwidth stop -u bob -p rsync --yes --wait 30\n");
    AddEndingOptions(command, arguments.ending, "Stop several without asking");
    AddTransferSelection(command, arguments.selection);
    AddSecondsOption(command, "--wait", arguments.waitSeconds,
                     "How long to wait for them to end; 0 only sees that the marks hold", 0)
        ->capture_default_str();
}

} // namespace tool
