/* Says at which speeds the calling user's transfers by FTP are held. */
#include <inttypes.h>
#include <stdio.h>
#include <unistd.h>
#include <zevobandwidth.h>

int main(void)
{
    uint64_t speedBps[3] = {0};

    if (ZEVOBandwidthPreview(getuid(), ZEVO_BW_PROTOCOL_FTP, speedBps) <
        0)
        return 1;
    printf("upload %" PRIu64 " bytes/s, download %" PRIu64 " bytes/s\n",
           speedBps[ZEVO_BW_TRANSFER_UPLOAD],
           speedBps[ZEVO_BW_TRANSFER_DOWNLOAD]);
    return 0;
}
/* Prints:
upload 4194304 bytes/s, download 0 bytes/s
*/
