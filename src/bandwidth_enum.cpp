// Enumeration names, and the add-on protocols beyond the built-in ones. An add-on is announced by a
// file in the add-on directory whose name carries all that counts here: NAME_NUMBER.json. The file
// is never opened.
//
// What a search found is remembered for the life of the process, one memory for each direction. A
// memory is guarded by a flag that nobody waits for: a thread that finds it taken, or the child of
// a fork that inherited it taken, searches the directory instead.

#include "internal/enum.hpp"

#include "internal/frame.hpp"
#include "internal/guard.hpp"

#include <glob.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

using namespace bandwidth;

namespace {

constexpr int kAddonCacheSize = 64;
constexpr size_t kNumberBytes = 16; // holds every 32-bit integer
constexpr char kAddonDirectory[] = ZEVO_BW_ADDON_DIRECTORY "/";

struct AddonCache {
    std::atomic_flag busy = ATOMIC_FLAG_INIT; // taken and given back by CacheScope alone
    VLIB_SZ_HASH *pHash = nullptr;            // made by the first hit, read and changed while taken
};

AddonCache addonNameCache;  // number as text -> name
AddonCache addonValueCache; // name -> number as text

// Takes a cache unless somebody has it; false then, and the caller goes without.
class CacheScope {
public:
    explicit CacheScope(AddonCache &cache) noexcept
        : cache_(cache), taken_(!cache.busy.test_and_set(std::memory_order_acquire))
    {
    }
    ~CacheScope()
    {
        if (taken_) cache_.busy.clear(std::memory_order_release);
    }
    CacheScope(const CacheScope &) = delete;
    CacheScope &operator=(const CacheScope &) = delete;

    const char *Find(const char *szKey) const noexcept
    {
        return taken_ && cache_.pHash != nullptr ? ::VLIBCSzHashGetValue(cache_.pHash, szKey)
                                                 : nullptr;
    }
    // false when the cache cannot be made; a value that cannot be stored is searched again, no
    // more.
    bool Keep(const char *szKey, const char *szValue) noexcept
    {
        if (!taken_) return true;
        if (cache_.pHash == nullptr) cache_.pHash = ::VLIBCSzHashAlloc(kAddonCacheSize);
        if (cache_.pHash == nullptr) return false;
        (void)::VLIBCSzHashSetValue(&cache_.pHash, szKey, szValue);
        return true;
    }

private:
    AddonCache &cache_;
    const bool taken_;
};

// The files that match a pattern.
class Matches {
public:
    explicit Matches(const char *szPattern) noexcept
        : result_(StrangersFileScope::MaySearch() ? ::glob(szPattern, 0, nullptr, &glob_)
                                                  : GLOB_NOMATCH)
    {
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
    CacheScope cache(addonNameCache);
    if (const char *const szCached = cache.Find(szNumber); szCached != nullptr) {
        (void)std::snprintf(szProtocol, cbProtocol, "%s", szCached);
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
    if (!cache.Keep(szNumber, szProtocol)) BW_LOG("malloc failed");
    return 1;
}

int ZEVOBandwidthEnumToValueAddon(const char *szName) noexcept
{
    const CancelScope cancel;
    if (szName == nullptr || szName[0] == '\0')
        return BW_FAIL_AND_LOG(ZEVO_BW_ERROR_BAD_ARGUMENT, "Bad parameter");

    CacheScope cache(addonValueCache);
    if (const char *const szCached = cache.Find(szName); szCached != nullptr)
        return TextNumber(szCached);

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
    if (IsLiteral(szName, matches.path()) && !cache.Keep(szName, szNumber)) BW_LOG("malloc failed");
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
