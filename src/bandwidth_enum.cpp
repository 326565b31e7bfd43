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

constexpr char kAddonDirectory[] = ZEVO_BW_ADDON_DIRECTORY "/";

// What searches in one direction have found. Entries are added in front, never change and are never
// freed: a reader waits for nobody, and the child of a fork inherits no lock.
class FoundAddons {
public:
    struct Entry {
        Entry *pNext;
        int32_t number;
        const char *szName;
    };

    // nullptr when no entry matches.
    template <class Matcher> const Entry *Find(Matcher matches) const noexcept
    {
        const Entry *p = pFirst_.load(std::memory_order_acquire);
        while (p != nullptr && !matches(*p))
            p = p->pNext;
        return p;
    }
    // Logs that memory ran out. Two threads that find the same add-on at once leave two entries.
    void Keep(int32_t number, const char *szName) noexcept
    {
        const size_t cbName = std::strlen(szName) + 1;
        void *const pBlock = std::malloc(sizeof(Entry) + cbName);
        if (pBlock == nullptr) {
            BW_LOG("malloc failed");
            return;
        }
        auto *const szCopy = static_cast<char *>(pBlock) + sizeof(Entry);
        std::memcpy(szCopy, szName, cbName);
        auto *const pEntry = new (pBlock) Entry{pFirst_.load(), number, szCopy};
        while (!pFirst_.compare_exchange_weak(pEntry->pNext, pEntry)) {
        }
    }

private:
    std::atomic<Entry *> pFirst_{nullptr};
};

FoundAddons foundNumbers; // by searches for a number
FoundAddons foundNames;   // by searches for a name, which may find what a number does not

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

// Whether a name matched the file by its letters. A pattern that matched is answered but not
// remembered: strangers write the names in status files, and patterns are endless.
bool IsLiteral(const char *szName, const char *szPath) noexcept
{
    const char *const szFile = std::strrchr(szPath, '/') + 1;
    const size_t cbName = std::strlen(szName);
    return std::strncmp(szFile, szName, cbName) == 0 && szFile[cbName] == '_';
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
    if (::ZEVOBandwidthEnumToNameAddon(value, szProtocol, cb) < 0)
        return BW_LOG_AND_PASS("ZEVOBandwidthEnumToNameAddon failed, protocol=%d", value);
    return 1;
}

int ZEVOBandwidthEnumToValue(const ZEVO_BW_ENUM_ENTRY *enum_list, const char *szName) noexcept
{
    const CancelScope cancel;
    BW_REQUIRE(enum_list != nullptr, "((void *)0) != enum_list");
    BW_REQUIRE(szName != nullptr, "NULL != szName");

    if (const auto *const row = FindName(enum_list, szName); row != nullptr) return row->value;
    const int value = ::ZEVOBandwidthEnumToValueAddon(szName);
    if (value < 0)
        return BW_LOG_AND_PASS("ZEVOBandwidthEnumToValueAddon failed, protocol=%s", szName);
    if (value == 0) BW_RECORD(ZEVO_BW_ERROR_NOT_THERE);
    return value;
}

int ZEVOBandwidthEnumToNameAddon(int32_t iProtocol, char *szProtocol, size_t cbProtocol) noexcept
{
    const CancelScope cancel;
    if (szProtocol == nullptr || cbProtocol == 0)
        return BW_FAIL_AND_LOG(ZEVO_BW_ERROR_BAD_ARGUMENT, "Bad parameter");

    const auto isWanted = [=](const FoundAddons::Entry &e) { return e.number == iProtocol; };
    if (const auto *const pKnown = foundNumbers.Find(isWanted); pKnown != nullptr) {
        (void)std::snprintf(szProtocol, cbProtocol, "%s", pKnown->szName);
        return 1;
    }

    char szPattern[zevo::kPathBytes];
    (void)std::snprintf(szPattern, sizeof(szPattern), "%s/*_%d.json", kAddonDirectory, iProtocol);
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
    foundNumbers.Keep(iProtocol, szProtocol);
    return 1;
}

int ZEVOBandwidthEnumToValueAddon(const char *szName) noexcept
{
    const CancelScope cancel;
    if (szName == nullptr || szName[0] == '\0')
        return BW_FAIL_AND_LOG(ZEVO_BW_ERROR_BAD_ARGUMENT, "Bad parameter");

    const auto isWanted = [=](const FoundAddons::Entry &e) {
        return std::strcmp(e.szName, szName) == 0;
    };
    if (const auto *const pKnown = foundNames.Find(isWanted); pKnown != nullptr)
        return pKnown->number;

    // A name with a '/' would lead the search out of the add-on directory.
    if (std::strchr(szName, '/') != nullptr)
        return BW_FAIL_AND_LOG(ZEVO_BW_ERROR_ADDON_SEARCH, "glob failed, protocol=%s", szName);
    char szPattern[zevo::kPathBytes];
    (void)std::snprintf(szPattern, sizeof(szPattern), "%s/%s_*.json", kAddonDirectory, szName);
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
    const auto number = static_cast<int32_t>(std::strtol(szUnderscore + 1, nullptr, 10));
    if (IsLiteral(szName, matches.path())) foundNames.Keep(number, szName);
    return number;
}

int ZEVOBandwidthGetAddonConfigPath(int32_t iProtocol, char *szPath, size_t cbPath) noexcept
{
    const CancelScope cancel;
    char szName[256] = {};
    if (::ZEVOBandwidthEnumToNameAddon(iProtocol, szName, sizeof(szName)) != 1 || szName[0] == '\0')
        return BW_LOG_AND_PASS("ZEVOBandwidthEnumToNameAddon failed");
    (void)std::snprintf(szPath, cbPath, "%s/%s_%d.json", kAddonDirectory, szName, iProtocol);
    return 0;
}
