/**
 * @file
 * Bandwidth limits that many processes of many users share: libzevobandwidth.so.7.
 *
 * A rule gives one user or group an upload and a download rate for one protocol. The policy of a
 * protocol says how the rule of a user and the rules of the user's groups combine, and to which
 * groups a transfer is charged. The processes that move the data meet in small files. Each one
 * works out its own share and sleeps just long enough. There is no daemon.
 *
 * Status files need no lock. Writers take turns by an advisory lock on the open file, which no
 * writer waits for longer than 25 ms in all. After that the later rename wins, and a section that
 * was lost returns with the next save of its transfer. The lock goes when its holder dies, and
 * nothing depends on it.
 *
 * The life of a transfer, on the service's own thread:
 *
 *     ZEVO_BANDWIDTH_CONFIG config = {0};
 *     ZEVO_BANDWIDTH_STATUS status = {0};
 *     uint64_t timeLast = ZEVOBandwidthCurrTimeGet();
 *     ZEVOBandwidthConfigGet(uid, ZEVO_BW_PROTOCOL_FTP, &config);
 *     ZEVOBandwidthStatusInit(&config, ZEVO_BW_TRANSFER_UPLOAD, szFile, &timeLast, &status);
 *     while (more) {
 *         if (hupReceived) {
 *             hupReceived = 0;
 *             ZEVOBandwidthHupRecv(&config, &status, &timeLast);
 *         }
 *         ZEVOBandwidthTransferSizeEstimate(&config, ZEVO_BW_TRANSFER_UPLOAD, wanted, &size);
 *         ... move at most size bytes ...
 *         if (ZEVOBandwidthSleepInLoop(&config, moved, progress, &timeLast, &status) < 0) break;
 *     }
 *     ZEVOBandwidthStatusForceRemoveAllByUID(uid, ZEVO_BW_TRANSFER_UPLOAD); // from all groups
 *     ZEVOBandwidthConfigFree(&config);
 *
 * Words:
 *  - A transfer is what one process moves in one direction for one user.
 *  - A status file lists the running transfers of one user or one group. A transfer has one section
 *    in its user's status file, and a copy in that of each group it is charged to.
 *  - A section is stale when it was saved more than 30 seconds ago.
 *  - A rule applies when it is enabled, or when its plan says so for the hour.
 *
 * What holds for every function unless it says otherwise:
 *  - Results are 0, a count, or 1 for found; -1 is failure. Outputs are written only on success.
 *  - A failure records a code of ZEVO_BW_ERROR, with the source file and line that found it, in the
 *    platform's error slot. VLIBCErrGet() in zevocore.h reads the slot; each thread has its own.
 *    The failure is also written to the system log, at error level.
 *  - "Errors" names the codes that a function records. 0x0D00 is a refused argument, 0x0200 is
 *    memory that cannot be allocated; ZEVO_BW_ERROR explains all of them. "The platform's" are
 *    codes of zevocore.h and of the user database.
 *  - Rates are in KB/s of 1024 bytes, speeds in bytes per second; 0 is unlimited in both. The clock
 *    is in microseconds since the epoch, time stamps are in seconds since the epoch, weights and
 *    progress are in ten-thousandths.
 *  - Upload is from the client to this server, download is from this server to the client.
 *  - No exception leaves a function. A function writes nothing to stdout or stderr and changes no
 *    locale, no environment variable and, except ZEVOBandwidthSimulate(), no signal handler. It
 *    starts no thread. It never changes the creation mask: what it makes gets its mode by
 *    descriptor, and then its name. Descriptors are closed on exec and are above 2; only the
 *    descriptor that libc opens for the system log may be lower, in a host that has closed its
 *    standard streams.
 *
 * What else holds for every function unless it says otherwise:
 *  - Thread safety: any thread may call it; a record belongs to one thread at a time.
 *  - Signal safety: a signal handler must not call it.
 *  - Fork safety: a child process may call it. It waits for no thread that only the parent has,
 *    unless libc does: when another thread used the system log or the user database at the time of
 *    the fork, they may stay locked in the child. A transfer belongs to the process that registered
 *    it; a child registers its own with ZEVOBandwidthStatusInit().
 *  - Cancel safety: a deferred cancellation of the calling thread waits until the function has
 *    returned.
 */
#ifndef ZEVOBANDWIDTH_H
#define ZEVOBANDWIDTH_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>

/** First number of the library's version, changes with the SONAME. */
#define ZEVO_BW_VERSION_MAJOR 7
/** Second number, changes when something is added. */
#define ZEVO_BW_VERSION_MINOR 0
/** Third number, changes with any other release. */
#define ZEVO_BW_VERSION_PATCH 0

#if defined(__GNUC__)
#define ZEVO_BW_API __attribute__((visibility("default")))
#else
#define ZEVO_BW_API
#endif

#if defined(__cplusplus) && __cplusplus >= 201103L
#define ZEVO_BW_NOEXCEPT noexcept
#else
#define ZEVO_BW_NOEXCEPT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/** The platform's string hash (zevocore.h). */
struct VLIB_SZ_HASH;

/* ---- enumerations: all are stored as 32-bit integers and written to files by name ---- */

/** Whose rule or status file a record belongs to. */
enum ZEVO_BW_OWNER_TYPE { ZEVO_BW_OWNER_USER = 1, ZEVO_BW_OWNER_GROUP = 2, ZEVO_BW_OWNER_ALL = 3 };

/** Direction of a transfer, seen from the client; also the bits of a transfer mask. */
enum ZEVO_BW_TRANSFER_TYPE {
    ZEVO_BW_TRANSFER_UPLOAD = 1,
    ZEVO_BW_TRANSFER_DOWNLOAD = 2,
    ZEVO_BW_TRANSFER_ALL = 3
};

/** Transfer protocol. Further numbers belong to add-ons (see ZEVOBandwidthEnumToNameAddon()). */
enum ZEVO_BW_PROTOCOL_TYPE {
    ZEVO_BW_PROTOCOL_DOCUHALL = 0x0001,
    ZEVO_BW_PROTOCOL_WEBDAV = 0x0002,
    ZEVO_BW_PROTOCOL_FTP = 0x0004,
    ZEVO_BW_PROTOCOL_RSYNC = 0x0008,
    ZEVO_BW_PROTOCOL_ALL = 0x000F
};

/** State of a rule or of a protocol's policy. */
enum ZEVO_BW_STATE {
    ZEVO_BW_STATE_NOT_EXISTED = 0,
    ZEVO_BW_STATE_ENABLED = 1,
    ZEVO_BW_STATE_DISABLED = 2,
    ZEVO_BW_STATE_SCHEDULE = 3
};

/** How a user's own rule and the combined rules of the user's groups combine. */
enum ZEVO_BW_USER_GROUP_POLICY {
    ZEVO_BW_USER_GROUP_POLICY_USER_ONLY = 0,
    ZEVO_BW_USER_GROUP_POLICY_GROUP_ONLY = 1,
    ZEVO_BW_USER_GROUP_POLICY_USER_FIRST = 2,
    ZEVO_BW_USER_GROUP_POLICY_GROUP_FIRST = 3,
    ZEVO_BW_USER_GROUP_POLICY_MIN = 4,
    ZEVO_BW_USER_GROUP_POLICY_MAX = 5,
    ZEVO_BW_USER_GROUP_POLICY_SUM = 6
};

/** How the rules of several groups combine. */
enum ZEVO_BW_INTER_GROUP_POLICY {
    ZEVO_BW_INTER_GROUP_POLICY_MIN = 4,
    ZEVO_BW_INTER_GROUP_POLICY_MAX = 5,
    ZEVO_BW_INTER_GROUP_POLICY_SUM = 6
};

/** To which of the user's groups a transfer is charged. */
enum ZEVO_BW_OCCUPY_POLICY {
    ZEVO_BW_OCCUPY_POLICY_NONE = 0,
    ZEVO_BW_OCCUPY_POLICY_ALL = 1,
    ZEVO_BW_OCCUPY_POLICY_MIN = 2,
    ZEVO_BW_OCCUPY_POLICY_MAX = 3,
    ZEVO_BW_OCCUPY_POLICY_WEIGHTED = 4
};

