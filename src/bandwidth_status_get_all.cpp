// Listing the running transfers of one status file, and clearing it on the way: a section that has
// not been saved for more than 30 seconds belongs to a transfer that died. Whoever lists the file
// removes it, whatever he looks for, together with all others at the end. Nothing is locked: others
// may change the file between any two of the platform's operations.

#include "bandwidth_guard.hpp"
#include "bandwidth_status_path.hpp"
#include "bandwidth_status_purge.hpp"

#include <cstdlib>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace bandwidth;

namespace {

constexpr int64_t kLeftoverAfterSeconds = 10;
constexpr int32_t kMerge = 1;

using Status = std::unique_ptr<ZEVO_BANDWIDTH_STATUS, Release<std::free>>;

// What one listing looks for, and what it has found.
struct Listing {
    const char *szFile;
    int64_t now; // one moment for every age, seconds
    uint32_t protocolMask;
    uint32_t transferMask;
    bool merge;
    Purge &purge;
    ZEVO_BANDWIDTH_STATUS *pHead = nullptr;
    int count = 0;
};

void DeleteLeftover(const char *szFile, int64_t now) noexcept
{
    const zevo::Place place(szFile);
    struct stat status = {};
    if (place && ::fstatat(place.dir(), place.name(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        status.st_mtime < now - kLeftoverAfterSeconds)
        (void)::unlinkat(place.dir(), place.name(), 0); // somebody else may have done it
}

bool Passes(const Listing &listing, const ZEVO_BANDWIDTH_STATUS &status) noexcept
{
    return (status.protocol_type & listing.protocolMask) != 0 &&
           (status.transfer_type & listing.transferMask) != 0;
}

ZEVO_BANDWIDTH_STATUS *FindKin(const Listing &listing, const ZEVO_BANDWIDTH_STATUS &status) noexcept
{
    ZEVO_BANDWIDTH_STATUS *p = listing.pHead;
    while (p != nullptr &&
           (p->protocol_type != status.protocol_type || p->transfer_type != status.transfer_type))
        p = p->next;
    return p;
}

void Accept(Listing &listing, Status status) noexcept
{
    ZEVO_BANDWIDTH_STATUS *const pKin = listing.merge ? FindKin(listing, *status) : nullptr;
    if (pKin != nullptr) {
        pKin->current_speed = ::ZEVOBandwidthSum(pKin->current_speed, status->current_speed);
        pKin->expect_speed = ::ZEVOBandwidthSum(pKin->expect_speed, status->expect_speed);
        return;
    }
    status->next = listing.pHead;
    listing.pHead = status.release();
    ++listing.count;
}

void LogNotRemoved(const Listing &listing, const char *szSection) noexcept
{
    BW_LOG_SLOT("VLIBCFileRemoveSection failed. user:[%s], section:[%s] ", listing.szFile,
                szSection);
}

// Reads one section and does with it what it calls for: 0, or -1 without memory.
int ListSection(Listing &listing, int32_t index, Hash &hash) noexcept
{
    const char *const szSection = listing.purge.name(index);
    (void)::VLIBCHashRemoveAll(hash.get());
    const int found = ::VLIBCFileGetSection(listing.szFile, szSection, hash.address());
    if (found < 0) BW_LOG_SLOT("Get section [%s] from [%s] failed. ", szSection, listing.szFile);
    if (found <= 0) return 0; // failed, or its owner has just taken it away to save it anew
    Status status(
        static_cast<ZEVO_BANDWIDTH_STATUS *>(std::calloc(1, sizeof(ZEVO_BANDWIDTH_STATUS))));
    if (!status) {
        BW_LOG("malloc ZEVO_BANDWIDTH_STATUS failed. key:[%s]", szSection);
        return BW_FAIL(ZEVO_BW_ERROR_NO_MEMORY);
    }
    if (::ZEVOBandwidthInitStatusFromHash(status.get(), hash.get()) < 0) {
        BW_LOG_SLOT("Init status from hash failed. ");
        return 0;
    }
    if (IsStale(*status, listing.now)) {
        if (!listing.purge.Note(index)) {
            BW_RECORD(ZEVO_BW_ERROR_NO_MEMORY);
            LogNotRemoved(listing, szSection);
        }
        return 0;
    }
    if (Passes(listing, *status)) Accept(listing, std::move(status));
    return 0;
}

int ListSections(Listing &listing, Hash &hash) noexcept
{
    for (int32_t i = 0; i < listing.purge.count(); ++i)
        if (ListSection(listing, i, hash) < 0) return BW_PASS_UNLOGGED;
    return 0;
}

void RunPurge(const Listing &listing) noexcept
{
    if (listing.purge.Run() == 0) return;
    for (int32_t i = 0; i < listing.purge.noted(); ++i)
        LogNotRemoved(listing, listing.purge.NotedName(i));
}

} // namespace

int ZEVOBandwidthIStatusGetAll(const char *szStatusFile, int32_t protocol_mask,
                               uint32_t transfer_mask, ZEVO_BANDWIDTH_STATUS **pStatusList,
                               int32_t blMerge) noexcept
{
    const CancelScope cancel;
    const int64_t now = std::time(nullptr);
    BW_REQUIRE(szStatusFile != nullptr, "((void *)0) != szStatusFile");
    BW_REQUIRE(pStatusList != nullptr, "NULL != pStatusList");
    if (std::strchr(szStatusFile, '.') != nullptr) {
        DeleteLeftover(szStatusFile, now);
        return 0;
    }
    if (::VLIBCFileExist(szStatusFile) != 1) return 0;

    Hash hash;
    if (!hash) return BW_PASS_UNLOGGED;
    Purge purge(szStatusFile, now);
    VLIB_SZ_LIST *pNames = ::VLIBCSzListAlloc(kListSize);
    const int sections = pNames == nullptr ? -1 : ::VLIBCFileEnumSection(szStatusFile, &pNames);
    purge.SetNames(List(pNames));
    if (sections < 0) return BW_PASS_UNLOGGED;
    if (sections == 0) return 0;

    Listing listing{szStatusFile,      now,  static_cast<uint32_t>(protocol_mask), transfer_mask,
                    blMerge == kMerge, purge};
    const int listed = ListSections(listing, hash);
    RunPurge(listing);
    if (listed < 0) {
        ::ZEVOBandwidthStatusListFree(&listing.pHead);
        return BW_PASS_UNLOGGED;
    }
    if (listing.count > 0) *pStatusList = listing.pHead;
    return listing.count;
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
