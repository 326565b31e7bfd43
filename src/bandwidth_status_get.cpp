// Reading one transfer's record from a status file, live or stale.

#include "internal/guard.hpp"
#include "internal/status_path.hpp"

#include <unistd.h>

using namespace bandwidth;

int ZEVOBandwidthIStatusGet(int32_t owner_type, uint32_t id, pid_t pid, int32_t transfer_type,
                            ZEVO_BANDWIDTH_STATUS *pStatus) noexcept
{
    const CancelScope cancel;
    BW_REQUIRE(pid != -1, "(pid_t)-1 != pid");
    BW_REQUIRE(transfer_type != ZEVO_BW_TRANSFER_ALL, "ZEVO_BW_TRANSFER_ALL != transfer_type");
    BW_REQUIRE(pStatus != nullptr, "NULL != pStatus");

    Hash hash;
    if (!hash) return BW_PASS_UNLOGGED;
    const StatusSection section(pid, transfer_type);
    StatusPath path;
    if (path.Compose(owner_type, id, BW_HERE) < 0) return BW_PASS_UNLOGGED;
    if (::VLIBCFileExist(path.get()) != 1) return BW_PASS("File [%s] doesn't exist. ", path.get());
    if (::VLIBCFileGetSection(path.get(), section.get(), hash.address()) <= 0)
        return BW_PASS("Get section [%s] from [%s] failed. ", section.get(), path.get());
    if (::ZEVOBandwidthInitStatusFromHash(pStatus, hash.get()) < 0)
        return BW_PASS("Init status from hash failed. ");
    return 0;
}

int ZEVOBandwidthStatusGet(int32_t owner_type, uint32_t id, int32_t transfer_type,
                           ZEVO_BANDWIDTH_STATUS *pStatus) noexcept
{
    return ::ZEVOBandwidthIStatusGet(owner_type, id, ::getpid(), transfer_type, pStatus);
}
