// The fortified headers define some of these functions inline.
#undef _FORTIFY_SOURCE

#include "calls.hpp"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include <dlfcn.h>
#include <glob.h>
#include <syslog.h>
#include <unistd.h>

#include "row.hpp"
#include "zevocore.h"

namespace torture {
namespace {

constexpr std::uint64_t kRateKBps = 1024;
constexpr char kSection[] = "4711-1";

std::uint64_t logLines = 0;
std::uint64_t searches = 0;

ZEVO_BANDWIDTH_CONF Rule(std::int32_t ownerType, std::uint32_t id)
{
    ZEVO_BANDWIDTH_CONF rule = {};
    rule.id = id;
    rule.ownerType = ownerType;
    rule.protocolType = ZEVO_BW_PROTOCOL_FTP;
    rule.state = rule.currentState = ZEVO_BW_STATE_ENABLED;
    rule.uploadRate = rule.currentUploadRate = kRateKBps;
    return rule;
}

ZEVO_BANDWIDTH_GLOBAL_CONF Policy()
{
    ZEVO_BANDWIDTH_GLOBAL_CONF policy = {};
    policy.state = policy.currentState = ZEVO_BW_STATE_ENABLED;
    policy.protocolType = ZEVO_BW_PROTOCOL_FTP;
    policy.userGroupPolicy = ZEVO_BW_USER_GROUP_POLICY_MIN;
    policy.interGroupPolicy = ZEVO_BW_INTER_GROUP_POLICY_MAX;
    policy.occupyPolicy = ZEVO_BW_OCCUPY_POLICY_ALL;
    return policy;
}

class SectionHash {
public:
    explicit SectionHash(const ZEVO_BANDWIDTH_STATUS &status) : pHash_(VLIBCSzHashAlloc(64))
    {
        if (pHash_ == nullptr || ZEVOBandwidthInitHashFromStatus(&pHash_, &status) < 0)
            Die("no hash of a record");
    }
    ~SectionHash() { VLIBCSzHashFree(pHash_); }
    SectionHash(const SectionHash &) = delete;
    SectionHash &operator=(const SectionHash &) = delete;
    const VLIB_SZ_HASH *get() const { return pHash_; }

private:
    VLIB_SZ_HASH *pHash_;
};

void List(const char *szPath, std::int32_t merge)
{
    ZEVO_BANDWIDTH_STATUS *pList = nullptr;
    (void)ZEVOBandwidthIStatusGetAll(szPath, -1, ZEVO_BW_TRANSFER_ALL, &pList, merge);
    ZEVOBandwidthStatusListFree(&pList);
}

} // namespace

// Results are not asked for: whatever an attacker has planted, a failure is an answer.
const std::vector<PathCall> kPathCalls = {
    {"IStatusGetAll", [](Service &, const char *szPath) { List(szPath, 0); }},
    {"IStatusGetAll, merging", [](Service &, const char *szPath) { List(szPath, 1); }},
    {"StatusGetAll",
     [](Service &, const char *) {
         ZEVO_BANDWIDTH_STATUS *pList = nullptr;
         (void)ZEVOBandwidthStatusGetAll(ZEVO_BW_OWNER_GROUP, kUserGroup, ZEVO_BW_PROTOCOL_ALL,
                                         ZEVO_BW_TRANSFER_ALL, &pList);
         ZEVOBandwidthStatusListFree(&pList);
     }},
    {"IStatusGet",
     [](Service &service, const char *) {
         (void)ZEVOBandwidthIStatusGet(ZEVO_BW_OWNER_USER, kUser, kPlantedPid,
                                       ZEVO_BW_TRANSFER_UPLOAD, &service.status);
     }},
    {"StatusGet",
     [](Service &service, const char *) {
         (void)ZEVOBandwidthStatusGet(ZEVO_BW_OWNER_GROUP, kUserGroup, ZEVO_BW_TRANSFER_UPLOAD,
                                      &service.status);
     }},
    {"StatusSave",
     [](Service &service, const char *) {
         (void)ZEVOBandwidthStatusSave(kUser, nullptr, &service.status);
     }},
    {"StatusSave, with the group",
     [](Service &service, const char *) {
         (void)ZEVOBandwidthStatusSave(kUser, &service.config, &service.status);
     },
     true},
    {"StatusSetSection",
     [](Service &service, const char *szPath) {
         const SectionHash hash(service.status);
         (void)ZEVOBandwidthStatusSetSection(szPath, kSection, hash.get());
     }},
    {"StatusRemoveSection",
     [](Service &, const char *szPath) {
         (void)ZEVOBandwidthStatusRemoveSection(szPath, kSection);
     }},
    {"StatusAddSection",
     [](Service &service, const char *szPath) {
         const SectionHash hash(service.status);
         (void)ZEVOBandwidthStatusAddSection(szPath, kSection, hash.get());
     }},
    {"StatusRemove",
     [](Service &service, const char *) {
         (void)ZEVOBandwidthStatusRemove(&service.config, ZEVO_BW_TRANSFER_ALL);
     },
     true},
    {"StatusRemoveByOccGroups",
     [](Service &, const char *) {
         constexpr std::uint32_t kGroups[] = {kUserGroup};
         (void)ZEVOBandwidthStatusRemoveByOccGroups(kGroups, 1, ZEVO_BW_TRANSFER_ALL);
     }},
    {"StatusForceRemoveAllByUserName",
     [](Service &, const char *) {
         (void)ZEVOBandwidthStatusForceRemoveAllByUserName(kUserName, ZEVO_BW_TRANSFER_ALL,
                                                           kPlantedPid);
     },
     true},
    {"StatusForceRemoveAllByUID",
     [](Service &, const char *) {
         (void)ZEVOBandwidthStatusForceRemoveAllByUID(kUser, ZEVO_BW_TRANSFER_ALL);
     },
     true},
    {"StatusSetActiveByUserName",
     [](Service &, const char *) {
         (void)ZEVOBandwidthStatusSetActiveByUserName(kUserName, ZEVO_BW_TRANSFER_UPLOAD,
                                                      kPlantedPid, 0);
     }},
    {"StatusInit",
     [](Service &service, const char *) {
         (void)ZEVOBandwidthStatusInit(&service.config, ZEVO_BW_TRANSFER_UPLOAD, "/a file",
                                       &service.timeLast, &service.status);
     },
     true},
    {"SleepInLoop",
     [](Service &service, const char *) {
         (void)ZEVOBandwidthSleepInLoop(&service.config, 65'536, 1, &service.timeLast,
                                        &service.status);
     },
     true},
    {"ExpectSpeedEstimate",
     [](Service &, const char *) {
         const ZEVO_BANDWIDTH_CONF rule = Rule(ZEVO_BW_OWNER_USER, kUser);
         std::uint64_t speedBps = 0;
         (void)ZEVOBandwidthExpectSpeedEstimate(kUser, &rule, ZEVO_BW_TRANSFER_UPLOAD, &speedBps,
                                                getpid());
     }},
    {"ExpectSpeedEstimateByPolicy",
     [](Service &service, const char *) {
         std::uint64_t speedBps = 0;
         (void)ZEVOBandwidthExpectSpeedEstimateByPolicy(ZEVO_BW_TRANSFER_UPLOAD, &service.config,
                                                        &speedBps, 1);
     },
     true},
    {"HupRecv",
     [](Service &, const char *) {
         Service own; // its configuration is replaced by one that is to be released
         ZEVO_BANDWIDTH_CONFIG config = {};
         if (ZEVOBandwidthConfigGet(kUser, ZEVO_BW_PROTOCOL_FTP, &config) < 0) return;
         (void)ZEVOBandwidthHupRecv(&config, &own.status, &own.timeLast);
         ZEVOBandwidthConfigFree(&config);
     },
     true},
    {"Simulate",
     [](Service &, const char *) {
         (void)ZEVOBandwidthSimulate(kUserName, ZEVO_BW_PROTOCOL_FTP, ZEVO_BW_TRANSFER_UPLOAD, 64);
     },
     true},
};

Service::Service()
{
    limits[0].conf = Rule(ZEVO_BW_OWNER_USER, kUser);
    limits[1].conf = Rule(ZEVO_BW_OWNER_GROUP, kUserGroup);
    limits[1].maxSpeedBps = kRateKBps * 1024;
    limits[1].occupyWeight = 10'000;
    config.uid = kUser;
    config.pLimit = limits;
    config.iLimit = 2;
    config.blUserConfExist = config.blGroupConfExist = 1;
    config.globalConf = Policy();
    status.pid = getpid();
    status.id = status.uid = kUser;
    status.active = 1;
    status.timestamp = std::time(nullptr);
    status.current_speed = status.expect_speed = 1000;
    (void)std::snprintf(status.filename, sizeof(status.filename), "/a file");
    status.owner_type = ZEVO_BW_OWNER_USER;
    status.protocol_type = ZEVO_BW_PROTOCOL_FTP;
    status.transfer_type = ZEVO_BW_TRANSFER_UPLOAD;
    timeLast = ZEVOBandwidthCurrTimeGet();
}

std::uint64_t LogLines()
{
    return logLines;
}

std::uint64_t Searches()
{
    return searches;
}

void StoreRules()
{
    Service service;
    if (ZEVOBandwidthGlobalConfSet(&service.config.globalConf) < 0) Die("cannot store the policy");
    for (ZEVO_BANDWIDTH_LIMIT &limit : service.limits)
        if (ZEVOBandwidthConfSetByID(&limit.conf) < 0) Die("cannot store a rule");
}

} // namespace torture

