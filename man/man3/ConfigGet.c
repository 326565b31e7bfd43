/* Lists the rules that apply to the calling user's transfers by FTP. */
#include <inttypes.h>
#include <stdio.h>
#include <unistd.h>
#include <zevobandwidth.h>

int main(void)
{
    ZEVO_BANDWIDTH_CONFIG config = {0};
    int32_t i;

    if (ZEVOBandwidthConfigGet(getuid(), ZEVO_BW_PROTOCOL_FTP,
                               &config) < 0) {
        ZEVOBandwidthConfigFree(&config);
        return 1;
    }
    for (i = 0; i < config.iLimit; ++i) {
        const ZEVO_BANDWIDTH_CONF *pRule = &config.pLimit[i].conf;

        printf("%s %" PRIu32 ": upload %" PRIu64 " KB/s\n",
               pRule->ownerType == ZEVO_BW_OWNER_USER ? "user"
                                                      : "group",
               pRule->id, pRule->currentUploadRate);
    }
    ZEVOBandwidthConfigFree(&config);
    return 0;
}
