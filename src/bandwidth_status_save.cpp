// Saving a running transfer: one copy in its user's status file and one in the file of each group
// it is charged to, where it stands with the share of its speed that the group bears. Nothing is
// locked: a section is replaced by replacing the file, and of two processes that do so at once the
// one that lost finds its numbers again after its next block.

#include "bandwidth_guard.hpp"
#include "bandwidth_mask.hpp"
#include "bandwidth_speed.hpp"
#include "bandwidth_status_path.hpp"

#include <cerrno>

#include <sys/stat.h>

using namespace bandwidth;

namespace {

constexpr mode_t kStatusDirectoryMode = 0777;
constexpr int kMostRepeats = 2;

// Makes the status directory unless it is there. A link is no directory: whoever planted it must
// not choose where the files go.
int EnsureDirectory() noexcept
{
    constexpr char kWithoutSlash[] =
        ZEVO_BW_STATUS_DIRECTORY; // a slash at the end would follow a link
    struct stat status = {};
    if (::lstat(kWithoutSlash, &status) == 0) {
        if (S_ISDIR(status.st_mode)) return 0;
    } else if (errno != ENOENT && errno != ENOTDIR) {
        BW_LOG("stat [%s] failed. %m", kStatusDirectory);
        return BW_FAIL(ZEVO_BW_ERROR_STAT);
    }
    const OpenMaskScope openMask;
    if (::ZEVOFSMkdirP(kStatusDirectory, 0, 1, static_cast<uid_t>(-1), static_cast<gid_t>(-1),
                       kStatusDirectoryMode) < 0)
        return BW_PASS("ZEVOFSMkdirP failed. [%s] ", kStatusDirectory);
    return 0;
}

int EnsureFile(const char *szFile) noexcept
{
    if (::VLIBCFileExist(szFile) == 1) return 0;
    const OpenMaskScope openMask;
    if (::VLIBCFileTouch(szFile) < 0) return BW_PASS("VLIBCFileTouch [%s] failed. ", szFile);
    return 0;
}

int ZEVOBandwidthIStatusRecordSave(int32_t owner_type, uint32_t id, const char *szSection,
                                   const VLIB_SZ_HASH *pHash) noexcept
{
    BW_REQUIRE(pHash != nullptr, "NULL != pHash");
    if (EnsureDirectory() < 0) return BW_PASS_UNLOGGED;
    StatusPath path;
    if (path.Compose(owner_type, id, BW_HERE) < 0 || EnsureFile(path.get()) < 0)
        return BW_PASS_UNLOGGED;
    for (int attempt = 0;; ++attempt) {
        const int replaced = ::ZEVOBandwidthStatusSetSection(path.get(), szSection, pHash);
        if (replaced < 0)
            return BW_PASS("Save section [%s] to [%s] failed. ", szSection, path.get());
        if (replaced > 0) return 0;
        const int added = ::ZEVOBandwidthStatusAddSection(path.get(), szSection, pHash);
        if (added < 0) return BW_PASS("Add section [%s] to [%s] failed. ", szSection, path.get());
        // 0: the section has appeared meanwhile, as when a purge has put back what it had taken. When
        // it comes and goes like that these values follow at the next save.
        if (added > 0 || attempt == kMostRepeats) return 0;
    }
}

// Lets a record pass for a group's copy, and gives it back as it was.
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
                                           hash.get()) < 0)
            return BW_PASS("Save record for uid: [%u], section:[%s] failed. ", uid, szSection);
    }
    return 0;
}

} // namespace

int ZEVOBandwidthStatusSave(uint32_t uid, const ZEVO_BANDWIDTH_CONFIG *pConfig,
                            ZEVO_BANDWIDTH_STATUS *pStatus) noexcept
{
    const CancelScope cancel;
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
    if (ZEVOBandwidthIStatusRecordSave(ZEVO_BW_OWNER_USER, uid, section.get(), hash.get()) < 0)
        return BW_PASS("Save record for uid: [%u], section:[%s] failed. ", uid, section.get());
    if (pConfig == nullptr || pConfig->blGroupConfExist == 0) return 0;
    return SaveGroupCopies(uid, *pConfig, pStatus, section.get(), hash);
}
