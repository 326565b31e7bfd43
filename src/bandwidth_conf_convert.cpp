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
    // key                    field, capacity            names                       to text    from text
    {"id",                   RULE(id),                  nullptr,                    U32ToText, U32FromText},
    {"state",                RULE(state),               ZEVO_BW_STATE_LIST,         nullptr,   nullptr},
    {"owner type",           RULE(ownerType),           ZEVO_BW_OWNER_TYPE_LIST,    nullptr,   nullptr},
    {"protocol type",        RULE(protocolType),        ZEVO_BW_PROTOCOL_TYPE_LIST, nullptr,   nullptr},
    {"upload rate",          RULE(uploadRate),          nullptr,                    U64ToText, U64FromText},
    {"download rate",        RULE(downloadRate),        nullptr,                    U64ToText, U64FromText},
    {"upload rate custom",   RULE(uploadRateCustom),    nullptr,                    U64ToText, U64FromText},
    {"download rate custom", RULE(downloadRateCustom),  nullptr,                    U64ToText, U64FromText},
    {"schedule plan",        RULE(szSchedulePlan),      nullptr,                    nullptr,   nullptr},
    {}, // the end
};

constexpr ZEVO_BW_PARM kGlobalParms[] = {
    // key                 field, capacity           names                            to text  from text
    {"state",              GLOBAL(state),            ZEVO_BW_STATE_LIST,              nullptr, nullptr},
    {"user-group policy",  GLOBAL(userGroupPolicy),  ZEVO_BW_USER_GROUP_POLICY_LIST,  nullptr, nullptr},
    {"inter-group policy", GLOBAL(interGroupPolicy), ZEVO_BW_INTER_GROUP_POLICY_LIST, nullptr, nullptr},
    {"occupy policy",      GLOBAL(occupyPolicy),     ZEVO_BW_OCCUPY_POLICY_LIST,      nullptr, nullptr},
    {"schedule plan",      GLOBAL(szSchedulePlan),   nullptr,                         nullptr, nullptr},
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
