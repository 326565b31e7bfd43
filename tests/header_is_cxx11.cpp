// The public header in the oldest C++ that a caller may use.
#include "zevobandwidth.h"

static_assert(noexcept(ZEVOBandwidthCurrTimeGet()), "no exception leaves an exported function");