/** Codes of the error slot. */
enum ZEVO_BW_ERROR {
    ZEVO_BW_ERROR_NO_MEMORY = 0x0200,       /**< memory cannot be allocated */
    ZEVO_BW_ERROR_STOPPED = 0x0300,         /**< the transfer has been stopped from outside */
    ZEVO_BW_ERROR_ADDON_SEARCH = 0x0600,    /**< no add-on file matches, or the search failed */
    ZEVO_BW_ERROR_OPEN = 0x0900,            /**< a file cannot be opened or created */
    ZEVO_BW_ERROR_READ = 0x0A00,            /**< reading a file fails */
    ZEVO_BW_ERROR_WRITE = 0x0B00,           /**< writing, syncing or changing the mode fails */
    ZEVO_BW_ERROR_BAD_ARGUMENT = 0x0D00,    /**< an argument is refused */
    ZEVO_BW_ERROR_NOT_THERE = 0x2000,       /**< the thing looked up is not there */
    ZEVO_BW_ERROR_STAT = 0x2700,            /**< a file's attributes cannot be read */
    ZEVO_BW_ERROR_RENAME = 0x2800,          /**< a file cannot be renamed */
    ZEVO_BW_ERROR_BAD_NUMBER = 0x4000,      /**< the text of a number is malformed */
    ZEVO_BW_ERROR_ADDON_AMBIGUOUS = 0xA300, /**< more than one add-on file matches */
    ZEVO_BW_ERROR_ADDON_BAD_NAME = 0xBE00,  /**< an add-on file name is malformed */
    ZEVO_BW_ERROR_OWNER_TYPE = 0xD900       /**< a rule's owner is neither user nor group */
};

/** One row of a name table; a table ends with a row without a name. */
typedef struct ZEVO_BW_ENUM_ENTRY {
    int32_t value;    /**< of the enumeration; -1 in the last row */
    const char *name; /**< as files spell it; NULL in the last row */
} ZEVO_BW_ENUM_ENTRY;

/* ---- the name tables ----
 *
 * One name can mean different values in different enumerations: look it up in the table of the
 * field that it belongs to. Names are compared exactly. */

/* clang-format off */
/** Names of ZEVO_BW_OWNER_TYPE. */
static const ZEVO_BW_ENUM_ENTRY ZEVO_BW_OWNER_TYPE_LIST[] = {
    {ZEVO_BW_OWNER_USER,  "user"},
    {ZEVO_BW_OWNER_GROUP, "group"},
    {ZEVO_BW_OWNER_ALL,   "all"},
    {-1, NULL}
};

/** Names of ZEVO_BW_TRANSFER_TYPE. */
static const ZEVO_BW_ENUM_ENTRY ZEVO_BW_TRANSFER_TYPE_LIST[] = {
    {ZEVO_BW_TRANSFER_UPLOAD,   "upload"},
    {ZEVO_BW_TRANSFER_DOWNLOAD, "download"},
    {-1, NULL}
};

/** Names of ZEVO_BW_PROTOCOL_TYPE. */
static const ZEVO_BW_ENUM_ENTRY ZEVO_BW_PROTOCOL_TYPE_LIST[] = {
    {ZEVO_BW_PROTOCOL_DOCUHALL, "docuhall"},
    {ZEVO_BW_PROTOCOL_WEBDAV,   "webdav"},
    {ZEVO_BW_PROTOCOL_FTP,      "ftp"},
    {ZEVO_BW_PROTOCOL_RSYNC,    "rsync"},
    {ZEVO_BW_PROTOCOL_ALL,      "all"},
    {-1, NULL}
};

/** Names of ZEVO_BW_STATE. */
static const ZEVO_BW_ENUM_ENTRY ZEVO_BW_STATE_LIST[] = {
    {ZEVO_BW_STATE_NOT_EXISTED, "NotExisted"},
    {ZEVO_BW_STATE_ENABLED,     "enabled"},
    {ZEVO_BW_STATE_DISABLED,    "disabled"},
    {ZEVO_BW_STATE_SCHEDULE,    "schedule"},
    {-1, NULL}
};

/** Names of ZEVO_BW_USER_GROUP_POLICY. */
static const ZEVO_BW_ENUM_ENTRY ZEVO_BW_USER_GROUP_POLICY_LIST[] = {
    {ZEVO_BW_USER_GROUP_POLICY_USER_ONLY,   "user-only"},
    {ZEVO_BW_USER_GROUP_POLICY_GROUP_ONLY,  "group-only"},
    {ZEVO_BW_USER_GROUP_POLICY_USER_FIRST,  "user-first"},
    {ZEVO_BW_USER_GROUP_POLICY_GROUP_FIRST, "group-first"},
    {ZEVO_BW_USER_GROUP_POLICY_MIN,         "min"},
    {ZEVO_BW_USER_GROUP_POLICY_MAX,         "max"},
    {ZEVO_BW_USER_GROUP_POLICY_SUM,         "sum"},
    {-1, NULL}
};

/** Names of ZEVO_BW_INTER_GROUP_POLICY. */
static const ZEVO_BW_ENUM_ENTRY ZEVO_BW_INTER_GROUP_POLICY_LIST[] = {
    {ZEVO_BW_INTER_GROUP_POLICY_MIN, "min"},
    {ZEVO_BW_INTER_GROUP_POLICY_MAX, "max"},
    {ZEVO_BW_INTER_GROUP_POLICY_SUM, "sum"},
    {-1, NULL}
};

/** Names of ZEVO_BW_OCCUPY_POLICY. */
static const ZEVO_BW_ENUM_ENTRY ZEVO_BW_OCCUPY_POLICY_LIST[] = {
    {ZEVO_BW_OCCUPY_POLICY_NONE,     "none"},
    {ZEVO_BW_OCCUPY_POLICY_ALL,      "all"},
    {ZEVO_BW_OCCUPY_POLICY_MIN,      "min"},
    {ZEVO_BW_OCCUPY_POLICY_MAX,      "max"},
    {ZEVO_BW_OCCUPY_POLICY_WEIGHTED, "weighted"},
    {-1, NULL}
};
/* clang-format on */

/* ---- records ----
 *
 * Plain values in the caller's storage. Where a function fills a record, the caller hands it in
 * zero-filled. */

/** Size of a plan's field. A plan has 168 characters, one for each hour of the week, at the index
 *  weekday * 24 + local hour; weekday 0 is Sunday. */
#define ZEVO_BW_PLAN_SIZE 256
/** Size of the field that holds a transfer's file name. */
#define ZEVO_BW_FILENAME_SIZE 4096

/** Directory of the rules and policies: a file for each protocol, and the global file. */
#define ZEVO_BW_CONF_DIRECTORY "/usr/zevo/etc/bandwidth"
/** Directory of the add-ons: a file "NAME_NUMBER.json" for each add-on protocol. */
#define ZEVO_BW_ADDON_DIRECTORY ZEVO_BW_CONF_DIRECTORY "/addon"
/** Directory of the status files, "user-1026" or "group-100". */
#define ZEVO_BW_STATUS_DIRECTORY "/tmp/bandwidth"
/** Seconds without a save after which a section is stale: its process is taken for dead. */
#define ZEVO_BW_STALE_AFTER_SECONDS 30
/** Seconds without a change after which a file with a dot in its name is the leftover of a rewrite
 *  whose process died. */
#define ZEVO_BW_LEFTOVER_AFTER_SECONDS 10

/**
 * The rule of one owner for one protocol. A '0' in its plan means that the rule does not apply in
 * that hour, a '1' that it applies with the normal rates, anything else that it applies with the
 * custom rates.
 */
typedef struct ZEVO_BANDWIDTH_CONF {
    uint32_t id;                            /**< uid or gid of the owner */
    int32_t currentState;                   /**< state when last evaluated; not stored */
    int32_t state;                          /**< ZEVO_BW_STATE, as configured */
    int32_t protocolType;                   /**< one protocol or an add-on's number */
    int32_t ownerType;                      /**< ZEVO_BW_OWNER_USER or ZEVO_BW_OWNER_GROUP */
    uint64_t currentUploadRate;             /**< KB/s when last evaluated; not stored */
    uint64_t currentDownloadRate;           /**< KB/s when last evaluated; not stored */
    uint64_t uploadRate;                    /**< KB/s, 0 unlimited */
    uint64_t downloadRate;                  /**< KB/s, 0 unlimited */
    uint64_t uploadRateCustom;              /**< KB/s in the hours that the plan marks for it */
    uint64_t downloadRateCustom;            /**< KB/s in those hours */
    char szSchedulePlan[ZEVO_BW_PLAN_SIZE]; /**< NUL-terminated; used when state is schedule */
} ZEVO_BANDWIDTH_CONF;

