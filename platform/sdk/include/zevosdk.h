/**
 * zevosdk: the platform's SDK library, libzevosdk.so.7.
 *
 * Users and groups of the system's user database (NSS), and making directories. It knows nothing of
 * bandwidth. C99 and C++. Any thread may call any function; none throws or prints. Failures are
 * recorded in zevocore's error slot: 0x0D00 null argument, 0x0200 no memory, 0x2000 no such user or
 * group, 0x0900 a directory cannot be made.
 */
#ifndef ZEVOSDK_H
#define ZEVOSDK_H

#include <stdint.h>
#include <sys/types.h>

#if defined(__GNUC__)
#define ZEVOSDK_API __attribute__((visibility("default")))
#else
#define ZEVOSDK_API
#endif

#ifdef __cplusplus
#define ZEVOSDK_NOEXCEPT noexcept
extern "C" {
#else
#define ZEVOSDK_NOEXCEPT
#endif

typedef struct ZEVO_USER {
    char *szName; /**< owned by the record */
    uid_t uid;
    gid_t gid; /**< primary group */
} ZEVO_USER;

typedef struct ZEVO_GROUP {
    char *szName; /**< owned by the record */
    gid_t gid;
} ZEVO_GROUP;

/** Looks a user up by name. Returns 0 with *ppUser to be released by ZEVOUserFree(), else -1. */
ZEVOSDK_API int ZEVOUserGet(const char *szName, ZEVO_USER **ppUser) ZEVOSDK_NOEXCEPT;

/** Looks a user up by id; otherwise as ZEVOUserGet(). */
ZEVOSDK_API int ZEVOUserGetByUID(uid_t uid, ZEVO_USER **ppUser) ZEVOSDK_NOEXCEPT;

/** Looks the ids of a user up by name; pGid may be NULL. Returns 0 with the ids, else -1. */
ZEVOSDK_API int ZEVOUserGetUGID(const char *szName, uid_t *pUid, gid_t *pGid) ZEVOSDK_NOEXCEPT;

/** Releases a user record; NULL does nothing. */
ZEVOSDK_API void ZEVOUserFree(ZEVO_USER *pUser) ZEVOSDK_NOEXCEPT;

/** Looks a group up by id. Returns 0 with *ppGroup to be released by ZEVOGroupFree(), else -1. */
ZEVOSDK_API int ZEVOGroupGetByGID(gid_t gid, ZEVO_GROUP **ppGroup) ZEVOSDK_NOEXCEPT;

/** Releases a group record; NULL does nothing. */
ZEVOSDK_API void ZEVOGroupFree(ZEVO_GROUP *pGroup) ZEVOSDK_NOEXCEPT;

/**
 * Creates a directory and all missing parents; those that exist stay as they are. Follows no link
 * at the path's last component.
 * @param reserved  0
 * @param flags     1
 * @param owner     owner of the directory made; (uid_t)-1 leaves the one that the kernel gives it
 * @param group     its group; (gid_t)-1 leaves the one that the kernel gives it
 * @param mode      its mode less the creation mask; -1, as for the parents made, is 0755 whatever
 *                  the mask
 * @return          0, also when it was there; -1 on failure, also when it is no directory
 */
ZEVOSDK_API int ZEVOFSMkdirP(const char *szPath, int reserved, int flags, uid_t owner, gid_t group,
                             int mode) ZEVOSDK_NOEXCEPT;

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* ZEVOSDK_H */
