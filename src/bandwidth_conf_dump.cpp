// The table of rules: one line for each, under a header. The rates are those in force as the record
// was last evaluated; a record that comes straight from the store has none yet.

#include "internal/dump.hpp"
#include "internal/frame.hpp"

#include <cstdio>

using namespace bandwidth;

int ZEVOBandwidthConfDumpHeader(FILE *fp) noexcept
{
    const CancelScope cancel;
    BW_REQUIRE(fp != nullptr, "((void *)0) != fp");
    (void)std::fprintf(fp, "%10s %20s %5s %20s %10s %10s\n", "State", "Protocol", "Type", "Name",
                       "U/L rate(KB/s)", "D/L rate(KB/s)"); // the stream remembers a failure
    return 0;
}

int ZEVOBandwidthConfDump(FILE *fp, const ZEVO_BANDWIDTH_CONF *pConf) noexcept
{
    const CancelScope cancel;
    BW_REQUIRE(fp != nullptr, "((void *)0) != fp");
    BW_REQUIRE(pConf != nullptr, "NULL != pConf");

    const bool isUser = pConf->ownerType == ZEVO_BW_OWNER_USER;
    if (!isUser && pConf->ownerType != ZEVO_BW_OWNER_GROUP) {
        BW_LOG("Unknown conf type. id:[%u] ", pConf->id);
        return BW_FAIL(ZEVO_BW_ERROR_OWNER_TYPE);
    }
    const OwnerName name(isUser, pConf->id);
    if (!name)
        return isUser ? BW_PASS("Get User failed. id:[%u] ", pConf->id)
                      : BW_PASS("Get Group failed. id:[%u] ", pConf->id);
    Hash hash;
    if (!hash) return BW_PASS("VLIBCSzHashAlloc failed.");
    if (::ZEVOBandwidthInitHashFromConf(hash.address(), pConf) < 0)
        return BW_PASS("Init hash from conf failed. ");
    (void)std::fprintf(fp, "%10s %20s %5s %20s %10llu %10llu\n", Column(hash, "state"),
                       Column(hash, "protocol type"), Column(hash, "owner type"), name.get(),
                       static_cast<unsigned long long>(pConf->currentUploadRate),
                       static_cast<unsigned long long>(pConf->currentDownloadRate));
    return 0;
}