/** The policy of one protocol. A '1' in its plan means that limits apply in that hour, anything
 *  else that they do not. */
typedef struct ZEVO_BANDWIDTH_GLOBAL_CONF {
    int32_t currentState;                   /**< state when last evaluated; not stored */
    int32_t state;                          /**< ZEVO_BW_STATE, as configured */
    int32_t protocolType;                   /**< one protocol or an add-on's number */
    int32_t userGroupPolicy;                /**< ZEVO_BW_USER_GROUP_POLICY */
    int32_t interGroupPolicy;               /**< ZEVO_BW_INTER_GROUP_POLICY */
    int32_t occupyPolicy;                   /**< ZEVO_BW_OCCUPY_POLICY */
    char szSchedulePlan[ZEVO_BW_PLAN_SIZE]; /**< NUL-terminated; used when state is schedule */
} ZEVO_BANDWIDTH_GLOBAL_CONF;

/** One rule that can apply to a user, with what it left the transfer when last estimated. */
typedef struct ZEVO_BANDWIDTH_LIMIT {
    ZEVO_BANDWIDTH_CONF conf; /**< the rule, evaluated */
    uint64_t maxSpeedBps;     /**< bytes/s that the rule leaves the transfer, 0 unlimited */
    uint64_t occupyWeight;    /**< ten-thousandths of the transfer charged to this group */
} ZEVO_BANDWIDTH_LIMIT;

/** The effective configuration of one user for one protocol. Owns pLimit. */
typedef struct ZEVO_BANDWIDTH_CONFIG {
    uint32_t uid;                 /**< the transferring user */
    int32_t iLimit;               /**< entries of pLimit; -1 after a failed resolution */
    uint32_t blUserConfExist;     /**< 1 when the user's own rule is enabled or on a schedule */
    uint32_t blGroupConfExist;    /**< 1 when pLimit holds a group's rule */
    ZEVO_BANDWIDTH_LIMIT *pLimit; /**< the user's rule first, then the groups'; NULL without any */
    ZEVO_BANDWIDTH_GLOBAL_CONF globalConf; /**< the protocol's policy */
} ZEVO_BANDWIDTH_CONFIG;

/** One running transfer; also the node of a list of them. */
typedef struct ZEVO_BANDWIDTH_STATUS {
    struct ZEVO_BANDWIDTH_STATUS *next; /**< next of a list, NULL at its end */
    int32_t pid;                        /**< process that runs the transfer */
    uint32_t id;            /**< owner of the status file that holds this section: uid or gid */
    uint32_t uid;           /**< transferring user, in groups' copies, too */
    uint32_t active;        /**< 1 while it may go on; 0 stops it at its next block */
    int64_t timestamp;      /**< last save, seconds since the epoch; stale after 30 s */
    uint64_t current_speed; /**< measured bytes/s; in a group's copy what is charged to it */
    uint64_t expect_speed;  /**< allowed bytes/s, 0 unlimited; in a group's copy by its rule */
    char filename[ZEVO_BW_FILENAME_SIZE]; /**< NUL-terminated, as the service gave it */
    uint32_t owner_type;                  /**< ZEVO_BW_OWNER_TYPE of the status file */
    uint32_t protocol_type;               /**< one protocol or an add-on's number */
    uint32_t transfer_type;               /**< ZEVO_BW_TRANSFER_UPLOAD or _DOWNLOAD */
    uint32_t progress;                    /**< ten-thousandths, as the service gave it */
} ZEVO_BANDWIDTH_STATUS;

/* ---- names, add-ons and paths ---- */

/** @defgroup ZEVOBandwidthEnumToName names and values of enumerations
 *  @{ */

/**
 * Gives the name of an enumeration value. A value that the table lacks is searched among the
 * add-ons, whatever the enumeration.
 * @param enum_list   one of the name tables
 * @param value       value of the enumeration, or the number of an add-on
 * @param szProtocol  out: the name, cut to cbProtocol bytes, always NUL-terminated
 * @param cbProtocol  size of szProtocol in bytes, above 0
 * @return            1 with the name, -1 on failure
 * Errors:  0x0D00; otherwise as ZEVOBandwidthEnumToNameAddon().
 * Threads: any. It searches the add-on directory only for values that it has not found before.
 */
ZEVO_BW_API int ZEVOBandwidthEnumToName(const ZEVO_BW_ENUM_ENTRY *enum_list, int32_t value,
                                        char *szProtocol, int cbProtocol) ZEVO_BW_NOEXCEPT;

/**
 * Gives the value of a name. A name that the table lacks is searched among the add-ons.
 * @param enum_list  one of the name tables
 * @param szName     name, compared exactly
 * @return           the value, 0 or more; -1 on failure. An add-on with the number 0 gives 0 and
 *                   records 0x2000.
 * Errors:  0x0D00; otherwise as ZEVOBandwidthEnumToValueAddon().
 */
ZEVO_BW_API int ZEVOBandwidthEnumToValue(const ZEVO_BW_ENUM_ENTRY *enum_list,
                                         const char *szName) ZEVO_BW_NOEXCEPT;

/** @} */
/** @defgroup ZEVOBandwidthEnumToNameAddon protocols that add-ons announce
 *  @{ */

/**
 * Gives the name of an add-on protocol. An add-on announces its protocol by a file
 * NAME_NUMBER.json in "/usr/zevo/etc/bandwidth/addon/". The process remembers the names that it
 * has found until it ends.
 * @param iProtocol   number of the add-on
 * @param szProtocol  out: the name, cut to cbProtocol bytes, always NUL-terminated
 * @param cbProtocol  size of szProtocol in bytes
 * @return            1 with the name (it may be empty), -1 on failure
 * Errors:  0x0D00; 0x0600 no such file; 0xA300 several files; 0xBE00 a malformed name.
 * Threads: any. An atomic flag guards the remembered names. No thread waits for it, so that the
 *          child of a fork never blocks: while another thread holds it, the directory is searched.
 */
ZEVO_BW_API int ZEVOBandwidthEnumToNameAddon(int32_t iProtocol, char *szProtocol,
                                             size_t cbProtocol) ZEVO_BW_NOEXCEPT;

/**
 * Gives the number of an add-on protocol. A name with a '/' in it matches nothing, because it would
 * lead the search out of the add-on directory.
 * @param szName  name of the protocol
 * @return        the number (0 when the file name holds no number), -1 on failure
 * Errors:  as ZEVOBandwidthEnumToNameAddon().
 * Threads: as ZEVOBandwidthEnumToNameAddon().
 */
ZEVO_BW_API int ZEVOBandwidthEnumToValueAddon(const char *szName) ZEVO_BW_NOEXCEPT;

/**
 * Gives the path of an add-on's file. Built-in protocols have none.
 * @param iProtocol  number of the add-on
 * @param szPath     out: the path, cut to cbPath bytes; must not be NULL
 * @param cbPath     size of szPath in bytes
 * @return           0, or -1 on failure
 * Errors:  as ZEVOBandwidthEnumToNameAddon().
 * Threads: as ZEVOBandwidthEnumToNameAddon().
 */
ZEVO_BW_API int ZEVOBandwidthGetAddonConfigPath(int32_t iProtocol, char *szPath,
                                                size_t cbPath) ZEVO_BW_NOEXCEPT;

/** @} */
/** @defgroup ZEVOBandwidthConfPath path of a protocol's rule file
 *  @{ */

/**
 * Gives the path of a protocol's rule file, or of the global file for ZEVO_BW_PROTOCOL_ALL.
 * @param protocol_type  one protocol, the number of an add-on, or ZEVO_BW_PROTOCOL_ALL
 * @param szConfPath     out: the path, cut to cbConfPath bytes; 4096 are enough for every path
 * @param cbConfPath     size of szConfPath in bytes
 * @return               0, or -1 on failure
 * Errors:  0x0D00; otherwise as ZEVOBandwidthEnumToName().
 */
ZEVO_BW_API int ZEVOBandwidthConfPath(int32_t protocol_type, char *szConfPath,
                                      size_t cbConfPath) ZEVO_BW_NOEXCEPT;

/** @} */

/* ---- rules and policies ---- */

/** @defgroup ZEVOBandwidthInitHashFromConf turn records into string hashes and back
 *  @{ */

