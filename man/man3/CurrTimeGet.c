/* 64 KiB came within a fifth of a second where a whole one is right. */
#include <inttypes.h>
#include <stdio.h>
#include <zevobandwidth.h>

int main(void)
{
    const int64_t elapsedUs = 200000;

    printf("%" PRIu64 " bytes/s, to sleep %" PRId64 " us\n",
           ZEVOBandwidthSpeedEstimate(elapsedUs, 65536),
           ZEVOBandwidthSleepEstimate(elapsedUs, 65536, 65536));
    return 0;
}
/* Prints:
327680 bytes/s, to sleep 800000 us
*/
