// The shared parts of the library's tests, and the test program's definitions of the platform's
// operations. They go through to the real ones until told otherwise.
#include "library_box.hpp"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <optional>
#include <set>
#include <utility>

#include <dlfcn.h>

namespace {

struct Platform {
    bool failHashAlloc = false;
    bool failListAlloc = false;
    std::optional<std::string> failingKey;
    std::optional<std::vector<std::string>> gids;
    Lines executed;
    bool readsApart = false;
    bool replacesHashes = false;
    std::vector<std::function<void()>> beforeReads;
};

std::mutex g_mutex;
Platform g_platform;
std::set<std::string> g_items; // of lists that were made here: a list does not free its items

// A child must not inherit the mutex from a thread that it does not have.
[[maybe_unused]] const int g_forkSafe =
    ::pthread_atfork([] { g_mutex.lock(); }, [] { g_mutex.unlock(); }, [] { g_mutex.unlock(); });

template <class Body> auto Locked(Body body)
{
    const std::lock_guard lock(g_mutex);
    return body(g_platform);
}

template <class Function> Function *Real(Function *, const char *szName)
{
    return reinterpret_cast<Function *>(::dlsym(RTLD_NEXT, szName));
}

#define REAL(name) Real(&::name, #name)

} // namespace

#ifdef __SANITIZE_THREAD__
// The child of a fork cannot join the threads of its parent, which the sanitizer holds against it.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the sanitizer's name
extern "C" __attribute__((visibility("default"))) const char *__tsan_default_options()
{
    return "report_thread_leaks=0";
}
#endif

void LibraryTest::SetUp()
{
    BoxTest::SetUp();
    ::setenv("TZ", "UTC0", 1);
    ::tzset();
    standins::SetClock(kNow * kUsPerSecond);
    Locked([](Platform &all) { all = {}; });
}

void LibraryTest::TearDown()
{
    Locked([](Platform &all) { all = {}; });
    BoxTest::TearDown();
}

void LibraryTest::SetPolicy(const std::string &state, const std::string &userGroup,
                            const std::string &plan)
{
    etc.Write("bandwidth.global.conf",
              "[ftp]\nstate=" + state + "\nuser-group policy=" + userGroup +
                  "\ninter-group policy=max\noccupy policy=max\nschedule plan=" + plan + "\n");
}

std::string LibraryTest::RuleText(const std::string &owner, uint64_t uploadKBps,
                                  uint64_t downloadKBps, const std::string &state)
{
    return "[" + owner + "]\nstate=" + state + "\nupload rate=" + std::to_string(uploadKBps) +
           "\ndownload rate=" + std::to_string(downloadKBps) + "\n";
}

namespace platform {

void FailNextHashAlloc()
{
    Locked([](Platform &all) { all.failHashAlloc = true; });
}

void FailNextListAlloc()
{
    Locked([](Platform &all) { all.failListAlloc = true; });
}

void FailHashSet(std::string key)
{
    Locked([&](Platform &all) { all.failingKey = std::move(key); });
}

void SetGroups(std::vector<std::string> gids)
{
    Locked([&](Platform &all) { all.gids = std::move(gids); });
}

void ReadSectionsApart(std::vector<std::function<void()>> actions)
{
    Locked([&](Platform &all) {
        all.readsApart = true;
        all.beforeReads = std::move(actions);
    });
}

void ReplaceHashes()
{
    Locked([](Platform &all) { all.replacesHashes = true; });
}

Lines Executed()
{
    return Locked([](Platform &all) { return all.executed; });
}

} // namespace platform

VLIB_SZ_HASH *VLIBCSzHashAlloc(int size) noexcept
{
    if (!Locked([](Platform &all) { return std::exchange(all.failHashAlloc, false); }))
        return REAL(VLIBCSzHashAlloc)(size);
    VLIBCErrSetEx(ZEVO_BW_ERROR_NO_MEMORY, "platform", 1);
    return nullptr;
}

VLIB_SZ_LIST *VLIBCSzListAlloc(int capacity) noexcept
{
    const bool fails =
        Locked([](Platform &all) { return std::exchange(all.failListAlloc, false); });
    return fails ? nullptr : REAL(VLIBCSzListAlloc)(capacity);
}

int VLIBCFileGetSection(const char *szPath, const char *szSection, VLIB_SZ_HASH **ppHash) noexcept
{
    std::function<void()> action;
    const bool isApart = Locked([&](Platform &all) {
        if (!all.beforeReads.empty()) {
            action = std::move(all.beforeReads.front());
            all.beforeReads.erase(all.beforeReads.begin());
        }
        return all.readsApart;
    });
    if (action) action();
    if (isApart) (void)VLIBCFileExist(szPath); // the platform keeps what it has listed no longer
    if (Locked([](Platform &all) { return all.replacesHashes; }))
        VLIBCSzHashFree(std::exchange(*ppHash, VLIBCSzHashAlloc(1024)));
    return REAL(VLIBCFileGetSection)(szPath, szSection, ppHash);
}

