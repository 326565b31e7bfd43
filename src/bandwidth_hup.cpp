// Notices that limits have changed: sending them to the services that run transfers, and what a
// transfer does with one. Nothing is locked and nothing is kept between calls.

#include "internal/frame.hpp"
#include "internal/guard.hpp"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

using namespace bandwidth;

namespace {

constexpr const char *kDocuhallWorkers[] = {
    "ZEVO.Docuhall.Download",
    "ZEVO.Docuhall.Upload",
    "ZEVO.Docuhall.FormUpload",
    "ZEVO.Docuhall.CopyMove",
};
constexpr char kWebDAVPidFile[] = "/run/httpd/httpd-webdav.pid";
constexpr char kKillall[] = "/usr/bin/killall";
constexpr char kSimulator[] = "zevobandwidth";

using Directory = std::unique_ptr<DIR, Releaser<::closedir>>;

Directory OpenProc() noexcept
{
    zevo::Fd fd = zevo::OpenAt(AT_FDCWD, "/proc", O_RDONLY | O_DIRECTORY);
    Directory proc(fd ? ::fdopendir(fd.get()) : nullptr);
    if (proc) (void)fd.Detach(); // the directory stream closes it now
    return proc;
}

// Reads the start of a command line's first line; the NUL after the first word ends the text.
bool ReadFirstWord(const char *szPid, char (&szWord)[128]) noexcept
{
    char szFile[sizeof("/proc//cmdline") + sizeof(dirent::d_name)];
    (void)std::snprintf(szFile, sizeof(szFile), "/proc/%s/cmdline", szPid);
    const zevo::Fd file = zevo::OpenAt(AT_FDCWD, szFile, O_RDONLY);
    if (!file) return false;
    std::memset(szWord, 0, sizeof(szWord));
    const ssize_t cb =
        zevo::RetryInterrupted([&] { return ::read(file.get(), szWord, sizeof(szWord) - 1); });
    if (char *const szLineEnd = static_cast<char *>(std::memchr(szWord, '\n', sizeof(szWord))))
        *szLineEnd = '\0';
    return cb > 0;
}

bool IsDocuhallWorker(const char *szWord) noexcept
{
    for (const char *const szWorker : kDocuhallWorkers)
        if (std::strstr(szWord, szWorker) != nullptr) return true;
    return false;
}

// Whether the transfer is still limited; also when that cannot be worked out, so that it stays
// registered.
bool StaysLimited(ZEVO_BANDWIDTH_CONFIG &config, int32_t transferType) noexcept
{
    if (config.globalConf.currentState == ZEVO_BW_STATE_DISABLED) return false;
    if (::ZEVOBandwidthIsUserGroupLimitEnable(&config) == 0) return false;
    uint64_t speedBps = 0;
    return ::ZEVOBandwidthExpectSpeedEstimateByPolicy(transferType, &config, &speedBps, 0) < 0 ||
           speedBps != 0;
}

} // namespace

void ZEVOBandwidthHupDocuhall(void) noexcept
{
    const CancelScope cancel;
    const Directory proc = OpenProc();
    if (!proc) return;
    while (const struct dirent *const entry = ::readdir(proc.get())) {
        char szWord[128];
        if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
        if (!ReadFirstWord(entry->d_name, szWord) || !IsDocuhallWorker(szWord)) continue;
        const pid_t pid = static_cast<pid_t>(std::strtol(entry->d_name, nullptr, 10));
        (void)::kill(pid, SIGHUP); // it may have ended, or be somebody else's
    }
}

int ZEVOBandwidthHupWebDAV(void) noexcept
{
    const CancelScope cancel;
    const pid_t pid = ::VLIBCReadPidFile(kWebDAVPidFile);
    return pid <= 0 ? pid : ::killpg(pid, SIGUSR2);
}

int ZEVOBandwidthHupSimulator(void) noexcept
{
    const CancelScope cancel;
    return ::VLIBCExec(kKillall, "-sighup", kSimulator, nullptr, nullptr);
}

int ZEVOBandwidthHupRecv(ZEVO_BANDWIDTH_CONFIG *pConfig, const ZEVO_BANDWIDTH_STATUS *pStatus,
                         uint64_t *pTime) noexcept
{
    const CancelScope cancel;
    BW_REQUIRE(pConfig != nullptr, "((void *)0) != pConfig");
    BW_REQUIRE(pStatus != nullptr, "((void *)0) != pStatus");
    BW_REQUIRE(pTime != nullptr, "NULL != pTime");

    const uint32_t uid = pConfig->uid;
    const uint32_t transferType = pStatus->transfer_type;
    *pTime = ::ZEVOBandwidthCurrTimeGet();
    uint32_t groups[ZEVO_BW_MOST_OCC_GROUPS];
    int32_t groupCount = 0;
    if (::ZEVOBandwidthOccGroupsGet(groups, &groupCount, pConfig) < 0)
        return BW_PASS("ZEVOBandwidthOccGroupsGet failed. uid:[%u] ", uid);
    if (groupCount > 0 &&
        ::ZEVOBandwidthStatusRemoveByOccGroups(groups, groupCount, transferType) < 0)
        return BW_PASS("ZEVOBandwidthStatusRemove failed. uid:[%u] ", uid);

    Config renewed;
    if (::ZEVOBandwidthConfigGet(uid, static_cast<int32_t>(pStatus->protocol_type), renewed.get()) <
        0)
        return BW_PASS("ZEVOBandwidthConfigGet failed. uid:[%u] ", uid);
    if (!StaysLimited(*renewed.get(), static_cast<int32_t>(transferType)))
        (void)::ZEVOBandwidthStatusRemove(pConfig, transferType); // else it goes stale
    ::ZEVOBandwidthConfigFree(pConfig);
    *pConfig = renewed.Detach();
    return 0;
}
