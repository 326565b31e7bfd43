/* Turns a protocol's name into its value, and that into the name. */
#include <stdio.h>
#include <zevobandwidth.h>

int main(void)
{
    char szName[64];
    int value;

    value = ZEVOBandwidthEnumToValue(ZEVO_BW_PROTOCOL_TYPE_LIST, "ftp");
    if (value < 0) return 1;
    if (ZEVOBandwidthEnumToName(ZEVO_BW_PROTOCOL_TYPE_LIST, value,
                                szName, sizeof(szName)) < 0)
        return 1;
    printf("%s is %d\n", szName, value);
    return 0;
}
/* Prints:
ftp is 4
*/
