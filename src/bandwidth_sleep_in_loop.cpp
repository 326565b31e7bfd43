// The throttle loop: what a service calls after every block. A call works out what speed the transfer
// may have now, sleeps until the block's time at that speed is over, measures the speed reached, and
// saves it for the other transfers. It is also where an administrator's stop arrives.
//
// The only state of the process is the time of the last look at the schedule plans.

#include "internal/frame.hpp"
#include "internal/guard.hpp"
#include "internal/speed.hpp"
#include "internal/status_save.hpp"

#include <atomic>
#include <cerrno>
#include <ctime>

#include <unistd.h>

using namespace bandwidth;

namespace {

// Written and read by every thread in the loop; no thread depends on another's value. The first thread
// that sees a new hour evaluates its own configuration.
std::atomic<uint64_t> lastScheduleCheckUs{0};

// The groups that the transfer is charged to under the configured rates.
struct OccupiedGroups {
    uint32_t ids[ZEVO_BW_MOST_OCC_GROUPS];
    int32_t count = 0;
};

int HourOfDay(uint64_t timeUs) noexcept
{
    const time_t seconds = static_cast<time_t>(timeUs / kUsPerSecond);
    struct tm local = {};
    (void)::localtime_r(&seconds, &local);
    return local.tm_hour;
}

bool HasSchedule(const ZEVO_BANDWIDTH_CONFIG &config) noexcept
{
    if (config.globalConf.state == ZEVO_BW_STATE_SCHEDULE) return true;
    for (int32_t i = 0; i < config.iLimit; ++i)
        if (config.pLimit[i].conf.state == ZEVO_BW_STATE_SCHEDULE) return true;
    return false;
}

bool IsLimited(const ZEVO_BANDWIDTH_CONFIG &config) noexcept
{
    return config.globalConf.currentState != ZEVO_BW_STATE_DISABLED &&
           ::ZEVOBandwidthIsUserGroupLimitEnable(&config) == 1;
}

// Evaluates the plans when the hour of the day is another than at the last look, which may have
// been a whole day ago. false: they switch the limits off now.
bool StaysLimitedBySchedule(ZEVO_BANDWIDTH_CONFIG &config, uint64_t nowUs) noexcept
{
    if (!HasSchedule(config)) return true;
    const uint64_t lastUs = lastScheduleCheckUs.load(std::memory_order_relaxed);
    if (lastUs != 0 && HourOfDay(lastUs) == HourOfDay(nowUs)) return true;
    (void)::ZEVOBandwidthInitConfig(&config, static_cast<int64_t>(nowUs));
    return IsLimited(config);
}

// Sleeps the block down to its speed. false when a signal cut the sleep short.
bool SleepOff(int64_t sleepUs) noexcept
{
    if (sleepUs <= 0) return true;
    if (::usleep(static_cast<useconds_t>(sleepUs)) == 0) return true;
    const bool interrupted = errno == EINTR;
    BW_LOG("usleep failed. %m");
    return !interrupted;
}

// A section that lacks its flag, as a torn one may, stops nobody.
bool IsStopped(const ZEVO_BANDWIDTH_STATUS &status) noexcept
{
    ZEVO_BANDWIDTH_STATUS saved;
    saved.active = 1;
    return ::ZEVOBandwidthStatusGet(ZEVO_BW_OWNER_USER, status.id,
                                    static_cast<int32_t>(status.transfer_type), &saved) == 0 &&
           saved.active == 0;
}

// The speed that the transfer may have, and the groups that are charged before sharing changes the
// weights: 1, 0 when no limit applies to it, -1 on failure.
int EstimateSpeed(ZEVO_BANDWIDTH_CONFIG *pConfig, ZEVO_BANDWIDTH_STATUS *pStatus,
                  OccupiedGroups &groups) noexcept
{
    const int32_t transferType = static_cast<int32_t>(pStatus->transfer_type);
    if (::ZEVOBandwidthExpectSpeedEstimateByPolicy(transferType, pConfig, &pStatus->expect_speed,
                                                   0) < 0)
        return BW_PASS("ZEVOBandwidthExpectSpeedEstimateByPolicy failed. uid:[%u] ", pStatus->id);
    if (pStatus->expect_speed == 0) return 0;
    if (::ZEVOBandwidthOccGroupsGet(groups.ids, &groups.count, pConfig) < 0)
        return BW_PASS("ZEVOBandwidthOccGroupsGet failed. uid:[%u] ", pStatus->id);
    if (::ZEVOBandwidthExpectSpeedEstimateByPolicy(transferType, pConfig, &pStatus->expect_speed,
                                                   1) < 0)
        return BW_PASS("ZEVOBandwidthExpectSpeedEstimateByPolicy failed. uid:[%u] ", pStatus->id);
    return 1;
}

// Sleeps, and notes in the record when the block ended and its speed; returns that moment.
uint64_t Throttle(uint64_t bytes, uint64_t nowUs, uint64_t lastUs,
                  ZEVO_BANDWIDTH_STATUS &status) noexcept
{
    const bool slept = SleepOff(::ZEVOBandwidthSleepEstimate(static_cast<int64_t>(nowUs - lastUs),
                                                             bytes, status.expect_speed));
    const uint64_t endUs = ::ZEVOBandwidthCurrTimeGet();
    status.timestamp = std::time(nullptr);
    // A notice cut the sleep short: the time that passed says nothing about the speed, so the
    // target stands in for it until the next block.
    status.current_speed =
        slept ? ::ZEVOBandwidthSpeedEstimate(static_cast<int64_t>(endUs - lastUs), bytes)
              : status.expect_speed;
    return endUs;
}

int RemoveCopies(const OccupiedGroups &groups, const ZEVO_BANDWIDTH_STATUS &status) noexcept
{
    if (groups.count == 0) return 0;
    return ::ZEVOBandwidthStatusRemoveByOccGroups(groups.ids, groups.count, status.transfer_type);
}

// Removes the copies after a failure, which stays in the error slot; false when that fails, too.
bool CleanUpCopies(const OccupiedGroups &groups, const ZEVO_BANDWIDTH_STATUS &status) noexcept
{
    const CleanUpScope cleanUp;
    return RemoveCopies(groups, status) == 0;
}

int Stop(const OccupiedGroups &groups, const ZEVO_BANDWIDTH_STATUS &status) noexcept
{
    (void)CleanUpCopies(groups, status); // a copy that cannot be removed becomes stale
    return BW_FAIL(ZEVO_BW_ERROR_STOPPED);
}

// The copies should have been removed before the save. When they cannot be, their file is what the
// save failed for.
int FailSave(const OccupiedGroups &groups, const ZEVO_BANDWIDTH_STATUS &status) noexcept
{
    if (!CleanUpCopies(groups, status))
        return BW_PASS("ZEVOBandwidthStatusRemove failed. uid:[%u] ", status.id);
    return BW_PASS("save info failed. [%u] ", status.id);
}

bool IsChargedTo(const ZEVO_BANDWIDTH_CONFIG &config, uint32_t gid) noexcept
{
    for (int32_t i = 0; i < config.iLimit; ++i)
        if (IsCharged(config.pLimit[i]) && config.pLimit[i].conf.id == gid) return true;
    return false;
}

// The groups that were charged and have a copy which the next save does not replace.
OccupiedGroups NoLongerCharged(const ZEVO_BANDWIDTH_CONFIG &config, const OccupiedGroups &groups,
                               const ZEVO_BANDWIDTH_STATUS &status) noexcept
{
    // Sections are removed by the number of this process, and saved by that of the record.
    const bool isOurs = status.pid == ::getpid();
    OccupiedGroups left;
    for (int32_t i = 0; i < groups.count; ++i)
        if (!isOurs || !IsChargedTo(config, groups.ids[i])) left.ids[left.count++] = groups.ids[i];
    return left;
}

// Shows the block to the other transfers, unless this one has been stopped meanwhile. First the copies
// of the groups that are no longer charged are removed. A group that is charged again keeps its copy
// until the save replaces it: meanwhile the other transfers would divide the limit without this one.
int Publish(const ZEVO_BANDWIDTH_CONFIG *pConfig, ZEVO_BANDWIDTH_STATUS *pStatus,
            const OccupiedGroups &groups) noexcept
{
    const OccupiedGroups left = NoLongerCharged(*pConfig, groups, *pStatus);
    if (RemoveCopies(left, *pStatus) < 0)
        return BW_PASS("ZEVOBandwidthStatusRemove failed. uid:[%u] ", pStatus->id);
    if (IsStopped(*pStatus)) return Stop(groups, *pStatus);
    const int saved = SaveUnlessStopped(pStatus->id, pConfig, pStatus);
    if (saved == kStopped) return Stop(groups, *pStatus);
    return saved < 0 ? FailSave(groups, *pStatus) : 0;
}

} // namespace

