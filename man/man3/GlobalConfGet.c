/* Charges every transfer by FTP to all groups of its user. As root. */
#include <stdio.h>
#include <zevobandwidth.h>

int main(void)
{
    ZEVO_BANDWIDTH_GLOBAL_CONF policy = {0};

    if (ZEVOBandwidthGlobalConfGet(ZEVO_BW_PROTOCOL_FTP, &policy) < 0)
        return 1;
    if (policy.state == ZEVO_BW_STATE_NOT_EXISTED)
        policy.state = ZEVO_BW_STATE_ENABLED;
    policy.occupyPolicy = ZEVO_BW_OCCUPY_POLICY_ALL;
    return ZEVOBandwidthGlobalConfSet(&policy) == 0 ? 0 : 1;
}
