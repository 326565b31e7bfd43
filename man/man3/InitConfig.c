/* Says whether the calling user is limited in an hour from now. */
#include <stdio.h>
#include <unistd.h>
#include <zevobandwidth.h>

int main(void)
{
    const uint64_t hourUs = UINT64_C(3600000000);
    ZEVO_BANDWIDTH_CONFIG config = {0};
    int limited = -1;

    if (ZEVOBandwidthConfigGet(getuid(), ZEVO_BW_PROTOCOL_FTP,
                               &config) == 0) {
        ZEVOBandwidthInitConfig(
            &config, (int64_t)(ZEVOBandwidthCurrTimeGet() + hourUs));
        limited = ZEVOBandwidthConfCheckEnabled(&config) == 1 &&
                  ZEVOBandwidthIsUserGroupLimitEnable(&config) == 1;
        puts(limited ? "limited" : "not limited");
    }
    ZEVOBandwidthConfigFree(&config);
    return limited < 0 ? 1 : 0;
}
/* Prints:
limited
*/
