// Reading one owner's rule from its protocol's rule file.

#include "internal/enum.hpp"
#include "internal/store.hpp"

#include <cstdio>

using namespace bandwidth;

int ZEVOBandwidthConfGetByID(int32_t owner_type, uint32_t id, int32_t protocol_type,
                             ZEVO_BANDWIDTH_CONF *pConf) noexcept
{
    const CancelScope cancel;
    BW_REQUIRE(protocol_type != ZEVO_BW_PROTOCOL_ALL,
               "(0x0001 | 0x0002 | 0x0004 | 0x0008)!= protocol_type");
    BW_REQUIRE(pConf != nullptr, "NULL != pConf");

    char szFile[zevo::kPathBytes];
    if (::ZEVOBandwidthConfPath(protocol_type, szFile, sizeof(szFile) - 1) < 0)
        return BW_PASS("ZEVOBandwidthConfPath failed for protocol [%d] ", protocol_type);
    Hash hash;
    if (!hash) return BW_LOG_AND_PASS("malloc failed");
    *pConf = {};
    pConf->id = id;
    pConf->protocolType = protocol_type;
    pConf->ownerType = owner_type;

    char szOwner[kNameBytes];
    if (!NameOf(ZEVO_BW_OWNER_TYPE_LIST, owner_type, szOwner))
        return BW_LOG_AND_PASS("ZEVOBandwidthEnumToName failed, id=%d", owner_type);
    char szSection[kSectionNameBytes];
    (void)std::snprintf(szSection, sizeof(szSection), "%s-%u", szOwner, id);
    const int found = LoadSection(szFile, szSection, hash, BW_HERE);
    if (found <= 0) return found;
    if (::ZEVOBandwidthInitConfFromHash(pConf, hash.get()) < 0)
        return BW_PASS("Init conf from hash failed. ");
    return 0;
}
