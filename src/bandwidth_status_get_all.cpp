// Listing the running transfers of one status file, and clearing it on the way: a section that has
// not been saved for more than 30 seconds belongs to a transfer that died. Every listing removes all
// stale sections at its end, whatever it looks for. Nothing is locked: others may change the file
// between any two operations of the platform. A listing hands out records; the expected speed only
// looks at them, in a walk that keeps none.

#include "internal/status_walk.hpp"

#include "internal/guard.hpp"
#include "internal/status_path.hpp"
#include "internal/status_purge.hpp"

#include <cstdlib>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace bandwidth;

namespace {

constexpr int32_t kMerge = 1;

using Status = std::unique_ptr<ZEVO_BANDWIDTH_STATUS, Releaser<std::free>>;

void DeleteLeftover(const char *szFile, int64_t now) noexcept
{
    const zevo::Place place(szFile);
    struct stat status = {};
    if (!place.fault() && ::fstatat(place.dir(), place.name(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        status.st_mtime < now - ZEVO_BW_LEFTOVER_AFTER_SECONDS)
        (void)::unlinkat(place.dir(), place.name(), 0); // somebody else may have done it
}

// One walk over a status file.
class Walk {
public:
    // now: the one moment from which all ages count, seconds.
    Walk(const char *szFile, int64_t now, int32_t protocolMask, uint32_t transferMask,
         StatusVisitor &visitor) noexcept
        : szFile_(szFile), now_(now), protocolMask_(static_cast<uint32_t>(protocolMask)),
          transferMask_(transferMask), visitor_(visitor)
    {
    }

    int Run() noexcept
    {
        Hash hash;
        if (!hash) return BW_PASS_UNLOGGED;
        const StrangersFileScope strangers(szFile_);
        VLIB_SZ_LIST *pNames = ::VLIBCSzListAlloc(kListSize);
        const int nSections = pNames == nullptr ? -1 : ::VLIBCFileEnumSection(szFile_, &pNames);
        names_.reset(pNames);
        if (nSections < 0) return BW_PASS_UNLOGGED;
        int shown = 0;
        for (int32_t i = 0; shown == 0 && i < names_->nItem; ++i)
            shown = ShowSection(i, hash);
        RemoveStale();
        return shown;
    }

private:
    const char *Name(int32_t i) const noexcept { return ::VLIBCSzListGet(names_.get(), i); }

    bool Passes(const ZEVO_BANDWIDTH_STATUS &status) const noexcept
    {
        return (status.protocol_type & protocolMask_) != 0 &&
               (status.transfer_type & transferMask_) != 0;
    }

    int FailForMemory(int32_t i) const noexcept
    {
        BW_LOG("malloc ZEVO_BANDWIDTH_STATUS failed. key:[%s]", Name(i));
        return BW_FAIL(ZEVO_BW_ERROR_NO_MEMORY);
    }

    // Reads a section and shows it to the visitor if it is wanted: 0, or -1 without memory.
    int ShowSection(int32_t i, Hash &hash) noexcept
    {
        (void)::VLIBCHashRemoveAll(hash.get());
        const int found = ::VLIBCFileGetSection(szFile_, Name(i), hash.address());
        if (found < 0) BW_LOG_SLOT("Get section [%s] from [%s] failed. ", Name(i), szFile_);
        if (found <= 0) return 0; // 0: removed since the names were listed
        ZEVO_BANDWIDTH_STATUS *const pStatus = visitor_.NextRecord();
        if (pStatus == nullptr) return FailForMemory(i);
        if (StatusFromHash(pStatus, hash.get()) < 0) {
            BW_LOG_SLOT("Init status from hash failed. ");
            return 0;
        }
        if (IsStale(*pStatus, now_)) {
            NoteStale(i);
            return 0;
        }
        return Passes(*pStatus) && !visitor_.Visit() ? FailForMemory(i) : 0;
    }

    void NoteStale(int32_t i) noexcept
    {
        if (!stale_) stale_ = AllocateArray<int32_t>(static_cast<size_t>(names_->nItem));
        if (stale_) {
            stale_[nStale_++] = i;
        } else {
            BW_RECORD(ZEVO_BW_ERROR_NO_MEMORY);
            LogNotRemoved(i);
        }
    }

    void RemoveStale() noexcept
    {
        if (nStale_ == 0 || Purge(szFile_, now_).Run() == 0) return;
        for (size_t i = 0; i < nStale_; ++i)
            LogNotRemoved(stale_[i]);
    }

    void LogNotRemoved(int32_t i) const noexcept
    {
        BW_LOG_SLOT("VLIBCFileRemoveSection failed. user:[%s], section:[%s] ", szFile_, Name(i));
    }

    const char *const szFile_;
    const int64_t now_;
    const uint32_t protocolMask_;
    const uint32_t transferMask_;
    StatusVisitor &visitor_;
    List names_;           // of the sections
    Array<int32_t> stale_; // indexes into names_
    size_t nStale_ = 0;
};

int WalkFile(const char *szFile, int64_t now, int32_t protocolMask, uint32_t transferMask,
             StatusVisitor &visitor) noexcept
{
    if (std::strchr(szFile, '.') != nullptr) {
        DeleteLeftover(szFile, now);
        return 0;
    }
    if (::VLIBCFileExist(szFile) != 1) return 0;
    return Walk(szFile, now, protocolMask, transferMask, visitor).Run();
}

// Puts the records into a list, the last one first.
class Lister final : public StatusVisitor {
public:
    explicit Lister(bool merge) noexcept : merge_(merge) {}
    ~Lister() { ::ZEVOBandwidthStatusListFree(&pHead_); }
    Lister(const Lister &) = delete;
    Lister &operator=(const Lister &) = delete;

    ZEVO_BANDWIDTH_STATUS *NextRecord() noexcept override
    {
        isUsed_ = static_cast<bool>(record_); // the last section was not taken
        if (isUsed_) {
            ClearButName(*record_);
            record_->filename[0] = '\0';
        } else {
            record_.reset(static_cast<ZEVO_BANDWIDTH_STATUS *>(
                std::calloc(1, sizeof(ZEVO_BANDWIDTH_STATUS))));
        }
        return record_.get();
    }
    bool Visit() noexcept override
    {
        if (isUsed_) ClearBehindName(*record_);
        if (ZEVO_BANDWIDTH_STATUS *const pAlike = merge_ ? FindAlike() : nullptr;
            pAlike != nullptr) {
            pAlike->current_speed =
                ::ZEVOBandwidthSum(pAlike->current_speed, record_->current_speed);
            pAlike->expect_speed = ::ZEVOBandwidthSum(pAlike->expect_speed, record_->expect_speed);
            return true;
        }
        record_->next = pHead_;
        pHead_ = record_.release();
        ++count_;
        return true;
    }
    int count() const noexcept { return count_; }
    ZEVO_BANDWIDTH_STATUS *Detach() noexcept { return std::exchange(pHead_, nullptr); }

private:
    ZEVO_BANDWIDTH_STATUS *FindAlike() const noexcept
    {
        ZEVO_BANDWIDTH_STATUS *p = pHead_;
        while (p != nullptr && (p->protocol_type != record_->protocol_type ||
                                p->transfer_type != record_->transfer_type))
            p = p->next;
        return p;
    }

    const bool merge_;
    Status record_;
    bool isUsed_ = false; // a longer name may have stood in it
    ZEVO_BANDWIDTH_STATUS *pHead_ = nullptr;
    int count_ = 0;
};

} // namespace

int bandwidth::WalkStatuses(int32_t ownerType, uint32_t id, int32_t protocolMask,
                            uint32_t transferMask, StatusVisitor &visitor) noexcept
{
    StatusPath path;
    if (path.Compose(ownerType, id, BW_HERE) < 0) return BW_PASS_UNLOGGED;
    return WalkFile(path.get(), std::time(nullptr), protocolMask, transferMask, visitor);
}

int ZEVOBandwidthIStatusGetAll(const char *szStatusFile, int32_t protocol_mask,
                               uint32_t transfer_mask, ZEVO_BANDWIDTH_STATUS **pStatusList,
                               int32_t blMerge) noexcept
{
    const CancelScope cancel;
    const int64_t now = std::time(nullptr);
    BW_REQUIRE(szStatusFile != nullptr, "((void *)0) != szStatusFile");
    BW_REQUIRE(pStatusList != nullptr, "NULL != pStatusList");
    Lister lister(blMerge == kMerge);
    if (WalkFile(szStatusFile, now, protocol_mask, transfer_mask, lister) < 0)
        return BW_PASS_UNLOGGED;
    if (lister.count() > 0) *pStatusList = lister.Detach();
    return lister.count();
}

int ZEVOBandwidthStatusGetAll(int32_t owner_type, uint32_t id, int32_t protocol_mask,
                              uint32_t transfer_mask, ZEVO_BANDWIDTH_STATUS **pStatusList) noexcept
{
    const CancelScope cancel;
    StatusPath path;
    if (path.Compose(owner_type, id, BW_HERE) < 0) return BW_PASS_UNLOGGED;
    return ::ZEVOBandwidthIStatusGetAll(path.get(), protocol_mask, transfer_mask, pStatusList, 0);
}

void ZEVOBandwidthStatusListFree(ZEVO_BANDWIDTH_STATUS **pStatusList) noexcept
{
    while (*pStatusList != nullptr) {
        ZEVO_BANDWIDTH_STATUS *const pFirst = *pStatusList;
        *pStatusList = pFirst->next;
        std::free(pFirst);
    }
}
