/* Plays out an upload of 1 MiB by FTP. */
#include <stdio.h>
#include <zevobandwidth.h>

int main(int argc, char **argv)
{
    const char *const szUser = argc > 1 ? argv[1] : "root";

    if (ZEVOBandwidthSimulate(szUser, ZEVO_BW_PROTOCOL_FTP,
                              ZEVO_BW_TRANSFER_UPLOAD, 1024) < 0) {
        fputs("stopped, or failed\n", stderr);
        return 1;
    }
    return 0;
}
