// "forget": removes transfers from the status files without ending them. It is meant for what dead
// processes have left behind. A process that still runs is listed again with its next block; until
// then the others take its part of the limit.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "command.hpp"
#include "model/section.hpp"
#include "model/transfer_list.hpp"
#include "options.hpp"
#include "output.hpp"

namespace tool {

namespace {

using Pids = std::set<pid_t>;

// A section of a status file that holds a transfer of the user, or a group's copy of it.
struct Found {
    std::string file;
    std::string section;
    pid_t pid;
};

// In the user's own file by the names of the sections, because a listing leaves out sections that
// it cannot read.
void FindOwn(const std::string &file, std::vector<Found> &found)
{
    if (VLIBCFileExist(file.c_str()) != 1) return;
    const List list = ListSections(file);
    if (!list) return;
    for (const char *const section : Items(list)) {
        int pid = 0;
        int direction = 0;
        if (std::sscanf(section, "%d-%d", &pid, &direction) == 2 && pid > 0)
            found.push_back({file, section, pid});
    }
}

std::vector<Found> Find(const Account &user, const TransferList &list, pid_t only)
{
    std::vector<Found> found;
    FindOwn(StatusFile(ZEVO_BW_OWNER_USER, user.id), found);
    for (const RunningTransfer &copy : list.all())
        if (copy.ownerType == ZEVO_BW_OWNER_GROUP && copy.uid == user.id && copy.pid > 0)
            found.push_back({StatusFile(copy.ownerType, copy.ownerId),
                             std::to_string(copy.pid) + "-" + std::to_string(copy.direction),
                             copy.pid});
    if (only != 0) std::erase_if(found, [only](const Found &one) { return one.pid != only; });
    return found;
}

// status: the exit status of a failure, unless permission is missing.
void Remove(const std::vector<Found> &found, const Pids &pids, ExitStatus status)
{
    for (const auto &[file, section, pid] : found) {
        if (!pids.contains(pid) ||
            ZEVOBandwidthStatusRemoveSection(file.c_str(), section.c_str()) >= 0)
            continue;
        const bool mayChange =
            ::faccessat(AT_FDCWD, ZEVO_BW_STATUS_DIRECTORY, W_OK | X_OK, AT_EACCESS) == 0;
        throw Failure(mayChange ? status : kNotPermitted,
                      "the transfers of process " + std::to_string(pid) + " cannot be removed; " +
                          file +
                          " must be a regular file that you may read, in a directory that you may "
                          "write and that has room left; 'zevobandwidth check' tells what is wrong "
                          "with it");
    }
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
    TransferList list;
    list.Read(ZEVO_BW_OWNER_USER, user.id);
    list.ReadAll(ZEVO_BW_OWNER_GROUP);
    list.PrintComplaints();
    const auto checkAllRead = [&list] {
        if (!list.complaints().empty())
            throw Failure(list.status(), "what could not be read may hold more of them");
    };
    const std::vector<Found> found = Find(user, list, arguments.pid);
    Pids pids;
    for (const Found &one : found)
        pids.insert(one.pid);
    if (pids.empty()) checkAllRead();
    if (pids.empty())
        throw Failure(kNotFound, "user " + ShownName(user) + " has no such transfer on the list");
    const std::size_t spared = SpareRunning(pids, arguments.yes, !arguments.isDryRun);
    if (!arguments.isDryRun) Remove(found, pids, list.status());
    Report(user, pids, spared, arguments.isDryRun);
    checkAllRead();
}

} // namespace

void AddForgetCommand(CLI::App &app)
{
    const auto [command, arguments] =
        AddCommand(app, "forget", "Take what dead transfers left behind off the list", Forget,
                   "Removes the user's transfers from the user's status file and from those of all "
                   "groups. What a process leaves behind is dropped by itself 30 seconds after its "
                   "last save. A process that still runs is listed again with its next block: to "
                   "end it use 'zevobandwidth stop'.\n\n"
                   "Examples:\n"
                   "  zevobandwidth forget -u alice\n"
                   "  zevobandwidth forget -u alice --pid 4711 --yes\n");
    AddEndingOptions(command, arguments, "Forget also what is still running");
}

} // namespace tool