/**
 * Turns a rule into a string hash. The hash is emptied first. A state, owner type or protocol
 * without a name is logged, and its key is left out.
 * @param ppHash  address of a hash that the caller allocated and frees; the hash may be replaced by
 *                a larger one
 * @param pConf   the rule
 * @return        0, or -1 on failure with the hash partly filled
 * Errors:  0x0D00, or the code that the hash recorded.
 */
ZEVO_BW_API int ZEVOBandwidthInitHashFromConf(struct VLIB_SZ_HASH **ppHash,
                                              const ZEVO_BANDWIDTH_CONF *pConf) ZEVO_BW_NOEXCEPT;

/**
 * Fills a rule from a string hash. Only keys that the hash holds change the record. An unknown name
 * is logged and leaves its field as it is. A plan is cut to 255 characters.
 * @param pConf  in and out: the rule
 * @param pHash  string hash, with the keys of the rule files
 * @return       0, or -1 on a malformed number: the fields before it are filled, and its own field
 *               holds what was read of the number
 * Errors:  0x0D00, 0x4000.
 */
ZEVO_BW_API int ZEVOBandwidthInitConfFromHash(ZEVO_BANDWIDTH_CONF *pConf,
                                              const struct VLIB_SZ_HASH *pHash) ZEVO_BW_NOEXCEPT;

/**
 * Turns a policy into a string hash, as ZEVOBandwidthInitHashFromConf() does with a rule.
 * @param ppHash  address of a hash that the caller allocated and frees; the hash may be replaced by
 *                a larger one
 * @param pConf   the policy
 * @return        0, or -1 on failure with the hash partly filled
 * Errors:  0x0D00, or the code that the hash recorded.
 */
ZEVO_BW_API int
ZEVOBandwidthInitHashFromGlobalConf(struct VLIB_SZ_HASH **ppHash,
                                    const ZEVO_BANDWIDTH_GLOBAL_CONF *pConf) ZEVO_BW_NOEXCEPT;

/**
 * Fills a policy from a string hash, as ZEVOBandwidthInitConfFromHash() fills a rule.
 * @param pConf  in and out: the policy
 * @param pHash  string hash, with the keys of the global file
 * @return       0, or -1 for a refused argument; a policy has no numbers that could be malformed
 * Errors:  0x0D00.
 */
ZEVO_BW_API int
ZEVOBandwidthInitGlobalConfFromHash(ZEVO_BANDWIDTH_GLOBAL_CONF *pConf,
                                    const struct VLIB_SZ_HASH *pHash) ZEVO_BW_NOEXCEPT;

/** @} */
/** @defgroup ZEVOBandwidthConfGetByID read and store the rule of a user or group
 *  @{ */

/**
 * Reads an owner's rule. A rule that is not stored reads as ZEVO_BW_STATE_NOT_EXISTED with rates 0.
 * @param owner_type     ZEVO_BW_OWNER_USER or ZEVO_BW_OWNER_GROUP
 * @param id             uid or gid
 * @param protocol_type  one protocol; ZEVO_BW_PROTOCOL_ALL is refused
 * @param pConf          out: the rule; after a failure it must not be used
 * @return               0, or -1 on failure
 * Errors:  0x0D00; 0x4000 a malformed number in the file; otherwise the platform's.
 * Threads: any. Each call reads the file anew.
 */
ZEVO_BW_API int ZEVOBandwidthConfGetByID(int32_t owner_type, uint32_t id, int32_t protocol_type,
                                         ZEVO_BANDWIDTH_CONF *pConf) ZEVO_BW_NOEXCEPT;

/**
 * Stores a rule under its protocolType, ownerType and id. Makes the file when it is missing. Does
 * not validate the record and notifies nobody: see ZEVOBandwidthHupDocuhall(),
 * ZEVOBandwidthHupWebDAV() and ZEVOBandwidthHupSimulator().
 * @param pConf  the rule
 * @return       0, or -1 on failure with the stored rule unchanged
 * Errors:  0x0D00; otherwise the platform's.
 * Threads: any. The file is replaced whole; writers of one file wait for each other.
 */
ZEVO_BW_API int ZEVOBandwidthConfSetByID(const ZEVO_BANDWIDTH_CONF *pConf) ZEVO_BW_NOEXCEPT;

/** @} */
/** @defgroup ZEVOBandwidthGlobalConfGet read and store the policy of a protocol
 *  @{ */

/**
 * Reads a protocol's policy. A policy that is not stored reads as ZEVO_BW_STATE_NOT_EXISTED,
 * user-first, max, max: nothing is limited then.
 * @param protocol_type  one protocol; ZEVO_BW_PROTOCOL_ALL is refused
 * @param pConf          out: the policy; after a failure it must not be used
 * @return               0, or -1 on failure
 * Errors:  as ZEVOBandwidthConfGetByID().
 * Threads: any. Each call reads the file anew.
 */
ZEVO_BW_API int ZEVOBandwidthGlobalConfGet(int32_t protocol_type,
                                           ZEVO_BANDWIDTH_GLOBAL_CONF *pConf) ZEVO_BW_NOEXCEPT;

/**
 * Stores a policy under its protocolType. Then sends SIGHUP to every process named
 * "zevobandwidth"; a caller with that name receives it, too.
 * @param pConf  in and out: the policy. ZEVO_BW_PROTOCOL_ALL is refused. A state of NotExisted is
 *               changed to disabled, here and in the file: reading a policy that is not stored and
 *               writing it back switches the limits off.
 * @return       0, or -1 on failure with the stored policy unchanged
 * Errors:  as ZEVOBandwidthConfSetByID().
 * Threads: any. Writers of the file wait for each other. It runs a program and waits for its end.
 */
ZEVO_BW_API int ZEVOBandwidthGlobalConfSet(ZEVO_BANDWIDTH_GLOBAL_CONF *pConf) ZEVO_BW_NOEXCEPT;

/** @} */

/* ---- rules and policies as tables ---- */

/**
 * @defgroup ZEVOBandwidthConfDump print rules and policies as tables
 * A value without a name prints as "-". A failure writes nothing; ferror() and fflush() tell
 * whether the stream took what was written. The stream's own lock keeps lines whole when several
 * threads print.
 * @{
 */

/**
 * Prints the header of a table of rules.
 * @param fp  byte-oriented stream
 * @return    0, or -1 with nothing written
 * Errors:  0x0D00, 0x0200.
 */
ZEVO_BW_API int ZEVOBandwidthConfDumpHeader(FILE *fp) ZEVO_BW_NOEXCEPT;

/**
 * Prints a rule as a line: state, protocol, owner type, the owner's name, and the rates (KB/s) that
 * applied when it was last evaluated. In a record that comes straight from
 * ZEVOBandwidthConfGetByID() these rates are 0.
 * @param fp     byte-oriented stream
 * @param pConf  the rule
 * @return       0, or -1 with nothing written
 * Errors:  0x0D00, 0x0200; 0xD900 the owner is neither a user nor a group; otherwise the
 *          platform's, also for an owner that the user database does not know.
 */
ZEVO_BW_API int ZEVOBandwidthConfDump(FILE *fp, const ZEVO_BANDWIDTH_CONF *pConf) ZEVO_BW_NOEXCEPT;

/**
 * Prints the header of a table of policies.
 * @param fp  byte-oriented stream
 * @return    0, or -1 with nothing written
 * Errors:  0x0D00, 0x0200.
 */
ZEVO_BW_API int ZEVOBandwidthGlobalConfDumpHeader(FILE *fp) ZEVO_BW_NOEXCEPT;

/**
 * Prints a policy as a line: state, protocol, the three policies and the plan.
 * @param fp     byte-oriented stream
 * @param pConf  the policy
 * @return       0, or -1 with nothing written
 * Errors:  0x0D00, 0x0200; for a protocol without a name as ZEVOBandwidthEnumToName().
 */
ZEVO_BW_API int
ZEVOBandwidthGlobalConfDump(FILE *fp, const ZEVO_BANDWIDTH_GLOBAL_CONF *pConf) ZEVO_BW_NOEXCEPT;

/** @} */

/* ---- effective configuration ---- */

/** @defgroup ZEVOBandwidthConfigGet the effective configuration of a user
 *  @{ */

