// Saving a running transfer: one section in its user's status file and one copy in the file of each
// group that it is charged to. A copy holds the part of the speed that the group is charged with. No
// lock is needed: a section is replaced by replacing the file. When two processes do so at once and
// one update is lost, it returns with that transfer's next save.

#include "internal/guard.hpp"
#include "internal/speed.hpp"
#include "internal/status_path.hpp"
#include "internal/status_save.hpp"

#include "base/write_file.hpp"

#include <algorithm>
#include <cerrno>
#include <cinttypes>

#include <sys/stat.h>
#include <unistd.h>

using namespace bandwidth;

namespace {

constexpr mode_t kStatusDirectoryMode = 0777;
constexpr int kMaxRepeats = 2;

// Makes the directory under a name that nobody knows, gives it its mode by descriptor, whatever the
// host's creation mask, and then its name. 0 also when another process has made it meanwhile.
int MakeDirectory() noexcept
{
    constexpr char kPath[] = ZEVO_BW_STATUS_DIRECTORY;
    char szNew[sizeof(kPath) + 32];
    (void)std::snprintf(szNew, sizeof(szNew), "%s.%016" PRIx64, kPath, zevo::RandomNumber());
    if (::ZEVOFSMkdirP(szNew, 0, 1, static_cast<uid_t>(-1), static_cast<gid_t>(-1),
                       kStatusDirectoryMode) < 0)
        return BW_PASS("ZEVOFSMkdirP failed. [%s] ", kStatusDirectory);
    const zevo::Fd dir = zevo::OpenAt(AT_FDCWD, szNew, O_RDONLY | O_DIRECTORY);
    if (dir && ::fchmod(dir.get(), kStatusDirectoryMode) == 0 &&
        !zevo::RenameUnlessTaken(AT_FDCWD, szNew, kPath))
        return 0;
    const bool isTaken = errno == EEXIST;
    (void)::rmdir(szNew);
    struct stat status = {};
    if (isTaken && ::lstat(kPath, &status) == 0 && S_ISDIR(status.st_mode)) return 0;
    BW_RECORD(ZEVO_BW_ERROR_OPEN);
    return BW_PASS("ZEVOFSMkdirP failed. [%s] ", kStatusDirectory);
}

// Makes the directory unless it is there: 1 made, 0 there, -1 failed. A link is no directory: the
// stranger that planted it must not choose where files are made.
int EnsureDirectory() noexcept
{
    struct stat status = {};
    if (::lstat(ZEVO_BW_STATUS_DIRECTORY, &status) == 0) {
        if (S_ISDIR(status.st_mode)) return 0;
    } else if (errno != ENOENT && errno != ENOTDIR) {
        BW_LOG("stat [%s] failed. %m", kStatusDirectory);
        return BW_FAIL(ZEVO_BW_ERROR_STAT);
    }
    return MakeDirectory() < 0 ? BW_PASS_UNLOGGED : 1;
}

// The same for an owner's file.
int EnsureFile(const char *szFile) noexcept
{
    if (::VLIBCFileExist(szFile) == 1) return 0;
    if (const zevo::Fault fault = zevo::MakeFile(szFile, kStatusFileMode)) {
        BW_RECORD(fault.code);
        return BW_PASS("VLIBCFileTouch [%s] failed. ", szFile);
    }
    return 1;
}

// Makes what is missing of the two: 1, 0 when nothing is, -1 on failure.
int MakeMissing(const char *szFile) noexcept
{
    const int directory = EnsureDirectory();
    const int file = directory < 0 ? BW_PASS_UNLOGGED : EnsureFile(szFile);
    return file < 0 ? BW_PASS_UNLOGGED : std::max(directory, file);
}

// Nearly every save finds directory and file, so they are looked for only after a failure. A section
// may appear between the attempt to replace it and the attempt to append it. Both are then tried again;
// when that happens each time, these values follow at the next save.
int ZEVOBandwidthIStatusRecordSave(int32_t owner_type, uint32_t id, const char *szSection,
                                   const VLIB_SZ_HASH *pHash, RewriteMode mode) noexcept
{
    BW_REQUIRE(pHash != nullptr, "NULL != pHash");
    StatusPath path;
    if (path.Compose(owner_type, id, BW_HERE) < 0) return BW_PASS_UNLOGGED;
    for (int attempt = 0; attempt <= kMaxRepeats; ++attempt) {
        const int replaced = ZEVOBandwidthIStatusSectionRewrite(path.get(), szSection, pHash, mode);
        if (replaced > 0) return replaced == kStopped ? kStopped : 0;
        if (replaced < 0) {
            const bool wasMissing = errno == ENOENT; // another process may make it before we look
            const int made = MakeMissing(path.get());
            if (made < 0) return BW_PASS_UNLOGGED;
            if ((made > 0 || wasMissing) && attempt < kMaxRepeats) continue;
            return BW_PASS("Save section [%s] to [%s] failed. ", szSection, path.get());
        }
        const int added = ::ZEVOBandwidthStatusAddSection(path.get(), szSection, pHash);
        if (added < 0) return BW_PASS("Add section [%s] to [%s] failed. ", szSection, path.get());
        if (added > 0) return 0;
    }
    return 0;
}

// Turns a record into a group's copy for a while, and then back.
class GroupCopyScope {
public:
    GroupCopyScope(ZEVO_BANDWIDTH_STATUS &status, uint32_t uid) noexcept
        : status_(status), uid_(uid), currentBps_(status.current_speed),
          expectBps_(status.expect_speed)
    {
        status_.owner_type = ZEVO_BW_OWNER_GROUP;
    }
    ~GroupCopyScope()
    {
        status_.owner_type = ZEVO_BW_OWNER_USER;
        status_.id = uid_;
        status_.current_speed = currentBps_;
        status_.expect_speed = expectBps_;
    }
    GroupCopyScope(const GroupCopyScope &) = delete;
    GroupCopyScope &operator=(const GroupCopyScope &) = delete;

