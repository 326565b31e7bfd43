/* Halves the calling user's upload rate for FTP. As root. */
#include <inttypes.h>
#include <stdio.h>
#include <unistd.h>
#include <zevobandwidth.h>

int main(void)
{
    ZEVO_BANDWIDTH_CONF rule = {0};

    if (ZEVOBandwidthConfGetByID(ZEVO_BW_OWNER_USER, getuid(),
                                 ZEVO_BW_PROTOCOL_FTP, &rule) < 0)
        return 1;
    if (rule.state == ZEVO_BW_STATE_NOT_EXISTED ||
        rule.uploadRate == 0) {
        puts("not limited");
        return 0;
    }
    if (rule.uploadRate > 1) rule.uploadRate /= 2; /* 0 is unlimited */
    if (ZEVOBandwidthConfSetByID(&rule) < 0) return 1;
    printf("%" PRIu64 " KB/s\n", rule.uploadRate);
    return 0;
}
/* Prints:
2048 KB/s
*/
