// What all rules and the policies together leave one transfer, and to which groups it is charged.
// Each rule that applies gives an answer. The inter-group policy combines the answers of the groups,
// the user-group policy combines the result with the user's own. 0 is unlimited throughout: answers
// are compared and added with the three functions made for it.

#include "internal/frame.hpp"
#include "internal/guard.hpp"
#include "internal/speed.hpp"

#include <unistd.h>

using namespace bandwidth;

namespace {

// What the rules that apply leave the transfer: the answers of the entries so far.
struct Answers {
    bool hasUser = false;
    bool hasGroup = false;
    uint64_t userBps = 0;
    uint64_t groupBps = 0; // combined by the inter-group policy
    uint64_t sumBps = 0;   // of all groups
    uint64_t unlimitedGroups = 0;
    ZEVO_BANDWIDTH_LIMIT *pMin = nullptr; // the group of the smallest answer, the first of equals
    ZEVO_BANDWIDTH_LIMIT *pMax = nullptr; // that of the largest
};

int AddGroup(Answers &answers, ZEVO_BANDWIDTH_LIMIT &entry, int32_t interGroupPolicy) noexcept
{
    const uint64_t answerBps = entry.maxSpeedBps;
    if (answerBps == 0) ++answers.unlimitedGroups;
    if (!answers.hasGroup) {
        answers.hasGroup = true;
        answers.groupBps = answers.sumBps = answerBps;
        answers.pMin = answers.pMax = &entry;
        return 0;
    }
    if (::ZEVOBandwidthIsLessThan(answerBps, answers.pMin->maxSpeedBps) != 0) answers.pMin = &entry;
    if (::ZEVOBandwidthIsLargerThan(answerBps, answers.pMax->maxSpeedBps) != 0)
        answers.pMax = &entry;
    answers.sumBps = ::ZEVOBandwidthSum(answers.sumBps, answerBps);

    switch (interGroupPolicy) {
    case ZEVO_BW_INTER_GROUP_POLICY_MIN:
        if (::ZEVOBandwidthIsLessThan(answerBps, answers.groupBps) != 0)
            answers.groupBps = answerBps;
        return 0;
    case ZEVO_BW_INTER_GROUP_POLICY_MAX:
        if (::ZEVOBandwidthIsLargerThan(answerBps, answers.groupBps) != 0)
            answers.groupBps = answerBps;
        return 0;
    case ZEVO_BW_INTER_GROUP_POLICY_SUM:
        answers.groupBps = ::ZEVOBandwidthSum(answerBps, answers.groupBps);
        return 0;
    default:
        return BW_LOG_AND_PASS("unknown inter_group_policy [%d] ", interGroupPolicy);
    }
}

// A missing answer is 0: without any rule the transfer is unlimited.
int Combine(const Answers &answers, int32_t userGroupPolicy, uint64_t *pSpeedBps) noexcept
{
    const uint64_t userBps = answers.userBps;
    const uint64_t groupBps = answers.groupBps;
    const uint64_t onlyBps = answers.hasUser ? userBps : groupBps;
    const bool hasBoth = answers.hasUser && answers.hasGroup;
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
        *pSpeedBps = answers.hasGroup ? groupBps : userBps;
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

// Shares by answer. Entries that do not apply now count with the answer that they had last.
void SetShares(ZEVO_BANDWIDTH_CONFIG &config, const Answers &answers) noexcept
{
    const uint64_t unlimitedShare =
        answers.unlimitedGroups == 0 ? 0 : kWholeWeight / answers.unlimitedGroups;
    for (int32_t i = 0; i < config.iLimit; ++i) {
        ZEVO_BANDWIDTH_LIMIT &entry = config.pLimit[i];
        if (entry.conf.ownerType == ZEVO_BW_OWNER_USER) continue;
        if (entry.maxSpeedBps == 0)
            entry.occupyWeight = unlimitedShare;
        else if (answers.unlimitedGroups == 0 && answers.sumBps != 0) // 0: the sum has wrapped
            entry.occupyWeight = entry.maxSpeedBps * kWholeWeight / answers.sumBps;
    }
}

void Occupy(ZEVO_BANDWIDTH_CONFIG &config, const Answers &answers) noexcept
{
    switch (config.globalConf.occupyPolicy) {
    case ZEVO_BW_OCCUPY_POLICY_NONE:
    case ZEVO_BW_OCCUPY_POLICY_ALL: // the walk has given every group its weight
        return;
    case ZEVO_BW_OCCUPY_POLICY_MIN:
        answers.pMin->occupyWeight = kWholeWeight;
        return;
    case ZEVO_BW_OCCUPY_POLICY_MAX:
        answers.pMax->occupyWeight = kWholeWeight;
        return;
    default:
        SetShares(config, answers);
    }
}

int Answer(ZEVO_BANDWIDTH_CONFIG &config, ZEVO_BANDWIDTH_LIMIT &entry, int32_t transferType,
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
    Answers answers;
    for (int32_t i = 0; i < pConfig->iLimit; ++i) {
        ZEVO_BANDWIDTH_LIMIT &entry = pConfig->pLimit[i];
        if (entry.conf.currentState == ZEVO_BW_STATE_DISABLED) continue;
        if (Answer(*pConfig, entry, transfer_type, blCountTransfers == 1) < 0)
            return BW_PASS_UNLOGGED;
        if (entry.conf.ownerType == ZEVO_BW_OWNER_USER) {
            answers.hasUser = true;
            answers.userBps = entry.maxSpeedBps;
            continue;
        }
        entry.occupyWeight = global.occupyPolicy == ZEVO_BW_OCCUPY_POLICY_ALL ? kWholeWeight : 0;
        if (AddGroup(answers, entry, global.interGroupPolicy) < 0) return BW_PASS_UNLOGGED;
    }
    if (Combine(answers, global.userGroupPolicy, pSpeedBps) < 0) return BW_PASS_UNLOGGED;
    if (answers.hasGroup) Occupy(*pConfig, answers);
    return 0;
}
