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
    // key            field, capacity        names                       to text    from text
    {"pid",           STATUS(pid),           nullptr,                    S32ToText, S32FromText},
    {"id",            STATUS(id),            nullptr,                    U32ToText, U32FromText},
    {"uid",           STATUS(uid),           nullptr,                    U32ToText, U32FromText},
    {"active",        STATUS(active),        nullptr,                    U32ToText, U32FromText},
    {"timestamp",     STATUS(timestamp),     nullptr,                    S64ToText, S64FromText, true},
    {"current speed", STATUS(current_speed), nullptr,                    U64ToText, U64FromText},
    {"expect speed",  STATUS(expect_speed),  nullptr,                    U64ToText, U64FromText},
    {"filename",      STATUS(filename),      nullptr,                    nullptr,   nullptr},
    {"owner type",    STATUS(owner_type),    ZEVO_BW_OWNER_TYPE_LIST,    nullptr,   nullptr},
    {"protocol type", STATUS(protocol_type), ZEVO_BW_PROTOCOL_TYPE_LIST, nullptr,   nullptr},
    {"transfer type", STATUS(transfer_type), ZEVO_BW_TRANSFER_TYPE_LIST, nullptr,   nullptr},
    {"progress",      STATUS(progress),      nullptr,                    U32ToText, U32FromText},
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
