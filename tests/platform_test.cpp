// What else the platform offers: containers, the error slot, running programs, pid files, the user
// database and directories.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "box.hpp"
#include "stand_ins.hpp"
#include "zevocore.h"
#include "zevosdk.h"

using standins::Call;
using testing::UnorderedElementsAre;

namespace {

TEST(StringHash, ValuesStayWhereTheyAreUntilTheyAreReplacedOrTheHashIsEmptied)
{
    constexpr int kKeys = 20'000;
    VLIB_SZ_HASH *pHash = VLIBCSzHashAlloc(1024);
    std::vector<const char *> values;
    for (int round = 0; round < 2; ++round) {
        values.clear();
        for (int i = 0; i < kKeys; ++i) {
            const std::string key = "key " + std::to_string(i);
            ASSERT_EQ(VLIBCSzHashSetValue(&pHash, key.c_str(), std::to_string(i).c_str()), 0);
            values.push_back(VLIBCSzHashGetValue(pHash, key.c_str()));
        }
        for (int i = 0; i < kKeys; ++i) {
            ASSERT_EQ(values[static_cast<size_t>(i)], std::to_string(i));
            ASSERT_EQ(VLIBCSzHashGetValue(pHash, ("key " + std::to_string(i)).c_str()),
                      values[static_cast<size_t>(i)]);
        }
        for (const size_t cb : {1u, 0u, 5000u, 2u, 9000u}) { // whatever its length
            ASSERT_EQ(VLIBCSzHashSetValue(&pHash, "key 0", std::string(cb, 'v').c_str()), 0);
            EXPECT_EQ(VLIBCSzHashGetValue(pHash, "key 0"), std::string(cb, 'v'));
        }
        ASSERT_EQ(VLIBCSzHashSetValue(&pHash, "key 1", VLIBCSzHashGetValue(pHash, "key 1")), 0);
        EXPECT_STREQ(VLIBCSzHashGetValue(pHash, "key 1"), "1");
        ASSERT_EQ(VLIBCHashRemoveAll(pHash), 0);
        ASSERT_EQ(VLIBCSzHashGetValue(pHash, "key 0"), nullptr);
    }
    EXPECT_EQ(VLIBCSzHashSetValue(&pHash, "key", nullptr), -1);
    ExpectSlot(0x0D00, "sz_hash.cpp");
    VLIBCSzHashFree(pHash);
}

// ---- error slot ----

TEST(ErrorSlot, EachThreadHasItsOwnAndKeepsACopyOfTheBareName)
{
    char szFile[] = "/some/where/a.cpp";
    VLIBCErrSetEx(0x0900, szFile, 17);
    szFile[12] = 'x';
    std::thread([] {
        EXPECT_EQ(VLIBCErrGet(), 0u);
        EXPECT_STREQ(VLIBCErrorGetFile(), "");
        VLIBCErrSetEx(0x0B00, std::string(5000, 'n').c_str(), 1);
        EXPECT_EQ(std::string(VLIBCErrorGetFile()).find_first_not_of('n'), std::string::npos);
    }).join();
    ExpectSlot(0x0900, "a.cpp");
    EXPECT_EQ(VLIBCErrorGetLine(), 17);
    VLIBCErrSetEx(0x2800, VLIBCErrorGetFile(), 18);
    ExpectSlot(0x2800, "a.cpp");
}

// ---- files ----

class PlatformFiles : public BoxTest {};

TEST_F(PlatformFiles, TouchMakesAFileOnlyWhereNothingStands)
{
    EXPECT_EQ(VLIBCFileExist(box.Path("new")), 0);
    EXPECT_EQ(VLIBCFileTouch(box.Path("new")), 0);
    EXPECT_EQ(VLIBCFileExist(box.Path("new")), 1);
    struct stat made = {};
    ASSERT_EQ(::stat(box.Path("new"), &made), 0);
    EXPECT_EQ(made.st_mode & 07777, 0644u); // the mask is 022

    box.Write("old", "text");
    EXPECT_EQ(VLIBCFileTouch(box.Path("old")), 0);
    EXPECT_EQ(box.Read("old"), "text");

    ASSERT_EQ(::symlink("nowhere", box.Path("link")), 0);
    EXPECT_EQ(VLIBCFileExist(box.Path("link")), 1);
    EXPECT_EQ(VLIBCFileTouch(box.Path("link")), 0);
    EXPECT_EQ(VLIBCFileExist(box.Path("nowhere")), 0);

    EXPECT_EQ(VLIBCFileTouch("/tmp/bandwidth/no/file"), -1);
    ExpectSlot(0x0900, "file.cpp");
    for (const std::string &path : {std::string("/tmp/bandwidth/no/file"), std::string(),
                                    "/tmp/bandwidth/" + std::string(300, 'x')})
        EXPECT_EQ(VLIBCFileExist(path.c_str()), 0) << path;
}

// Else a rule that is there would read as one that does not exist, and a limit be off.
TEST_F(PlatformFiles, AFileThatCannotBeLookedAtCountsAsThere)
{
    for (const int error : {EIO, ENOMEM, EACCES}) {
        standins::FailNext(standins::Call::Stat, error);
        EXPECT_EQ(VLIBCFileExist(box.Path("new")), 1) << std::strerror(error);
    }
}

TEST_F(PlatformFiles, APidFileHoldsOneProcessIdAboveOneOrNothing)
{
    const auto read = [&](const std::string &text) {
        SCOPED_TRACE(testing::PrintToString(text));
        box.Write("pid", text);
        return VLIBCReadPidFile(box.Path("pid"));
    };
    for (const char *szText : {"4711\n", " 4711 \r\n", "4711", "00004711"})
        EXPECT_EQ(read(szText), 4711);
    EXPECT_EQ(read("2147483647"), 2147483647);
    for (const char *szText : {"2147483648", "1\n", "0\n", "-4711\n", "+4711\n", "4711 4712\n",
                               "4711x", "", "\n", "0x10", "18446744073709556327"})
        EXPECT_EQ(read(szText), 0);
    EXPECT_EQ(read({"4711\0", 5}), 0);
    EXPECT_EQ(read(std::string(200, ' ') + "4711"), 0);
    EXPECT_EQ(read("4711" + std::string(60, ' ') + "5"), 0);
    EXPECT_EQ(VLIBCReadPidFile(box.Path("missing")), 0);
    EXPECT_EQ(VLIBCReadPidFile(box.c_str()), 0);
    EXPECT_EQ(VLIBCReadPidFile(nullptr), 0);
}

// ---- running programs ----

int Shell(const std::string &script)
{
    return VLIBCExec("/bin/sh", "-c", script.c_str(), nullptr, "beyond the end");
}

class PlatformExec : public BoxTest {};

TEST_F(PlatformExec, TheExitStatusIsHandedBack)
{
    EXPECT_EQ(Shell("exit 0"), 0);
    EXPECT_EQ(Shell("exit 255"), 255);
    EXPECT_EQ(Shell("kill -KILL $$"), 128 + SIGKILL);
    EXPECT_EQ(VLIBCExec("/bin/sh", "-c", "test \"$0$#\" = four1", "four", "$*"), 0);
}

TEST_F(PlatformExec, WhatCannotBeRunIsAFailure)
{
    box.Write("plain", "#!/bin/sh\n");
    for (const char *const szProgram : {"/no/such/program", "sh", "/tmp", box.Path("plain")}) {
        SCOPED_TRACE(szProgram);
        errno = 0;
        EXPECT_EQ(VLIBCExec(szProgram, nullptr, nullptr, nullptr, nullptr), -1);
        EXPECT_NE(errno, 0);
        ExpectSlot(0x0900, "exec.cpp");
    }
    EXPECT_EQ(VLIBCExec(nullptr, nullptr, nullptr, nullptr, nullptr), -1);
    ExpectSlot(0x0D00, "exec.cpp");
}

TEST_F(PlatformExec, TheProgramSeesNullStreamsNoOtherDescriptorAndOrdinarySignals)
{
    const int leaky = ::open("/etc/passwd", O_RDONLY);
    const int high = ::fcntl(leaky, F_DUPFD, 900);
    ::signal(SIGPIPE, SIG_IGN);
    ::signal(SIGCHLD, SIG_IGN);
    sigset_t masked;
    ::sigemptyset(&masked);
    ::sigaddset(&masked, SIGUSR1);
    ::pthread_sigmask(SIG_BLOCK, &masked, nullptr);
    EXPECT_EQ(Shell("cd /proc/self/fd && for fd in 0 1 2; do"
                    " test $(readlink $fd) = /dev/null || exit 1; done"),
              0);
    // The listing itself has one more open.
    EXPECT_EQ(Shell("test $(ls /proc/self/fd | wc -l) -le 4"), 0);
    // Not through the shell, which has a mind of its own about signals.
    for (const char *const szLine : {"^SigIgn:\t0*$", "^SigBlk:\t0*$"})
        EXPECT_EQ(VLIBCExec("/bin/grep", "-q", szLine, "/proc/self/status", nullptr), 0) << szLine;
    ::pthread_sigmask(SIG_UNBLOCK, &masked, nullptr);
    ::signal(SIGPIPE, SIG_DFL);
    ::signal(SIGCHLD, SIG_DFL);
    ::close(leaky);
    ::close(high);
}

// Each body runs in a host of its own that treats children in its own way.
TEST_F(PlatformExec, AHostThatReapsItsChildrenMayLoseTheExitStatusAndNothingElse)
{
    const auto handle = [](void (*handler)(int), int flags) {
        struct sigaction action = {};
        action.sa_handler = handler;
        action.sa_flags = flags;
        ::sigaction(SIGCHLD, &action, nullptr);
    };
    const struct {
        const char *szName;
        std::function<void()> prepare;
        bool isKept; // else the status, or 0 where the host was faster
    } hosts[] = {
        {"does nothing", [] {}, true},
        {"hears of each child", [&] { handle([](int) {}, 0); }, true},
        {"has no standard streams", [] { ::close_range(0, 2, 0); }, true},
        {"ignores SIGCHLD", [] { ::signal(SIGCHLD, SIG_IGN); }, false},
        {"lets children be no zombies", [&] { handle([](int) {}, SA_NOCLDWAIT); }, false},
        {"reaps in a handler",
         [&] {
             handle(
                 [](int) {
                     const int error = errno;
                     while (::waitpid(-1, nullptr, WNOHANG) > 0) {
                     }
                     errno = error;
                 },
                 0);
         },
         false},
        {"reaps in a thread",
         [] {
             std::thread([] {
                 for (;;)
                     if (::waitpid(-1, nullptr, 0) < 0) ::usleep(50);
             }).detach();
         },
         false},
    };
    for (const auto &host : hosts) {
        SCOPED_TRACE(host.szName);
        Child child([&] {
            host.prepare();
            const std::string mark = box.Path("ran");
            for (int i = 0; i < 20; ++i) {
                const int result = Shell("echo >" + mark + "; exit 7");
                if (result != 7 && (host.isKept || result != 0)) return 2;
                if (::unlink(mark.c_str()) < 0) return 3; // it has ended, so the file is there
            }
            if (::waitpid(-1, nullptr, WNOHANG) != -1 || errno != ECHILD) return 4;
            return VLIBCExec("/no/such", nullptr, nullptr, nullptr, nullptr) == -1 ? 0 : 5;
        });
        EXPECT_EQ(child.Wait(), 0);
    }
}

// ---- users and groups ----

class UserDatabase : public BoxTest {}; // whose set-up insists on the sandbox

TEST_F(UserDatabase, UsersAreFoundByNameAndNumber)
{
    for (const auto &get : {+[](ZEVO_USER **ppUser) { return ZEVOUserGet("bob", ppUser); },
                            +[](ZEVO_USER **ppUser) { return ZEVOUserGetByUID(kBob, ppUser); }}) {
        ZEVO_USER *pUser = nullptr;
        ASSERT_EQ(get(&pUser), 0);
        EXPECT_STREQ(pUser->szName, "bob");
        EXPECT_EQ(pUser->uid, kBob);
        EXPECT_EQ(pUser->gid, kBob);
        ZEVOUserFree(pUser);
    }
    uid_t uid = 0;
    gid_t gid = 0;
    EXPECT_EQ(ZEVOUserGetUGID("carol", &uid, &gid), 0);
    EXPECT_EQ(uid, kCarol);
    EXPECT_EQ(gid, kCarol);
    EXPECT_EQ(ZEVOUserGetUGID("carol", &uid, nullptr), 0);
}

TEST_F(UserDatabase, UnknownOnesAreToldAndNothingIsHandedOut)
{
    ZEVO_USER *pUser = nullptr;
    ZEVO_GROUP *pGroup = nullptr;
    uid_t uid = 7;
    const std::function<int()> calls[] = {
        [&] { return ZEVOUserGet("nobody-at-all", &pUser); },
        [&] { return ZEVOUserGetByUID(4'000'000, &pUser); },
        [&] { return ZEVOUserGetUGID("", &uid, nullptr); },
        [&] { return ZEVOGroupGetByGID(4'000'000, &pGroup); },
    };
    for (const auto &call : calls) {
        EXPECT_EQ(call(), -1);
        ExpectSlot(0x2000, "user_group.cpp");
    }
    EXPECT_EQ(pUser, nullptr);
    EXPECT_EQ(pGroup, nullptr);
    EXPECT_EQ(uid, 7u);
    EXPECT_EQ(VLIBGroupInfoListGet("nobody-at-all", 0), nullptr);
    ExpectSlot(0x2000, "group_info.cpp");
    EXPECT_EQ(ZEVOUserGet(nullptr, &pUser), -1);
    ExpectSlot(0x0D00, "user_group.cpp");
}

std::vector<std::string> GroupsOf(const char *szUser)
{
    std::vector<std::string> groups;
    VLIB_SZ_LIST *const pList = VLIBGroupInfoListGet(szUser, 0);
    if (pList == nullptr) return groups;
    for (int i = 0; i < pList->nItem; ++i)
        groups.emplace_back(VLIBCSzListGet(pList, i));
    VLIBCSzListFree(pList);
    return groups;
}

// In the sandbox the user database is a file of ours.
TEST_F(UserDatabase, NeitherManyGroupsNorLongEntriesAreTooMuch)
{
    EXPECT_THAT(GroupsOf("alice"), UnorderedElementsAre("2001", "3001", "3002"));
    constexpr int kGroups = 3000;
    std::string text;
    for (int i = 0; i < kGroups; ++i)
        text += "many" + std::to_string(i) + ":x:" + std::to_string(10'000 + i) + ":eve\n";
    text += "long:x:9999:";
    for (int i = 0; i < 20'000; ++i)
        text += "member" + std::to_string(i) + ",";
    std::ofstream("/etc/group", std::ios::app) << text << "eve\n";
    std::ofstream("/etc/passwd", std::ios::app)
        << "eve:x:5555:5555:" << std::string(20'000, 'g') << ":/:/bin/sh\n";

    const std::vector<std::string> groups = GroupsOf("eve");
    EXPECT_EQ(std::set<std::string>(groups.begin(), groups.end()).size(), kGroups + 2u);
    ZEVO_GROUP *pGroup = nullptr;
    ASSERT_EQ(ZEVOGroupGetByGID(9999, &pGroup), 0);
    EXPECT_STREQ(pGroup->szName, "long");
    EXPECT_EQ(pGroup->gid, 9999u);
    ZEVOGroupFree(pGroup);
}

// ---- directories ----

constexpr uid_t kAnyUser = static_cast<uid_t>(-1);
constexpr gid_t kAnyGroup = static_cast<gid_t>(-1);

class PlatformDirectories : public BoxTest {
protected:
    static mode_t ModeOf(const char *szPath)
    {
        struct stat found = {};
        return ::lstat(szPath, &found) == 0 ? found.st_mode : 0;
    }
    static int Make(const char *szPath, int mode)
    {
        return ZEVOFSMkdirP(szPath, 0, 1, kAnyUser, kAnyGroup, mode);
    }
};

TEST_F(PlatformDirectories, AllMissingOnesAreMadeAndTheLastHasTheMode)
{
    EXPECT_EQ(Make("/tmp/bandwidth/a//b/c/", 0700), 0);
    EXPECT_EQ(ModeOf("/tmp/bandwidth/a"), S_IFDIR | 0755u);
    EXPECT_EQ(ModeOf("/tmp/bandwidth/a/b/c"), S_IFDIR | 0700u);
    EXPECT_EQ(Make("/tmp/bandwidth/a/b/c", 0777), 0); // it stays as it is
    EXPECT_EQ(ModeOf("/tmp/bandwidth/a/b/c"), S_IFDIR | 0700u);
    EXPECT_EQ(Make("/tmp/bandwidth/d", -1), 0);
    EXPECT_EQ(ModeOf("/tmp/bandwidth/d"), S_IFDIR | 0755u);
    EXPECT_EQ(ZEVOFSMkdirP("/tmp/bandwidth/e", 0, 1, ::geteuid(), ::getegid(), 0711), 0);
    EXPECT_EQ(ModeOf("/tmp/bandwidth/e"), S_IFDIR | 0711u);
    EXPECT_EQ(Make("/", -1), 0);
}

TEST_F(PlatformDirectories, WhatIsNoDirectoryIsAFailure)
{
    box.Write("file", "");
    ASSERT_EQ(::symlink("/tmp", box.Path("link")), 0);
    ASSERT_EQ(::symlink("nowhere", box.Path("dangling")), 0);
    for (const std::string &path :
         {std::string("/tmp/bandwidth/file"), std::string("/tmp/bandwidth/file/below"),
          std::string("/tmp/bandwidth/link"), std::string("/tmp/bandwidth/link/"),
          std::string("/tmp/bandwidth/dangling"), std::string("/tmp/bandwidth/dangling/below"),
          "/tmp/bandwidth/" + std::string(300, 'n')}) {
        SCOPED_TRACE(path);
        EXPECT_EQ(Make(path.c_str(), 0755), -1);
        ExpectSlot(0x0900, "directory.cpp");
    }
    EXPECT_EQ(Make("/tmp/bandwidth/link/bandwidth/inner", 0755), 0); // a parent may be one
    EXPECT_EQ(Make(nullptr, 0755), -1);
    ExpectSlot(0x0D00, "directory.cpp");
}

TEST_F(PlatformDirectories, AnotherProcessMayMakeItFirst)
{
    standins::Before(Call::Mkdir, 1, [&] { ::mkdir(box.Path("race"), 0750); });
    EXPECT_EQ(Make("/tmp/bandwidth/race", 0700), 0);
    EXPECT_EQ(ModeOf("/tmp/bandwidth/race"), S_IFDIR | 0750u);
}

TEST_F(PlatformDirectories, OneThatCannotBeGivenItsOwnerIsNotLeftBehind)
{
    constexpr uid_t kNobodyMapped = 123'456'789;
    EXPECT_EQ(ZEVOFSMkdirP("/tmp/bandwidth/x", 0, 1, kNobodyMapped, kAnyGroup, -1), -1);
    ExpectSlot(0x0900, "directory.cpp");
    EXPECT_EQ(ModeOf("/tmp/bandwidth/x"), 0u);
}

} // namespace
