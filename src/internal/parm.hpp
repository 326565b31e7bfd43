// One engine for all records that are kept as sections: a table of rows says which key holds which
// field and how it is spelled. Rows carry offsets, so that one constant serves all records.
#ifndef INTERNAL_PARM_HPP
#define INTERNAL_PARM_HPP

#include "internal/frame.hpp"

#include <cstddef>
#include <cstdint>

namespace bandwidth {

// A size or an offset that the binary interface fixes: with 64-bit addresses, with 32-bit ones, and
// with 32-bit ones where a 64-bit field stands at multiples of 4, as on i386.
constexpr size_t Pinned(size_t on64, size_t on32, size_t on32Packed)
{
    if (sizeof(void *) == 8) return on64;
    return alignof(uint64_t) == 8 ? on32 : on32Packed;
}

// Converters of one number; they record and log in the name of the site they are handed.
using ToText = int (*)(const void *private_data, char *str, size_t cb, Site site);
using FromText = int (*)(void *private_data, const char *str, Site site);

// With a name table: an enumeration. With converters: a number. With neither: a text.
struct ZEVO_BW_PARM {
    const char *szKey; // none in the row that ends a table
    size_t offset;
    size_t cbField;
    const ZEVO_BW_ENUM_ENTRY *names;
    ToText ToHashStr;
    FromText fnFromHashStr;
    bool comesLast = false; // its pair is set, and so written, after those of all other rows
};

int S32ToText(const void *private_data, char *str, size_t cb, Site site) noexcept;
int U32ToText(const void *private_data, char *str, size_t cb, Site site) noexcept;
int S64ToText(const void *private_data, char *str, size_t cb, Site site) noexcept;
int U64ToText(const void *private_data, char *str, size_t cb, Site site) noexcept;

// Text after a signed number is ignored; after an unsigned one it is a failure (0x4000), the field
// holding what was read before it.
int S32FromText(void *private_data, const char *str, Site site) noexcept;
int U32FromText(void *private_data, const char *str, Site site) noexcept;
int S64FromText(void *private_data, const char *str, Site site) noexcept;
int U64FromText(void *private_data, const char *str, Site site) noexcept;

// Empties the hash and sets one pair a row, in the table's order, but the last one last. A value
// without a name is left out.
int HashFromRecord(VLIB_SZ_HASH **ppHash, const void *pRecord, const ZEVO_BW_PARM *parm_table,
                   Site site) noexcept;

// Sets the fields whose keys the hash holds. An unknown name leaves its field.
int RecordFromHash(void *pRecord, const VLIB_SZ_HASH *pHash, const ZEVO_BW_PARM *parm_table,
                   Site site) noexcept;

} // namespace bandwidth

#endif // INTERNAL_PARM_HPP
