// The name of a value, as the library's own callers want it.
#ifndef INTERNAL_ENUM_HPP
#define INTERNAL_ENUM_HPP

#include "zevobandwidth.h"

#include <cstring>

namespace bandwidth {

constexpr int kNameBytes = 256;

// The row of a table that has the name; nullptr when none has it.
inline const ZEVO_BW_ENUM_ENTRY *FindName(const ZEVO_BW_ENUM_ENTRY *table,
                                          const char *szName) noexcept
{
    for (; table->name != nullptr; ++table)
        if (*table->name == *szName && std::strcmp(table->name, szName) == 0) return table;
    return nullptr;
}

// Looks a name up; false when nobody knows one, or it is empty, as an add-on's may be.
inline bool NameOf(const ZEVO_BW_ENUM_ENTRY *table, int32_t value,
                   char (&szName)[kNameBytes]) noexcept
{
    szName[0] = '\0';
    return ::ZEVOBandwidthEnumToName(table, value, szName, kNameBytes) >= 1 && szName[0] != '\0';
}

} // namespace bandwidth

#endif // INTERNAL_ENUM_HPP
