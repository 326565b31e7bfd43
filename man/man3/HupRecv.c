/* What a service does with a SIGHUP: the handler takes a note, the loop
 * over the blocks reads the limits anew. */
#define _POSIX_C_SOURCE 200809L /* sigaction */
#include <signal.h>
#include <unistd.h>
#include <zevobandwidth.h>

static volatile sig_atomic_t changed;

static void on_hup(int number)
{
    (void)number;
    changed = 1;
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
            &config, ZEVO_BW_TRANSFER_UPLOAD, "photos/summer.tar",
            &timeLast, &status);
    raise(SIGHUP); /* somebody has changed a rule */
    if (result == 0 && changed) {
        changed = 0;
        result = ZEVOBandwidthHupRecv(&config, &status, &timeLast);
    }
    ZEVOBandwidthStatusForceRemoveAllByUID(getuid(),
                                           ZEVO_BW_TRANSFER_UPLOAD);
    ZEVOBandwidthConfigFree(&config);
    return result == 0 ? 0 : 1;
}
