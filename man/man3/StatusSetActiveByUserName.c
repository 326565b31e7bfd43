/* Stops a process's upload. As root, or as somebody who may write the
 * status files. */
#include <stdio.h>
#include <stdlib.h>
#include <zevobandwidth.h>

int main(int argc, char **argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: %s USER PID\n", argv[0]);
        return 2;
    }
    if (ZEVOBandwidthStatusSetActiveByUserName(
            argv[1], ZEVO_BW_TRANSFER_UPLOAD, (pid_t)atoi(argv[2]), 0) <
        0) {
        fputs("no such upload, or it cannot be stopped\n", stderr);
        return 1;
    }
    return 0;
}
