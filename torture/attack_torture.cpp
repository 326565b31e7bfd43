// What a hostile local user can put in the place of status files, of the directory they lie in and
// of temporary files, against every function that opens one, called by root and by
// an ordinary user. Nothing outside the directory may be made or changed, no file may gain a set-id
// bit with another owner, nothing private may become readable, and every call must return.
#include "operations.hpp"
#include "row.hpp"
#include "stand_ins.hpp"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

using namespace torture;
namespace fs = std::filesystem;

namespace {

constexpr unsigned kHangSeconds = 20;
constexpr char kPrivate[] = "a private text"; // in files that only their owner may read
constexpr std::uint32_t kStranger = 2002;

const std::string kDirectory = kStatusDirectory;
const std::string kOutside = "/tmp/outside";

// A file as a stranger would write it: a running transfer, one that looks dead, and something else.
const std::string kText = "[100-1]\npid=100\nuid=2001\nid=2001\nactive=1\ntimestamp=9999999999\n"
                          "owner type=user\nprotocol type=ftp\ntransfer type=upload\n"
                          "[101-1]\ntimestamp=1\n# a note\n";

void Insist(bool done, const char *szWhat)
{
    if (!done) Die("%s: %s", szWhat, std::strerror(errno));
}

void GiveTo(const std::string &path, uid_t uid)
{
    Insist(::lchown(path.c_str(), uid, uid) == 0, "chown");
}

void Become(uid_t uid)
{
    if (uid == 0) return;
    Insist(::setgroups(0, nullptr) == 0 && ::setresgid(uid, uid, uid) == 0 &&
               ::setresuid(uid, uid, uid) == 0,
           "cannot become another user");
}

// ---- what must not change ----

// Everything of a file but its times and its number of names: links from inside come and go.
std::string Describe(const fs::path &path)
{
    struct stat s = {};
    if (::lstat(path.c_str(), &s) < 0) return "(gone)";
    std::string text = std::to_string(s.st_ino) + " " + std::to_string(s.st_mode) + " " +
                       std::to_string(s.st_uid) + " " + std::to_string(s.st_gid) + " " +
                       std::to_string(s.st_rdev);
    if (S_ISREG(s.st_mode)) text += " " + ReadFile(path);
    if (S_ISLNK(s.st_mode)) text += " " + fs::read_symlink(path).string();
    return text;
}

using Inventory = std::map<std::string, std::string>;

Inventory TakeInventory()
{
    Inventory all;
    for (const std::string &root : {kOutside, std::string("/usr/zevo"), std::string("/run")}) {
        all[root] = Describe(root);
        for (const auto &entry : fs::recursive_directory_iterator(root))
            all[entry.path()] = Describe(entry.path());
    }
    for (const char *const szPlace : {"/", "/tmp", "/etc"}) // the machine's own are others', too
        for (const std::string &name : Files(szPlace))
            if (name != "bandwidth") all[std::string(szPlace) + " holds " + name] = "";
    return all;
}

void MakeOutside()
{
    fs::remove_all(kOutside);
    fs::create_directories(kOutside + "/place/empty");
    for (const auto &[name, mode, owner] :
         std::vector<std::tuple<std::string, mode_t, uid_t>>{{"secret", 0600, 0},
                                                             {"diary", 0600, kStranger},
                                                             {"board", 0666, 0},
                                                             {"program", 04755, 0},
                                                             {"place/user-2001", 0644, 0}}) {
        const std::string path = kOutside + "/" + name;
        WriteFile(path, mode == 0600 ? kText + kPrivate : kText);
        GiveTo(path, owner);
        Insist(::chmod(path.c_str(), mode) == 0, "chmod");
    }
    Insist(::chmod((kOutside + "/place").c_str(), 0777) == 0, "chmod");
}

// ---- what is planted ----

void PlantFile(const std::string &path, mode_t mode, uid_t owner, const std::string &text = kText)
{
    WriteFile(path, text);
    GiveTo(path, owner);
    Insist(::chmod(path.c_str(), mode) == 0, "chmod");
}

void PlantLink(const std::string &path, const std::string &target)
{
    fs::create_symlink(target, path);
    GiveTo(path, kStranger);
}

void PlantHardLink(const std::string &path, const std::string &target)
{
    fs::create_hard_link(target, path);
}

void PlantFifo(const std::string &path)
{
    Insist(::mkfifo(path.c_str(), 0) == 0 && ::chmod(path.c_str(), 0666) == 0, "mkfifo");
}

void PlantDevice(const std::string &path, mode_t type, unsigned major, unsigned minor)
{
    Insist(::mknod(path.c_str(), type | 0666, makedev(major, minor)) == 0, "mknod");
}

bool MayMakeDevices()
{
    const std::string path = "/tmp/device";
    const bool may = ::mknod(path.c_str(), S_IFCHR | 0600, makedev(1, 3)) == 0;
    ::unlink(path.c_str());
    return may;
}

void PlantSocket(const std::string &path)
{
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    Insist(fd >= 0 && ::bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0,
           "socket");
    ::close(fd);
}

void PlantLease(const std::string &path, int type, Children &accomplices)
{
    PlantFile(path, 0666, kStranger);
    int ready[2];
    Insist(::pipe(ready) == 0, "pipe");
    accomplices.Add(Fork([&] {
        Become(kStranger);
        ::signal(SIGIO, SIG_IGN); // asked to give the lease back, he does not
        const int fd = ::open(path.c_str(), type == F_RDLCK ? O_RDONLY : O_RDWR);
        const bool held = ::fcntl(fd, F_SETLEASE, type) == 0;
        Insist(held && ::write(ready[1], "", 1) == 1, "F_SETLEASE");
        for (;;)
            ::pause();
        return 0;
    }));
    char byte;
    ::close(ready[1]);
    Insist(::read(ready[0], &byte, 1) == 1, "the holder of the lease");
    ::close(ready[0]);
}

struct Plant {
    std::string name;
    std::function<void(const std::string &path, Children &)> make;
    bool mustWork = false; // a save finds it fit to go on with
};

std::string ModeName(const char *szWhat, mode_t mode, uid_t owner)
{
    char szName[64];
    std::snprintf(szName, sizeof(szName), "%s of mode %04o of user %u", szWhat, mode, owner);
    return szName;
}

// In place of a status file.
std::vector<Plant> FilePlants()
{
    std::vector<Plant> all;
    for (const mode_t mode : {00000u, 00111u, 00444u, 00600u, 00644u, 00666u, 00777u, 01777u,
                              02755u, 04755u, 06755u, 06777u, 07777u, 02000u, 04000u})
        for (const uid_t owner : {uid_t{0}, uid_t{kAlice}, uid_t{kStranger}}) {
            all.push_back({ModeName("a file", mode, owner),
                           [=](auto &path, auto &) { PlantFile(path, mode, owner); },
                           mode == 0666});
        }
    for (const std::string &target :
         {kOutside + "/secret", kOutside + "/board", kOutside + "/program", kOutside + "/place",
          kOutside + "/absent", std::string("../outside/diary"), std::string("user-2001"),
          std::string("/proc/self/mem"), std::string("/proc/self/fd/0"),
          std::string("/proc/1/root"), std::string("/proc/self/cwd/made"), std::string("/dev/null"),
          std::string("/dev/tty"), std::string(4000, 'x')})
        all.push_back({"a link to " + target.substr(0, 40),
                       [=](auto &path, auto &) { PlantLink(path, target); }});
    for (const char *const szTarget : {"secret", "diary", "board", "program"})
        all.push_back({"a hard link to a " + std::string(szTarget), [=](auto &path, auto &) {
                           PlantHardLink(path, kOutside + "/" + szTarget);
                       }});
    const Plant kOthers[] = {
        {"a FIFO", [](auto &path, auto &) { PlantFifo(path); }},
        {"a socket", [](auto &path, auto &) { PlantSocket(path); }},
        {"a directory", [](auto &path, auto &) { fs::create_directory(path); }},
        {"a full directory",
         [](auto &path, auto &) { fs::create_directories(path + "/user-2001"); }},
        {"a write lease", [](auto &path, auto &more) { PlantLease(path, F_WRLCK, more); }},
        {"a read lease", [](auto &path, auto &more) { PlantLease(path, F_RDLCK, more); }},
        {"nothing", [](auto &, auto &) {}, true},
        {"a null device", [](auto &path, auto &) { PlantDevice(path, S_IFCHR, 1, 3); }},
        {"an endless device", [](auto &path, auto &) { PlantDevice(path, S_IFCHR, 1, 5); }},
        {"a device nobody has", [](auto &path, auto &) { PlantDevice(path, S_IFBLK, 240, 7); }}};
    for (const Plant &plant : kOthers)
        if (MayMakeDevices() || plant.name.find("device") == std::string::npos)
            all.push_back(plant);
    return all;
}

void MakeDirectory(mode_t mode, uid_t owner)
{
    fs::create_directory(kDirectory);
    GiveTo(kDirectory, owner);
    Insist(::chmod(kDirectory.c_str(), mode) == 0, "chmod");
}

// In place of the directory.
std::vector<Plant> DirectoryPlants()
{
    std::vector<Plant> all;
    for (const std::string &target :
         {kOutside + "/place", kOutside + "/place/", kOutside + "/absent", kOutside + "/secret",
          std::string("bandwidth"), std::string("/proc/self/cwd"), std::string("/run")})
        all.push_back({"a directory that is a link to " + target,
                       [=](auto &, auto &) { PlantLink(kDirectory, target); }});
    all.push_back({"a directory that is a file",
                   [](auto &, auto &) { PlantFile(kDirectory, 0666, kStranger); }});
    all.push_back({"a directory that is a FIFO", [](auto &, auto &) { PlantFifo(kDirectory); }});
    for (const mode_t mode : {0000u, 0555u, 0700u, 0755u, 0777u, 01777u, 03777u, 06777u})
        for (const uid_t owner : {uid_t{0}, uid_t{kStranger}}) {
            all.push_back({ModeName("a directory", mode, owner),
                           [=](auto &path, auto &) {
                               MakeDirectory(mode, owner);
                               PlantFile(path, 0666, kStranger);
                           },
                           mode == 0777 || mode == 06777});
        }
    all.push_back({"no directory", [](auto &, auto &) {}, true});
    return all;
}

// ---- the trials ----

// What the files in the directory were, as far as a set-id bit goes: inode, and its owner.
using Owners = std::map<ino_t, uid_t>;

void Walk(const std::function<void(const fs::path &, const struct stat &)> &visit)
{
    if (!fs::is_directory(fs::symlink_status(kDirectory))) return;
    for (const auto &entry : fs::recursive_directory_iterator(kDirectory)) {
        struct stat s = {};
        if (::lstat(entry.path().c_str(), &s) == 0) visit(entry.path(), s);
    }
}

Owners TakeOwners()
{
    Owners owners;
    Walk([&](const fs::path &, const struct stat &s) { owners[s.st_ino] = s.st_uid; });
    return owners;
}

struct Rows {
    Row &outside;
    Row &setId;
    Row &secret;
    Row &ends;
};

void CompareOutside(const Inventory &before, const std::string &what, Row &row)
{
    const Inventory after = TakeInventory();
    row.Try();
    for (const auto &[path, text] : before)
        if (const auto found = after.find(path); found == after.end() || found->second != text)
            row.Violate("%s: %s has changed", what.c_str(), path.c_str());
    for (const auto &[path, text] : after)
        if (!before.contains(path)) row.Violate("%s: %s was made", what.c_str(), path.c_str());
}

void Compare(const Inventory &before, const Owners &owners, const std::string &what, Rows rows)
{
    CompareOutside(before, what, rows.outside);
    rows.setId.Try();
    rows.secret.Try();
    Walk([&](const fs::path &path, const struct stat &s) {
        if (!S_ISREG(s.st_mode)) return;
        const auto old = owners.find(s.st_ino);
        const bool isOwners = old != owners.end() && old->second == s.st_uid;
        if ((s.st_mode & 06000) != 0 && !isOwners)
            rows.setId.Violate("%s: %s has mode %04o and belongs to %u", what.c_str(), path.c_str(),
                               s.st_mode & 07777, s.st_uid);
        // A copy of something private is for root alone; the thing itself is as it was.
        const bool isCopy = old == owners.end();
        if (isCopy && (s.st_mode & 077) != 0 && ReadFile(path).find(kPrivate) != std::string::npos)
            rows.secret.Violate("%s: %s with the private text has mode %04o", what.c_str(),
                                path.c_str(), s.st_mode & 07777);
    });
}

// Results are not asked for: whatever an attacker has planted, a failure is an answer.
pid_t Start(const Operation &operation, uid_t uid)
{
    return Fork([&operation, uid] {
        ::alarm(kHangSeconds);
        Become(uid);
        standins::SetClock(std::time(nullptr) * 1'000'000); // sleeps take no time
        Scratch scratch(getpid(), std::time(nullptr));
        (void)operation.run(scratch);
        return 0;
    });
}

void CheckEnd(pid_t pid, const std::string &what, Row &row)
{
    row.Try();
    const int status = WaitFor(pid);
    if (status != 0)
        row.Violate("%s: ended with %d%s", what.c_str(), status,
                    status == 128 + SIGALRM ? " (hung)" : "");
}

void Clear()
{
    fs::remove_all(kDirectory);
}

// Every call on one plant, as root and as an ordinary user.
void TryPlant(const Plant &plant, bool inPlaceOfDirectory, const Options &options, Rows rows)
{
    // In short each plant meets a few of the calls, the next one others.
    const std::size_t step = options.amount == Amount::kShort ? 6 : 1;
    static std::size_t next = 0;
    for (const uid_t uid : {uid_t{0}, uid_t{kAlice}}) {
        for (const Operation *const pOperation : OpeningOperations()) {
            if (next++ % step != 0) continue;
            const std::string what = std::string(pOperation->name) + " by user " +
                                     std::to_string(uid) + " on " + plant.name;
            Clear();
            MakeOutside();
            Children accomplices;
            if (!inPlaceOfDirectory) MakeDirectory(0777, 0);
            plant.make(kAlicesFile, accomplices);
            if (!inPlaceOfDirectory) plant.make(kStaffFile, accomplices);
            const Inventory before = TakeInventory();
            const Owners owners = TakeOwners();
            CheckEnd(Start(*pOperation, uid), what, rows.ends);
            Compare(before, owners, what, rows);
        }
    }
}

// What must go on working, does: a root service saves, and the transfer is listed.
void TryUse(const Plant &plant, bool inPlaceOfDirectory, Row &row)
{
    Clear();
    MakeOutside();
    Children accomplices;
    if (!inPlaceOfDirectory) MakeDirectory(0777, 0);
    plant.make(kAlicesFile, accomplices);
    const pid_t pid = Fork([] {
        Scratch scratch(getpid(), std::time(nullptr));
        ZEVO_BANDWIDTH_STATUS *pList = nullptr;
        if (ZEVOBandwidthStatusSave(kAlice, nullptr, &scratch.status) < 0) return 1;
        const int count =
            ZEVOBandwidthIStatusGetAll(kAlicesFile, -1, ZEVO_BW_TRANSFER_ALL, &pList, 0);
        return count >= 1 && pList->pid == getpid() ? 0 : 1;
    });
    row.Try();
    if (WaitFor(pid) != 0) row.Violate("a save by root fails on %s", plant.name.c_str());
}

// ---- swapping while the calls run ----

// Puts something else in the place of whatever lies in the directory, again and again.
[[noreturn]] void Swap(std::uint64_t seed, std::uint64_t stream)
{
    Become(kStranger);
    Random random(seed, stream);
    const std::string spare = kDirectory + "/spare" + std::to_string(stream);
    for (;;) {
        std::error_code ignored;
        std::vector<std::string> names;
        for (fs::directory_iterator i(kDirectory, ignored), end; !ignored && i != end;
             i.increment(ignored))
            names.push_back(i->path().filename());
        names.push_back("user-2001");
        names.push_back("group-3001");
        const std::string victim = kDirectory + "/" + names[random.Below(names.size())];
        fs::remove_all(spare, ignored);
        const auto what = random.Below(9);
        if (what == 5) {
            ::unlink(victim.c_str());
            continue;
        }
        if (what < 2) {
            fs::create_symlink(kOutside + (what == 0 ? "/board" : "/made"), spare, ignored);
        } else if (what == 2) {
            fs::create_hard_link(kOutside + "/board", spare, ignored);
        } else if (what == 3) {
            (void)::mkfifo(spare.c_str(), 0666);
        } else if (what == 4) {
            fs::create_directory(spare, ignored);
        } else if (const int fd = ::open(spare.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0666);
                   fd >= 0) {
            const ssize_t cb = ::write(fd, kText.data(), kText.size());
            (void)::fchmod(fd, cb > 0 && random.Below(2) == 0 ? 06777 : 0666);
            ::close(fd);
        }
        (void)::renameat2(AT_FDCWD, spare.c_str(), AT_FDCWD, victim.c_str(),
                          random.Below(2) == 0 ? RENAME_EXCHANGE : 0);
    }
}

void TrySwaps(const Options &options, Rows rows)
{
    const Budget budget(options, 0.5, 300, 100'000);
    Clear();
    MakeOutside();
    MakeDirectory(0777, 0);
    Children accomplices;
    const Inventory before = TakeInventory();
    for (std::uint64_t stream = 1; stream <= 2; ++stream)
        accomplices.Add(Fork([&]() -> int { Swap(options.seed, stream); }));
    Random random(options.seed, 0);
    const std::vector<const Operation *> operations = OpeningOperations();
    for (std::uint64_t done = 0; budget.Allows(done); ++done) {
        const Operation &operation = *operations[random.Below(operations.size())];
        const uid_t uid = random.Below(2) == 0 ? 0 : kAlice;
        CheckEnd(Start(operation, uid), std::string(operation.name) + " while all is swapped",
                 rows.ends);
        if (done % 64 != 0) continue;
        CompareOutside(before, "while all is swapped", rows.outside);
        rows.setId.Try();
        std::error_code ignored;
        for (fs::directory_iterator i(kDirectory, ignored), end; !ignored && i != end;
             i.increment(ignored)) {
            struct stat s = {};
            if (::lstat(i->path().c_str(), &s) == 0 && S_ISREG(s.st_mode) &&
                (s.st_mode & 06000) != 0 && s.st_uid != kStranger)
                rows.setId.Violate("%s has mode %04o and belongs to %u", i->path().c_str(),
                                   s.st_mode & 07777, s.st_uid);
        }
    }
}

} // namespace

int main(int argc, char **argv)
{
    const Options options = ParseOptions(argc, argv);
    Insist(::chdir("/tmp") == 0, "chdir"); // where relative names would lead, watched like the rest
    ::umask(022);
    StageScene(std::time(nullptr), getpid());

    Table table(options.seed);
    const std::string devices = MayMakeDevices() ? "" : " (no devices: mknod is not permitted)";
    Row &outside = table.Add("planted files, nothing made or changed outside" + devices);
    Row &setId = table.Add("planted files, no set-id bit on a file of another owner");
    Row &secret = table.Add("planted files, nothing private made readable");
    Row &ends = table.Add("planted files, calls that neither crash nor hang");
    Row &use = table.Add("odd files and directories that must not stop a root service");
    const Rows rows{outside, setId, secret, ends};
    for (const bool inPlaceOfDirectory : {false, true})
        for (const Plant &plant : inPlaceOfDirectory ? DirectoryPlants() : FilePlants()) {
            TryPlant(plant, inPlaceOfDirectory, options, rows);
            if (plant.mustWork) TryUse(plant, inPlaceOfDirectory, use);
        }
    TrySwaps(options, rows);
    Clear();
    return table.Print();
}
