// What all rules and the policies together leave one transfer, and to which groups it is charged.
// Each rule that applies leaves it a speed. The inter-group policy combines those of the groups' rules,
// the user-group policy combines the result with that of the user's own. 0 is unlimited throughout:
// speeds are compared and added with the three functions made for it.

#include "internal/frame.hpp"
#include "internal/guard.hpp"
#include "internal/speed.hpp"

#include <unistd.h>

using namespace bandwidth;

namespace {

// What the rules leave the transfer, of the entries that have been estimated so far.
struct Estimates {
    bool hasUser = false;
    bool hasGroup = false;
    uint64_t userBps = 0;
    uint64_t groupBps = 0; // combined by the inter-group policy
    uint64_t sumBps = 0;   // of all groups
    uint64_t unlimitedGroups = 0;
    ZEVO_BANDWIDTH_LIMIT *pMin = nullptr; // the group with the lowest speed, the first of equals
    ZEVO_BANDWIDTH_LIMIT *pMax = nullptr; // the one with the highest
};

int AddGroup(Estimates &estimates, ZEVO_BANDWIDTH_LIMIT &entry, int32_t interGroupPolicy) noexcept
{
    const uint64_t speedBps = entry.maxSpeedBps;
    if (speedBps == 0) ++estimates.unlimitedGroups;
    if (!estimates.hasGroup) {
        estimates.hasGroup = true;
        estimates.groupBps = estimates.sumBps = speedBps;
        estimates.pMin = estimates.pMax = &entry;
        return 0;
    }
    if (interGroupPolicy < ZEVO_BW_INTER_GROUP_POLICY_MIN ||
        interGroupPolicy > ZEVO_BW_INTER_GROUP_POLICY_SUM)
        return BW_LOG_AND_PASS("unknown inter_group_policy [%d] ", interGroupPolicy);
    if (::ZEVOBandwidthIsLessThan(speedBps, estimates.pMin->maxSpeedBps) != 0)
        estimates.pMin = &entry;
    if (::ZEVOBandwidthIsLargerThan(speedBps, estimates.pMax->maxSpeedBps) != 0)
        estimates.pMax = &entry;
    estimates.sumBps = ::ZEVOBandwidthSum(estimates.sumBps, speedBps);
    estimates.groupBps =
        interGroupPolicy == ZEVO_BW_INTER_GROUP_POLICY_MIN   ? estimates.pMin->maxSpeedBps
        : interGroupPolicy == ZEVO_BW_INTER_GROUP_POLICY_MAX ? estimates.pMax->maxSpeedBps
                                                             : estimates.sumBps;
    return 0;
}

// A missing speed is 0: without any rule the transfer is unlimited.
int Combine(const Estimates &estimates, int32_t userGroupPolicy, uint64_t *pSpeedBps) noexcept
{
    const uint64_t userBps = estimates.userBps;
    const uint64_t groupBps = estimates.groupBps;
    const uint64_t onlyBps = estimates.hasUser ? userBps : groupBps;
    const bool hasBoth = estimates.hasUser && estimates.hasGroup;
    switch (userGroupPolicy) {
    case ZEVO_BW_USER_GROUP_POLICY_USER_ONLY:
        *pSpeedBps = userBps;
        return 0;
    case ZEVO_BW_USER_GROUP_POLICY_GROUP_ONLY:
        *pSpeedBps = groupBps;
        return 0;
    case ZEVO_BW_USER_GROUP_POLICY_USER_FIRST:
        *pSpeedBps = onlyBps;
        return 0;
    case ZEVO_BW_USER_GROUP_POLICY_GROUP_FIRST:
        *pSpeedBps = estimates.hasGroup ? groupBps : userBps;
        return 0;
    case ZEVO_BW_USER_GROUP_POLICY_MIN:
        *pSpeedBps =
            hasBoth && ::ZEVOBandwidthIsLessThan(groupBps, userBps) != 0 ? groupBps : onlyBps;
        return 0;
    case ZEVO_BW_USER_GROUP_POLICY_MAX:
        *pSpeedBps =
            hasBoth && ::ZEVOBandwidthIsLargerThan(groupBps, userBps) != 0 ? groupBps : onlyBps;
        return 0;
    case ZEVO_BW_USER_GROUP_POLICY_SUM:
        *pSpeedBps = hasBoth ? ::ZEVOBandwidthSum(userBps, groupBps) : onlyBps;
        return 0;
    default:
        return BW_LOG_AND_PASS("unknown group policy [%d] ", userGroupPolicy);
    }
}

// Weights in proportion to the speeds. Entries that do not apply now count with their last speed.
void SetWeights(ZEVO_BANDWIDTH_CONFIG &config, const Estimates &estimates) noexcept
{
    const uint64_t unlimitedWeight =
        estimates.unlimitedGroups == 0 ? 0 : kWholeWeight / estimates.unlimitedGroups;
    for (int32_t i = 0; i < config.iLimit; ++i) {
        ZEVO_BANDWIDTH_LIMIT &entry = config.pLimit[i];
        if (entry.conf.ownerType == ZEVO_BW_OWNER_USER) continue;
        if (entry.maxSpeedBps == 0)
            entry.occupyWeight = unlimitedWeight;
        else if (estimates.unlimitedGroups == 0 && estimates.sumBps != 0) // 0: the sum has wrapped
            entry.occupyWeight = entry.maxSpeedBps * kWholeWeight / estimates.sumBps;
    }
}

void ChargeGroups(ZEVO_BANDWIDTH_CONFIG &config, const Estimates &estimates) noexcept
{
    switch (config.globalConf.occupyPolicy) {
    case ZEVO_BW_OCCUPY_POLICY_NONE:
    case ZEVO_BW_OCCUPY_POLICY_ALL: // the walk has given every group its weight
        return;
    case ZEVO_BW_OCCUPY_POLICY_MIN:
        estimates.pMin->occupyWeight = kWholeWeight;
        return;
    case ZEVO_BW_OCCUPY_POLICY_MAX:
        estimates.pMax->occupyWeight = kWholeWeight;
        return;
    default:
        SetWeights(config, estimates);
    }
}

int EstimateRule(ZEVO_BANDWIDTH_CONFIG &config, ZEVO_BANDWIDTH_LIMIT &entry, int32_t transferType,
                 bool countTransfers) noexcept
{
    if (!countTransfers) {
        entry.maxSpeedBps = CurrentSpeed(entry.conf, transferType);
        return 0;
    }
    if (::ZEVOBandwidthExpectSpeedEstimate(config.uid, &entry.conf, transferType,
                                           &entry.maxSpeedBps, ::getpid()) < 0)
        return BW_PASS("ZEVOBandwidthExpectSpeedEstimate failed. ");
    return 0;
}

} // namespace