// The program's definitions, which the dynamic linker prefers to libc's. Lines are put together, as
// libc would have to, and forgotten.

#pragma GCC visibility push(default)

void vsyslog(int, const char *szFormat, std::va_list arguments)
{
    ++torture::logLines;
    char *szLine = nullptr;
    if (::vasprintf(&szLine, szFormat, arguments) >= 0) std::free(szLine);
}

void syslog(int priority, const char *szFormat, ...)
{
    std::va_list arguments;
    va_start(arguments, szFormat);
    vsyslog(priority, szFormat, arguments);
    va_end(arguments);
}

// NOLINTNEXTLINE(bugprone-reserved-identifier): libc's own name for the fortified syslog
extern "C" [[gnu::format(printf, 3, 4)]] void __syslog_chk(int priority, int, const char *szFormat,
                                                           ...)
{
    std::va_list arguments;
    va_start(arguments, szFormat);
    vsyslog(priority, szFormat, arguments);
    va_end(arguments);
}

int glob(const char *szPattern, int flags, int (*onError)(const char *, int), glob_t *pGlob)
{
    static const auto real = reinterpret_cast<decltype(&::glob)>(::dlsym(RTLD_NEXT, "glob"));
    ++torture::searches;
    return real(szPattern, flags, onError, pGlob);
}

int usleep(useconds_t)
{
    return 0;
}

#pragma GCC visibility pop
