// What the tables of rules, policies and transfers share.
#ifndef BANDWIDTH_DUMP_HPP
#define BANDWIDTH_DUMP_HPP

#include "bandwidth_guard.hpp"

namespace bandwidth {

// The column of a value that no name table knows: its key is missing from the section form.
constexpr char kNoName[] = "-";

inline const char *Column(const Hash &hash, const char *szKey) noexcept
{
    const char *const szValue = ::VLIBCSzHashGetValue(hash.get(), szKey);
    return szValue == nullptr ? kNoName : szValue;
}

} // namespace bandwidth

#endif // BANDWIDTH_DUMP_HPP
