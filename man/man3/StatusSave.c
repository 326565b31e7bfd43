/* Shows a transfer that is held up by something else as alive: without
 * a save it would count as stale after 30 seconds. */
#include <time.h>
#include <unistd.h>
#include <zevobandwidth.h>

static int keep_alive(const ZEVO_BANDWIDTH_CONFIG *pConfig,
                      ZEVO_BANDWIDTH_STATUS *pStatus)
{
    pStatus->timestamp = time(NULL);
    pStatus->current_speed = 0;
    return ZEVOBandwidthStatusSave(pConfig->uid, pConfig, pStatus);
}

int main(void)
{
    ZEVO_BANDWIDTH_CONFIG config = {0};
    ZEVO_BANDWIDTH_STATUS status = {0};
    uint64_t timeLast = ZEVOBandwidthCurrTimeGet();
    int result;

    result =
        ZEVOBandwidthConfigGet(getuid(), ZEVO_BW_PROTOCOL_FTP, &config);
    if (result == 0)
        result =
            ZEVOBandwidthStatusInit(&config, ZEVO_BW_TRANSFER_UPLOAD,
                                    "slow.tar", &timeLast, &status);
    /* expect_speed is 0 where no limit falls to the transfer, which is
     * not registered then. */
    if (result == 0 && status.expect_speed != 0)
        result = keep_alive(&config, &status);
    ZEVOBandwidthStatusForceRemoveAllByUID(getuid(),
                                           ZEVO_BW_TRANSFER_UPLOAD);
    ZEVOBandwidthConfigFree(&config);
    return result == 0 ? 0 : 1;
}
