// The converters between sections and records: what was read from any section survives the way back.
// Input: "key=value" lines.
#include "fuzz.hpp"

#include <cstring>
#include <memory>

#include "zevobandwidth.h"

using namespace fuzz;

namespace {

template <class Record>
void Convert(const Hash &section, int (*pRead)(Record *, const VLIB_SZ_HASH *) noexcept,
             int (*pWrite)(VLIB_SZ_HASH **, const Record *) noexcept)
{
    const auto pRecord = std::make_unique<Record>();
    std::memset(static_cast<void *>(pRecord.get()), 0, sizeof(Record)); // and between fields
    const auto pAgain = std::make_unique<Record>();
    std::memset(static_cast<void *>(pAgain.get()), 0, sizeof(Record));
    if (pRead(pRecord.get(), section.get()) < 0) return;
    Hash hash;
    Require(pWrite(hash.address(), pRecord.get()) == 0, "a record that was read can be written");
    Require(pRead(pAgain.get(), hash.get()) == 0, "what was written can be read");
    Hash rewritten;
    Require(pWrite(rewritten.address(), pAgain.get()) == 0, "and written again");
    // Zeroed before, so that the bytes between the members are equal, too.
    // NOLINTNEXTLINE(bugprone-suspicious-memory-comparison)
    Require(std::memcmp(pRecord.get(), pAgain.get(), sizeof(Record)) == 0,
            "a record survives the way through a section");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pBytes, std::size_t cb)
{
    std::string_view text = Text(pBytes, cb);
    Hash section;
    CutPairs(text, section);
    Convert(section, ZEVOBandwidthInitConfFromHash, ZEVOBandwidthInitHashFromConf);
    Convert(section, ZEVOBandwidthInitGlobalConfFromHash, ZEVOBandwidthInitHashFromGlobalConf);
    Convert(section, ZEVOBandwidthInitStatusFromHash, ZEVOBandwidthInitHashFromStatus);
    return 0;
}
