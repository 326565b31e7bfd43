/* Lists the groups that the calling user's uploads by FTP are charged
 * to. An estimate works out the weights first. */
#include <inttypes.h>
#include <stdio.h>
#include <unistd.h>
#include <zevobandwidth.h>

int main(void)
{
    static uint32_t groups[ZEVO_BW_MOST_OCC_GROUPS];
    ZEVO_BANDWIDTH_CONFIG config = {0};
    uint64_t speedBps = 0;
    int32_t count = 0;
    int32_t i;
    int result;

    result =
        ZEVOBandwidthConfigGet(getuid(), ZEVO_BW_PROTOCOL_FTP, &config);
    if (result == 0)
        result = ZEVOBandwidthExpectSpeedEstimateByPolicy(
            ZEVO_BW_TRANSFER_UPLOAD, &config, &speedBps, 0);
    if (result == 0)
        result = ZEVOBandwidthOccGroupsGet(groups, &count, &config);
    for (i = 0; i < count; ++i)
        printf("group %" PRIu32 "\n", groups[i]);
    ZEVOBandwidthConfigFree(&config);
    return result == 0 ? 0 : 1;
}
