/* The public header as a C99 caller without extensions includes it: first and alone, and again. */
#include "zevobandwidth.h"

#include "zevobandwidth.h" /* NOLINT(readability-duplicate-include): guarded */

/* Functions and tables are C's to use. */
int header_is_c(ZEVO_BANDWIDTH_CONFIG *pConfig, ZEVO_BANDWIDTH_STATUS *pStatus);

int header_is_c(ZEVO_BANDWIDTH_CONFIG *pConfig, ZEVO_BANDWIDTH_STATUS *pStatus)
{
    uint64_t timeLast = ZEVOBandwidthCurrTimeGet();
    if (ZEVOBandwidthStatusInit(pConfig, ZEVO_BW_TRANSFER_UPLOAD, "a file", &timeLast, pStatus) < 0)
        return ZEVO_BW_PROTOCOL_TYPE_LIST[0].value;
    return ZEVOBandwidthStatusRemove(pConfig, ZEVO_BW_TRANSFER_UPLOAD);
}
