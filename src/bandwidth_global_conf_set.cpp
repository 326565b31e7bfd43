// Writing one protocol's policy into the global file, and telling the simulators.

#include "internal/enum.hpp"
#include "internal/store.hpp"

using namespace bandwidth;

int ZEVOBandwidthGlobalConfSet(ZEVO_BANDWIDTH_GLOBAL_CONF *pConf) noexcept
{
    const CancelScope cancel;
    BW_REQUIRE(pConf != nullptr, "((void *)0) != pConf");
    BW_REQUIRE(pConf->protocolType != ZEVO_BW_PROTOCOL_ALL,
               "(0x0001 | 0x0002 | 0x0004 | 0x0008)!= protocol_type");

    char szFile[zevo::kPathBytes];
    if (::ZEVOBandwidthConfPath(ZEVO_BW_PROTOCOL_ALL, szFile, sizeof(szFile) - 1) < 0)
        return BW_PASS("ZEVOBandwidthConfPath failed for global config ");
    char szProtocol[kNameBytes]; // it is the section's name, too
    if (!NameOf(ZEVO_BW_PROTOCOL_TYPE_LIST, pConf->protocolType, szProtocol))
        return BW_LOG_AND_PASS("ZEVOBandwidthEnumToName failed, protocol=%d", pConf->protocolType);
    Hash hash;
    if (!hash) return BW_PASS("VLIBCSzHashAlloc failed.");
    // A stored policy exists, so that its state cannot be NotExisted.
    if (pConf->state == ZEVO_BW_STATE_NOT_EXISTED) pConf->state = ZEVO_BW_STATE_DISABLED;
    if (::ZEVOBandwidthInitHashFromGlobalConf(hash.address(), pConf) < 0)
        return BW_PASS("Init hash from conf failed. ");
    if (StoreSection(szFile, szProtocol, hash, BW_HERE) < 0) return BW_PASS_UNLOGGED;
    (void)::ZEVOBandwidthHupSimulator(); // the policy is stored, whether anybody hears of it or not
    return 0;
}
