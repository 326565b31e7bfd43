// The table of running transfers: one line for each, without a header.

#include "bandwidth_dump.hpp"
#include "bandwidth_frame.hpp"

#include <charconv>
#include <cstdio>

using namespace bandwidth;

namespace {

constexpr double kKBPerByte = 0.0009765625; // 1 / 1024

// A number with two decimals. Printed by hand of the library rather than by printf, so that a host's
// decimal comma does not get into the table.
class TwoDecimals {
public:
    explicit TwoDecimals(double value) noexcept
    {
        *std::to_chars(szText_, szText_ + sizeof(szText_) - 1, value, std::chars_format::fixed, 2)
             .ptr = '\0';
    }
    const char *get() const noexcept { return szText_; }

private:
    char szText_[32]; // 2^64 / 1024 has 17 digits
};

TwoDecimals InKB(uint64_t bytes) noexcept
{
    return TwoDecimals(static_cast<double>(bytes) * kKBPerByte);
}

} // namespace

int ZEVOBandwidthStatusDump(FILE *fp, const ZEVO_BANDWIDTH_STATUS *pStatus) noexcept
{
    const CancelScope cancel;
    BW_REQUIRE(fp != nullptr, "((void *)0) != fp");
    BW_REQUIRE(pStatus != nullptr, "NULL != pStatus");

    ZEVO_USER *pUser = nullptr;
    ZEVO_GROUP *pGroup = nullptr;
    const bool isUser = pStatus->owner_type == ZEVO_BW_OWNER_USER;
    if (isUser && ::ZEVOUserGetByUID(pStatus->id, &pUser) < 0)
        return BW_PASS("ZEVOUserGetByUID failed. [%u] ", pStatus->id);
    const User user(pUser);
    if (!isUser && ::ZEVOGroupGetByGID(pStatus->id, &pGroup) < 0)
        return BW_PASS("ZEVOGroupGetByGID failed. [%u] ", pStatus->id);
    const Group group(pGroup);
    Hash hash;
    if (!hash) return BW_PASS("VLIBCSzHashAlloc failed.");
    if (::ZEVOBandwidthInitHashFromStatus(hash.address(), pStatus) < 0)
        return BW_PASS("Init hash from status failed. ");

    (void)std::fprintf(fp, "%30s %10s %10s %5u %10u %10s %10s %3s %s\n",
                       isUser ? user->szName : group->szName, Column(hash, "protocol type"),
                       Column(hash, "transfer type"), static_cast<unsigned>(pStatus->pid),
                       static_cast<unsigned>(pStatus->timestamp), InKB(pStatus->expect_speed).get(),
                       InKB(pStatus->current_speed).get(),
                       TwoDecimals(pStatus->progress / 100.0).get(), pStatus->filename);
    return 0; // the stream remembers a failure
}
