// The table of running transfers: one line for each, without a header.

#include "internal/dump.hpp"
#include "internal/frame.hpp"
#include "internal/speed.hpp"

#include <charconv>
#include <cstdio>

using namespace bandwidth;

namespace {

// A number with two decimals, made by to_chars rather than printf: a host's decimal comma must not
// get into the table.
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
    return TwoDecimals(static_cast<double>(bytes) / kBytesPerKB);
}

} // namespace

int ZEVOBandwidthStatusDump(FILE *fp, const ZEVO_BANDWIDTH_STATUS *pStatus) noexcept
{
    const CancelScope cancel;
    BW_REQUIRE(fp != nullptr, "((void *)0) != fp");
    BW_REQUIRE(pStatus != nullptr, "NULL != pStatus");

    const bool isUser = pStatus->owner_type == ZEVO_BW_OWNER_USER;
    const OwnerName name(isUser, pStatus->id);
    if (!name)
        return isUser ? BW_PASS("ZEVOUserGetByUID failed. [%u] ", pStatus->id)
                      : BW_PASS("ZEVOGroupGetByGID failed. [%u] ", pStatus->id);
    Hash hash;
    if (!hash) return BW_PASS("VLIBCSzHashAlloc failed.");
    if (::ZEVOBandwidthInitHashFromStatus(hash.address(), pStatus) < 0)
        return BW_PASS("Init hash from status failed. ");

    (void)std::fprintf(fp, "%30s %10s %10s %5u %10u %10s %10s %s %s\n", name.get(),
                       Column(hash, "protocol type"), Column(hash, "transfer type"),
                       static_cast<unsigned>(pStatus->pid),
                       static_cast<unsigned>(pStatus->timestamp), InKB(pStatus->expect_speed).get(),
                       InKB(pStatus->current_speed).get(),
                       TwoDecimals(pStatus->progress / 100.0).get(), pStatus->filename);
    return 0; // the stream remembers a failure
}
