// Gathering the rules that apply to a user: the user's own and, unless the policy is user-only, those
// of every group that the user belongs to.

#include "internal/frame.hpp"
#include "internal/group.hpp"
#include "internal/guard.hpp"

#include <algorithm>

using namespace bandwidth;

namespace {

bool MayApply(const ZEVO_BANDWIDTH_CONF &rule) noexcept
{
    return rule.state == ZEVO_BW_STATE_ENABLED || rule.state == ZEVO_BW_STATE_SCHEDULE;
}

Array<ZEVO_BANDWIDTH_LIMIT> AllocateLimits(size_t count, Site site) noexcept
{
    auto limits = AllocateArray<ZEVO_BANDWIDTH_LIMIT>(count);
    if (!limits) {
        BW_LOG_AT(site, "malloc ZEVO_BANDWIDTH_LIMIT failed.");
        Record(ZEVO_BW_ERROR_NO_MEMORY, site);
    }
    return limits;
}

// The rules that may apply: the user's own, if it does, and then those of all the user's groups.
struct Candidates {
    Array<ZEVO_BANDWIDTH_LIMIT> limits;
    size_t count = 0;
};

int ReadGroupRules(uint32_t uid, int32_t protocolType, size_t userRules,
                   Candidates &candidates) noexcept
{
    ZEVO_USER *pUser = nullptr;
    if (::ZEVOUserGetByUID(uid, &pUser) < 0)
        return BW_PASS("ZEVOUserGetByUID failed. uid:[%u] ", uid);
    const User user(pUser);
    const List groups(::VLIBGroupInfoListGet(user->szName, 0));
    if (!groups) return BW_PASS("VLIBGroupInfoListGet failed. name:[%s] ", user->szName);
    candidates.count = userRules + static_cast<size_t>(groups->nItem);
    candidates.limits = AllocateLimits(candidates.count, BW_HERE);
    if (!candidates.limits) return BW_PASS_UNLOGGED;
    for (int32_t i = 0; i < groups->nItem; ++i) {
        ZEVO_BANDWIDTH_LIMIT &limit = candidates.limits[userRules + static_cast<size_t>(i)];
        uint32_t gid = 0;
        if (ReadGid(::VLIBCSzListGet(groups.get(), i), &gid, BW_HERE) < 0) return BW_PASS_UNLOGGED;
        if (::ZEVOBandwidthConfGetByID(ZEVO_BW_OWNER_GROUP, gid, protocolType, &limit.conf) < 0)
            return BW_PASS("ZEVOBandwidthConfGetByID failed. gid:[%u] ", gid);
    }
    return 0;
}

} // namespace

int ZEVOBandwidthLimitInit(uint32_t uid, const ZEVO_BANDWIDTH_GLOBAL_CONF *pGlobalConf,
                           ZEVO_BANDWIDTH_LIMIT **ppLimit, uint32_t *pblUserConfExist,
                           uint32_t *pblGroupConfExist) noexcept
{
    const CancelScope cancel;
    BW_REQUIRE(uid != static_cast<uid_t>(-1), "((uid_t) -1) != uid");
    BW_REQUIRE(pGlobalConf != nullptr, "((void *)0) != pGlobalConf");
    BW_REQUIRE(ppLimit != nullptr, "((void *)0) != ppLimit");
    BW_REQUIRE(pblUserConfExist != nullptr, "((void *)0) != pblUserConfExist");
    BW_REQUIRE(pblGroupConfExist != nullptr, "NULL != pblGroupConfExist");
    *pblUserConfExist = 0;
    *pblGroupConfExist = 0;

    const int32_t protocolType = pGlobalConf->protocolType;
    ZEVO_BANDWIDTH_CONF userRule;
    if (::ZEVOBandwidthConfGetByID(ZEVO_BW_OWNER_USER, uid, protocolType, &userRule) < 0)
        return BW_PASS("ZEVOBandwidthConfGetByID failed. uid:[%u] ", uid);
    const size_t userRules = MayApply(userRule) ? 1 : 0;
    *pblUserConfExist = static_cast<uint32_t>(userRules);

    Candidates candidates;
    if (pGlobalConf->userGroupPolicy != ZEVO_BW_USER_GROUP_POLICY_USER_ONLY) {
        if (ReadGroupRules(uid, protocolType, userRules, candidates) < 0) return BW_PASS_UNLOGGED;
    } else if (userRules != 0) {
        candidates.count = userRules;
        candidates.limits = AllocateLimits(userRules, BW_HERE);
        if (!candidates.limits) return BW_PASS_UNLOGGED;
    }
    if (userRules != 0) candidates.limits[0].conf = userRule;

    const auto applies = [](const ZEVO_BANDWIDTH_LIMIT &limit) { return MayApply(limit.conf); };
    const ZEVO_BANDWIDTH_LIMIT *const pFirst = candidates.limits.get();
    const ZEVO_BANDWIDTH_LIMIT *const pEnd = pFirst + candidates.count;
    const auto count = std::count_if(pFirst, pEnd, applies);
    if (count == 0) {
        *ppLimit = nullptr;
        return 0;
    }
    auto limits = AllocateLimits(static_cast<size_t>(count), BW_HERE);
    if (!limits) return BW_PASS_UNLOGGED;
    std::copy_if(pFirst, pEnd, limits.get(), applies);
    for (ptrdiff_t i = 0; i < count; ++i)
        if (limits[static_cast<size_t>(i)].conf.ownerType == ZEVO_BW_OWNER_GROUP)
            *pblGroupConfExist = 1;
    *ppLimit = limits.release();
    return static_cast<int>(count);
}
