// A transfer played out without data: it is registered, sleeps, is listed, shares the limits and
// obeys notices like a real one. It takes over the process's SIGHUP and sleeps in its thread, so
// that a tool runs it in a process of its own.

#include "internal/frame.hpp"
#include "internal/guard.hpp"
#include "internal/speed.hpp"

#include <csignal>
#include <cstdio>

#include <unistd.h>

using namespace bandwidth;

namespace {

constexpr uint64_t kBlockKB = 64;
constexpr double kWholeProgress = 10000.0;

// Written by the signal handler, read and cleared by the loop below. A notice that another thread
// of the process receives does not cut the sleep short and is taken with the next block.
volatile std::sig_atomic_t hupReceived = 0;

void NoteHup(int)
{
    hupReceived = 1;
}

// Without SA_RESTART, as the services that receive notices install theirs.
void CatchHup() noexcept
{
    struct sigaction action = {};
    action.sa_handler = NoteHup;
    (void)::sigemptyset(&action.sa_mask); // these cannot fail
    (void)::sigaddset(&action.sa_mask, SIGHUP);
    (void)::sigaction(SIGHUP, &action, nullptr);
}

// The transfer from its registration on.
struct Simulation {
    const char *szUser;
    ZEVO_BANDWIDTH_STATUS status;
    uint64_t timeLast;
};

// One block after the other until the size is reached; -1 when the transfer cannot go on.
int PlayOut(Simulation &simulation, ZEVO_BANDWIDTH_CONFIG *pConfig, uint64_t sizeKB) noexcept
{
    for (uint64_t sentKB = 0; sentKB < sizeKB;) {
        if (hupReceived != 0) {
            hupReceived = 0;
            if (::ZEVOBandwidthHupRecv(pConfig, &simulation.status, &simulation.timeLast) < 0)
                return BW_PASS("Hup recv failed. user:[%s] file:[%s] ", simulation.szUser,
                               simulation.status.filename);
        }
        sentKB += kBlockKB;
        const auto progress = static_cast<uint32_t>(static_cast<double>(sentKB) * kWholeProgress /
                                                    static_cast<double>(sizeKB));
        if (::ZEVOBandwidthSleepInLoop(pConfig, kBlockKB * kBytesPerKB, progress,
                                       &simulation.timeLast, &simulation.status) < 0)
            return BW_PASS("Connection was closed. user:[%s] file:[%s] ", simulation.szUser,
                           simulation.status.filename);
    }
    return 0;
}

} // namespace

int ZEVOBandwidthSimulate(const char *szUserName, int32_t protocol_type, int32_t transfer_type,
                          uint64_t sizeKB) noexcept
{
    const CancelScope cancel;
    Simulation simulation = {};
    simulation.szUser = szUserName;
    Config config;
    uid_t uid = static_cast<uid_t>(-1);
    CatchHup();
    if (::ZEVOUserGetUGID(szUserName, &uid, nullptr) < 0)
        return BW_PASS("ZEVOUserGetUGID failed. user:[%s] ", szUserName);
    if (::ZEVOBandwidthConfigGet(uid, protocol_type, config.get()) < 0)
        return BW_PASS("ZEVOBandwidthConfigGet failed. uid:[%u] ", uid);
    char szFile[128];
    (void)std::snprintf(szFile, sizeof(szFile), "/volume1/public/%d-%d-%d-%zu", ::getpid(),
                        protocol_type, transfer_type, static_cast<size_t>(sizeKB));
    if (::ZEVOBandwidthStatusInit(config.get(), transfer_type, szFile, &simulation.timeLast,
                                  &simulation.status) < 0)
        return BW_PASS("ZEVOBandwidthStatusInit failed. user:[%s] file:[%s] ", szUserName, szFile);
    if (PlayOut(simulation, config.get(), sizeKB) < 0) return BW_PASS_UNLOGGED;
    if (::ZEVOBandwidthStatusRemove(config.get(), static_cast<uint32_t>(transfer_type)) < 0)
        return BW_PASS("ZEVOBandwidthStatusRemove failed. uid:[%u] ", uid);
    return 0;
}