/**
 * Works out which rules apply to a user for one protocol, as of now.
 * @param uid            user; (uid_t)-1 is refused
 * @param protocol_type  one protocol; ZEVO_BW_PROTOCOL_ALL is refused
 * @param pConfig        out: the configuration; the caller hands it in zero-filled
 * @return               0, or -1 on failure; ZEVOBandwidthConfigFree() may be called in both cases
 * Errors:    0x0D00, 0x0200; otherwise the platform's.
 * Ownership: the caller releases pConfig with ZEVOBandwidthConfigFree().
 * Threads:   any. It reads files and the user database and takes no lock.
 */
ZEVO_BW_API int ZEVOBandwidthConfigGet(uint32_t uid, int32_t protocol_type,
                                       ZEVO_BANDWIDTH_CONFIG *pConfig) ZEVO_BW_NOEXCEPT;

/**
 * Releases pLimit and fills the record with zeros. It cannot fail.
 * @param pConfig  the configuration; NULL does nothing
 */
ZEVO_BW_API void ZEVOBandwidthConfigFree(ZEVO_BANDWIDTH_CONFIG *pConfig) ZEVO_BW_NOEXCEPT;

/** @} */
/** @defgroup ZEVOBandwidthLimitInit list the rules of a user and of the user's groups
 *  @{ */

/**
 * Builds the list of rules that can apply to a user: the user's own rule first, then those of the
 * user's groups, in the order of the user database. Only rules that are enabled or on a schedule
 * are in it.
 * @param uid               user
 * @param pGlobalConf       the policy; its protocolType and userGroupPolicy are used
 * @param ppLimit           out: a new array, or NULL when there is no rule; unchanged on failure
 * @param pblUserConfExist  out: 1 when the user's own rule is in the list, else 0
 * @param pblGroupConfExist out: 1 when a group's rule is in the list, else 0
 * @return                  number of entries, or -1 on failure
 * Errors:    0x0D00, 0x0200, 0x4000; otherwise the platform's.
 * Ownership: the caller releases *ppLimit with free(), or through ZEVOBandwidthConfigFree().
 */
ZEVO_BW_API int ZEVOBandwidthLimitInit(uint32_t uid, const ZEVO_BANDWIDTH_GLOBAL_CONF *pGlobalConf,
                                       ZEVO_BANDWIDTH_LIMIT **ppLimit, uint32_t *pblUserConfExist,
                                       uint32_t *pblGroupConfExist) ZEVO_BW_NOEXCEPT;

/** @} */
/** @defgroup ZEVOBandwidthInitConfig evaluate the states and plans of a configuration
 *  @{ */

/**
 * Evaluates states and plans at a moment of local time. It fills currentState and the current rates
 * of every entry, and cannot fail.
 * @param pConfig  in and out: the configuration; must not be NULL
 * @param timeUs   microseconds since the epoch, 0 for now
 * @return         1 when anything in it is on a schedule, else 0
 */
ZEVO_BW_API int ZEVOBandwidthInitConfig(ZEVO_BANDWIDTH_CONFIG *pConfig,
                                        int64_t timeUs) ZEVO_BW_NOEXCEPT;

/**
 * Says whether some rule of the configuration applied when it was last evaluated. It cannot fail.
 * @param pConfig  the configuration
 * @return         1 when a rule applied, else 0; 0 for NULL
 */
ZEVO_BW_API int
ZEVOBandwidthIsUserGroupLimitEnable(const ZEVO_BANDWIDTH_CONFIG *pConfig) ZEVO_BW_NOEXCEPT;

/**
 * Says whether the configuration has an entry and the protocol's limits were not switched off when
 * it was last evaluated. It cannot fail.
 * @param pConfig  the configuration
 * @return         1 when both hold, else 0; 0 for NULL
 */
ZEVO_BW_API int
ZEVOBandwidthConfCheckEnabled(const ZEVO_BANDWIDTH_CONFIG *pConfig) ZEVO_BW_NOEXCEPT;

/** @} */
/** @defgroup ZEVOBandwidthOccGroupsGet groups that a transfer is charged to
 *  @{ */

/**
 * Lists the groups that the transfer is charged to: those with a weight other than 0.
 * @param pOccGroups   out: the group ids, with room for 1024; must not be NULL
 * @param piOccGroups  out: number of ids, at most 1024; further groups are left out
 * @param pConfig      configuration of the transferring user
 * @return             0, or -1 on failure
 * Errors:  0x0D00.
 */
ZEVO_BW_API int ZEVOBandwidthOccGroupsGet(uint32_t *pOccGroups, int32_t *piOccGroups,
                                          const ZEVO_BANDWIDTH_CONFIG *pConfig) ZEVO_BW_NOEXCEPT;

/** The largest number of ids that ZEVOBandwidthOccGroupsGet() gives. */
#define ZEVO_BW_MOST_OCC_GROUPS 1024

/** @} */

/* ---- expected speed ---- */

/** @defgroup ZEVOBandwidthExpectSpeedEstimate the speed that rules and policies leave a transfer
 *  @{ */

/**
 * Works out what one rule leaves a transfer beside the others that run under the rule: the part of
 * the rate that the others do not use, and never less than an equal share. The rate is shared
 * equally among the users, and a user's share equally among that user's transfers.
 * @param uid            transferring user
 * @param pConf          the rule, evaluated
 * @param transfer_type  upload or download; ZEVO_BW_TRANSFER_ALL is refused
 * @param pMaxSpeedBps   out: bytes/s, 0 unlimited
 * @param pid            calling process; its own transfers do not count against it
 * @return               0, or -1 on failure
 * Errors:  0x0D00; otherwise as ZEVOBandwidthStatusGetAll().
 * Threads: any. It reads the owner's status file and removes stale sections from it.
 */
ZEVO_BW_API int ZEVOBandwidthExpectSpeedEstimate(uint32_t uid, const ZEVO_BANDWIDTH_CONF *pConf,
                                                 int32_t transfer_type, uint64_t *pMaxSpeedBps,
                                                 pid_t pid) ZEVO_BW_NOEXCEPT;

/**
 * Works out the speed of a transfer under all rules and the policy. It writes maxSpeedBps and
 * occupyWeight of the configuration's entries.
 * @param transfer_type     upload or download; ZEVO_BW_TRANSFER_ALL is refused
 * @param pConfig           in and out: configuration of the transferring user
 * @param pSpeedBps         out: bytes/s, 0 unlimited
 * @param blCountTransfers  1 to share with the running transfers, anything else for the bare rates
 * @return                  0, or -1 on failure; entries before the failure are already rewritten
 * Errors:  0x0D00; otherwise as ZEVOBandwidthExpectSpeedEstimate(); none for an unknown policy.
 * Threads: any; two threads must not use one pConfig at once. It reads status files when
 *          blCountTransfers is 1.
 */
ZEVO_BW_API int ZEVOBandwidthExpectSpeedEstimateByPolicy(int32_t transfer_type,
                                                         ZEVO_BANDWIDTH_CONFIG *pConfig,
                                                         uint64_t *pSpeedBps,
                                                         int32_t blCountTransfers) ZEVO_BW_NOEXCEPT;

/** @} */

/* ---- status records and files ---- */

/**
 * Turns a status record into a string hash, as ZEVOBandwidthInitHashFromConf() does with a rule.
 * @ingroup ZEVOBandwidthInitHashFromConf
 * @param ppHash   address of a hash that the caller allocated and frees; the hash may be replaced
 *                 by a larger one
 * @param pStatus  the status record
 * @return         0, or -1 on failure with the hash partly filled
 * Errors:  0x0D00, or the code that the hash recorded.
 */
ZEVO_BW_API int
ZEVOBandwidthInitHashFromStatus(struct VLIB_SZ_HASH **ppHash,
                                const ZEVO_BANDWIDTH_STATUS *pStatus) ZEVO_BW_NOEXCEPT;

/**
 * Fills a status record from a string hash, as ZEVOBandwidthInitConfFromHash() fills a rule. "pid"
 * and "timestamp" ignore text after the number; the unsigned numbers fail on it.
 * @ingroup ZEVOBandwidthInitHashFromConf
 * @param pStatus  in and out: the status record
 * @param pHash    string hash, with the keys of a section
 * @return         0, or -1 on a malformed number: the fields before it are filled, and its own
 *                 field holds what was read of the number
 * Errors:  0x0D00, 0x4000.
 */
ZEVO_BW_API int ZEVOBandwidthInitStatusFromHash(ZEVO_BANDWIDTH_STATUS *pStatus,
                                                const struct VLIB_SZ_HASH *pHash) ZEVO_BW_NOEXCEPT;

