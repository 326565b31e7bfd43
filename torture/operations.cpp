#include "operations.hpp"

#include <cstdlib>
#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <sys/stat.h>

#include "row.hpp"

namespace fs = std::filesystem;

namespace torture {

namespace {

constexpr char kRuleDirectory[] = "/usr/zevo/etc/bandwidth";
constexpr char kFtpFile[] = "/usr/zevo/etc/bandwidth/bandwidth.ftp.conf";
constexpr char kLeftover[] = "/tmp/bandwidth/user-2001.AbCdEf";
constexpr char kPidFile[] = "/run/httpd/httpd-webdav.pid";
constexpr char kOtherPidFile[] = "/run/other.pid";
constexpr std::uint32_t kBob = 2002;
constexpr std::uint32_t kCarol = 2003;
constexpr std::uint32_t kGuests = 3002;
constexpr int kFtp = ZEVO_BW_PROTOCOL_FTP;
constexpr int kUp = ZEVO_BW_TRANSFER_UPLOAD;
constexpr int kDown = ZEVO_BW_TRANSFER_DOWNLOAD;
constexpr int kHashSize = 64;
constexpr pid_t kOtherPid = 12345;
constexpr std::uint64_t kBlockBytes = 65'536;
constexpr std::int64_t kUsPerSecond = 1'000'000;

// ---- the scene ----

struct SceneTransfer {
    const char *szFile;
    const char *szOwner;
    std::uint32_t id;
    std::uint32_t uid;
    int pid; // 0: the caller's
    int direction;
    bool isStale;
    const char *szNote;
};

constexpr SceneTransfer kTransfers[] = {
    {kAlicesFile, "user", kAlice, kAlice, 100, kUp, false, "# a note on the first one\n"},
    {kAlicesFile, "user", kAlice, kAlice, 0, kUp, false, "; a note on ours\n"},
    {kAlicesFile, "user", kAlice, kAlice, 101, kDown, false, "\n"},
    {kStaffFile, "group", kStaff, kBob, 102, kUp, false, "# bob's\n"},
    {kStaffFile, "group", kStaff, kAlice, 0, kUp, false, ""},
    {"/tmp/bandwidth/group-3002", "group", kGuests, kCarol, 103, kUp, false, "\n\n"},
};

std::string SectionText(const SceneTransfer &transfer, std::int64_t now, int ownPid)
{
    const std::string pid = std::to_string(transfer.pid == 0 ? ownPid : transfer.pid);
    const std::string stamp = std::to_string(transfer.isStale ? now - 1000 : now);
    return "[" + pid + "-" + std::to_string(transfer.direction) + "]\npid=" + pid +
           "\nid=" + std::to_string(transfer.id) + "\nuid=" + std::to_string(transfer.uid) +
           "\nactive=1\ntimestamp=" + stamp + "\ncurrent speed=7000\nexpect speed=8000\n" +
           "filename=/of/" + pid + "\nowner type=" + transfer.szOwner + "\nprotocol type=ftp\n" +
           "transfer type=" + (transfer.direction == kUp ? "upload" : "download") +
           "\nprogress=50\n" + transfer.szNote;
}

constexpr char kRules[] =
    "# of all owners\n"
    "[user-2001]\nid=2001\nstate=enabled\nprotocol type=ftp\nowner type=user\n"
    "upload rate=64000\ndownload rate=64000\n# alice's\n\n"
    "[group-3001]\nid=3001\nstate=enabled\nprotocol type=ftp\n"
    "owner type=group\nupload rate=70000\ndownload rate=70000\n\n"
    "[group-3002]\nid=3002\nstate=enabled\nprotocol type=ftp\n"
    "owner type=group\nupload rate=80000\ndownload rate=80000\n";
constexpr char kPolicies[] = "[webdav]\nstate=enabled\nprotocol type=webdav\n\n"
                             "[ftp]\nstate=enabled\nprotocol type=ftp\nuser-group policy=min\n"
                             "inter-group policy=max\noccupy policy=all\n";

void Append(const char *szFile, const std::string &text)
{
    WriteFile(szFile, ReadFile(szFile) + text);
}

// ---- stages ----

std::int64_t g_now = 0; // of the last scene
int g_pid = 0;

void StageStale()
{
    constexpr SceneTransfer kStale[] = {
        {kAlicesFile, "user", kAlice, kAlice, 110, kUp, true, "# of one that died\n"},
        {kAlicesFile, "user", kAlice, kAlice, 111, kDown, true, ""},
        {kAlicesFile, "user", kAlice, kAlice, 112, kDown, false, ""},
    };
    for (const SceneTransfer &transfer : kStale)
        Append(kAlicesFile, SectionText(transfer, g_now, g_pid));
}

void StageLeftover()
{
    WriteFile(kLeftover, "[4711-1]\nhalf a fi");
    const struct timespec times[2] = {{1000, 0}, {1000, 0}};
    if (::utimensat(AT_FDCWD, kLeftover, times, 0) < 0) Die("cannot date %s", kLeftover);
}

void StageNoFiles()
{
    fs::remove_all(kStatusDirectory);
    fs::remove_all(kRuleDirectory);
}

void StageStopped()
{
    std::string text = ReadFile(kAlicesFile);
    const std::string own = "[" + std::to_string(g_pid) + "-1]";
    const std::size_t at = text.find("active=1", text.find(own));
    if (at == std::string::npos) Die("no such section in the scene");
    text[at + std::strlen("active=")] = '0';
    WriteFile(kAlicesFile, text);
}

void StagePolicyOff()
{
    WriteFile("/usr/zevo/etc/bandwidth/bandwidth.global.conf",
              "[ftp]\nstate=disabled\nprotocol type=ftp\n");
}

void StageTornTail()
{
    std::string text = ReadFile(kStaffFile);
    text.resize(text.find("[" + std::to_string(g_pid)));
    WriteFile(kStaffFile, text + "[999-1]\npid=99");
}

} // namespace

void StageScene(std::int64_t now, int pid)
{
    g_now = now;
    g_pid = pid;
    const std::string addons = std::string(kRuleDirectory) + "/addon";
    fs::remove_all(kStatusDirectory);
    fs::remove_all(kRuleDirectory);
    fs::create_directories(kStatusDirectory);
    fs::permissions(kStatusDirectory, fs::perms{0777});
    fs::create_directories(addons);
    fs::create_directories("/run/httpd");
    std::map<std::string, std::string> texts;
    for (const SceneTransfer &transfer : kTransfers)
        texts[transfer.szFile] += SectionText(transfer, now, pid);
    texts[kFtpFile] = kRules;
    texts["/usr/zevo/etc/bandwidth/bandwidth.global.conf"] = kPolicies;
    texts[addons + "/" + kAddonName + "_" + std::to_string(kAddon) + ".json"] = "{}";
    texts[kPidFile] = "4000000\n"; // above every process id
    texts[kOtherPidFile] = std::to_string(kOtherPid) + "\n";
    for (const auto &[path, text] : texts)
        WriteFile(path, text);
}

Texts SceneFiles()
{
    Texts files;
    for (const char *const szDirectory : {kStatusDirectory, kRuleDirectory}) {
        std::error_code ignored;
        if (!fs::exists(szDirectory)) continue;
        files[szDirectory] = "(directory)";
        for (const auto &entry : fs::recursive_directory_iterator(szDirectory, ignored))
            files[entry.path()] =
                entry.is_directory() ? "(directory)" : ReadFile(entry.path().string());
    }
    return files;
}

// ---- the memory ----

namespace {

ZEVO_BANDWIDTH_LIMIT Limit(int ownerType, std::uint32_t id, std::uint64_t rateKBps)
{
    ZEVO_BANDWIDTH_LIMIT limit = {};
    limit.conf.id = id;
    limit.conf.ownerType = ownerType;
    limit.conf.protocolType = kFtp;
    limit.conf.state = limit.conf.currentState = ZEVO_BW_STATE_ENABLED;
    limit.conf.uploadRate = limit.conf.currentUploadRate = rateKBps;
    limit.conf.downloadRate = limit.conf.currentDownloadRate = rateKBps;
    limit.occupyWeight = ownerType == ZEVO_BW_OWNER_GROUP ? 10'000 : 0;
    limit.maxSpeedBps = 5'000;
    return limit;
}

ZEVO_BANDWIDTH_CONFIG Config()
{
    ZEVO_BANDWIDTH_CONFIG config = {};
    config.uid = kAlice;
    config.iLimit = 3;
    config.blUserConfExist = config.blGroupConfExist = 1;
    config.globalConf.state = config.globalConf.currentState = ZEVO_BW_STATE_ENABLED;
    config.globalConf.protocolType = kFtp;
    config.globalConf.userGroupPolicy = ZEVO_BW_USER_GROUP_POLICY_MIN;
    config.globalConf.interGroupPolicy = ZEVO_BW_INTER_GROUP_POLICY_MAX;
    config.globalConf.occupyPolicy = ZEVO_BW_OCCUPY_POLICY_ALL;
    config.pLimit = static_cast<ZEVO_BANDWIDTH_LIMIT *>(
        std::calloc(static_cast<std::size_t>(config.iLimit), sizeof(ZEVO_BANDWIDTH_LIMIT)));
    if (config.pLimit == nullptr) Die("no memory");
    config.pLimit[0] = Limit(ZEVO_BW_OWNER_USER, kAlice, 64'000);
    config.pLimit[1] = Limit(ZEVO_BW_OWNER_GROUP, kStaff, 70'000);
    config.pLimit[2] = Limit(ZEVO_BW_OWNER_GROUP, kGuests, 80'000);
    return config;
}

std::string TextOf(const ZEVO_BANDWIDTH_CONFIG &config)
{
    std::string text = std::to_string(config.uid) + "/" + std::to_string(config.globalConf.state);
    for (std::int32_t i = 0; i < config.iLimit; ++i)
        text += " " + std::to_string(config.pLimit[i].conf.id) + ":" +
                std::to_string(config.pLimit[i].conf.currentUploadRate) + ":" +
                std::to_string(config.pLimit[i].occupyWeight) + ":" +
                std::to_string(config.pLimit[i].maxSpeedBps);
    return text + "\n";
}

std::string TextOf(const ZEVO_BANDWIDTH_STATUS &status)
{
    std::string text = status.filename;
    for (const std::uint64_t number :
         {std::uint64_t{static_cast<std::uint32_t>(status.pid)}, std::uint64_t{status.id},
          std::uint64_t{status.uid}, std::uint64_t{status.active},
          static_cast<std::uint64_t>(status.timestamp), status.current_speed, status.expect_speed,
          std::uint64_t{status.owner_type}, std::uint64_t{status.protocol_type},
          std::uint64_t{status.transfer_type}, std::uint64_t{status.progress}})
        text += " " + std::to_string(number);
    return text + "\n";
}

} // namespace

std::string SectionText(const char *szName, const VLIB_SZ_HASH *pHash)
{
    char *pText = nullptr;
    std::size_t cbText = 0;
    std::FILE *const pStream = ::open_memstream(&pText, &cbText);
    if (pStream == nullptr || VLIBCFileHash2File(pStream, szName, pHash, 0) < 0)
        Die("no section's text");
    std::fclose(pStream);
    const std::string text(pText, cbText);
    std::free(pText);
    return text;
}

ZEVO_BANDWIDTH_STATUS AlicesUpload(int pid, std::int64_t now)
{
    ZEVO_BANDWIDTH_STATUS status = {};
    status.pid = pid;
    status.id = status.uid = kAlice;
    status.active = 1;
    status.timestamp = now;
    status.owner_type = ZEVO_BW_OWNER_USER;
    status.protocol_type = kFtp;
    status.transfer_type = kUp;
    return status;
}

Scratch::Scratch(int pidOfSections, std::int64_t now)
    : pid(pidOfSections), config(Config()), otherConfig(Config()),
      pHash(VLIBCSzHashAlloc(kHashSize)), pOtherHash(VLIBCSzHashAlloc(kHashSize)),
      pNames(VLIBCSzListAlloc(4)), pStream(std::fopen("/dev/null", "w"))
{
    rule = config.pLimit[0].conf;
    rule.uploadRate = 4321;
    policy = config.globalConf;
    policy.userGroupPolicy = ZEVO_BW_USER_GROUP_POLICY_SUM;
    status = AlicesUpload(pid, now);
    status.current_speed = 1001;
    status.expect_speed = 2002;
    status.progress = 77;
    std::strcpy(status.filename, "/a file");
    timeUs = static_cast<std::uint64_t>((now - 10) * kUsPerSecond);
    if (pHash == nullptr || pOtherHash == nullptr || pNames == nullptr || pStream == nullptr ||
        ZEVOBandwidthInitHashFromStatus(&pHash, &status) < 0)
        Die("cannot make the memory of an operation");
    std::setvbuf(pStream, streamBuffer, _IOFBF, sizeof(streamBuffer));
}

Scratch::~Scratch()
{
    (void)VLIBCFileEnumSection("/tmp/no such file", &pNames); // ends a listing left halfway
    ZEVOBandwidthConfigFree(&config);
    ZEVOBandwidthConfigFree(&otherConfig);
    ZEVOBandwidthStatusListFree(&pList);
    std::free(pLimits);
    VLIBCSzHashFree(pHash);
    VLIBCSzHashFree(pOtherHash);
    VLIBCSzListFree(pNames);
    VLIBCSzListFree(pGids);
    ZEVOUserFree(pUser);
    ZEVOGroupFree(pGroup);
    std::fclose(pStream);
}

std::string Scratch::Given() const
{
    std::string given = TextOf(config) + TextOf(otherConfig) + TextOf(status) +
                        TextOf(otherStatus) + SectionText("s", pHash) +
                        SectionText("s", pOtherHash) + text + "\n";
    for (const ZEVO_BANDWIDTH_STATUS *p = pList; p != nullptr; p = p->next)
        given += TextOf(*p);
    for (const std::uint64_t speed : speeds)
        given += std::to_string(speed) + " ";
    given += std::to_string(timeUs) + " " + std::to_string(pLimits != nullptr) + " " +
             std::to_string(flags[0]) + std::to_string(flags[1]) + " " +
             std::to_string(rule.uploadRate) + " " + std::to_string(rule.state) + " " +
             std::to_string(policy.userGroupPolicy) + " " + std::to_string(policy.state) + "\n";
    for (std::int32_t i = 0; i < groupCount; ++i)
        given += std::to_string(groups[i]) + " ";
    for (const VLIB_SZ_LIST *const pTexts : {pNames, pGids})
        for (std::int32_t i = 0; pTexts != nullptr && i < pTexts->nItem; ++i)
            given += std::string(VLIBCSzListGet(pTexts, i)) + " ";
    if (pUser != nullptr) given += pUser->szName;
    if (pGroup != nullptr) given += pGroup->szName;
    return given + "\n" + streamBuffer;
}

// ---- the operations ----

namespace {

constexpr std::uint32_t kGroups[] = {kStaff, kGuests};

int List(Scratch &s, const char *szFile, int merge)
{
    return ZEVOBandwidthIStatusGetAll(szFile, ZEVO_BW_PROTOCOL_ALL, ZEVO_BW_TRANSFER_ALL, &s.pList,
                                      merge);
}

int Loop(Scratch &s)
{
    return ZEVOBandwidthSleepInLoop(&s.config, kBlockBytes, 88, &s.timeUs, &s.status);
}

template <class Container>
int MakeAndFree(Container *(*pMake)(int) noexcept, void (*pFree)(Container *) noexcept)
{
    Container *const pMade = pMake(kHashSize);
    pFree(pMade);
    return pMade == nullptr ? -1 : 0;
}

} // namespace

// A single call, of the scratch s.
#define RUN(...) []([[maybe_unused]] Scratch &s) { return __VA_ARGS__; }

// clang-format off
const std::vector<Operation> kOperations = {
    // names, add-ons and paths
    {"EnumToName",
     RUN(ZEVOBandwidthEnumToName(ZEVO_BW_PROTOCOL_TYPE_LIST, kAddon, s.text, sizeof(s.text))),
     kRemembers},
    {"EnumToValue",
     RUN(ZEVOBandwidthEnumToValue(ZEVO_BW_PROTOCOL_TYPE_LIST, kAddonName)), kRemembers},
    {"EnumToNameAddon",
     RUN(ZEVOBandwidthEnumToNameAddon(kAddon, s.text, sizeof(s.text))), kRemembers},
    {"EnumToValueAddon", RUN(ZEVOBandwidthEnumToValueAddon(kAddonName)), kRemembers},
    {"GetAddonConfigPath",
     RUN(ZEVOBandwidthGetAddonConfigPath(kAddon, s.text, sizeof(s.text))), kRemembers},
    {"ConfPath", RUN(ZEVOBandwidthConfPath(kAddon, s.text, sizeof(s.text))), kRemembers},
    // records and hashes
    {"InitHashFromConf", RUN(ZEVOBandwidthInitHashFromConf(&s.pOtherHash, &s.rule)), kSilent},
    {"InitConfFromHash", RUN(ZEVOBandwidthInitConfFromHash(&s.rule, s.pHash))},
    {"InitHashFromGlobalConf",
     RUN(ZEVOBandwidthInitHashFromGlobalConf(&s.pOtherHash, &s.policy)), kSilent},
    {"InitGlobalConfFromHash", RUN(ZEVOBandwidthInitGlobalConfFromHash(&s.policy, s.pHash))},
    {"InitHashFromStatus", RUN(ZEVOBandwidthInitHashFromStatus(&s.pOtherHash, &s.status)), kSilent},
    {"InitStatusFromHash", RUN(ZEVOBandwidthInitStatusFromHash(&s.otherStatus, s.pHash))},
    // rules and policies
    {"ConfGetByID", RUN(ZEVOBandwidthConfGetByID(ZEVO_BW_OWNER_USER, kAlice, kFtp, &s.rule))},
    {"ConfSetByID", RUN(ZEVOBandwidthConfSetByID(&s.rule))},
    {"ConfSetByID, a new section", RUN((s.rule.id = kBob, ZEVOBandwidthConfSetByID(&s.rule)))},
    {"ConfSetByID, a new file", RUN(ZEVOBandwidthConfSetByID(&s.rule)), 0, StageNoFiles},
    {"GlobalConfGet", RUN(ZEVOBandwidthGlobalConfGet(kFtp, &s.policy)), kSilent},
    {"GlobalConfSet", RUN(ZEVOBandwidthGlobalConfSet(&s.policy))},
    {"GlobalConfSet, a new file", RUN(ZEVOBandwidthGlobalConfSet(&s.policy)), 0, StageNoFiles},
    {"ConfDumpHeader", RUN(ZEVOBandwidthConfDumpHeader(s.pStream))},
    {"ConfDump", RUN(ZEVOBandwidthConfDump(s.pStream, &s.rule))},
    {"ConfDump of a group", RUN(ZEVOBandwidthConfDump(s.pStream, &s.config.pLimit[1].conf))},
    {"GlobalConfDumpHeader", RUN(ZEVOBandwidthGlobalConfDumpHeader(s.pStream))},
    {"GlobalConfDump", RUN(ZEVOBandwidthGlobalConfDump(s.pStream, &s.policy))},
    // effective configuration
    {"ConfigGet",
     RUN((ZEVOBandwidthConfigFree(&s.config), ZEVOBandwidthConfigGet(kAlice, kFtp, &s.config)))},
    {"LimitInit", RUN(ZEVOBandwidthLimitInit(kAlice, &s.config.globalConf, &s.pLimits, &s.flags[0],
     &s.flags[1]))},
    {"InitConfig", RUN((s.config.pLimit[0].conf.state = ZEVO_BW_STATE_SCHEDULE,
                        ZEVOBandwidthInitConfig(&s.config, 0))), kBlind},
    {"IsUserGroupLimitEnable", RUN(ZEVOBandwidthIsUserGroupLimitEnable(&s.config))},
    {"ConfCheckEnabled", RUN(ZEVOBandwidthConfCheckEnabled(&s.config))},
    {"OccGroupsGet", RUN(ZEVOBandwidthOccGroupsGet(s.groups, &s.groupCount, &s.config))},
    {"ExpectSpeedEstimate",
     RUN(ZEVOBandwidthExpectSpeedEstimate(kAlice, &s.rule, kUp, s.speeds, s.pid)),
     kOpens | kLists | kTells},
    {"ExpectSpeedEstimateByPolicy",
     RUN(ZEVOBandwidthExpectSpeedEstimateByPolicy(kUp, &s.config, s.speeds, 1)),
     kOpensBoth | kLists | kTells},
    // status files
    {"StatusSave", RUN(ZEVOBandwidthStatusSave(kAlice, &s.config, &s.status)), kOpensBoth | kTorn},
    {"StatusSave, new files",
     RUN(ZEVOBandwidthStatusSave(kAlice, &s.config, &s.status)), kTorn, StageNoFiles},
    {"StatusSetSection",
     RUN(ZEVOBandwidthStatusSetSection(kAlicesFile, "100-1", s.pHash)), kOpens | kSilent},
    {"StatusSetSection, absent",
     RUN(ZEVOBandwidthStatusSetSection(kAlicesFile, "1-1", s.pHash)), kSilent},
    {"StatusRemoveSection",
     RUN(ZEVOBandwidthStatusRemoveSection(kAlicesFile, "100-1")), kOpens | kSilent},
    {"StatusAddSection",
     RUN(ZEVOBandwidthStatusAddSection(kAlicesFile, "1-1", s.pHash)), kOpens | kMute | kTorn},
    {"StatusAddSection, a torn tail",
     RUN(ZEVOBandwidthStatusAddSection(kStaffFile, "1-1", s.pHash)), kMute | kTorn, StageTornTail},
    {"StatusAddSection, a new file",
     RUN(ZEVOBandwidthStatusAddSection("/tmp/bandwidth/user-2004", "1-1", s.pHash)), kMute | kTorn},
    {"IStatusGetAll", RUN(List(s, kAlicesFile, 0)), kOpens | kLists | kSilent | kTells},
    {"IStatusGetAll, merged", RUN(List(s, kAlicesFile, 1)),
     kOpens | kLists | kSilent | kTells},
    {"IStatusGetAll, stale ones", RUN(List(s, kAlicesFile, 0)), kSilent | kTells, StageStale},
    {"IStatusGetAll, a leftover", RUN(List(s, kLeftover, 0)), kBlind, StageLeftover},
    {"StatusGetAll",
     RUN(ZEVOBandwidthStatusGetAll(ZEVO_BW_OWNER_GROUP, kStaff, ZEVO_BW_PROTOCOL_ALL,
                                   ZEVO_BW_TRANSFER_ALL, &s.pList)),
     kOpens | kLists | kSilent | kTells},
    {"IStatusGet",
     RUN(ZEVOBandwidthIStatusGet(ZEVO_BW_OWNER_USER, kAlice, 100, kUp, &s.otherStatus)),
     kOpens | kSilent},
    {"StatusGet", RUN(ZEVOBandwidthStatusGet(ZEVO_BW_OWNER_USER, kAlice, kUp, &s.otherStatus)),
     kOpens | kSilent},
    {"StatusDump", RUN(ZEVOBandwidthStatusDump(s.pStream, &s.status))},
    {"StatusDump of a group's", RUN((s.status.owner_type = ZEVO_BW_OWNER_GROUP,
                                     s.status.id = kStaff,
                                     ZEVOBandwidthStatusDump(s.pStream, &s.status)))},
    {"StatusRemove", RUN(ZEVOBandwidthStatusRemove(&s.config, ZEVO_BW_TRANSFER_ALL)), kOpensBoth},
    {"StatusRemoveByOccGroups",
     RUN(ZEVOBandwidthStatusRemoveByOccGroups(kGroups, 2, ZEVO_BW_TRANSFER_ALL)), kOpens},
    {"StatusForceRemoveAllByUserName",
     RUN(ZEVOBandwidthStatusForceRemoveAllByUserName("alice", ZEVO_BW_TRANSFER_ALL, s.pid)),
     kOpensBoth},
    {"StatusForceRemoveAllByUID",
     RUN(ZEVOBandwidthStatusForceRemoveAllByUID(kAlice, ZEVO_BW_TRANSFER_ALL)), kOpensBoth},
    {"StatusSetActiveByUserName",
     RUN(ZEVOBandwidthStatusSetActiveByUserName("alice", kUp, 100, 0)), kOpens | kTorn},
    // the life of a transfer
    {"StatusInit", RUN(ZEVOBandwidthStatusInit(&s.config, kUp, "/some/file", &s.timeUs, &s.status)),
     kOpensBoth | kLists | kTells | kTorn},
    {"TransferSizeEstimate",
     RUN(ZEVOBandwidthTransferSizeEstimate(&s.config, kUp, kBlockBytes, s.speeds))},
    {"SleepInLoop", RUN((s.timeUs += 10 * kUsPerSecond - 100, Loop(s))),
     kOpensBoth | kLists | kTells | kTorn},
    {"SleepInLoop, new files", RUN(Loop(s)), kTells | kTorn, StageNoFiles},
    {"SleepInLoop, stopped", RUN(Loop(s)), kTells | kTorn | kSilent | kGoesOn, StageStopped},
    {"SleepInLoop, no longer limited",
     RUN((s.config.globalConf.state = s.config.globalConf.currentState = ZEVO_BW_STATE_DISABLED,
     Loop(s)))},
    {"CurrTimeGet", RUN((s.timeUs = ZEVOBandwidthCurrTimeGet(), 0))},
    {"the functions that only calculate",
     RUN((s.speeds[0] = ZEVOBandwidthSpeedEstimate(200'000, 65'536),
          s.speeds[1] = ZEVOBandwidthSum(1, 2),
          static_cast<int>(ZEVOBandwidthSleepEstimate(200'000, 65'536, 65'536)) +
              ZEVOBandwidthIsLessThan(1, 2) + ZEVOBandwidthIsLargerThan(1, 2)))},
    // notices
    {"HupDocuhall", RUN((ZEVOBandwidthHupDocuhall(), 0)), kBlind},
    {"HupWebDAV", RUN(ZEVOBandwidthHupWebDAV()), kBlind},
    {"HupSimulator", RUN(ZEVOBandwidthHupSimulator()), kSilent},
    {"HupRecv", RUN(ZEVOBandwidthHupRecv(&s.config, &s.status, &s.timeUs)), kOpensBoth},
    {"HupRecv, no longer limited",
     RUN(ZEVOBandwidthHupRecv(&s.config, &s.status, &s.timeUs)), kTells | kSilent, StagePolicyOff},
    // preview and simulation
    {"Preview", RUN(ZEVOBandwidthPreview(kAlice, kFtp, s.speeds))},
    {"Simulate",
     RUN(ZEVOBandwidthSimulate("alice", kFtp, kUp, 64)),
     kOpensBoth | kLists | kTells | kTorn | kAlone},
    // the platform's
    {"VLIBCSzHashSetValue",
     RUN(VLIBCSzHashSetValue(&s.pOtherHash, "a key", "a value that is not so short")), kSilent},
    {"VLIBCSzHashAlloc", RUN(MakeAndFree(VLIBCSzHashAlloc, VLIBCSzHashFree)), kSilent},
    {"VLIBCSzListAlloc", RUN(MakeAndFree(VLIBCSzListAlloc, VLIBCSzListFree)), kSilent},
    {"VLIBCFileGetSection",
     RUN(VLIBCFileGetSection(kFtpFile, "user-2001", &s.pOtherHash)), kSilent},
    {"VLIBCFileSetSection",
     RUN(VLIBCFileSetSection(kFtpFile, "user-2001", nullptr, s.pHash, 0)), kSilent},
    {"VLIBCFileAddSection", RUN(VLIBCFileAddSection(kFtpFile, "user-2002", s.pHash, 0)), kSilent},
    {"VLIBCFileRemoveSection", RUN(VLIBCFileRemoveSection(kAlicesFile, "100-1")), kSilent},
    {"VLIBCFileEnumSection",
     RUN(VLIBCFileEnumSection(kAlicesFile, &s.pNames)), kSilent | kRemembers},
    {"VLIBCFileHash2File", RUN(VLIBCFileHash2File(s.pStream, "a section", s.pHash, 0)), kSilent},
    {"VLIBCFileExist", RUN(VLIBCFileExist(kAlicesFile))},
    {"VLIBCFileTouch", RUN(VLIBCFileTouch("/tmp/bandwidth/new")), kSilent},
    {"ZEVOFSMkdirP", RUN(ZEVOFSMkdirP("/tmp/bandwidth/a/b/c", 0, 1, 0, 0, -1)), kSilent},
    {"VLIBCExec", RUN(VLIBCExec("/bin/true", "an argument", nullptr, nullptr, nullptr)), kSilent},
    {"VLIBCReadPidFile", RUN(VLIBCReadPidFile(kOtherPidFile) == kOtherPid ? 1 : -1), kMute},
    {"VLIBGroupInfoListGet",
     RUN((s.pGids = VLIBGroupInfoListGet("alice", 0), s.pGids == nullptr ? -1 : 0)), kSilent},
    {"ZEVOUserGet", RUN(ZEVOUserGet("alice", &s.pUser)), kSilent},
    {"ZEVOUserGetByUID", RUN(ZEVOUserGetByUID(kAlice, &s.pUser)), kSilent},
    {"ZEVOUserGetUGID", RUN(ZEVOUserGetUGID("alice", &s.flags[0], &s.flags[1])), kSilent},
    {"ZEVOGroupGetByGID", RUN(ZEVOGroupGetByGID(kStaff, &s.pGroup)), kSilent},
};
// clang-format on

std::vector<const Operation *> OpeningOperations()
{
    std::vector<const Operation *> opening;
    for (const Operation &operation : kOperations)
        if ((operation.waivers & (kOpens | kOpensBoth)) != 0) opening.push_back(&operation);
    return opening;
}

} // namespace torture
