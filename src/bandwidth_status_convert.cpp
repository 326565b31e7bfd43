// A running transfer as a string hash and back: one table for the engine. The time stamp comes last
// in a status file, so that a section that was cut off in the middle of a write is stale: it lacks
// the stamp, or what is left of it is a time long ago. A section that lacks nothing but its last line
// end is whole.

#include "internal/guard.hpp"
#include "internal/parm.hpp"
#include "internal/status_walk.hpp"

using namespace bandwidth;

namespace {

// The record is part of the binary interface.
static_assert(offsetof(ZEVO_BANDWIDTH_STATUS, pid) == sizeof(void *));
static_assert(offsetof(ZEVO_BANDWIDTH_STATUS, timestamp) == Pinned(24, 24, 20));
static_assert(offsetof(ZEVO_BANDWIDTH_STATUS, filename) == Pinned(48, 48, 44));
static_assert(offsetof(ZEVO_BANDWIDTH_STATUS, owner_type) ==
              offsetof(ZEVO_BANDWIDTH_STATUS, filename) + ZEVO_BW_FILENAME_SIZE);
static_assert(sizeof(ZEVO_BANDWIDTH_STATUS) == Pinned(4160, 4160, 4156));

#define STATUS(field) offsetof(ZEVO_BANDWIDTH_STATUS, field), sizeof(ZEVO_BANDWIDTH_STATUS::field)

// clang-format off
constexpr ZEVO_BW_PARM kStatusParms[] = {
    // key            field, capacity        kind             name table
    {"pid",           STATUS(pid),           Kind::kSigned},
    {"id",            STATUS(id),            Kind::kUnsigned},
    {"uid",           STATUS(uid),           Kind::kUnsigned},
    {"active",        STATUS(active),        Kind::kUnsigned},
    {"timestamp",     STATUS(timestamp),     Kind::kSigned, nullptr, true},
    {"current speed", STATUS(current_speed), Kind::kUnsigned},
    {"expect speed",  STATUS(expect_speed),  Kind::kUnsigned},
    {"filename",      STATUS(filename),      Kind::kText},
    {"owner type",    STATUS(owner_type),    Kind::kName, ZEVO_BW_OWNER_TYPE_LIST},
    {"protocol type", STATUS(protocol_type), Kind::kName, ZEVO_BW_PROTOCOL_TYPE_LIST},
    {"transfer type", STATUS(transfer_type), Kind::kName, ZEVO_BW_TRANSFER_TYPE_LIST},
    {"progress",      STATUS(progress),      Kind::kUnsigned},
    {}, // the end
};
// clang-format on

} // namespace

int ZEVOBandwidthInitHashFromStatus(VLIB_SZ_HASH **ppHash,
                                    const ZEVO_BANDWIDTH_STATUS *pStatus) noexcept
{
    const CancelScope cancel;
    BW_REQUIRE(ppHash != nullptr, "((void *)0) != ppHash");
    BW_REQUIRE(*ppHash != nullptr, "((void *)0) != *ppHash");
    BW_REQUIRE(pStatus != nullptr, "NULL != pStatus");
    return HashFromRecord(ppHash, pStatus, kStatusParms, BW_HERE);
}

int ZEVOBandwidthInitStatusFromHash(ZEVO_BANDWIDTH_STATUS *pStatus,
                                    const VLIB_SZ_HASH *pHash) noexcept
{
    const CancelScope cancel; // the log may block
    return StatusFromHash(pStatus, pHash);
}

int bandwidth::StatusFromHash(ZEVO_BANDWIDTH_STATUS *pStatus, const VLIB_SZ_HASH *pHash) noexcept
{
    BW_REQUIRE(pHash != nullptr, "((void *)0) != pHash");
    BW_REQUIRE(pStatus != nullptr, "NULL != pStatus");
    return RecordFromHash(pStatus, pHash, kStatusParms, BW_HERE);
}
