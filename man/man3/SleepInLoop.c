/* Copies its input to its output as an upload by FTP of the calling
 * user; a SIGHUP makes it read its limits anew. */
#define _POSIX_C_SOURCE 200809L /* sigaction */
#include <errno.h>
#include <signal.h>
#include <unistd.h>
#include <zevobandwidth.h>

static volatile sig_atomic_t changed;

static void on_hup(int number)
{
    (void)number;
    changed = 1;
}

static int write_all(const char *p, size_t size)
{
    while (size > 0) {
        const ssize_t written = write(STDOUT_FILENO, p, size);

        if (written < 0 && errno != EINTR) return -1;
        if (written > 0) {
            p += written;
            size -= (size_t)written;
        }
    }
    return 0;
}

/* -1 on failure, also when somebody has stopped the transfer. */
static int copy(ZEVO_BANDWIDTH_CONFIG *pConfig, uint64_t *pTimeLast,
                ZEVO_BANDWIDTH_STATUS *pStatus)
{
    static char block[65536];

    for (;;) {
        uint64_t size = sizeof(block);
        ssize_t moved;

        if (changed) {
            changed = 0;
            /* On failure the old limits go on to hold. */
            (void)ZEVOBandwidthHupRecv(pConfig, pStatus, pTimeLast);
        }
        if (ZEVOBandwidthTransferSizeEstimate(
                pConfig, ZEVO_BW_TRANSFER_UPLOAD, size, &size) < 0)
            return -1;
        moved = read(STDIN_FILENO, block, (size_t)size);
        if (moved == 0) return 0;
        if (moved < 0 && errno == EINTR) continue; /* a notice */
        if (moved < 0 || write_all(block, (size_t)moved) < 0) return -1;
        if (ZEVOBandwidthSleepInLoop(pConfig, (uint64_t)moved, 0,
                                     pTimeLast, pStatus) < 0)
            return -1;
    }
}

int main(void)
{
    ZEVO_BANDWIDTH_CONFIG config = {0};
    ZEVO_BANDWIDTH_STATUS status = {0};
    uint64_t timeLast = ZEVOBandwidthCurrTimeGet();
    struct sigaction action = {0};
    int result;

    action.sa_handler = on_hup; /* no flags: reads end, too */
    sigaction(SIGHUP, &action, NULL);
    result =
        ZEVOBandwidthConfigGet(getuid(), ZEVO_BW_PROTOCOL_FTP, &config);
    if (result == 0)
        result = ZEVOBandwidthStatusInit(
            &config, ZEVO_BW_TRANSFER_UPLOAD, "standard input",
            &timeLast, &status);
    if (result == 0) result = copy(&config, &timeLast, &status);
    ZEVOBandwidthStatusForceRemoveAllByUID(getuid(),
                                           ZEVO_BW_TRANSFER_UPLOAD);
    ZEVOBandwidthConfigFree(&config);
    return result == 0 ? 0 : 1;
}