int VLIBCSzHashSetValue(VLIB_SZ_HASH **ppHash, const char *szKey, const char *szValue) noexcept
{
    if (!Locked([&](Platform &all) { return all.failingKey == szKey; }))
        return REAL(VLIBCSzHashSetValue)(ppHash, szKey, szValue);
    VLIBCErrSetEx(ZEVO_BW_ERROR_NO_MEMORY, "platform", 1);
    return -1;
}

VLIB_SZ_LIST *VLIBGroupInfoListGet(const char *szUserName, int flags) noexcept
{
    const auto gids = Locked([](Platform &all) { return all.gids; });
    if (!gids) return REAL(VLIBGroupInfoListGet)(szUserName, flags);
    if (gids->empty()) {
        VLIBCErrSetEx(ZEVO_BW_ERROR_NOT_THERE, "platform", 1);
        return nullptr;
    }
    VLIB_SZ_LIST *const pList = VLIBCSzListAlloc(0);
    pList->ppszItem = static_cast<char **>(
        std::realloc(static_cast<void *>(pList->ppszItem), gids->size() * sizeof(char *)));
    for (const std::string &gid : *gids)
        pList->ppszItem[pList->nItem++] = Locked(
            [&](Platform &) { return const_cast<char *>(g_items.insert(gid).first->c_str()); });
    pList->nCapacity = pList->nItem;
    return pList;
}

int VLIBCExec(const char *szProgram, const char *szArg1, const char *szArg2, const char *szArg3,
              const char *szArg4) noexcept
{
    std::string words = szProgram;
    for (const char *const szArg : {szArg1, szArg2, szArg3, szArg4}) {
        if (szArg == nullptr) break;
        words.append(" ").append(szArg);
    }
    Locked([&](Platform &all) { all.executed.push_back(words); });
    return 7;
}

std::string FiledTransfer::Name() const
{
    return std::to_string(pid) + (transfer == "upload" ? "-1" : "-2");
}

std::string FiledTransfer::Text() const
{
    return "[" + Name() + "]\npid=" + std::to_string(pid) + "\nid=" + std::to_string(id) +
           "\nuid=" + std::to_string(uid) + "\nactive=" + std::to_string(active) +
           "\ncurrent speed=" + std::to_string(speed) + "\nexpect speed=" + std::to_string(expect) +
           "\nfilename=/a file\nowner type=" + owner + "\nprotocol type=" + protocol +
           "\ntransfer type=" + transfer + "\nprogress=" + std::to_string(progress) +
           "\ntimestamp=" + std::to_string(timestamp) + "\n";
}

ZEVO_BANDWIDTH_STATUS Record(const FiledTransfer &transfer)
{
    ZEVO_BANDWIDTH_STATUS status = {};
    status.pid = transfer.pid;
    status.id = transfer.id;
    status.uid = transfer.uid;
    status.active = transfer.active;
    status.timestamp = transfer.timestamp;
    status.current_speed = transfer.speed;
    status.expect_speed = transfer.expect;
    std::snprintf(status.filename, sizeof(status.filename), "/a file");
    status.owner_type = transfer.owner == "user" ? ZEVO_BW_OWNER_USER : ZEVO_BW_OWNER_GROUP;
    status.protocol_type = static_cast<uint32_t>(
        ZEVOBandwidthEnumToValue(ZEVO_BW_PROTOCOL_TYPE_LIST, transfer.protocol.c_str()));
    status.transfer_type =
        transfer.transfer == "upload" ? ZEVO_BW_TRANSFER_UPLOAD : ZEVO_BW_TRANSFER_DOWNLOAD;
    status.progress = transfer.progress;
    return status;
}

ZEVO_BANDWIDTH_LIMIT Limit(int32_t ownerType, uint32_t id, uint64_t rateKBps)
{
    ZEVO_BANDWIDTH_LIMIT limit = {};
    limit.conf.id = id;
    limit.conf.ownerType = ownerType;
    limit.conf.protocolType = ZEVO_BW_PROTOCOL_FTP;
    limit.conf.state = limit.conf.currentState = ZEVO_BW_STATE_ENABLED;
    limit.conf.uploadRate = limit.conf.currentUploadRate = rateKBps;
    return limit;
}

std::string FirstLine()
{
    const Lines lines = standins::TakeLog();
    return lines.empty() ? "" : lines.front();
}

std::string LastLine()
{
    const Lines lines = standins::TakeLog();
    return lines.empty() ? "" : lines.back();
}

void ExpectFails(int result, const std::string &family, const std::string &text,
                 const char *szCaller, int callerLine)
{
    const testing::ScopedTrace trace(szCaller, callerLine, text);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(LastLine(), "bandwidth_" + family + ".cpp:# " + text);
}

Lines Told(const std::string &file, const Lines &texts)
{
    Lines lines;
    for (const std::string &text : texts)
        lines.push_back(file + ":# " + text);
    return lines;
}

Lines Refusals(const std::string &file, Lines texts)
{
    for (std::string &text : texts)
        text = "Invaild Argument (" + text + ")=[0]\n";
    return Told(file, texts);
}
