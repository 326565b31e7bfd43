// Removing a transfer's sections at its end, or from outside, and switching its active flag. A section
// is known by process id and direction alone. A missing file or section is no failure. The first real
// failure ends the call, and what was removed stays removed.

#include "internal/group.hpp"
#include "internal/guard.hpp"
#include "internal/speed.hpp"
#include "internal/status_path.hpp"

#include <unistd.h>

using namespace bandwidth;

namespace {

constexpr uid_t UID_ERR = static_cast<uid_t>(-1);

int ZEVOBandwidthIStatusRemove(int32_t owner_type, uint32_t id, pid_t pid,
                               uint32_t transfer_mask) noexcept
{
    BW_REQUIRE(pid != -1, "(pid_t)-1 != pid");
    StatusPath path;
    if (path.Compose(owner_type, id, BW_HERE) < 0) return BW_PASS_UNLOGGED;
    for (const ZEVO_BW_ENUM_ENTRY *row = ZEVO_BW_TRANSFER_TYPE_LIST; row->name != nullptr; ++row) {
        if ((static_cast<uint32_t>(row->value) & transfer_mask) == 0) continue;
        const StatusSection section(pid, row->value);
        if (::VLIBCFileExist(path.get()) != 1) continue;
        if (::ZEVOBandwidthStatusRemoveSection(path.get(), section.get()) < 0)
            return BW_PASS("Remove section [%s] from [%s] failed. ", section.get(), path.get());
    }
    return 0;
}

// Empty, and logged, when the user is not known.
User FindUser(const char *szUserName) noexcept
{
    ZEVO_USER *pUser = nullptr;
    if (::ZEVOUserGet(szUserName, &pUser) < 0)
        BW_LOG_SLOT("ZEVOUserGet failed. name:[%s] ", szUserName);
    return User(pUser);
}

int RemoveFromUser(uint32_t uid, pid_t pid, uint32_t transferMask) noexcept
{
    if (ZEVOBandwidthIStatusRemove(ZEVO_BW_OWNER_USER, uid, pid, transferMask) < 0)
        return BW_PASS("ZEVOBandwidthIStatusRemove failed. uid:[%u] ", uid);
    return 0;
}

int RemoveFromGroup(uint32_t gid, pid_t pid, uint32_t transferMask) noexcept
{
    if (ZEVOBandwidthIStatusRemove(ZEVO_BW_OWNER_GROUP, gid, pid, transferMask) < 0)
        return BW_PASS("ZEVOBandwidthIStatusRemove failed. gid:[%u] ", gid);
    return 0;
}

int ZEVOBandwidthIStatusForceRemoveAll(const char *szUserName, uint32_t uid, uint32_t transfer_mask,
                                       pid_t pid) noexcept
{
    BW_REQUIRE(szUserName != nullptr, "((void *)0) != szUserName");
    BW_REQUIRE(uid != UID_ERR, "UID_ERR != uid");
    if (RemoveFromUser(uid, pid, transfer_mask) < 0) return BW_PASS_UNLOGGED;
    const List groups(::VLIBGroupInfoListGet(szUserName, 0));
    if (!groups) return BW_PASS("VLIBGroupInfoListGet failed. name:[%s] ", szUserName);
    for (int32_t i = 0; i < groups->nItem; ++i) {
        uint32_t gid = 0;
        if (ReadGid(::VLIBCSzListGet(groups.get(), i), &gid, BW_HERE) < 0) return BW_PASS_UNLOGGED;
        if (RemoveFromGroup(gid, pid, transfer_mask) < 0) return BW_PASS_UNLOGGED;
    }
    return 0;
}

int ForceRemoveAllOf(const ZEVO_USER &user, uint32_t transferMask, pid_t pid) noexcept
{
    if (ZEVOBandwidthIStatusForceRemoveAll(user.szName, user.uid, transferMask, pid) < 0)
        return BW_PASS("ZEVOBandwidthIStatusForceRemoveAll failed. name:[%s] ", user.szName);
    return 0;
}

// Replaces the transfer's section in its user's file: 1, 0 when it is not there, -1 on failure.
int ReplaceSection(uint32_t uid, const ZEVO_BANDWIDTH_STATUS &status) noexcept
{
    Hash hash;
    StatusPath path;
    if (!hash || ::ZEVOBandwidthInitHashFromStatus(hash.address(), &status) < 0 ||
        path.Compose(ZEVO_BW_OWNER_USER, uid, BW_HERE) < 0)
        return BW_PASS_UNLOGGED;
    const StatusSection section(status.pid, static_cast<int32_t>(status.transfer_type));
    return ::ZEVOBandwidthStatusSetSection(path.get(), section.get(), hash.get());
}

} // namespace

