// The table of policies: one line for each protocol, under a header.

#include "internal/dump.hpp"
#include "internal/enum.hpp"
#include "internal/frame.hpp"

#include <cstdio>

using namespace bandwidth;

namespace {

constexpr char kLine[] = "%10s %20s %15s %15s %15s %15s\n";

} // namespace

int ZEVOBandwidthGlobalConfDumpHeader(FILE *fp) noexcept
{
    const CancelScope cancel;
    BW_REQUIRE(fp != nullptr, "((void *)0) != fp");
    (void)std::fprintf(fp, kLine, "State", "Protocol", "UserGroupPolicy", "InterGroupPolicy",
                       "OccupyPolicy", "SchedulePlan"); // the stream remembers a failure
    return 0;
}

int ZEVOBandwidthGlobalConfDump(FILE *fp, const ZEVO_BANDWIDTH_GLOBAL_CONF *pConf) noexcept
{
    const CancelScope cancel;
    BW_REQUIRE(fp != nullptr, "((void *)0) != fp");
    BW_REQUIRE(pConf != nullptr, "NULL != pConf");

    Hash hash;
    if (!hash) return BW_PASS("VLIBCSzHashAlloc failed.");
    if (::ZEVOBandwidthInitHashFromGlobalConf(hash.address(), pConf) < 0)
        return BW_PASS("Init hash from conf failed. ");
    char szProtocol[kNameBytes];
    if (!NameOf(ZEVO_BW_PROTOCOL_TYPE_LIST, pConf->protocolType, szProtocol))
        return BW_LOG_AND_PASS("ZEVOBandwidthEnumToName failed, protocol=%d", pConf->protocolType);
    (void)std::fprintf(fp, kLine, Column(hash, "state"), szProtocol,
                       Column(hash, "user-group policy"), Column(hash, "inter-group policy"),
                       Column(hash, "occupy policy"), Column(hash, "schedule plan"));
    return 0;
}
