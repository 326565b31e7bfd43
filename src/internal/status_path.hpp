// Where running transfers stand: one file for each owner, one section for each process and
// direction.
#ifndef INTERNAL_STATUS_PATH_HPP
#define INTERNAL_STATUS_PATH_HPP

#include "internal/enum.hpp"
#include "internal/frame.hpp"
#include "zevobandwidth.h"

#include <cstdio>

#include <sys/types.h>

namespace bandwidth {

constexpr char kStatusDirectory[] = ZEVO_BW_STATUS_DIRECTORY "/"; // as log lines name it
constexpr mode_t kStatusFileMode = 0666; // writers of all users share a file

class StatusPath {
public:
    // Composes the path of an owner's status file; -1, logged, when the owner type has no name.
    int Compose(int32_t ownerType, uint32_t id, Site site) noexcept
    {
        char szOwner[kNameBytes];
        if (!NameOf(ZEVO_BW_OWNER_TYPE_LIST, ownerType, szOwner))
            return BW_LOG_AND_PASS_AT(site, "ZEVOBandwidthEnumToName failed, protocol=%d",
                                      ownerType);
        (void)std::snprintf(szPath_, sizeof(szPath_), "%s%s-%u", kStatusDirectory, szOwner, id);
        return 0;
    }
    const char *get() const noexcept { return szPath_; }

private:
    char szPath_[sizeof(kStatusDirectory) + kNameBytes + 16] = {};
};

class StatusSection {
public:
    StatusSection(pid_t pid, int32_t transferType) noexcept
    {
        (void)std::snprintf(szName_, sizeof(szName_), "%u-%d", static_cast<unsigned>(pid),
                            transferType);
    }
    const char *get() const noexcept { return szName_; }

private:
    char szName_[32];
};

} // namespace bandwidth

#endif // INTERNAL_STATUS_PATH_HPP
