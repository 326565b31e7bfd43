/* Asks whether a process's upload may go on. */
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>
#include <zevobandwidth.h>

int main(int argc, char **argv)
{
    const pid_t pid = argc > 1 ? (pid_t)atoi(argv[1]) : getpid();
    ZEVO_BANDWIDTH_STATUS status = {0};

    if (ZEVOBandwidthIStatusGet(ZEVO_BW_OWNER_USER, getuid(), pid,
                                ZEVO_BW_TRANSFER_UPLOAD, &status) < 0)
        puts("nothing is registered");
    else
        puts(status.active == 1 ? "running" : "stopped");
    return 0;
}
/* Prints:
nothing is registered
*/
