// The ids in the user database's list of a user's groups.
#ifndef INTERNAL_GROUP_HPP
#define INTERNAL_GROUP_HPP

#include "internal/frame.hpp"

#include <cstdlib>

namespace bandwidth {

// 0 with the id, or -1, logged and recorded, when the item is not a decimal number.
inline int ReadGid(const char *szGid, uint32_t *pGid, Site site) noexcept
{
    char *szRest = nullptr;
    *pGid = static_cast<uint32_t>(std::strtoul(szGid, &szRest, 10));
    if (*szRest == '\0') return 0;
    BW_LOG_AT(site, "invalid gid [%s]", szGid);
    return Fail(ZEVO_BW_ERROR_BAD_NUMBER, site);
}

} // namespace bandwidth

#endif // INTERNAL_GROUP_HPP
