/* Saves a record into a status file of one's own. Hashes are the
 * platform's: link with -lzevocore, too. */
#include <stdio.h>
#include <time.h>
#include <unistd.h>
#include <zevobandwidth.h>
#include <zevocore.h>

int main(void)
{
    const char *const szFile = "transfers";
    ZEVO_BANDWIDTH_STATUS status = {0};
    VLIB_SZ_HASH *pHash = VLIBCSzHashAlloc(64);
    char szSection[32];
    int result = -1;

    status.pid = (int32_t)getpid();
    status.owner_type = ZEVO_BW_OWNER_USER;
    status.protocol_type = ZEVO_BW_PROTOCOL_FTP;
    status.transfer_type = ZEVO_BW_TRANSFER_UPLOAD;
    status.timestamp = time(NULL);
    snprintf(szSection, sizeof(szSection), "%d-%d", (int)status.pid,
             (int)status.transfer_type);

    if (pHash != NULL)
        result = ZEVOBandwidthInitHashFromStatus(&pHash, &status);
    if (result == 0)
        result =
            ZEVOBandwidthStatusAddSection(szFile, szSection, pHash);
    if (result == 0) /* it is there already */
        result =
            ZEVOBandwidthStatusSetSection(szFile, szSection, pHash);
    if (result == 1)
        result = ZEVOBandwidthStatusRemoveSection(szFile, szSection);
    VLIBCSzHashFree(pHash);
    return result == 1 ? 0 : 1;
}
