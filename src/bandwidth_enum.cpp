// Enumeration names, and the add-on protocols beyond the built-in ones. An add-on is announced by a
// file in the add-on directory whose name carries all that counts here: NAME_NUMBER.json. The file
// is never opened.
//
// What a search found is remembered for the life of the process, one memory for each direction.

#include "internal/enum.hpp"

#include "internal/frame.hpp"
#include "internal/guard.hpp"

#include <glob.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

using namespace bandwidth;

namespace {

constexpr size_t kNumberBytes = 16; // holds every 32-bit integer
constexpr char kAddonDirectory[] = ZEVO_BW_ADDON_DIRECTORY "/";

// What searches in one direction have found. Entries are added in front, never change and are never
// freed: a reader waits for nobody, and the child of a fork inherits no lock.
class AddonMemory {
public:
    // The value; nullptr when the key has not been found yet.
    const char *Find(const char *szKey) const noexcept
    {
        for (const Entry *p = pFirst_.load(std::memory_order_acquire); p != nullptr; p = p->pNext)
            if (std::strcmp(p->szKey, szKey) == 0) return p->szValue;
        return nullptr;
    }
    // false without memory. Two threads that find the same at once leave two entries.
    bool Keep(const char *szKey, const char *szValue) noexcept
    {
        const size_t cbKey = std::strlen(szKey) + 1;
        const size_t cbValue = std::strlen(szValue) + 1;
        void *const pBlock = std::malloc(sizeof(Entry) + cbKey + cbValue);
        if (pBlock == nullptr) return false;
        auto *const szTexts = static_cast<char *>(pBlock) + sizeof(Entry);
        std::memcpy(szTexts, szKey, cbKey);
        std::memcpy(szTexts + cbKey, szValue, cbValue);
        auto *const pEntry = new (pBlock) Entry{pFirst_.load(), szTexts, szTexts + cbKey};
        while (!pFirst_.compare_exchange_weak(pEntry->pNext, pEntry)) {
        }
        return true;
    }

private:
    struct Entry {
        Entry *pNext;
        const char *szKey;
        const char *szValue;
    };
    std::atomic<Entry *> pFirst_{nullptr};
};

AddonMemory addonNames;  // number as text -> name
AddonMemory addonValues; // name -> number as text

// The files that match a pattern.
class Matches {
public:
    explicit Matches(const char *szPattern) noexcept
        : result_(StrangersFileScope::MaySearch(szPattern) ? ::glob(szPattern, 0, nullptr, &glob_)
                                                           : GLOB_NOMATCH)
    {
        if (result_ != 0) StrangersFileScope::NoteMissed(szPattern);
    }
    ~Matches()
    {
        const zevo::KeepErrno keep;
        ::globfree(&glob_);
    }
    Matches(const Matches &) = delete;
    Matches &operator=(const Matches &) = delete;

    bool found() const noexcept { return result_ == 0 && glob_.gl_pathc > 0; }
    bool ambiguous() const noexcept { return glob_.gl_pathc > 1; }
    const char *path() const noexcept { return glob_.gl_pathv[0]; }

private:
    glob_t glob_ = {};
    const int result_;
};

void NumberText(int32_t number, char (&szNumber)[kNumberBytes]) noexcept
{
    (void)std::snprintf(szNumber, sizeof(szNumber), "%d", number);
}

// Whether a name matched the file by its letters. A pattern that matched is answered but not
// remembered: strangers write the names in status files, and patterns are endless.
bool IsLiteral(const char *szName, const char *szPath) noexcept
{
    const char *const szFile = std::strrchr(szPath, '/') + 1;
    const size_t cbName = std::strlen(szName);
    return std::strncmp(szFile, szName, cbName) == 0 && szFile[cbName] == '_';
}

int32_t TextNumber(const char *szNumber) noexcept
{
    return static_cast<int32_t>(std::strtol(szNumber, nullptr, 10));
}

} // namespace

int ZEVOBandwidthEnumToName(const ZEVO_BW_ENUM_ENTRY *enum_list, int32_t value, char *szProtocol,
                            int cbProtocol) noexcept
{
    const CancelScope cancel;
    BW_REQUIRE(enum_list != nullptr, "((void *)0) != enum_list");
    BW_REQUIRE(szProtocol != nullptr, "((void *)0) != szProtocol");
    BW_REQUIRE(cbProtocol > 0, "cbProtocol > 0");

    const size_t cb = static_cast<size_t>(cbProtocol);
    for (const ZEVO_BW_ENUM_ENTRY *row = enum_list; row->name != nullptr; ++row) {
        if (row->value != value) continue;
        (void)std::snprintf(szProtocol, cb, "%s", row->name);
        return 1;
    }
    if (::ZEVOBandwidthEnumToNameAddon(value, szProtocol, cb) < 0) {
        BW_LOG("ZEVOBandwidthEnumToNameAddon failed, protocol=%d", value);
        return BW_PASS_UNLOGGED;
    }
    return 1;
}

