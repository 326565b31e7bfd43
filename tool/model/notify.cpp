// Finds the processes through /proc, because not every killall understands "-sighup".
//
// SIGHUP ends a process that does not expect it. Process ids are used again, so the process is held
// by a descriptor before its name is read: the signal reaches the process that was looked at. A
// process of this program that does not yet expect the signal is still being loaded; it gets no
// signal, because it will read the new limits. Another program of that name gets up to 200 ms to
// expect the signal.
#include "model/notify.hpp"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include <zevobandwidth.h>

#include "base/descriptor.hpp"
#include "model/number.hpp"

namespace tool {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::string_view kProcessName = "zevobandwidth";
constexpr std::chrono::milliseconds kGrace(200); // for all processes together
constexpr std::chrono::milliseconds kLookAgain(2);

// 0 if the name is no process id.
pid_t ProcessId(std::string_view name)
{
    const pid_t pid = ReadNumber<pid_t>(name).value_or(0);
    return pid > 1 ? pid : 0;
}

std::ifstream OpenOf(pid_t pid, const char *file)
{
    return std::ifstream("/proc/" + std::to_string(pid) + "/" + file);
}

bool HasOurName(pid_t pid)
{
    std::ifstream comm = OpenOf(pid, "comm");
    std::string name;
    return std::getline(comm, name) && name == kProcessName;
}

// Whether SIGHUP is neither blocked, ignored nor caught. False also for a process that is gone.
bool WouldEnd(pid_t pid)
{
    std::ifstream status = OpenOf(pid, "status");
    constexpr unsigned long long kHangup = 1ULL << (SIGHUP - 1);
    unsigned long long expected = 0;
    bool isRead = false;
    for (std::string line; std::getline(status, line);) {
        const std::string_view key = std::string_view(line).substr(0, line.find(':'));
        if (key != "SigBlk" && key != "SigIgn" && key != "SigCgt") continue;
        expected |= std::stoull(line.substr(key.size() + 1), nullptr, 16);
        isRead = true;
    }
    return isRead && (expected & kHangup) == 0;
}

bool IsThisProgram(pid_t pid)
{
    struct stat theirs {};
    struct stat ours {};
    const std::string exe = "/proc/" + std::to_string(pid) + "/exe";
    return ::stat(exe.c_str(), &theirs) == 0 && ::stat("/proc/self/exe", &ours) == 0 &&
           theirs.st_dev == ours.st_dev && theirs.st_ino == ours.st_ino;
}

// True if the signal was sent.
bool Notify(pid_t pid, Clock::time_point graceEnd)
{
    // By number: some releases of <sys/pidfd.h> cannot be linked from C++.
    const zevo::Fd process(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
    if (!process || !HasOurName(pid)) return false;
    while (WouldEnd(pid)) {
        if (IsThisProgram(pid)) return false;
        if (Clock::now() >= graceEnd) break;
        std::this_thread::sleep_for(kLookAgain);
    }
    // Fails if the process is gone, or another user's.
    return ::syscall(SYS_pidfd_send_signal, process.get(), SIGHUP, nullptr, 0) == 0;
}

} // namespace

int NotifyTransfers()
{
    int told = 0;
    const std::unique_ptr<DIR, int (*)(DIR *)> proc(::opendir("/proc"), &::closedir);
    if (!proc) return told;
    const Clock::time_point graceEnd = Clock::now() + kGrace;
    while (const dirent *entry = ::readdir(proc.get())) {
        const pid_t pid = ProcessId(entry->d_name);
        if (pid != 0 && pid != ::getpid() && Notify(pid, graceEnd)) ++told;
    }
    return told;
}

void NotifyServices()
{
    ZEVOBandwidthHupDocuhall();
    static_cast<void>(ZEVOBandwidthHupWebDAV()); // it need not be running
    static_cast<void>(NotifyTransfers());
}

} // namespace tool