int ZEVOBandwidthOccGroupsGet(uint32_t *pOccGroups, int32_t *piOccGroups,
                              const ZEVO_BANDWIDTH_CONFIG *pConfig) noexcept
{
    const CancelScope cancel; // the log may block
    BW_REQUIRE(piOccGroups != nullptr, "((void *)0) != piOccGroups");
    BW_REQUIRE(pConfig != nullptr, "NULL != pConfig");
    *piOccGroups = 0;
    if (pConfig->blGroupConfExist == 0) return 0;
    for (int32_t i = 0; i < pConfig->iLimit; ++i) {
        const ZEVO_BANDWIDTH_LIMIT &limit = pConfig->pLimit[i];
        if (!IsCharged(limit)) continue;
        // The callers' arrays hold no more; no user belongs to so many groups with limits.
        if (*piOccGroups == ZEVO_BW_MOST_OCC_GROUPS) break;
        pOccGroups[(*piOccGroups)++] = limit.conf.id;
    }
    return 0;
}

int ZEVOBandwidthSleepInLoop(ZEVO_BANDWIDTH_CONFIG *pConfig, uint64_t bytes, uint32_t progress,
                             uint64_t *pTimeLast, ZEVO_BANDWIDTH_STATUS *pStatus) noexcept
{
    const CancelScope cancel;
    BW_REQUIRE(pConfig != nullptr, "((void *)0) != pConfig");
    BW_REQUIRE(pTimeLast != nullptr, "((void *)0) != pTimeLast");
    BW_REQUIRE(pStatus != nullptr, "NULL != pStatus");
    if (pConfig->globalConf.state == ZEVO_BW_STATE_NOT_EXISTED) return 0;

    const uint64_t nowUs = ::ZEVOBandwidthCurrTimeGet();
    if (!StaysLimitedBySchedule(*pConfig, nowUs)) {
        if (::ZEVOBandwidthStatusRemove(pConfig, pStatus->transfer_type) < 0)
            BW_LOG("(%u)(%d)===============> remove status failed",
                   static_cast<unsigned>(::getpid()), static_cast<int>(pStatus->transfer_type));
        return 0;
    }
    lastScheduleCheckUs.store(nowUs, std::memory_order_relaxed);
    if (!IsLimited(*pConfig)) {
        if (::ZEVOBandwidthStatusRemove(pConfig, pStatus->transfer_type) < 0)
            return BW_PASS("ZEVOBandwidthStatusRemove failed. uid:[%u] ", pStatus->id);
        return 0;
    }

    OccupiedGroups groups;
    if (const int limited = EstimateSpeed(pConfig, pStatus, groups); limited <= 0) return limited;
    const uint64_t endUs = Throttle(bytes, nowUs, *pTimeLast, *pStatus);
    pStatus->progress = progress;
    if (Publish(pConfig, pStatus, groups) < 0) return BW_PASS_UNLOGGED;
    *pTimeLast = endUs;
    return 0;
}
