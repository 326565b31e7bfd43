// The conversion engine: numbers, names and texts between the fields of a record and a string hash.

#include "internal/parm.hpp"

#include "internal/enum.hpp"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace bandwidth {

namespace {

constexpr size_t kNumberBytes = 32; // holds every 64-bit number

template <class Field> Field Load(const char *pField) noexcept
{
    Field field;
    std::memcpy(&field, pField, sizeof(field));
    return field;
}

// Keeps the low half of a number whose field is smaller.
void StoreNumber(char *pField, size_t cbField, uint64_t number) noexcept
{
    const auto low = static_cast<uint32_t>(number);
    if (cbField == sizeof(low))
        std::memcpy(pField, &low, sizeof(low));
    else
        std::memcpy(pField, &number, sizeof(number));
}

void NumberToText(const ZEVO_BW_PARM &row, const char *pField,
                  char (&szNumber)[kNumberBytes]) noexcept
{
    const bool isShort = row.cbField == sizeof(uint32_t);
    if (row.kind == Kind::kSigned)
        (void)std::snprintf(szNumber, sizeof(szNumber), "%" PRId64,
                            isShort ? Load<int32_t>(pField) : Load<int64_t>(pField));
    else
        (void)std::snprintf(szNumber, sizeof(szNumber), "%" PRIu64,
                            isShort ? Load<uint32_t>(pField) : Load<uint64_t>(pField));
}

// Most numbers are digits and nothing else. false for any other text: signs, blanks and what may be
// too large are left to libc.
bool ReadDigits(const char *szText, uint64_t &number) noexcept
{
    number = 0;
    const char *p = szText;
    for (unsigned digit; (digit = static_cast<unsigned char>(*p) - unsigned{'0'}) <= 9; ++p)
        number = number * 10 + digit;
    return p != szText && *p == '\0' && p - szText <= std::numeric_limits<int64_t>::digits10;
}

// false when text follows an unsigned number.
bool NumberFromText(const ZEVO_BW_PARM &row, char *pField, const char *szText) noexcept
{
    uint64_t number = 0;
    char *szRest = nullptr;
    const bool isPlain = ReadDigits(szText, number);
    if (!isPlain)
        number = row.kind == Kind::kSigned
                     ? static_cast<uint64_t>(std::strtoll(szText, &szRest, 10))
                     : std::strtoull(szText, &szRest, 10);
    StoreNumber(pField, row.cbField, number);
    return isPlain || row.kind == Kind::kSigned || *szRest == '\0';
}

void TextFromText(const ZEVO_BW_PARM &row, char *pField, const char *szText) noexcept
{
    const size_t cbText = ::strnlen(szText, row.cbField - 1);
    std::memcpy(pField, szText, cbText);
    pField[cbText] = '\0';
}

int SetPair(VLIB_SZ_HASH **ppHash, const void *pRecord, const ZEVO_BW_PARM &row, Site site) noexcept
{
    const char *const pField = static_cast<const char *>(pRecord) + row.offset;
    const char *szText = pField;
    char szName[kNameBytes];
    char szNumber[kNumberBytes];
    char szCut[ZEVO_BW_FILENAME_SIZE]; // of a text field without an end
    if (row.kind == Kind::kName) {
        const auto value = Load<int32_t>(pField);
        if (!NameOf(row.names, value, szName)) {
            BW_LOG_AT(site, "Unknown value [%d] for [%s]", value, row.szKey);
            return 0;
        }
        szText = szName;
    } else if (row.kind != Kind::kText) {
        NumberToText(row, pField, szNumber);
        szText = szNumber;
    } else if (std::memchr(pField, '\0', row.cbField) == nullptr) {
        (void)std::snprintf(szCut, sizeof(szCut), "%.*s", static_cast<int>(row.cbField - 1),
                            pField);
        szText = szCut;
    }
    if (::VLIBCSzHashSetValue(ppHash, row.szKey, szText) < 0)
        return BW_PASS_AT(site, "Set hash value failed. key:[%s], val:[%s]. ", row.szKey, szText);
    return 0;
}

void NameFromText(const ZEVO_BW_PARM &row, char *pField, const char *szText, Site site) noexcept
{
    const ZEVO_BW_ENUM_ENTRY *const pKnown = FindName(row.names, szText);
    const int32_t value =
        pKnown != nullptr ? pKnown->value : ::ZEVOBandwidthEnumToValue(row.names, szText);
    if (value < 0)
        BW_LOG_AT(site, "Unknown string value [%s] for [%s]", szText, row.szKey);
    else
        std::memcpy(pField, &value, sizeof(value));
}

} // namespace

int HashFromRecord(VLIB_SZ_HASH **ppHash, const void *pRecord, const ZEVO_BW_PARM *parm_table,
                   Site site) noexcept
{
    (void)::VLIBCHashRemoveAll(*ppHash);
    for (const bool isLast : {false, true})
        for (const ZEVO_BW_PARM *row = parm_table; row->szKey != nullptr; ++row)
            if (row->comesLast == isLast && SetPair(ppHash, pRecord, *row, site) < 0)
                return BW_PASS_UNLOGGED;
    return 0;
}

int RecordFromHash(void *pRecord, const VLIB_SZ_HASH *pHash, const ZEVO_BW_PARM *parm_table,
                   Site site) noexcept
{
    for (const ZEVO_BW_PARM *row = parm_table; row->szKey != nullptr; ++row) {
        const char *const szText = ::VLIBCSzHashGetValue(pHash, row->szKey);
        if (szText == nullptr) continue;
        char *const pField = static_cast<char *>(pRecord) + row->offset;
        if (row->kind == Kind::kText) {
            TextFromText(*row, pField, szText);
        } else if (row->kind == Kind::kName) {
            NameFromText(*row, pField, szText, site);
        } else if (!NumberFromText(*row, pField, szText)) {
            Record(ZEVO_BW_ERROR_BAD_NUMBER, site);
            return BW_LOG_AND_PASS_AT(site, "parm_table[%d].fnFromHashStr failed.",
                                      static_cast<int>(row - parm_table));
        }
    }
    return 0;
}

} // namespace bandwidth
