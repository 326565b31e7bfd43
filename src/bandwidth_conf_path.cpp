// Where the settings stand: one rule file for each protocol and one global file beside them.

#include "internal/enum.hpp"
#include "internal/frame.hpp"
#include "internal/guard.hpp"

#include <cstdio>

using namespace bandwidth;

int ZEVOBandwidthConfPath(int32_t protocol_type, char *szConfPath, size_t cbConfPath) noexcept
{
    const CancelScope cancel;
    constexpr char kFormat[] = ZEVO_BW_CONF_DIRECTORY "/%s%s%s";
    constexpr char kPrefix[] = "bandwidth.";
    constexpr char kSuffix[] = ".conf";
    BW_REQUIRE(szConfPath != nullptr, "((void *)0) != szConfPath");

    if (protocol_type == ZEVO_BW_PROTOCOL_ALL) {
        (void)std::snprintf(szConfPath, cbConfPath, kFormat, kPrefix, "global", kSuffix);
        return 0;
    }
    char szName[kNameBytes];
    if (!NameOf(ZEVO_BW_PROTOCOL_TYPE_LIST, protocol_type, szName))
        return BW_PASS("Failed to get protocol for protocol_type [%d] ", protocol_type);
    (void)std::snprintf(szConfPath, cbConfPath, kFormat, kPrefix, szName, kSuffix);
    return 0;
}