int ZEVOBandwidthStatusRemove(const ZEVO_BANDWIDTH_CONFIG *pConfig, uint32_t transfer_mask) noexcept
{
    const CancelScope cancel;
    const pid_t pid = ::getpid();
    BW_REQUIRE(pConfig != nullptr, "((void *)0) != pConfig");
    if (RemoveFromUser(pConfig->uid, pid, transfer_mask) < 0) return BW_PASS_UNLOGGED;
    if (pConfig->blGroupConfExist == 0) return 0;
    for (int32_t i = 0; i < pConfig->iLimit; ++i) {
        const ZEVO_BANDWIDTH_LIMIT &limit = pConfig->pLimit[i];
        if (!IsCharged(limit)) continue;
        if (RemoveFromGroup(limit.conf.id, pid, transfer_mask) < 0) return BW_PASS_UNLOGGED;
    }
    return 0;
}

int ZEVOBandwidthStatusRemoveByOccGroups(const uint32_t *pOccGroups, int32_t iOccGroups,
                                         uint32_t transfer_mask) noexcept
{
    const CancelScope cancel;
    const pid_t pid = ::getpid();
    for (int32_t i = 0; i < iOccGroups; ++i)
        if (RemoveFromGroup(pOccGroups[i], pid, transfer_mask) < 0) return BW_PASS_UNLOGGED;
    return 0;
}

int ZEVOBandwidthStatusForceRemoveAllByUserName(const char *szUserName, uint32_t transfer_mask,
                                                pid_t pid) noexcept
{
    const CancelScope cancel;
    BW_REQUIRE(szUserName != nullptr, "((void *)0) != szUserName");
    const User user = FindUser(szUserName);
    if (!user) return BW_PASS_UNLOGGED;
    return ForceRemoveAllOf(*user, transfer_mask, pid);
}

int ZEVOBandwidthStatusForceRemoveAllByUID(uint32_t uid, uint32_t transfer_mask) noexcept
{
    const CancelScope cancel;
    ZEVO_USER *pUser = nullptr;
    if (::ZEVOUserGetByUID(uid, &pUser) < 0)
        return BW_PASS("ZEVOUserGetByUID failed. uid:[%u] ", uid);
    const User user(pUser);
    return ForceRemoveAllOf(*user, transfer_mask, ::getpid());
}

int ZEVOBandwidthStatusSetActiveByUserName(const char *szUserName, int32_t transfer_type, pid_t pid,
                                           int32_t active) noexcept
{
    const CancelScope cancel;
    BW_REQUIRE(szUserName != nullptr, "((void *)0) != szUserName");
    const User user = FindUser(szUserName);
    if (!user) return BW_PASS_UNLOGGED;
    ZEVO_BANDWIDTH_STATUS status = {};
    if (::ZEVOBandwidthIStatusGet(ZEVO_BW_OWNER_USER, user->uid, pid, transfer_type, &status) < 0)
        return BW_PASS("ZEVOBandwidthStatusGet failed. name:[%s] ", szUserName);
    // Back under the name it was found by, whatever the section says of itself.
    status.pid = pid;
    status.transfer_type = static_cast<uint32_t>(transfer_type);
    status.active = static_cast<uint32_t>(active);
    const int replaced = ReplaceSection(user->uid, status);
    if (replaced < 0) return BW_PASS("ZEVOBandwidthStatusSave failed. name:[%s] ", szUserName);
    // The transfer has ended since the section was read: a dead section must not come back.
    if (replaced == 0) return BW_PASS("ZEVOBandwidthStatusGet failed. name:[%s] ", szUserName);
    return 0;
}
