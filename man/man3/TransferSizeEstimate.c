/* Says how much of 64 MiB the next block of an upload may hold. */
#include <inttypes.h>
#include <stdio.h>
#include <unistd.h>
#include <zevobandwidth.h>

int main(void)
{
    ZEVO_BANDWIDTH_CONFIG config = {0};
    uint64_t size = 0;
    int result;

    result =
        ZEVOBandwidthConfigGet(getuid(), ZEVO_BW_PROTOCOL_FTP, &config);
    if (result == 0)
        result = ZEVOBandwidthTransferSizeEstimate(
            &config, ZEVO_BW_TRANSFER_UPLOAD, 64 << 20, &size);
    if (result == 0) printf("%" PRIu64 " bytes\n", size);
    ZEVOBandwidthConfigFree(&config);
    return result == 0 ? 0 : 1;
}
/* Prints:
20971520 bytes
*/
