// Users and groups, from the system's user database. A record and its name are one block of memory.
#include <cstdlib>
#include <cstring>

#include "base/user_database.hpp"
#include "platform/internal/frame.hpp"
#include "zevosdk.h"

using namespace zevo;

namespace {

// Makes a zero-filled record with a copy of its name behind it; nullptr without memory.
template <class Record> Record *NewRecord(const char *szName) noexcept
{
    const size_t cbName = std::strlen(szName) + 1;
    void *const pBlock = std::calloc(1, sizeof(Record) + cbName);
    if (pBlock == nullptr) return nullptr;
    auto *const pRecord = static_cast<Record *>(pBlock);
    pRecord->szName = static_cast<char *>(pBlock) + sizeof(Record);
    std::memcpy(pRecord->szName, szName, cbName);
    return pRecord;
}

Fault GiveUser(const NssEntry<passwd> &entry, ZEVO_USER **ppUser) noexcept
{
    if (entry.fault()) return entry.fault();
    auto *const pUser = NewRecord<ZEVO_USER>(entry->pw_name);
    if (pUser == nullptr) return kNoMemory;
    pUser->uid = entry->pw_uid;
    pUser->gid = entry->pw_gid;
    *ppUser = pUser;
    return kNoFault;
}

} // namespace

int ZEVOUserGet(const char *szName, ZEVO_USER **ppUser) noexcept
{
    if (szName == nullptr || ppUser == nullptr) return ZEVO_FAIL(kBadArgument);
    const CancelScope cancel;
    const Fault fault = GiveUser(UserByName(szName), ppUser);
    return fault ? ZEVO_FAIL(fault) : 0;
}

int ZEVOUserGetByUID(uid_t uid, ZEVO_USER **ppUser) noexcept
{
    if (ppUser == nullptr) return ZEVO_FAIL(kBadArgument);
    const CancelScope cancel;
    const Fault fault = GiveUser(UserById(uid), ppUser);
    return fault ? ZEVO_FAIL(fault) : 0;
}

int ZEVOUserGetUGID(const char *szName, uid_t *pUid, gid_t *pGid) noexcept
{
    if (szName == nullptr || pUid == nullptr) return ZEVO_FAIL(kBadArgument);
    const CancelScope cancel;
    const auto entry = UserByName(szName);
    if (const Fault fault = entry.fault()) return ZEVO_FAIL(fault);
    *pUid = entry->pw_uid;
    if (pGid != nullptr) *pGid = entry->pw_gid;
    return 0;
}

void ZEVOUserFree(ZEVO_USER *pUser) noexcept
{
    std::free(pUser);
}

int ZEVOGroupGetByGID(gid_t gid, ZEVO_GROUP **ppGroup) noexcept
{
    if (ppGroup == nullptr) return ZEVO_FAIL(kBadArgument);
    const CancelScope cancel;
    const auto entry = GroupById(gid);
    if (const Fault fault = entry.fault()) return ZEVO_FAIL(fault);
    auto *const pGroup = NewRecord<ZEVO_GROUP>(entry->gr_name);
    if (pGroup == nullptr) return ZEVO_FAIL(kNoMemory);
    pGroup->gid = entry->gr_gid;
    *ppGroup = pGroup;
    return 0;
}

void ZEVOGroupFree(ZEVO_GROUP *pGroup) noexcept
{
    std::free(pGroup);
}
