/* Lists the calling user's running uploads. */
#include <inttypes.h>
#include <stdio.h>
#include <unistd.h>
#include <zevobandwidth.h>

int main(void)
{
    ZEVO_BANDWIDTH_STATUS *pList = NULL;
    const ZEVO_BANDWIDTH_STATUS *p;
    const int count =
        ZEVOBandwidthStatusGetAll(ZEVO_BW_OWNER_USER, getuid(), -1,
                                  ZEVO_BW_TRANSFER_UPLOAD, &pList);

    for (p = pList; p != NULL; p = p->next)
        printf("%d %" PRIu64 " bytes/s %s\n", (int)p->pid,
               p->current_speed, p->filename);
    ZEVOBandwidthStatusListFree(&pList);
    return count < 0 ? 1 : 0;
}
