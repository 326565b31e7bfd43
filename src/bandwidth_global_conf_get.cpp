// Reading one protocol's policy from the global file.

#include "internal/enum.hpp"
#include "internal/store.hpp"

using namespace bandwidth;

int ZEVOBandwidthGlobalConfGet(int32_t protocol_type, ZEVO_BANDWIDTH_GLOBAL_CONF *pConf) noexcept
{
    const CancelScope cancel;
    BW_REQUIRE(protocol_type != ZEVO_BW_PROTOCOL_ALL,
               "(0x0001 | 0x0002 | 0x0004 | 0x0008)!= protocol_type");
    BW_REQUIRE(pConf != nullptr, "NULL != pConf");

    char szFile[zevo::kPathBytes];
    if (::ZEVOBandwidthConfPath(ZEVO_BW_PROTOCOL_ALL, szFile, sizeof(szFile) - 1) < 0)
        return BW_PASS("ZEVOBandwidthConfPath failed for global config ");
    Hash hash;
    if (!hash) return BW_PASS_UNLOGGED;
    *pConf = {};
    pConf->currentState = ZEVO_BW_STATE_DISABLED;
    pConf->protocolType = protocol_type;
    pConf->userGroupPolicy = ZEVO_BW_USER_GROUP_POLICY_USER_FIRST;
    pConf->interGroupPolicy = ZEVO_BW_INTER_GROUP_POLICY_MAX;
    pConf->occupyPolicy = ZEVO_BW_OCCUPY_POLICY_MAX;

    char szProtocol[kNameBytes]; // it is the section's name, too
    if (!NameOf(ZEVO_BW_PROTOCOL_TYPE_LIST, protocol_type, szProtocol))
        return BW_LOG_AND_PASS("ZEVOBandwidthEnumToName failed, protocol_type=%d", protocol_type);
    const int found = LoadSection(szFile, szProtocol, hash, BW_HERE);
    if (found <= 0) return found;
    if (::ZEVOBandwidthInitGlobalConfFromHash(pConf, hash.get()) < 0)
        return BW_PASS("Init conf from hash failed. ");
    return 0;
}