    void Charge(const ZEVO_BANDWIDTH_LIMIT &limit) noexcept
    {
        status_.id = limit.conf.id;
        status_.current_speed = currentBps_ * limit.occupyWeight / kWholeWeight;
        status_.expect_speed = limit.maxSpeedBps;
    }

private:
    ZEVO_BANDWIDTH_STATUS &status_;
    const uint32_t uid_;
    const uint64_t currentBps_;
    const uint64_t expectBps_;
};

int SaveGroupCopies(uint32_t uid, const ZEVO_BANDWIDTH_CONFIG &config,
                    ZEVO_BANDWIDTH_STATUS *pStatus, const char *szSection, Hash &hash) noexcept
{
    GroupCopyScope copy(*pStatus, uid);
    for (int32_t i = 0; i < config.iLimit; ++i) {
        const ZEVO_BANDWIDTH_LIMIT &limit = config.pLimit[i];
        if (!IsCharged(limit)) continue;
        copy.Charge(limit);
        if (::ZEVOBandwidthInitHashFromStatus(hash.address(), pStatus) < 0)
            return BW_PASS("Init hash from status failed. ");
        if (ZEVOBandwidthIStatusRecordSave(ZEVO_BW_OWNER_GROUP, limit.conf.id, szSection,
                                           hash.get(), RewriteMode::kSet) < 0)
            return BW_PASS("Save record for uid: [%u], section:[%s] failed. ", uid, szSection);
    }
    return 0;
}

// 0, kStopped, or -1.
int Save(uint32_t uid, const ZEVO_BANDWIDTH_CONFIG *pConfig, ZEVO_BANDWIDTH_STATUS *pStatus,
         RewriteMode mode) noexcept
{
    BW_REQUIRE(uid != static_cast<uid_t>(-1), "(uid_t)((uid_t) -1) != uid");
    BW_REQUIRE(pStatus != nullptr, "NULL != pStatus");

    Hash hash;
    if (!hash) {
        BW_LOG_SLOT("VLIBCSzHashAlloc failed.");
        return BW_FAIL(ZEVO_BW_ERROR_NO_MEMORY);
    }
    if (::ZEVOBandwidthInitHashFromStatus(hash.address(), pStatus) < 0)
        return BW_PASS("Init hash from status failed. ");
    const StatusSection section(pStatus->pid, static_cast<int32_t>(pStatus->transfer_type));
    const int saved =
        ZEVOBandwidthIStatusRecordSave(ZEVO_BW_OWNER_USER, uid, section.get(), hash.get(), mode);
    if (saved < 0)
        return BW_PASS("Save record for uid: [%u], section:[%s] failed. ", uid, section.get());
    if (saved == kStopped || pConfig == nullptr || pConfig->blGroupConfExist == 0) return saved;
    return SaveGroupCopies(uid, *pConfig, pStatus, section.get(), hash);
}

} // namespace

int bandwidth::SaveUnlessStopped(uint32_t uid, const ZEVO_BANDWIDTH_CONFIG *pConfig,
                                 ZEVO_BANDWIDTH_STATUS *pStatus) noexcept
{
    return Save(uid, pConfig, pStatus, RewriteMode::kSetUnlessStopped);
}

int ZEVOBandwidthStatusSave(uint32_t uid, const ZEVO_BANDWIDTH_CONFIG *pConfig,
                            ZEVO_BANDWIDTH_STATUS *pStatus) noexcept
{
    const CancelScope cancel;
    return Save(uid, pConfig, pStatus, RewriteMode::kSet);
}