int ZEVOBandwidthEnumToValue(const ZEVO_BW_ENUM_ENTRY *enum_list, const char *szName) noexcept
{
    const CancelScope cancel;
    BW_REQUIRE(enum_list != nullptr, "((void *)0) != enum_list");
    BW_REQUIRE(szName != nullptr, "NULL != szName");

    if (const auto *const row = FindName(enum_list, szName); row != nullptr) return row->value;
    const int value = ::ZEVOBandwidthEnumToValueAddon(szName);
    if (value < 0) {
        BW_LOG("ZEVOBandwidthEnumToValueAddon failed, protocol=%s", szName);
        return BW_PASS_UNLOGGED;
    }
    if (value == 0) BW_RECORD(ZEVO_BW_ERROR_NOT_THERE);
    return value;
}

int ZEVOBandwidthEnumToNameAddon(int32_t iProtocol, char *szProtocol, size_t cbProtocol) noexcept
{
    const CancelScope cancel;
    if (szProtocol == nullptr || cbProtocol == 0)
        return BW_FAIL_AND_LOG(ZEVO_BW_ERROR_BAD_ARGUMENT, "Bad parameter");

    char szNumber[kNumberBytes];
    NumberText(iProtocol, szNumber);
    if (const char *const szKnown = addonNames.Find(szNumber); szKnown != nullptr) {
        (void)std::snprintf(szProtocol, cbProtocol, "%s", szKnown);
        return 1;
    }

    char szPattern[zevo::kPathBytes];
    (void)std::snprintf(szPattern, sizeof(szPattern), "%s/*_%s.json", kAddonDirectory, szNumber);
    const Matches matches(szPattern);
    if (!matches.found())
        return BW_FAIL_AND_LOG(ZEVO_BW_ERROR_ADDON_SEARCH, "glob failed, iProtocol=%d", iProtocol);
    if (matches.ambiguous())
        return BW_FAIL_AND_LOG(ZEVO_BW_ERROR_ADDON_AMBIGUOUS, "glob multi match, iProtocol=%d",
                               iProtocol);

    const char *const szSlash = std::strrchr(matches.path(), '/');
    const char *const szUnderscore = std::strrchr(matches.path(), '_');
    if (szSlash == nullptr || szUnderscore == nullptr || szUnderscore < szSlash)
        return BW_FAIL_AND_LOG(ZEVO_BW_ERROR_ADDON_BAD_NAME, "bad path format, path=%s",
                               matches.path());
    (void)std::snprintf(szProtocol, cbProtocol, "%.*s",
                        static_cast<int>(szUnderscore - szSlash - 1), szSlash + 1);
    if (!addonNames.Keep(szNumber, szProtocol)) BW_LOG("malloc failed");
    return 1;
}

int ZEVOBandwidthEnumToValueAddon(const char *szName) noexcept
{
    const CancelScope cancel;
    if (szName == nullptr || szName[0] == '\0')
        return BW_FAIL_AND_LOG(ZEVO_BW_ERROR_BAD_ARGUMENT, "Bad parameter");

    if (const char *const szKnown = addonValues.Find(szName); szKnown != nullptr)
        return TextNumber(szKnown);

    // A name with a '/' would lead the search out of the add-on directory.
    char szPattern[zevo::kPathBytes];
    (void)std::snprintf(szPattern, sizeof(szPattern), "%s/%s_*.json", kAddonDirectory, szName);
    if (std::strchr(szName, '/') != nullptr)
        return BW_FAIL_AND_LOG(ZEVO_BW_ERROR_ADDON_SEARCH, "glob failed, protocol=%s", szName);
    const Matches matches(szPattern);
    if (!matches.found())
        return BW_FAIL_AND_LOG(ZEVO_BW_ERROR_ADDON_SEARCH, "glob failed, protocol=%s", szName);
    if (matches.ambiguous())
        return BW_FAIL_AND_LOG(ZEVO_BW_ERROR_ADDON_AMBIGUOUS, "glob multi match, protocol=%s",
                               szName);

    const char *const szUnderscore = std::strrchr(matches.path(), '_');
    if (szUnderscore == nullptr || std::strrchr(matches.path(), '.') == nullptr)
        return BW_FAIL_AND_LOG(ZEVO_BW_ERROR_ADDON_BAD_NAME, "bad path format, path=%s",
                               matches.path());
    const int32_t number = TextNumber(szUnderscore + 1); // stops at the dot
    char szNumber[kNumberBytes];
    NumberText(number, szNumber);
    if (IsLiteral(szName, matches.path()) && !addonValues.Keep(szName, szNumber))
        BW_LOG("malloc failed");
    return number;
}

int ZEVOBandwidthGetAddonConfigPath(int32_t iProtocol, char *szPath, size_t cbPath) noexcept
{
    const CancelScope cancel;
    char szName[256] = {};
    if (::ZEVOBandwidthEnumToNameAddon(iProtocol, szName, sizeof(szName)) != 1 ||
        szName[0] == '\0') {
        BW_LOG("ZEVOBandwidthEnumToNameAddon failed");
        return BW_PASS_UNLOGGED;
    }
    (void)std::snprintf(szPath, cbPath, "%s/%s_%d.json", kAddonDirectory, szName, iProtocol);
    return 0;
}
