// The groups of a user, as the system's user database tells them.
#include <charconv>
#include <new>
#include <vector>

#include "sz_list.hpp"
#include "zevocore_nss.hpp"

namespace zevo {
namespace {

std::vector<gid_t> GroupsOf(const char *szUserName, gid_t primary)
{
    std::vector<gid_t> gids(32);
    for (;;) {
        int nGids = static_cast<int>(gids.size());
        const bool fits = ::getgrouplist(szUserName, primary, gids.data(), &nGids) >= 0;
        // No wish for more room: what it lacked was memory of its own.
        if (!fits && static_cast<size_t>(nGids) <= gids.size()) throw std::bad_alloc();
        gids.resize(static_cast<size_t>(nGids));
        if (fits) return gids;
    }
}

bool AppendId(VLIB_SZ_LIST &list, gid_t gid) noexcept
{
    char text[16];
    const char *const pEnd = std::to_chars(text, text + sizeof(text), gid).ptr;
    return ListAppend(list, {text, static_cast<size_t>(pEnd - text)});
}

VLIB_SZ_LIST *ListOf(const std::vector<gid_t> &gids)
{
    VLIB_SZ_LIST *const pList = VLIBCSzListAlloc(static_cast<int>(gids.size()));
    if (pList == nullptr) throw std::bad_alloc();
    for (const gid_t gid : gids) {
        if (AppendId(*pList, gid)) continue;
        VLIBCSzListFree(pList);
        throw std::bad_alloc();
    }
    return pList;
}

} // namespace
} // namespace zevo

VLIB_SZ_LIST *VLIBGroupInfoListGet(const char *szUserName, int) noexcept
try {
    if (szUserName == nullptr) {
        ZEVO_FAIL(zevo::kBadArgument);
        return nullptr;
    }
    const zevo::CancelScope cancel;
    const auto user = zevo::UserByName(szUserName);
    if (!user) {
        ZEVO_FAIL(user.code());
        return nullptr;
    }
    return zevo::ListOf(zevo::GroupsOf(szUserName, user->pw_gid));
} catch (const std::bad_alloc &) {
    ZEVO_FAIL(zevo::kFileNoMemory);
    return nullptr;
}
