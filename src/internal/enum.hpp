// Look-ups in the name tables, for the library itself.
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

// The name of a value, also of an add-on; false when there is none or it is empty.
inline bool NameOf(const ZEVO_BW_ENUM_ENTRY *table, int32_t value,
                   char (&szName)[kNameBytes]) noexcept
{
    szName[0] = '\0';
    return ::ZEVOBandwidthEnumToName(table, value, szName, kNameBytes) >= 1 && szName[0] != '\0';
}

} // namespace bandwidth

#endif // INTERNAL_ENUM_HPP
