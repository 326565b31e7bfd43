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

enum class Kind {
    kText,
    kName,     // an enumeration, spelled by its name table
    kSigned,   // a decimal number; text after it is ignored
    kUnsigned, // a decimal number; text after it is refused (0x4000), and the number is kept
};

struct ZEVO_BW_PARM {
    const char *szKey; // nullptr in the row that ends a table
    size_t offset;
    size_t cbField; // 4 or 8 for a number
    Kind kind;
    const ZEVO_BW_ENUM_ENTRY *names = nullptr; // of a kName
    bool comesLast = false; // its pair is set, and so written, after those of all other rows
};

// Empties the hash and sets one pair for each row, in the table's order. A value without a name is
// left out.
int HashFromRecord(VLIB_SZ_HASH **ppHash, const void *pRecord, const ZEVO_BW_PARM *parm_table,
                   Site site) noexcept;

// Sets the fields whose keys the hash holds. An unknown name leaves its field as it is.
int RecordFromHash(void *pRecord, const VLIB_SZ_HASH *pHash, const ZEVO_BW_PARM *parm_table,
                   Site site) noexcept;

} // namespace bandwidth

#endif // INTERNAL_PARM_HPP