/** @defgroup ZEVOBandwidthStatusSave save a running transfer
 *  @{ */

/**
 * Saves a transfer into its user's status file and into those of the groups it is charged to. Makes
 * "/tmp/bandwidth/" (0777) and the files (0666) when they are missing.
 * @param uid      transferring user; (uid_t)-1 is refused
 * @param pConfig  configuration of that user; with NULL only the user's file is written
 * @param pStatus  record of the transfer; changed for the groups' copies, and restored before the
 *                 function returns
 * @return         0, or -1 on failure; the user's section may be written already
 * Errors:  0x0D00, 0x0200, 0x0900, 0x0A00, 0x0B00, 0x2700, 0x2800, or the platform's.
 * Threads: any. Writers of a file take turns, as in ZEVOBandwidthStatusSetSection().
 */
ZEVO_BW_API int ZEVOBandwidthStatusSave(uint32_t uid, const ZEVO_BANDWIDTH_CONFIG *pConfig,
                                        ZEVO_BANDWIDTH_STATUS *pStatus) ZEVO_BW_NOEXCEPT;

/** @} */
/** @defgroup ZEVOBandwidthStatusSetSection change sections of a status file
 *  @{ */

/**
 * Replaces a section of a status file. The section's comments stay, after the new lines. The file
 * keeps its permission bits (0777 of them) and is replaced whole.
 * @param szFile     path of a status file
 * @param szSection  process and direction, "4711-1" for an upload of process 4711
 * @param pHash      string hash with the new keys and values
 * @return           1 replaced; 0 not there, which records 0x2000 and leaves the file unchanged; -1
 *                   on failure with the file unchanged
 * Errors:  0x0D00; 0x0900 the file cannot be opened (it is missing, a link, no regular file, or
 *          above 8 MiB) or no temporary file can be made; 0x0200, 0x0A00, 0x0B00, 0x2700, 0x2800.
 * Threads: any. Writers of a file take turns; it waits for its turns 25 ms at most in all, and then
 *          goes on without. It starts over, at most five times, when another writer was faster;
 *          then the later rename wins.
 */
ZEVO_BW_API int ZEVOBandwidthStatusSetSection(const char *szFile, const char *szSection,
                                              const struct VLIB_SZ_HASH *pHash) ZEVO_BW_NOEXCEPT;

/**
 * Removes a section from a status file; the section's comments stay. The file keeps its permission
 * bits (0777 of them) and is replaced whole.
 * @param szFile     path of a status file
 * @param szSection  process and direction, "4711-1" for an upload of process 4711
 * @return           1 removed; 0 not there, which records 0x2000 and leaves the file unchanged; -1
 *                   on failure with the file unchanged
 * Errors:  as ZEVOBandwidthStatusSetSection().
 * Threads: as ZEVOBandwidthStatusSetSection().
 */
ZEVO_BW_API int ZEVOBandwidthStatusRemoveSection(const char *szFile,
                                                 const char *szSection) ZEVO_BW_NOEXCEPT;

/**
 * Appends a section to a status file, in one write and on a line of its own. Makes the file when it
 * is missing. A process that dies during the write may leave a part of the section. The hash of
 * ZEVOBandwidthInitHashFromStatus() ends with the time stamp, so that such a part counts as stale.
 * A section that lacks only its last line end is whole.
 * @param szFile     path of a status file
 * @param szSection  process and direction, "4711-1" for an upload of process 4711
 * @param pHash      string hash with the keys and values
 * @return           1 written, 0 already there, -1 on failure; a failed write may leave a part
 * Errors:  0x0D00 (not logged), 0x0200, 0x0900, 0x0B00; none when reading fails.
 * Threads: as ZEVOBandwidthStatusSetSection().
 */
ZEVO_BW_API int ZEVOBandwidthStatusAddSection(const char *szFile, const char *szSection,
                                              const struct VLIB_SZ_HASH *pHash) ZEVO_BW_NOEXCEPT;

/** @} */
/** @defgroup ZEVOBandwidthStatusGetAll list running transfers
 *  @{ */

/**
 * Lists the running transfers of one status file; the file's last section comes first. Sections
 * that are stale are removed from the file, whatever the masks, in one rewrite. A section that was
 * saved again in the meantime stays.
 *
 * DANGER: a path with a "." anywhere in it is taken for a leftover temporary file. The function
 * deletes that file when it was last modified more than 10 seconds ago, and returns 0.
 * @param szStatusFile   path of a status file
 * @param protocol_mask  a transfer is listed when its protocol number has a bit in common; numbers
 *                       of add-ons are compared in the same way, though they are not bits; -1 lists
 *                       all but number 0
 * @param transfer_mask  1 upload, 2 download, 3 both
 * @param pStatusList    in: address of a NULL head; out: the list, unchanged when nothing is found
 * @param blMerge        1 gives one record for each protocol and direction with the sums of the
 *                       speeds; a sum is 0, unlimited, as soon as one of its speeds is
 * @return               number of records, or -1 on failure
 * Errors:    0x0D00, 0x0200, or the platform's. A section that cannot be read is only logged. After
 *            64 log lines about a file, one more line says that the rest is left out. After 64
 *            searches for add-ons, a name that was not found before counts as unknown.
 * Ownership: the caller releases the list with ZEVOBandwidthStatusListFree().
 */
ZEVO_BW_API int ZEVOBandwidthIStatusGetAll(const char *szStatusFile, int32_t protocol_mask,
                                           uint32_t transfer_mask,
                                           ZEVO_BANDWIDTH_STATUS **pStatusList,
                                           int32_t blMerge) ZEVO_BW_NOEXCEPT;

/**
 * Lists the running transfers of one owner, not merged: ZEVOBandwidthIStatusGetAll() on the owner's
 * status file.
 * @param owner_type     ZEVO_BW_OWNER_USER or ZEVO_BW_OWNER_GROUP
 * @param id             the owner's uid or gid
 * @param protocol_mask  a transfer is listed when its protocol number has a bit in common; -1 lists
 *                       all but number 0
 * @param transfer_mask  1 upload, 2 download, 3 both
 * @param pStatusList    in: address of a NULL head; out: the list, unchanged when nothing is found
 * @return               number of records, or -1 on failure
 * Errors:    as ZEVOBandwidthIStatusGetAll().
 * Ownership: the caller releases the list with ZEVOBandwidthStatusListFree().
 */
ZEVO_BW_API int ZEVOBandwidthStatusGetAll(int32_t owner_type, uint32_t id, int32_t protocol_mask,
                                          uint32_t transfer_mask,
                                          ZEVO_BANDWIDTH_STATUS **pStatusList) ZEVO_BW_NOEXCEPT;

/**
 * Releases a list and sets its head to NULL. It cannot fail.
 * @param pStatusList  address of the head; must not be NULL, the head may
 */
ZEVO_BW_API void ZEVOBandwidthStatusListFree(ZEVO_BANDWIDTH_STATUS **pStatusList) ZEVO_BW_NOEXCEPT;

/** @} */
/** @defgroup ZEVOBandwidthStatusGet read one running transfer
 *  @{ */

/**
 * Reads the section of one process and direction from an owner's status file, also when it is
 * stale.
 * @param owner_type     ZEVO_BW_OWNER_USER or ZEVO_BW_OWNER_GROUP
 * @param id             the owner's uid or gid
 * @param pid            process that runs the transfer; (pid_t)-1 is refused
 * @param transfer_type  upload or download; ZEVO_BW_TRANSFER_ALL is refused
 * @param pStatus        out: the record; a field whose key the section lacks is left unchanged
 * @return               0, or -1 on failure and when there is no such section
 * Errors:  0x0D00, 0x4000, or the platform's; none of its own when the file or section is missing.
 */
ZEVO_BW_API int ZEVOBandwidthIStatusGet(int32_t owner_type, uint32_t id, pid_t pid,
                                        int32_t transfer_type,
                                        ZEVO_BANDWIDTH_STATUS *pStatus) ZEVO_BW_NOEXCEPT;

/**
 * Reads the calling process's section: ZEVOBandwidthIStatusGet() with the caller's process id.
 * @param owner_type     ZEVO_BW_OWNER_USER or ZEVO_BW_OWNER_GROUP
 * @param id             the owner's uid or gid
 * @param transfer_type  upload or download; ZEVO_BW_TRANSFER_ALL is refused
 * @param pStatus        out: the record; a field whose key the section lacks is left unchanged
 * @return               0, or -1 on failure and when there is no such section
 * Errors:  as ZEVOBandwidthIStatusGet().
 */
