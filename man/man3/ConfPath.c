/* Names the file that the rules for FTP stand in. */
#include <stdio.h>
#include <zevobandwidth.h>

int main(void)
{
    char szPath[4096];

    if (ZEVOBandwidthConfPath(ZEVO_BW_PROTOCOL_FTP, szPath,
                              sizeof(szPath)) < 0)
        return 1;
    puts(szPath);
    return 0;
}
