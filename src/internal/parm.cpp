// The conversion engine: numbers, names and texts between the fields of a record and a string hash.

#include "internal/parm.hpp"

#include "internal/enum.hpp"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <limits>

namespace bandwidth {

namespace {

constexpr size_t kNumberBytes = 32; // holds every 64-bit number

template <class Field, class Wide>
int NumberToText(const void *private_data, char *str, size_t cb, const char *szFormat,
                 Site site) noexcept
{
    BW_REQUIRE_AT(site, private_data != nullptr, "((void *)0) != private_data");
    BW_REQUIRE_AT(site, str != nullptr, "NULL != str");
    Field field;
    std::memcpy(&field, private_data, sizeof(field));
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral" // the four literals below
    (void)std::snprintf(str, cb, szFormat, static_cast<Wide>(field));
#pragma GCC diagnostic pop
    return 0;
}

enum class Rest { kIgnored, kRefused }; // text that follows the number

// Most numbers are digits and nothing else, few enough for any type that holds them: the rest, signs,
// blanks and what is too large, is left to libc. false then.
template <class Wide> bool ReadDigits(const char *str, Wide &value) noexcept
{
    uint64_t read = 0;
    const char *p = str;
    for (unsigned digit; (digit = static_cast<unsigned char>(*p) - unsigned{'0'}) <= 9; ++p)
        read = read * 10 + digit;
    value = static_cast<Wide>(read);
    return p != str && *p == '\0' && p - str <= std::numeric_limits<Wide>::digits10;
}

template <class Field, class Wide>
int NumberFromText(void *private_data, const char *str, Wide (*Parse)(const char *, char **, int),
                   Rest rest, Site site) noexcept
{
    BW_REQUIRE_AT(site, private_data != nullptr, "((void *)0) != private_data");
    BW_REQUIRE_AT(site, str != nullptr, "NULL != str");
    Wide wide;
    char *szRest = nullptr;
    const bool plain = ReadDigits(str, wide);
    if (!plain) wide = Parse(str, &szRest, 10);
    const Field field = static_cast<Field>(wide);
    std::memcpy(private_data, &field, sizeof(field));
    if (plain) return 0;
    if (rest == Rest::kRefused && *szRest != '\0') return Fail(ZEVO_BW_ERROR_BAD_NUMBER, site);
    return 0;
}

int32_t EnumField(const void *pField) noexcept
{
    int32_t value;
    std::memcpy(&value, pField, sizeof(value));
    return value;
}

// Sets the pair of one row: 0, or -1, logged.
int SetPair(VLIB_SZ_HASH **ppHash, const void *pRecord, const ZEVO_BW_PARM *parm_table,
            const ZEVO_BW_PARM *row, Site site) noexcept
{
    const char *const pField = static_cast<const char *>(pRecord) + row->offset;
    const char *szText = pField;
    char szName[kNameBytes];
    char szNumber[kNumberBytes];
    if (row->names != nullptr) {
        if (!NameOf(row->names, EnumField(pField), szName)) {
            BW_LOG_AT(site, "Unknown value [%d] for [%s]", EnumField(pField), row->szKey);
            return 0;
        }
        szText = szName;
    } else if (row->ToHashStr != nullptr) {
        if (row->ToHashStr(pField, szNumber, sizeof(szNumber), site) < 0) {
            BW_LOG_AT(site, "parm_table[%d].ToHashStr failed.", static_cast<int>(row - parm_table));
            return BW_PASS_UNLOGGED;
        }
        szText = szNumber;
    }
    char szCut[ZEVO_BW_FILENAME_SIZE]; // of a text field without an end
    if (szText == pField && std::memchr(pField, '\0', row->cbField) == nullptr) {
        (void)std::snprintf(szCut, sizeof(szCut), "%.*s", static_cast<int>(row->cbField - 1),
                            pField);
        szText = szCut;
    }
    if (::VLIBCSzHashSetValue(ppHash, row->szKey, szText) < 0)
        return BW_PASS_AT(site, "Set hash value failed. key:[%s], val:[%s]. ", row->szKey, szText);
    return 0;
}

} // namespace

int S32ToText(const void *private_data, char *str, size_t cb, Site site) noexcept
{
    return NumberToText<int32_t, long>(private_data, str, cb, "%ld", site);
}

int U32ToText(const void *private_data, char *str, size_t cb, Site site) noexcept
{
    return NumberToText<uint32_t, unsigned long>(private_data, str, cb, "%lu", site);
}

int S64ToText(const void *private_data, char *str, size_t cb, Site site) noexcept
{
    return NumberToText<int64_t, long long>(private_data, str, cb, "%lld", site);
}

int U64ToText(const void *private_data, char *str, size_t cb, Site site) noexcept
{
    return NumberToText<uint64_t, unsigned long long>(private_data, str, cb, "%llu", site);
}

int S32FromText(void *private_data, const char *str, Site site) noexcept
{
    return NumberFromText<int32_t>(private_data, str, &std::strtol, Rest::kIgnored, site);
}

int U32FromText(void *private_data, const char *str, Site site) noexcept
{
    return NumberFromText<uint32_t>(private_data, str, &std::strtoul, Rest::kRefused, site);
}

int S64FromText(void *private_data, const char *str, Site site) noexcept
{
    return NumberFromText<int64_t>(private_data, str, &std::strtoll, Rest::kIgnored, site);
}

int U64FromText(void *private_data, const char *str, Site site) noexcept
{
    return NumberFromText<uint64_t>(private_data, str, &std::strtoull, Rest::kRefused, site);
}

int HashFromRecord(VLIB_SZ_HASH **ppHash, const void *pRecord, const ZEVO_BW_PARM *parm_table,
                   Site site) noexcept
{
    (void)::VLIBCHashRemoveAll(*ppHash);
    for (const bool last : {false, true})
        for (const ZEVO_BW_PARM *row = parm_table; row->szKey != nullptr; ++row)
            if (row->comesLast == last && SetPair(ppHash, pRecord, parm_table, row, site) < 0)
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
        if (row->names != nullptr) {
            const ZEVO_BW_ENUM_ENTRY *const pKnown = FindName(row->names, szText);
            const int32_t value =
                pKnown != nullptr ? pKnown->value : ::ZEVOBandwidthEnumToValue(row->names, szText);
            if (value < 0)
                BW_LOG_AT(site, "Unknown string value [%s] for [%s]", szText, row->szKey);
            else
                std::memcpy(pField, &value, sizeof(value));
        } else if (row->fnFromHashStr != nullptr) {
            if (row->fnFromHashStr(pField, szText, site) < 0) {
                BW_LOG_AT(site, "parm_table[%d].fnFromHashStr failed.",
                          static_cast<int>(row - parm_table));
                return BW_PASS_UNLOGGED;
            }
        } else {
            const size_t cbText = ::strnlen(szText, row->cbField - 1);
            std::memcpy(pField, szText, cbText);
            pField[cbText] = '\0';
        }
    }
    return 0;
}

} // namespace bandwidth
