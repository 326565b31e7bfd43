// The public headers in the oldest C++ that a caller may use, and in the ones that followed.
#include "zevobandwidth.hpp"

#include "zevobandwidth.h"   // NOLINT(readability-duplicate-include): guarded
#include "zevobandwidth.hpp" // NOLINT(readability-duplicate-include): guarded

#include <type_traits>

static_assert(noexcept(ZEVOBandwidthCurrTimeGet()), "no exception leaves an exported function");
static_assert(noexcept(zevobw::Transfer::Begin(0, 0, 0, "")), "none leaves the layer unasked");
static_assert(!std::is_reference<decltype(zevobw::Config::Read(0, 0).value())>::value,
              "for (const auto &rule : zevobw::Config::Read(uid, protocol).value()) is safe");

// Every member, not only those that are used here.
template class zevobw::Result<zevobw::Config>;
template class zevobw::Result<zevobw::Transfer>;

// As a host uses it.
bool HeaderIsCxx11(std::uint32_t uid);

bool HeaderIsCxx11(std::uint32_t uid)
{
    auto begun =
        zevobw::Transfer::Begin(uid, ZEVO_BW_PROTOCOL_FTP, ZEVO_BW_TRANSFER_UPLOAD, "file");
    if (!begun) return begun.error().code() == ZEVO_BW_ERROR_NO_MEMORY;
    zevobw::Transfer transfer = std::move(begun.value());
    for (const auto &running : zevobw::Transfers(ZEVO_BW_OWNER_USER, uid))
        if (running.active == 0) return false;
    return transfer.Moved(transfer.BlockSize(65536), 0).ok();
}
