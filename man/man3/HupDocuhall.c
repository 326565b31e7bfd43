/* Tells all services that a rule has changed. As root. */
#include <stdio.h>
#include <zevobandwidth.h>

int main(void)
{
    ZEVOBandwidthHupDocuhall();
    if (ZEVOBandwidthHupWebDAV() < 0) perror("the WebDAV server");
    ZEVOBandwidthHupSimulator(); /* there need not be any */
    return 0;
}
