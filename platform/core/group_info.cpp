// The groups of a user, from the system's user database.
#include <cerrno>
#include <charconv>
#include <new>
#include <vector>

#include "base/user_database.hpp"
#include "platform/internal/frame.hpp"
#include "sz_list.hpp"

namespace zevo {
namespace {

constexpr int kMaxTries = 4;

// The groups that the database named, and the errno that it left.
struct FoundGroups {
    std::vector<gid_t> gids;
    int error = 0;
};

FoundGroups AskDatabase(const char *szUserName, gid_t primary)
{
    FoundGroups found = {std::vector<gid_t>(32)};
    for (;;) {
        int nGids = static_cast<int>(found.gids.size());
        errno = 0;
        const bool fits = ::getgrouplist(szUserName, primary, found.gids.data(), &nGids) >= 0;
        found.error = errno;
        // It asks for no more room, so it lacks memory of its own.
        if (!fits && static_cast<size_t>(nGids) <= found.gids.size()) throw std::bad_alloc();
        found.gids.resize(static_cast<size_t>(nGids));
        if (fits) return found;
    }
}

// A look-up that went well leaves one of these, and so does a database that is not installed.
bool IsUsual(int error) noexcept
{
    return error == 0 || error == ENOENT || error == ENOTDIR || error == ECONNREFUSED ||
           error == ERANGE;
}

bool IsShortage(int error) noexcept
{
    return error == EINTR || error == EIO || error == EMFILE || error == ENFILE || error == ENOMEM;
}

// When the database cannot read one of its files it hands out a shorter list, and errno is the only
// trace. A caller that believed the list would leave out limits of groups. So an unusual errno makes us
// ask again. A shortage that lasts is a failure; any other unusual errno that lasts is taken as it is.
std::vector<gid_t> GroupsOf(const char *szUserName, gid_t primary)
{
    FoundGroups found = AskDatabase(szUserName, primary);
    for (int tries = 1; !IsUsual(found.error) && tries < kMaxTries; ++tries)
        found = AskDatabase(szUserName, primary);
    if (IsShortage(found.error)) throw std::bad_alloc();
    return found.gids;
}

Fault AppendId(VLIB_SZ_LIST &list, gid_t gid) noexcept
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
        if (!AppendId(*pList, gid)) continue;
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
    if (const zevo::Fault fault = user.fault()) {
        ZEVO_FAIL(fault);
        return nullptr;
    }
    return zevo::ListOf(zevo::GroupsOf(szUserName, user->pw_gid));
} catch (const std::bad_alloc &) {
    ZEVO_FAIL(zevo::kNoMemory);
    return nullptr;
}
