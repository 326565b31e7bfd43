/* Says what an upload by FTP would get beside those that run now. */
#include <inttypes.h>
#include <stdio.h>
#include <unistd.h>
#include <zevobandwidth.h>

int main(void)
{
    ZEVO_BANDWIDTH_CONFIG config = {0};
    uint64_t speedBps = 0;
    int result;

    result =
        ZEVOBandwidthConfigGet(getuid(), ZEVO_BW_PROTOCOL_FTP, &config);
    if (result == 0)
        result = ZEVOBandwidthExpectSpeedEstimateByPolicy(
            ZEVO_BW_TRANSFER_UPLOAD, &config, &speedBps, 1);
    if (result == 0) printf("%" PRIu64 " bytes/s\n", speedBps);
    ZEVOBandwidthConfigFree(&config);
    return result == 0 ? 0 : 1;
}
/* Prints:
4194304 bytes/s
*/
