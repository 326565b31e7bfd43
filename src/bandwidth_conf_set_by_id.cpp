// Writing one owner's rule into its protocol's rule file.

#include "internal/enum.hpp"
#include "internal/store.hpp"

#include <cstdio>

using namespace bandwidth;

int ZEVOBandwidthConfSetByID(const ZEVO_BANDWIDTH_CONF *pConf) noexcept
{
    const CancelScope cancel;
    BW_REQUIRE(pConf != nullptr, "((void *)0) != pConf");

    char szFile[zevo::kPathBytes];
    if (::ZEVOBandwidthConfPath(pConf->protocolType, szFile, sizeof(szFile) - 1) < 0)
        return BW_PASS("ZEVOBandwidthConfPath failed for protocol [%d] ", pConf->protocolType);
    Hash hash;
    if (!hash) return BW_PASS("VLIBCSzHashAlloc failed.");
    if (::ZEVOBandwidthInitHashFromConf(hash.address(), pConf) < 0)
        return BW_PASS("Init hash from conf failed. ");
    char szOwner[kNameBytes];
    if (!NameOf(ZEVO_BW_OWNER_TYPE_LIST, pConf->ownerType, szOwner))
        return BW_LOG_AND_PASS("ZEVOBandwidthEnumToName failed, protocol=%d", pConf->ownerType);
    char szSection[kSectionNameBytes];
    (void)std::snprintf(szSection, sizeof(szSection), "%s-%u", szOwner, pConf->id);
    return StoreSection(szFile, szSection, hash, BW_HERE);
}
