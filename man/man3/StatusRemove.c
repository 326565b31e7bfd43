/* A service that has started anew in place of one that died takes away
 * what that one left behind. */
#include <stdlib.h>
#include <zevobandwidth.h>

int main(int argc, char **argv)
{
    const char *const szUser = argc > 2 ? argv[1] : "root";
    const pid_t died = argc > 2 ? (pid_t)atoi(argv[2]) : 4711;

    return ZEVOBandwidthStatusForceRemoveAllByUserName(
               szUser, ZEVO_BW_TRANSFER_ALL, died) == 0
               ? 0
               : 1;
}
