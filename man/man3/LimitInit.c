/* Counts the rules of the calling user and of the user's groups. */
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>
#include <zevobandwidth.h>

int main(void)
{
    ZEVO_BANDWIDTH_GLOBAL_CONF policy = {0};
    ZEVO_BANDWIDTH_LIMIT *pLimit = NULL;
    uint32_t hasOwn = 0;
    uint32_t hasGroups = 0;
    int count;

    policy.protocolType = ZEVO_BW_PROTOCOL_FTP;
    policy.userGroupPolicy = ZEVO_BW_USER_GROUP_POLICY_MIN;
    count = ZEVOBandwidthLimitInit(getuid(), &policy, &pLimit, &hasOwn,
                                   &hasGroups);
    if (count < 0) return 1;
    printf("%d, %s of the user\n", count, hasOwn == 1 ? "one" : "none");
    free(pLimit);
    return 0;
}
/* Prints:
1, one of the user
*/