ZEVO_BW_API int ZEVOBandwidthStatusGet(int32_t owner_type, uint32_t id, int32_t transfer_type,
                                       ZEVO_BANDWIDTH_STATUS *pStatus) ZEVO_BW_NOEXCEPT;

/** @} */
/** @defgroup ZEVOBandwidthStatusDump print a running transfer
 *  @{ */

/**
 * Prints one transfer as a line of a table without a header: owner of the section, protocol,
 * direction, process, time of the last save, allowed and measured speed in KB/s, progress in
 * percent, file name. The file name is printed as it is; it may hold any byte but NUL. A protocol
 * or direction without a name prints as "-". An owner that is not a user is looked up among the
 * groups. The decimal point is a point in every locale.
 * @param fp       byte-oriented stream
 * @param pStatus  record of the transfer
 * @return         0, or -1 with nothing written; ferror() tells whether the stream took the line
 * Errors:  0x0D00, 0x0200; an owner that the user database does not know is a failure, too.
 */
ZEVO_BW_API int ZEVOBandwidthStatusDump(FILE *fp,
                                        const ZEVO_BANDWIDTH_STATUS *pStatus) ZEVO_BW_NOEXCEPT;

/** @} */

/* ---- the end of transfers, stopping them ---- */

/**
 * @defgroup ZEVOBandwidthStatusRemove remove transfers from the status files
 * Each function stops at its first failure; what it has removed stays removed. A file or a section
 * that is not there is no failure.
 * @{
 */

/**
 * Removes the calling process's sections from the user's status file and from those of the groups
 * that the configuration charged when it was last estimated. A size estimate goes by the bare
 * rates and may charge another group: when it came after the last save, the group that was charged
 * before may keep its copy until that is stale. ZEVOBandwidthStatusForceRemoveAllByUID() finds this
 * copy, unless the user has left the group.
 * @param pConfig        configuration of the transferring user
 * @param transfer_mask  1 upload, 2 download, 3 both
 * @return               0, or -1 on failure
 * Errors:  0x0D00; otherwise as ZEVOBandwidthStatusRemoveSection().
 */
ZEVO_BW_API int ZEVOBandwidthStatusRemove(const ZEVO_BANDWIDTH_CONFIG *pConfig,
                                          uint32_t transfer_mask) ZEVO_BW_NOEXCEPT;

/**
 * Removes the calling process's sections from the status files of some groups.
 * @param pOccGroups     group ids
 * @param iOccGroups     number of ids
 * @param transfer_mask  1 upload, 2 download, 3 both
 * @return               0, or -1 on failure
 * Errors:  0x0D00; otherwise as ZEVOBandwidthStatusRemoveSection().
 */
ZEVO_BW_API int ZEVOBandwidthStatusRemoveByOccGroups(const uint32_t *pOccGroups, int32_t iOccGroups,
                                                     uint32_t transfer_mask) ZEVO_BW_NOEXCEPT;

/**
 * Removes a process's sections from the user's status file and from those of all groups that the
 * user belongs to. It does not look at the rules.
 * @param szUserName     the transferring user's name
 * @param transfer_mask  1 upload, 2 download, 3 both
 * @param pid            process that runs the transfers
 * @return               0, or -1 on failure
 * Errors:  0x0D00; 0x4000 a malformed group id; otherwise as ZEVOBandwidthStatusRemoveSection(), or
 *          the platform's.
 */
ZEVO_BW_API int ZEVOBandwidthStatusForceRemoveAllByUserName(const char *szUserName,
                                                            uint32_t transfer_mask,
                                                            pid_t pid) ZEVO_BW_NOEXCEPT;

/**
 * Removes the calling process's sections: ZEVOBandwidthStatusForceRemoveAllByUserName() with the
 * caller's process id and the user given by uid.
 * @param uid            transferring user
 * @param transfer_mask  1 upload, 2 download, 3 both
 * @return               0, or -1 on failure
 * Errors:  as ZEVOBandwidthStatusForceRemoveAllByUserName().
 */
ZEVO_BW_API int ZEVOBandwidthStatusForceRemoveAllByUID(uint32_t uid,
                                                       uint32_t transfer_mask) ZEVO_BW_NOEXCEPT;

/** @} */
/** @defgroup ZEVOBandwidthStatusSetActiveByUserName stop a running transfer
 *  @{ */

/**
 * Sets a transfer's active flag in its user's status file. With 0 the transfer's next call of
 * ZEVOBandwidthSleepInLoop() fails with 0x0300. A save of another transfer at the same moment may
 * undo it: read it back.
 * @param szUserName     the transferring user's name
 * @param transfer_type  ZEVO_BW_TRANSFER_UPLOAD or ZEVO_BW_TRANSFER_DOWNLOAD
 * @param pid            process that runs the transfer
 * @param active         0 stops the transfer, 1 lets it go on
 * @return               0, or -1 on failure, also when the process has no such transfer
 * Errors:  0x0D00; otherwise as ZEVOBandwidthIStatusGet(), ZEVOBandwidthStatusSetSection(), or the
 *          platform's.
 */
ZEVO_BW_API int ZEVOBandwidthStatusSetActiveByUserName(const char *szUserName,
                                                       int32_t transfer_type, pid_t pid,
                                                       int32_t active) ZEVO_BW_NOEXCEPT;

/** @} */

/* ---- the life of a transfer ---- */

/** @defgroup ZEVOBandwidthStatusInit register a transfer
 *  @{ */

/**
 * Registers a transfer of the calling process before its first block. Uploads of one process and
 * user share one section, and so do its downloads. In a group's status file even the uploads of one
 * process for several members of the group share one section.
 * @param pConfig        in and out: configuration of the transferring user; entries are rewritten
 * @param transfer_type  upload or download
 * @param szFileName     name shown to administrators, cut to 4095 characters
 * @param pTime          out: start of the first block, in microseconds since the epoch; unchanged
 *                       when nothing limits the transfer
 * @param pStatus        out: record of the transfer; filled also when nothing limits the transfer,
 *                       though nothing is saved then
 * @return               0, or -1 on failure
 * Errors:  0x0D00 (a NULL configuration is refused first); otherwise as
 *          ZEVOBandwidthExpectSpeedEstimateByPolicy() or ZEVOBandwidthStatusSave().
 */
ZEVO_BW_API int ZEVOBandwidthStatusInit(ZEVO_BANDWIDTH_CONFIG *pConfig, int32_t transfer_type,
                                        const char *szFileName, uint64_t *pTime,
                                        ZEVO_BANDWIDTH_STATUS *pStatus) ZEVO_BW_NOEXCEPT;

/** @} */
/** @defgroup ZEVOBandwidthTransferSizeEstimate how large the next block of a transfer may be
 *  @{ */

/**
 * Says how large the next block may be: at most what the configured speed moves in five seconds.
 * @param pConfig         in and out: configuration of the transferring user
 * @param transfer_type   upload or download
 * @param requestBytes    size that the service would like, in bytes
 * @param pTransferBytes  out: size that it may use, in bytes
 * @return                0, or -1 on failure
 * Errors:  0x0D00; none of its own for an unknown policy.
 * Threads: any. It writes into pConfig's entries and reads no file.
 */
ZEVO_BW_API int ZEVOBandwidthTransferSizeEstimate(ZEVO_BANDWIDTH_CONFIG *pConfig,
                                                  int32_t transfer_type, uint64_t requestBytes,
                                                  uint64_t *pTransferBytes) ZEVO_BW_NOEXCEPT;

/** @} */
/** @defgroup ZEVOBandwidthSleepInLoop hold a transfer to its limit after each block
 *  @{ */

/**
 * Sleeps until the block has taken as long as its limit asks for, and saves the transfer. The
 * service calls it after each block. A signal cuts the sleep short. When no policy is stored or no
 * limit applies to the transfer, it returns at once and leaves *pTimeLast unchanged.
 * @param pConfig    in and out: configuration of the transferring user
 * @param bytes      bytes moved since the previous call
 * @param progress   stored as it is; in ten-thousandths by custom
 * @param pTimeLast  in: end of the previous block, in microseconds since the epoch; out: end of
 *                   this one
 * @param pStatus    in and out: record of the transfer
 * @return           0 to go on, -1 to stop: 0x0300 means stopped from outside, any other code is an
 *                   error
 * Errors:  0x0D00, 0x0300; otherwise as ZEVOBandwidthExpectSpeedEstimateByPolicy(),
 *          ZEVOBandwidthStatusRemove() or ZEVOBandwidthStatusSave().
 * Threads: any; it sleeps. The process remembers only one hour in which it last looked at plans:
 *          only the configuration of the first call in a new hour is evaluated again. A process
 *          with several configurations calls ZEVOBandwidthInitConfig(&config, 0) on the others.
 */
