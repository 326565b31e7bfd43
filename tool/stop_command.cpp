// "stop": asks transfers to end. A transfer sees the mark after its block and ends; a save that
// raced with the mark may have undone it, so that it is set again until the transfer is gone.
#include <unistd.h>

#include <chrono>
#include <memory>
#include <vector>

#include "command.hpp"
#include "options.hpp"
#include "output.hpp"

namespace tool {

namespace {

constexpr std::int32_t kEveryProtocol = -1; // numbers of add-ons are no bits
constexpr useconds_t kLookAgainUs = 50'000;
constexpr std::chrono::seconds kPatience{10};

struct StopArguments {
    std::string user;
    std::string direction;
    pid_t pid = 0;
};

struct Target {
    pid_t pid;
    std::int32_t direction;
};

std::vector<Target> FindTargets(const StopArguments &arguments, std::uint32_t uid)
{
    const std::uint32_t directions =
        arguments.direction.empty()
            ? static_cast<std::uint32_t>(ZEVO_BW_TRANSFER_ALL)
            : static_cast<std::uint32_t>(ValueOf(ZEVO_BW_TRANSFER_TYPE_LIST, arguments.direction));
    ZEVO_BANDWIDTH_STATUS *list = nullptr;
    if (ZEVOBandwidthStatusGetAll(ZEVO_BW_OWNER_USER, uid, kEveryProtocol, directions, &list) < 0)
        throw Failure(kFailed, "the status file /tmp/bandwidth/user-" + std::to_string(uid) +
                                   " cannot be read; it must be a regular file");
    std::vector<Target> targets;
    for (const auto *status = list; status != nullptr; status = status->next)
        if (arguments.pid == 0 || arguments.pid == status->pid)
            targets.push_back({status->pid, static_cast<std::int32_t>(status->transfer_type)});
    ZEVOBandwidthStatusListFree(&list);
    return targets;
}

void Stop(const StopArguments &arguments)
{
    using Clock = std::chrono::steady_clock;
    const Account user = FindUser(arguments.user);
    const std::vector<Target> found = FindTargets(arguments, user.id);
    if (found.empty())
        throw Failure(kNotFound, "user " + user.name +
                                     " has no such transfer; 'zevobandwidth transfers' lists what "
                                     "is running");
    const Clock::time_point start = Clock::now();
    for (std::vector<Target> left = found; !left.empty(); left = FindTargets(arguments, user.id)) {
        if (Clock::now() - start > kPatience)
            throw Failure(kFailed, "user " + user.name + ": " + std::to_string(left.size()) +
                                       " transfers are marked but have not ended; their processes "
                                       "may be waiting for data, or be gone: then they are "
                                       "forgotten after 30 seconds");
        for (const Target &target : left) // one that is gone by now needs no mark
            static_cast<void>(ZEVOBandwidthStatusSetActiveByUserName(
                user.name.c_str(), target.direction, target.pid, 0));
        ::usleep(kLookAgainUs);
    }
    const auto took =
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
    PrintLine("user " + user.name + ": " + std::to_string(found.size()) + " transfer" +
              (found.size() == 1 ? "" : "s") + " stopped after " + std::to_string(took) + " ms");
}

} // namespace

void AddStopCommand(CLI::App &app)
{
    const auto arguments = std::make_shared<StopArguments>();
    CLI::App *command = app.add_subcommand("stop", "Stop a user's running transfers");
    command->add_option("-u,--user", arguments->user, "Whose transfers: a name or a numeric id")
        ->required()
        ->type_name("USER");
    command->add_option("--pid", arguments->pid, "Only those of this process")
        ->check(CLI::PositiveNumber)
        ->type_name("PID");
    AddChoice(*command, "-d,--direction", arguments->direction, "DIRECTION",
              ZEVO_BW_TRANSFER_TYPE_LIST, "Only this direction");
    command->footer(
        "Upload is from the client to this server, download from this server to the client.\n\n"
        "Examples:\n"
        "  zevobandwidth stop -u alice\n"
        "  zevobandwidth stop -u alice --pid 4711 -d upload\n");
    command->callback([arguments] { Stop(*arguments); });
}

} // namespace tool
