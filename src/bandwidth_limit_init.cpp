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

// The ids of all groups that the user belongs to, as text.
int ListGroups(uint32_t uid, List &groups) noexcept
{
    ZEVO_USER *pUser = nullptr;
    if (::ZEVOUserGetByUID(uid, &pUser) < 0)
        return BW_PASS("ZEVOUserGetByUID failed. uid:[%u] ", uid);
    const User user(pUser);
    groups.reset(::VLIBGroupInfoListGet(user->szName, 0));
    if (!groups) return BW_PASS("VLIBGroupInfoListGet failed. name:[%s] ", user->szName);
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
    *pblUserConfExist = MayApply(userRule) ? 1 : 0;

    List groups;
    if (pGlobalConf->userGroupPolicy != ZEVO_BW_USER_GROUP_POLICY_USER_ONLY &&
        ListGroups(uid, groups) < 0)
        return BW_PASS_UNLOGGED;
    const int32_t nGroups = groups ? groups->nItem : 0;
    auto limits = AllocateArray<ZEVO_BANDWIDTH_LIMIT>(1 + static_cast<size_t>(nGroups));
    if (!limits) {
        BW_LOG("malloc ZEVO_BANDWIDTH_LIMIT failed.");
        return BW_FAIL(ZEVO_BW_ERROR_NO_MEMORY);
    }
    ZEVO_BANDWIDTH_LIMIT *pEnd = limits.get(); // of the rules that may apply
    if (*pblUserConfExist != 0) (pEnd++)->conf = userRule;
    for (int32_t i = 0; i < nGroups; ++i) {
        uint32_t gid = 0;
        if (ReadGid(::VLIBCSzListGet(groups.get(), i), &gid, BW_HERE) < 0) return BW_PASS_UNLOGGED;
        if (::ZEVOBandwidthConfGetByID(ZEVO_BW_OWNER_GROUP, gid, protocolType, &pEnd->conf) < 0)
            return BW_PASS("ZEVOBandwidthConfGetByID failed. gid:[%u] ", gid);
        if (MayApply(pEnd->conf)) ++pEnd;
    }

    const auto count = static_cast<int>(pEnd - limits.get());
    const bool hasGroup = std::any_of(limits.get(), pEnd, [](const ZEVO_BANDWIDTH_LIMIT &limit) {
        return limit.conf.ownerType == ZEVO_BW_OWNER_GROUP;
    });
    *pblGroupConfExist = hasGroup ? 1 : 0;
    *ppLimit = count == 0 ? nullptr : limits.release();
    return count;
}
