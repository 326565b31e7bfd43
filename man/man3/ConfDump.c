/* Prints the calling user's rules for the built-in protocols. */
#include <stdio.h>
#include <unistd.h>
#include <zevobandwidth.h>

int main(void)
{
    const ZEVO_BW_ENUM_ENTRY *row = ZEVO_BW_PROTOCOL_TYPE_LIST;

    ZEVOBandwidthConfDumpHeader(stdout);
    for (; row->value != ZEVO_BW_PROTOCOL_ALL; ++row) {
        ZEVO_BANDWIDTH_CONF rule = {0};

        if (ZEVOBandwidthConfGetByID(ZEVO_BW_OWNER_USER, getuid(),
                                     row->value, &rule) < 0)
            return 1;
        if (rule.state == ZEVO_BW_STATE_NOT_EXISTED) continue;
        if (ZEVOBandwidthConfDump(stdout, &rule) < 0) return 1;
    }
    return fflush(stdout) == 0 ? 0 : 1;
}
