// "forget": removes transfers from the status files without ending them. It is meant for what dead
// processes have left behind. A process that still runs is listed again with its next block; until
// then the others take its part of the limit.
#include <algorithm>
#include <memory>
#include <set>
#include <string>

#include "command.hpp"
#include "model/section.hpp"
#include "model/transfer_list.hpp"
#include "options.hpp"
#include "output.hpp"
#include "question.hpp"

namespace tool {

namespace {

using Pids = std::set<pid_t>;

// The processes in the names of the sections. A listing leaves out sections that it cannot read.
Pids PidsOfSections(const std::string &path)
{
    Pids pids;
    if (VLIBCFileExist(path.c_str()) != 1) return pids;
    const List list = ListSections(path);
    if (!list) return pids;
    for (const char *const section : Items(list)) {
        int pid = 0;
        int direction = 0;
        if (std::sscanf(section, "%d-%d", &pid, &direction) == 2 && pid > 0) pids.insert(pid);
    }
    return pids;
}

// From the user's own file and the files of all groups.
TransferList ReadCopies(const Account &user)
{
    TransferList list;
    list.Read(ZEVO_BW_OWNER_USER, user.id);
    list.ReadAll(ZEVO_BW_OWNER_GROUP);
    list.PrintComplaints();
    return list;
}

Pids FindPids(const Account &user, const TransferList &list, pid_t only)
{
    Pids pids = PidsOfSections(StatusFile(ZEVO_BW_OWNER_USER, user.id));
    for (const RunningTransfer &transfer : list.all())
        if (transfer.uid == user.id && transfer.pid > 0) pids.insert(transfer.pid);
    if (only != 0) std::erase_if(pids, [only](pid_t pid) { return pid != only; });
    return pids;
}

// The library clears the groups that the user is in now. A former group may still have a copy.
void RemoveFromOtherGroups(const Account &user, const Pids &pids)
{
    TransferList list;
    list.ReadAll(ZEVO_BW_OWNER_GROUP);
    for (const RunningTransfer &copy : list.all()) {
        if (copy.uid != user.id || !pids.contains(copy.pid)) continue;
        const std::string section = std::to_string(copy.pid) + "-" + std::to_string(copy.direction);
        static_cast<void>(ZEVOBandwidthStatusRemoveSection(
            StatusFile(copy.ownerType, copy.ownerId).c_str(), section.c_str()));
    }
}

// status: the exit status of a failure, unless permission is missing.
void Remove(const Account &user, const Pids &pids, ExitStatus status)
{
    for (const pid_t pid : pids) {
        if (ZEVOBandwidthStatusForceRemoveAllByUserName(user.name.c_str(), ZEVO_BW_TRANSFER_ALL,
                                                        pid) >= 0)
            continue;
        throw Failure(MayChangeStatusFiles() ? status : kNotPermitted,
                      "the transfers of process " + std::to_string(pid) +
                          " cannot be removed; the status files of user " + ShownName(user) +
                          " and of the user's groups must be regular files that you may read, in a "
                          "directory that you may write and that has room left; 'zevobandwidth "
                          "check' tells what is wrong with them");
    }
    RemoveFromOtherGroups(user, pids);
}

// Takes running processes out of pids, unless the person agrees. Returns how many.
std::size_t SpareRunning(Pids &pids, bool yes, bool mayAsk)
{
    Pids running;
    std::copy_if(pids.begin(), pids.end(), std::inserter(running, running.end()), IsAlive);
    if (running.empty() || yes) return 0;
    if (mayAsk && Ask(Counted(running.size(), "process") + " still running. Forget those too?") ==
                      Answer::kYes)
        return 0;
    std::erase_if(pids, [&](pid_t pid) { return running.contains(pid); });
    return running.size();
}

void Report(const Account &user, const Pids &pids, std::size_t spared, bool isDryRun)
{
    if (OutputStyle().json)
        PrintJson({{"user", ShownName(user)},
                   {"uid", user.id},
                   {"forgotten", pids},
                   {"running", spared}});
    else if (!pids.empty())
        PrintLine(Printable("user " + ShownName(user) + ": the transfers of " +
                            Counted(pids.size(), "process") +
                            (isDryRun ? " would be forgotten" : " forgotten")));
    if (spared == 0) return;
    const std::string text = Counted(spared, "process") +
                             " still running and left on the list; end the "
                             "transfers with 'zevobandwidth stop', or add --yes";
    if (pids.empty()) throw Failure(kFailed, text);
    PrintNote("note: " + text);
}

void Forget(const EndingOptions &arguments)
{
    const Account user = FindUser(arguments.user);
    const TransferList list = ReadCopies(user);
    const auto checkAllRead = [&list] {
        if (!list.complaints().empty())
            throw Failure(list.status(), "what could not be read may hold more of them");
    };
    Pids pids = FindPids(user, list, arguments.pid);
    if (pids.empty()) checkAllRead();
    if (pids.empty())
        throw Failure(kNotFound, "user " + ShownName(user) + " has no such transfer on the list");
    const std::size_t spared = SpareRunning(pids, arguments.yes, !arguments.isDryRun);
    if (!arguments.isDryRun) Remove(user, pids, list.status());
    Report(user, pids, spared, arguments.isDryRun);
    checkAllRead();
}

} // namespace

void AddForgetCommand(CLI::App &app)
{
    const auto arguments = std::make_shared<EndingOptions>();
    CLI::App *command =
        app.add_subcommand("forget", "Take what dead transfers left behind off the list");
    AddEndingOptions(*command, *arguments, "Forget also what is still running");
    command->footer(
        "Removes the user's transfers from the user's status file and from those of all groups. "
        "What a\n"
        "process leaves behind is dropped by itself 30 seconds after its last save. A process\n"
        "that still runs is listed again with its next block: to end it use 'zevobandwidth stop'.\n"
        "\nExamples:\n"
        "  zevobandwidth forget -u alice\n"
        "  zevobandwidth forget -u alice --pid 4711 --yes\n");
    command->callback([arguments] { Forget(*arguments); });
}

} // namespace tool
