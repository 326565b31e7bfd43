/* Registers an upload, so that others share their limits with it and
 * administrators see it, and takes it away at its end. */
#include <unistd.h>
#include <zevobandwidth.h>

int main(void)
{
    ZEVO_BANDWIDTH_CONFIG config = {0};
    ZEVO_BANDWIDTH_STATUS status = {0};
    uint64_t timeLast = ZEVOBandwidthCurrTimeGet();
    int result;

    result =
        ZEVOBandwidthConfigGet(getuid(), ZEVO_BW_PROTOCOL_FTP, &config);
    if (result == 0)
        result = ZEVOBandwidthStatusInit(
            &config, ZEVO_BW_TRANSFER_UPLOAD, "photos/summer.tar",
            &timeLast, &status);
    /* ... its blocks, see ZEVOBandwidthSleepInLoop(3) ... */
    ZEVOBandwidthStatusForceRemoveAllByUID(getuid(),
                                           ZEVO_BW_TRANSFER_UPLOAD);
    ZEVOBandwidthConfigFree(&config);
    return result == 0 ? 0 : 1;
}