ZEVO_BW_API int ZEVOBandwidthSleepInLoop(ZEVO_BANDWIDTH_CONFIG *pConfig, uint64_t bytes,
                                         uint32_t progress, uint64_t *pTimeLast,
                                         ZEVO_BANDWIDTH_STATUS *pStatus) ZEVO_BW_NOEXCEPT;

/** @} */

/* ---- clock, speed and sleep ---- */

/**
 * @defgroup ZEVOBandwidthCurrTimeGet clock, speed and sleep of a block
 * These functions have no state and record no error.
 * Signals: a signal handler may call them.
 * @{
 */

/**
 * Reads the wall clock.
 * @return  microseconds since the epoch; 0 when it cannot be read
 */
ZEVO_BW_API uint64_t ZEVOBandwidthCurrTimeGet(void) ZEVO_BW_NOEXCEPT;

/**
 * Works out the speed of a block.
 * @param elapsedUs  microseconds since the block began; 0 or less counts as 1
 * @param bytes      size of the block
 * @return           bytes per second
 */
ZEVO_BW_API uint64_t ZEVOBandwidthSpeedEstimate(int64_t elapsedUs, uint64_t bytes) ZEVO_BW_NOEXCEPT;

/**
 * Works out how long to sleep so that a block takes as long as its speed asks for.
 * @param elapsedUs  microseconds since the block began; 0 or less counts as 1
 * @param bytes      size of the block
 * @param speedBps   bytes/s, 0 unlimited
 * @return           microseconds; 0 when the block took that long already or speedBps is unlimited
 */
ZEVO_BW_API int64_t ZEVOBandwidthSleepEstimate(int64_t elapsedUs, uint64_t bytes,
                                               uint64_t speedBps) ZEVO_BW_NOEXCEPT;

/** @} */
/**
 * @defgroup ZEVOBandwidthIsLessThan compare and add speeds of which 0 is unlimited
 * These functions have no state and record no error.
 * Signals: a signal handler may call them.
 * @{
 */

/**
 * Compares two speeds. 0, unlimited, is above every other.
 * @param a  bytes/s
 * @param b  bytes/s
 * @return   1 when a is below b, else 0
 */
ZEVO_BW_API int ZEVOBandwidthIsLessThan(uint64_t a, uint64_t b) ZEVO_BW_NOEXCEPT;

/**
 * Compares two speeds the other way round. 0, unlimited, is above every other.
 * @param a  bytes/s
 * @param b  bytes/s
 * @return   1 when a is above b, else 0
 */
ZEVO_BW_API int ZEVOBandwidthIsLargerThan(uint64_t a, uint64_t b) ZEVO_BW_NOEXCEPT;

/**
 * Adds two speeds or two rates.
 * @param a  0 unlimited
 * @param b  0 unlimited
 * @return   a + b, which may wrap; 0, unlimited, when one of them is 0
 */
ZEVO_BW_API uint64_t ZEVOBandwidthSum(uint64_t a, uint64_t b) ZEVO_BW_NOEXCEPT;

/** @} */

/* ---- notices that limits have changed ---- */

/** @defgroup ZEVOBandwidthHupDocuhall tell services that limits have changed
 *  @{ */

/**
 * Sends SIGHUP to the web file manager's workers. It finds them by the first word of their command
 * line, and reports no failure.
 */
ZEVO_BW_API void ZEVOBandwidthHupDocuhall(void) ZEVO_BW_NOEXCEPT;

/**
 * Sends SIGUSR2 to the WebDAV server's process group.
 * @return  0; when there is no server, what its pid file holds, 0 or less; -1 with errno set when
 *          the signal cannot be sent
 */
ZEVO_BW_API int ZEVOBandwidthHupWebDAV(void) ZEVO_BW_NOEXCEPT;

/**
 * Runs "/usr/bin/killall", which sends SIGHUP to the processes named "zevobandwidth".
 * @return  the program's exit status, 0 when it found a process; 128 + the signal that ended it; -1
 *          when it could not be run
 * Errors:  0x0900 the program could not be run.
 * Threads: any. It runs a program and waits for its end.
 */
ZEVO_BW_API int ZEVOBandwidthHupSimulator(void) ZEVO_BW_NOEXCEPT;

/** @} */
/** @defgroup ZEVOBandwidthHupRecv read a transfer's limits anew
 *  @{ */

/**
 * Reads a transfer's limits anew after a notice. A service's SIGHUP handler only sets a flag. Its
 * loop clears the flag before the next block and calls this function. After a failure the service
 * may go on: the old limits still apply. When the handler is installed without SA_RESTART, the
 * service's own reads and writes end with EINTR, too.
 * @param pConfig  in and out: the configuration; replaced on success, kept on failure
 * @param pStatus  record of the transfer; its protocol_type and transfer_type are used
 * @param pTime    out: now, in microseconds since the epoch; written also on failure, unless an
 *                 argument was refused
 * @return         0, or -1 on failure
 * Errors:  0x0D00; otherwise as ZEVOBandwidthStatusRemove() or ZEVOBandwidthConfigGet().
 */
ZEVO_BW_API int ZEVOBandwidthHupRecv(ZEVO_BANDWIDTH_CONFIG *pConfig,
                                     const ZEVO_BANDWIDTH_STATUS *pStatus,
                                     uint64_t *pTime) ZEVO_BW_NOEXCEPT;

/** @} */

/* ---- preview and simulation ---- */

/** @defgroup ZEVOBandwidthPreview the speeds that a user would get
 *  @{ */

/**
 * Works out the speeds that a transfer of the user would have if no other were running. A protocol
 * without a stored policy is not limited, but the function still gives the rates of its rules: ask
 * ZEVOBandwidthGlobalConfGet() whether a policy is stored.
 * @param uid            user; (uid_t)-1 is refused
 * @param protocol_type  one protocol; ZEVO_BW_PROTOCOL_ALL is refused
 * @param pSpeedBps      out: array of three, indexed by ZEVO_BW_TRANSFER_TYPE: [1] receives the
 *                       upload and [2] the download speed in bytes/s, 0 unlimited; [0] is unchanged
 * @return               0, or -1 on failure; when only the download fails, [1] is written
 * Errors:  as ZEVOBandwidthConfigGet() and ZEVOBandwidthExpectSpeedEstimateByPolicy(); 0x0D00 for a
 *          NULL array.
 */
ZEVO_BW_API int ZEVOBandwidthPreview(uint32_t uid, int32_t protocol_type,
                                     uint64_t *pSpeedBps) ZEVO_BW_NOEXCEPT;

/** @} */
/** @defgroup ZEVOBandwidthSimulate play out a transfer without data
 *  @{ */

/**
 * Plays out a transfer without data, in blocks of 64 KB: it sleeps, is listed and shares the limits
 * as a real one would. It replaces the process's SIGHUP handler and does not restore it, so that
 * the library must stay loaded. ZEVOBandwidthHupSimulator() reaches a process named
 * "zevobandwidth".
 * @param szUserName     the transferring user's name
 * @param protocol_type  one protocol; ZEVO_BW_PROTOCOL_ALL is refused
 * @param transfer_type  upload or download, nothing else
 * @param sizeKB         size in KB; 0 registers the transfer and removes it again
 * @return               0 when it was played out; -1 on failure, also when it was stopped: its
 *                       sections may be left then, and become stale
 * Errors:  as ZEVOBandwidthConfigGet(), ZEVOBandwidthStatusInit(), ZEVOBandwidthSleepInLoop() and
 *          ZEVOBandwidthHupRecv(), or the platform's.
 * Threads: any, one at a time in a process. It returns when the transfer is over. A notice that
 *          another thread receives takes effect only with the next block.
 */
ZEVO_BW_API int ZEVOBandwidthSimulate(const char *szUserName, int32_t protocol_type,
                                      int32_t transfer_type, uint64_t sizeKB) ZEVO_BW_NOEXCEPT;

/** @} */

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* ZEVOBANDWIDTH_H */
