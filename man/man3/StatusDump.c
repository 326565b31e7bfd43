/* Prints the running transfers of the calling user as a table. */
#include <stdio.h>
#include <unistd.h>
#include <zevobandwidth.h>

int main(void)
{
    ZEVO_BANDWIDTH_STATUS *pList = NULL;
    const ZEVO_BANDWIDTH_STATUS *p;
    int result = ZEVOBandwidthStatusGetAll(
        ZEVO_BW_OWNER_USER, getuid(), -1, ZEVO_BW_TRANSFER_ALL, &pList);

    for (p = pList; p != NULL && result >= 0; p = p->next)
        result = ZEVOBandwidthStatusDump(stdout, p);
    ZEVOBandwidthStatusListFree(&pList);
    return result < 0 || fflush(stdout) != 0 ? 1 : 0;
}