int ZEVOBandwidthExpectSpeedEstimateByPolicy(int32_t transfer_type, ZEVO_BANDWIDTH_CONFIG *pConfig,
                                             uint64_t *pSpeedBps, int32_t blCountTransfers) noexcept
{
    const CancelScope cancel;
    BW_REQUIRE(transfer_type != ZEVO_BW_TRANSFER_ALL, "ZEVO_BW_TRANSFER_ALL != transfer_type");
    BW_REQUIRE(pConfig != nullptr, "((void *)0) != pConfig");
    BW_REQUIRE(pSpeedBps != nullptr, "NULL != pSpeedBps");
    if (pConfig->iLimit == 0) {
        *pSpeedBps = 0;
        return 0;
    }

    const ZEVO_BANDWIDTH_GLOBAL_CONF &global = pConfig->globalConf;
    Estimates estimates;
    for (int32_t i = 0; i < pConfig->iLimit; ++i) {
        ZEVO_BANDWIDTH_LIMIT &entry = pConfig->pLimit[i];
        if (entry.conf.currentState == ZEVO_BW_STATE_DISABLED) continue;
        if (EstimateRule(*pConfig, entry, transfer_type, blCountTransfers == 1) < 0)
            return BW_PASS_UNLOGGED;
        if (entry.conf.ownerType == ZEVO_BW_OWNER_USER) {
            estimates.hasUser = true;
            estimates.userBps = entry.maxSpeedBps;
            continue;
        }
        entry.occupyWeight = global.occupyPolicy == ZEVO_BW_OCCUPY_POLICY_ALL ? kWholeWeight : 0;
        if (AddGroup(estimates, entry, global.interGroupPolicy) < 0) return BW_PASS_UNLOGGED;
    }
    if (Combine(estimates, global.userGroupPolicy, pSpeedBps) < 0) return BW_PASS_UNLOGGED;
    if (estimates.hasGroup) ChargeGroups(*pConfig, estimates);
    return 0;
}
