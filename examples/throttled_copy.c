/*
 * Copies standard input to standard output as an upload of the calling user by FTP, held to that
 * user's limits.
 *
 *     cc -std=c99 -o throttled_copy throttled_copy.c $(pkg-config --cflags --libs zevobandwidth)
 *     sudo zevobandwidth rule set -u "$USER" -p ftp --up 2M
 *     sudo zevobandwidth policy set -p ftp --state enabled
 *     ./throttled_copy <photos.tar >/mnt/backup/photos.tar
 *
 * After a SIGHUP it reads the limits anew. When it is killed, its section is stale after 30 seconds.
 */
#define _POSIX_C_SOURCE 200809L

#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <zevobandwidth.h>

static volatile sig_atomic_t hupReceived;

static void OnHup(int number)
{
    (void)number;
    hupReceived = 1;
}

int main(void)
{
    const int upload = ZEVO_BW_TRANSFER_UPLOAD;
    /* A read goes on after the signal; the signal still cuts the library's sleep short. */
    const struct sigaction action = {.sa_handler = OnHup, .sa_flags = SA_RESTART};
    static char block[65536];
    static ZEVO_BANDWIDTH_STATUS status; /* large, and zero-filled */
    ZEVO_BANDWIDTH_CONFIG config = {0};
    uint64_t size = 0, timeLast = ZEVOBandwidthCurrTimeGet();
    int result = sigaction(SIGHUP, &action, NULL);

    if (result == 0) result = ZEVOBandwidthConfigGet(getuid(), ZEVO_BW_PROTOCOL_FTP, &config);
    if (result == 0) result = ZEVOBandwidthStatusInit(&config, upload, "copy", &timeLast, &status);
    while (result == 0) {
        if (hupReceived) {
            hupReceived = 0; /* when the new limits cannot be read, the old ones apply */
            (void)ZEVOBandwidthHupRecv(&config, &status, &timeLast);
        }
        result = ZEVOBandwidthTransferSizeEstimate(&config, upload, sizeof block, &size);
        if (result < 0 || (size = fread(block, 1, size, stdin)) == 0) break;
        if (fwrite(block, 1, size, stdout) != size) break;
        result = ZEVOBandwidthSleepInLoop(&config, size, 0, &timeLast, &status);
    }
    if (result < 0) fputs("throttled_copy: stopped or failed, see the system log\n", stderr);
    if (ferror(stdin) || ferror(stdout) || fflush(stdout) != 0) perror("throttled_copy");
    (void)ZEVOBandwidthStatusForceRemoveAllByUID(getuid(), ZEVO_BW_TRANSFER_UPLOAD);
    ZEVOBandwidthConfigFree(&config);
    return result < 0 || ferror(stdin) || ferror(stdout);
}
