// Every exported function, each as an operation that can be staged, run and tidied up any number of
// times. What the torture programs share that want them all: faults, manners, threads.
//
// The scene: alice has a rule of her own and those of her groups staff and guests, all for ftp, and is
// charged to both groups. She, bob and carol have transfers running, with comments between them.
#ifndef ZEVOBW_TORTURE_OPERATIONS_HPP
#define ZEVOBW_TORTURE_OPERATIONS_HPP

#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "zevobandwidth.h"
#include "zevocore.h"
#include "zevosdk.h"

namespace torture {

constexpr char kStatusDirectory[] = "/tmp/bandwidth";
constexpr char kAlicesFile[] = "/tmp/bandwidth/user-2001";
constexpr char kStaffFile[] = "/tmp/bandwidth/group-3001";
constexpr std::uint32_t kAlice = 2001;
constexpr std::uint32_t kStaff = 3001;
constexpr int kAddon = 16;
constexpr char kAddonName[] = "backup";

// The memory that one operation works on. Making it and tidying up after it take no part in what the
// operation itself costs.
struct Scratch {
    // The pid that the calling process's sections bear, and what its clock shows, in seconds.
    Scratch(int pid, std::int64_t now);
    ~Scratch();
    Scratch(const Scratch &) = delete;
    Scratch &operator=(const Scratch &) = delete;

    // What the caller of a function is given, all of it, as text: result 0 or 1 and the same text
    // mean that the function did the same.
    std::string Given() const;

    int pid;
    ZEVO_BANDWIDTH_CONFIG config = {};
    ZEVO_BANDWIDTH_CONFIG otherConfig = {};
    ZEVO_BANDWIDTH_CONF rule = {};
    ZEVO_BANDWIDTH_GLOBAL_CONF policy = {};
    ZEVO_BANDWIDTH_STATUS status = {};
    ZEVO_BANDWIDTH_STATUS otherStatus = {};
    ZEVO_BANDWIDTH_STATUS *pList = nullptr;
    ZEVO_BANDWIDTH_LIMIT *pLimits = nullptr;
    VLIB_SZ_HASH *pHash = nullptr; // of the status
    VLIB_SZ_HASH *pOtherHash = nullptr;
    VLIB_SZ_LIST *pNames = nullptr;
    VLIB_SZ_LIST *pGids = nullptr;
    ZEVO_USER *pUser = nullptr;
    ZEVO_GROUP *pGroup = nullptr;
    std::FILE *pStream = nullptr;
    std::uint64_t timeUs = 0;
    std::uint64_t speeds[3] = {};
    std::uint32_t groups[ZEVO_BW_MOST_OCC_GROUPS] = {};
    std::int32_t groupCount = 0;
    std::uint32_t flags[2] = {};
    char text[4096] = {};
    char streamBuffer[16384] = {};
};

// A running upload of alice's by ftp; what is not said by that is 0.
ZEVO_BANDWIDTH_STATUS AlicesUpload(int pid, std::int64_t now);

// The section of that name, as it stands in a file.
std::string SectionText(const char *szName, const VLIB_SZ_HASH *pHash);

// What an operation does not promise, and what else is to be known of it.
enum Waiver : unsigned {
    kSilent = 1,     // a failure is told by the error slot, not by the log
    kMute = 2,       // a failure may be told by the result alone
    kTells = 4,      // success may fall short of its effect where the log tells of it
    kBlind = 8,      // nothing is reported at all, or nothing of what may go wrong within
    kRemembers = 16, // memory or a descriptor is kept for later
    kTorn = 32,      // a failure may leave a part of what was to be appended
    kAlone = 64,     // one at a time in a process
    kGoesOn = 128,   // what cannot be read of its own counts as absent
    // And what it opens of the files that strangers may write, with nothing staged.
    kOpens = 256,     // alice's status file, or that of a group
    kOpensBoth = 512, // both
    kLists = 1024,    // reads them once more where a section is stale, to purge them
};

struct Operation {
    const char *name;
    int (*run)(Scratch &);
    unsigned waivers = 0;
    void (*stage)() = nullptr; // changes to the scene's files
};

// Every exported function of the library, and those of the platform's that touch files, processes,
// the user database or memory. The functions that only calculate have nothing that could fail.
extern const std::vector<Operation> kOperations;

// Those that open status files.
std::vector<const Operation *> OpeningOperations();

// The files of the scene, fresh; kNow is the time at which its transfers were last saved.
void StageScene(std::int64_t now, int pid);

using Texts = std::map<std::string, std::string>; // by path, "(directory)" for directories
Texts SceneFiles();

} // namespace torture

#endif // ZEVOBW_TORTURE_OPERATIONS_HPP
