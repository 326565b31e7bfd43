/* Looks at a rule by the keys of the files. Hashes are the platform's:
 * link with -lzevocore, too. */
#include <stdio.h>
#include <zevobandwidth.h>
#include <zevocore.h>

int main(void)
{
    ZEVO_BANDWIDTH_CONF rule = {0};
    VLIB_SZ_HASH *pHash = VLIBCSzHashAlloc(64);
    int result = -1;

    rule.id = 2001;
    rule.ownerType = ZEVO_BW_OWNER_USER;
    rule.protocolType = ZEVO_BW_PROTOCOL_FTP;
    rule.state = ZEVO_BW_STATE_ENABLED;
    rule.uploadRate = 4096; /* KB/s */

    if (pHash != NULL)
        result = ZEVOBandwidthInitHashFromConf(&pHash, &rule);
    if (result == 0)
        result = VLIBCSzHashSetValue(&pHash, "upload rate", "512");
    if (result == 0)
        result = ZEVOBandwidthInitConfFromHash(&rule, pHash);
    if (result == 0)
        printf("%s: %d KB/s\n", VLIBCSzHashGetValue(pHash, "state"),
               (int)rule.uploadRate);
    VLIBCSzHashFree(pHash);
    return result == 0 ? 0 : 1;
}
/* Prints:
enabled: 512 KB/s
*/
