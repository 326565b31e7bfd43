// Rules and policies as string hashes and back: two tables for one engine.

#include "internal/guard.hpp"
#include "internal/parm.hpp"

using namespace bandwidth;

namespace {

// The records are part of the binary interface.
static_assert(offsetof(ZEVO_BANDWIDTH_CONF, currentUploadRate) == Pinned(24, 24, 20));
static_assert(offsetof(ZEVO_BANDWIDTH_CONF, currentDownloadRate) ==
              offsetof(ZEVO_BANDWIDTH_CONF, currentUploadRate) + sizeof(uint64_t));
static_assert(offsetof(ZEVO_BANDWIDTH_CONF, szSchedulePlan) == Pinned(72, 72, 68));
static_assert(sizeof(ZEVO_BANDWIDTH_CONF) == Pinned(328, 328, 324));
static_assert(offsetof(ZEVO_BANDWIDTH_GLOBAL_CONF, szSchedulePlan) == 24);
static_assert(sizeof(ZEVO_BANDWIDTH_GLOBAL_CONF) == 280);
static_assert(offsetof(ZEVO_BANDWIDTH_LIMIT, maxSpeedBps) == sizeof(ZEVO_BANDWIDTH_CONF));
static_assert(sizeof(ZEVO_BANDWIDTH_LIMIT) == sizeof(ZEVO_BANDWIDTH_CONF) + 16);
static_assert(offsetof(ZEVO_BANDWIDTH_CONFIG, pLimit) == 16);
static_assert(offsetof(ZEVO_BANDWIDTH_CONFIG, globalConf) == Pinned(24, 20, 20));
static_assert(sizeof(ZEVO_BANDWIDTH_CONFIG) == Pinned(304, 300, 300));
static_assert(sizeof(ZEVO_BW_ENUM_ENTRY) == Pinned(16, 8, 8));

#define RULE(field) offsetof(ZEVO_BANDWIDTH_CONF, field), sizeof(ZEVO_BANDWIDTH_CONF::field)
#define GLOBAL(field)                                                                              \
    offsetof(ZEVO_BANDWIDTH_GLOBAL_CONF, field), sizeof(ZEVO_BANDWIDTH_GLOBAL_CONF::field)

// clang-format off
constexpr ZEVO_BW_PARM kRuleParms[] = {
    // key                   field, capacity            kind             name table
    {"id",                   RULE(id),                  Kind::kUnsigned},
    {"state",                RULE(state),               Kind::kName, ZEVO_BW_STATE_LIST},
    {"owner type",           RULE(ownerType),           Kind::kName, ZEVO_BW_OWNER_TYPE_LIST},
    {"protocol type",        RULE(protocolType),        Kind::kName, ZEVO_BW_PROTOCOL_TYPE_LIST},
    {"upload rate",          RULE(uploadRate),          Kind::kUnsigned},
    {"download rate",        RULE(downloadRate),        Kind::kUnsigned},
    {"upload rate custom",   RULE(uploadRateCustom),    Kind::kUnsigned},
    {"download rate custom", RULE(downloadRateCustom),  Kind::kUnsigned},
    {"schedule plan",        RULE(szSchedulePlan),      Kind::kText},
    {}, // the end
};

constexpr ZEVO_BW_PARM kGlobalParms[] = {
    // key                 field, capacity           kind             name table
    {"state",              GLOBAL(state),            Kind::kName, ZEVO_BW_STATE_LIST},
    {"user-group policy",  GLOBAL(userGroupPolicy),  Kind::kName, ZEVO_BW_USER_GROUP_POLICY_LIST},
    {"inter-group policy", GLOBAL(interGroupPolicy), Kind::kName, ZEVO_BW_INTER_GROUP_POLICY_LIST},
    {"occupy policy",      GLOBAL(occupyPolicy),     Kind::kName, ZEVO_BW_OCCUPY_POLICY_LIST},
    {"schedule plan",      GLOBAL(szSchedulePlan),   Kind::kText},
    {}, // the end
};
// clang-format on

} // namespace

int ZEVOBandwidthInitHashFromConf(VLIB_SZ_HASH **ppHash, const ZEVO_BANDWIDTH_CONF *pConf) noexcept
{
    const CancelScope cancel;
    BW_REQUIRE(ppHash != nullptr, "((void *)0) != ppHash");
    BW_REQUIRE(*ppHash != nullptr, "((void *)0) != *ppHash");
    BW_REQUIRE(pConf != nullptr, "NULL != pConf");
    return HashFromRecord(ppHash, pConf, kRuleParms, BW_HERE);
}

int ZEVOBandwidthInitConfFromHash(ZEVO_BANDWIDTH_CONF *pConf, const VLIB_SZ_HASH *pHash) noexcept
{
    const CancelScope cancel;
    BW_REQUIRE(pHash != nullptr, "((void *)0) != pHash");
    BW_REQUIRE(pConf != nullptr, "NULL != pConf");
    return RecordFromHash(pConf, pHash, kRuleParms, BW_HERE);
}

int ZEVOBandwidthInitHashFromGlobalConf(VLIB_SZ_HASH **ppHash,
                                        const ZEVO_BANDWIDTH_GLOBAL_CONF *pConf) noexcept
{
    const CancelScope cancel;
    BW_REQUIRE(ppHash != nullptr, "((void *)0) != ppHash");
    BW_REQUIRE(*ppHash != nullptr, "((void *)0) != *ppHash");
    BW_REQUIRE(pConf != nullptr, "NULL != pConf");
    return HashFromRecord(ppHash, pConf, kGlobalParms, BW_HERE);
}

int ZEVOBandwidthInitGlobalConfFromHash(ZEVO_BANDWIDTH_GLOBAL_CONF *pConf,
                                        const VLIB_SZ_HASH *pHash) noexcept
{
    const CancelScope cancel;
    BW_REQUIRE(pHash != nullptr, "((void *)0) != pHash");
    BW_REQUIRE(pConf != nullptr, "NULL != pConf");
    return RecordFromHash(pConf, pHash, kGlobalParms, BW_HERE);
}
