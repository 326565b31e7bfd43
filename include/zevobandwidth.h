/**
 * zevobandwidth: bandwidth limits that many processes of many users share, libzevobandwidth.so.7.
 *
 * A rule gives one user or group an upload and a download rate for one protocol; a policy says per
 * protocol how a user's rule and those of his groups combine and to whom a transfer is charged. The
 * processes that move the data meet in small files and each sleeps just long enough. There is no
 * daemon and no lock.
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
 *     ZEVOBandwidthStatusForceRemoveAllByUID(uid, ZEVO_BW_TRANSFER_UPLOAD); // of all his groups
 *     ZEVOBandwidthConfigFree(&config);
 *
 * Conventions for every function, unless it says otherwise:
 *  - Results are 0, a count, or 1 for found; -1 is failure. Outputs are written only on success.
 *  - A failure records a code of ZEVO_BW_ERROR with the source file and line that found it in the
 *    platform's error slot (VLIBCErrGet() and its kin, one slot per thread), and is told to the
 *    system log at error level. A refused argument is 0x0D00.
 *  - Rates are KB/s of 1024 bytes, speeds bytes per second; 0 is unlimited in both. The clock is in
 *    microseconds since the epoch, time stamps in seconds, weights and progress in
 *    ten-thousandths.
 *  - Upload is from the client to this server, download from this server to the client.
 *  - No exception leaves a function, nothing is written to stdout or stderr, no thread, locale,
 *    environment variable or, but for ZEVOBandwidthSimulate(), signal handler is touched.
 *    Descriptors are closed on exec and above 2; only the system log's own, which libc opens, may
 *    fall below in a host that has closed its standard streams.
 *
 * Safety of every function, likewise:
 *  Threads: any thread may call it; a record belongs to one thread at a time.
 *  Signals: not to be called from a signal handler.
 *  Forks:   a child may call it and waits for no thread that it does not have, unless libc does:
 *           the system log or the user database, in use by another thread at the fork, may stay
 *           locked in the child. A transfer stays that of the process that registered it; the child
 *           registers its own with ZEVOBandwidthStatusInit().
 *  Cancels: a cancellation of the calling thread, deferred as by default, waits until the function
 *           has returned.
 *
 * Arguments, likewise:
 *  @param uid            user
 *  @param owner_type     ZEVO_BW_OWNER_USER or ZEVO_BW_OWNER_GROUP
 *  @param id             the owner's uid or gid
 *  @param protocol_type  one protocol or an add-on's number
 *  @param iProtocol      an add-on's number
 *  @param transfer_type  ZEVO_BW_TRANSFER_UPLOAD or ZEVO_BW_TRANSFER_DOWNLOAD
 *  @param transfer_mask  1 upload, 2 download, 3 both
 *  @param pid            process that runs the transfer
 *  @param szUserName     the transferring user's name
 *  @param pConfig        effective configuration of the transferring user
 *  @param pStatus        record of the transfer
 *  @param pHash          string hash with a record's keys and values
 *  @param szFile         path of a status file
 *  @param szSection      process and direction, "4711-1" for an upload of process 4711
 *  @param fp             byte-oriented stream
 *  @param cb             size of the text's room in bytes; likewise every cbText of a szText
 *  @param bytes          size of a block
 *  @param elapsedUs      microseconds since the block began
 *  @param speedBps       bytes/s, 0 unlimited
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

/** How a user's own rule and the combined rules of his groups combine. */
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
 * The same name means different values in different enumerations: look a name up
 * in the table of the field that it belongs to. Names are compared exactly. */

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

/* ---- records: plain values in the caller's storage, handed in zero-filled where a function fills
 *      them ---- */

/** Size of a plan's field. A plan is 168 characters, one an hour: index weekday * 24 + local hour,
 *  weekday 0 is Sunday. */
#define ZEVO_BW_PLAN_SIZE 256
/** Size of a transfer's file name. */
#define ZEVO_BW_FILENAME_SIZE 4096

/** Where rules and policies stand: a file for each protocol, and the global file. */
#define ZEVO_BW_CONF_DIRECTORY "/usr/zevo/etc/bandwidth"
/** Where add-on protocols announce themselves, each by a file "NAME_NUMBER.json". */
#define ZEVO_BW_ADDON_DIRECTORY ZEVO_BW_CONF_DIRECTORY "/addon"
/** Where running transfers stand: a status file for each user and group, "user-1026", "group-100". */
#define ZEVO_BW_STATUS_DIRECTORY "/tmp/bandwidth"
/** Seconds without a save after which a section is stale: its transfer is taken for dead. */
#define ZEVO_BW_STALE_AFTER_SECONDS 30
/** Seconds after which a file whose name has a dot is the leftover of a rewrite that died. */
#define ZEVO_BW_LEFTOVER_AFTER_SECONDS 10

/**
 * The rule of one owner for one protocol. In its plan '0' puts the rule out of force for the hour,
 * '1' in force with the normal rates, anything else in force with the custom rates.
 */
typedef struct ZEVO_BANDWIDTH_CONF {
    uint32_t id;                            /**< uid or gid of the owner */
    int32_t currentState;                   /**< state in force when last evaluated; not stored */
    int32_t state;                          /**< ZEVO_BW_STATE, as configured */
    int32_t protocolType;                   /**< one protocol or an add-on's number */
    int32_t ownerType;                      /**< ZEVO_BW_OWNER_USER or ZEVO_BW_OWNER_GROUP */
    uint64_t currentUploadRate;             /**< KB/s in force when last evaluated; not stored */
    uint64_t currentDownloadRate;           /**< KB/s in force when last evaluated; not stored */
    uint64_t uploadRate;                    /**< KB/s, 0 unlimited */
    uint64_t downloadRate;                  /**< KB/s, 0 unlimited */
    uint64_t uploadRateCustom;              /**< KB/s in the hours that the plan marks so */
    uint64_t downloadRateCustom;            /**< KB/s in those hours */
    char szSchedulePlan[ZEVO_BW_PLAN_SIZE]; /**< NUL-terminated; bears when state is schedule */
} ZEVO_BANDWIDTH_CONF;

/** The policy of one protocol. In its plan '1' makes limits apply in that hour, anything else not.
 */
typedef struct ZEVO_BANDWIDTH_GLOBAL_CONF {
    int32_t currentState;                   /**< state in force when last evaluated; not stored */
    int32_t state;                          /**< ZEVO_BW_STATE, as configured */
    int32_t protocolType;                   /**< one protocol or an add-on's number */
    int32_t userGroupPolicy;                /**< ZEVO_BW_USER_GROUP_POLICY */
    int32_t interGroupPolicy;               /**< ZEVO_BW_INTER_GROUP_POLICY */
    int32_t occupyPolicy;                   /**< ZEVO_BW_OCCUPY_POLICY */
    char szSchedulePlan[ZEVO_BW_PLAN_SIZE]; /**< NUL-terminated; bears when state is schedule */
} ZEVO_BANDWIDTH_GLOBAL_CONF;

/** One rule that bears on a user, with what it leaves the transfer last estimated. */
typedef struct ZEVO_BANDWIDTH_LIMIT {
    ZEVO_BANDWIDTH_CONF conf; /**< the rule, evaluated */
    uint64_t maxSpeedBps;     /**< bytes/s this rule leaves the transfer, 0 unlimited */
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
    uint32_t id;            /**< owner of the status file that holds this copy: uid or gid */
    uint32_t uid;           /**< transferring user, in every copy */
    uint32_t active;        /**< 1 while it may go on; 0 makes its throttle loop fail */
    int64_t timestamp;      /**< last save, seconds since the epoch; stale after 30 */
    uint64_t current_speed; /**< measured bytes/s; in a group's copy the share charged to it */
    uint64_t expect_speed;  /**< allowed bytes/s, 0 unlimited; in a group's copy by its rule */
    char filename[ZEVO_BW_FILENAME_SIZE]; /**< NUL-terminated, as the service gave it */
    uint32_t owner_type;                  /**< ZEVO_BW_OWNER_TYPE of this copy */
    uint32_t protocol_type;               /**< one protocol or an add-on's number */
    uint32_t transfer_type;               /**< ZEVO_BW_TRANSFER_UPLOAD or _DOWNLOAD */
    uint32_t progress;                    /**< ten-thousandths, as the service gave it */
} ZEVO_BANDWIDTH_STATUS;

/* ---- names, add-ons and paths ---- */

/**
 * Gives the name of an enumeration value. A value that the table lacks is looked for among the
 * add-ons, whatever the enumeration.
 * @param enum_list   one of the name tables
 * @param value       value of the enumeration, or an add-on's number
 * @param szProtocol  out, cut to cbProtocol bytes, always NUL-terminated
 * @param cbProtocol  size of szProtocol, above 0
 * @return            1 with the name, -1 on failure
 * Errors:  0x0D00; otherwise as ZEVOBandwidthEnumToNameAddon().
 * Threads: any. Searches the add-on directory only for values it has not found before.
 */
ZEVO_BW_API int ZEVOBandwidthEnumToName(const ZEVO_BW_ENUM_ENTRY *enum_list, int32_t value,
                                        char *szProtocol, int cbProtocol) ZEVO_BW_NOEXCEPT;

/**
 * Gives the value of a name. A name that the table lacks is looked for among the add-ons.
 * @param enum_list  one of the name tables
 * @param szName     name, compared exactly
 * @return           the value, 0 or more; -1 on failure. An add-on numbered 0 gives 0 and records
 *                   0x2000.
 * Errors:  0x0D00; otherwise as ZEVOBandwidthEnumToValueAddon().
 * Threads: any.
 */
ZEVO_BW_API int ZEVOBandwidthEnumToValue(const ZEVO_BW_ENUM_ENTRY *enum_list,
                                         const char *szName) ZEVO_BW_NOEXCEPT;

/**
 * Gives the name of an add-on protocol, announced by a file NAME_NUMBER.json in
 * "/usr/zevo/etc/bandwidth/addon/". What was found once is remembered for the life of the process.
 * @param szProtocol  out, cut to cbProtocol bytes, always NUL-terminated
 * @return            1 with the name (possibly empty), -1 on failure
 * Errors:  0x0D00; 0x0600 no such file; 0xA300 several; 0xBE00 a malformed name.
 * Threads: any. The memory of found names is guarded by a flag that nobody waits for, so that the
 *          child of a fork never blocks: while another thread holds it the directory is searched.
 */
ZEVO_BW_API int ZEVOBandwidthEnumToNameAddon(int32_t iProtocol, char *szProtocol,
                                             size_t cbProtocol) ZEVO_BW_NOEXCEPT;

/**
 * Gives the number of an add-on protocol. A name with a '/' in it matches nothing, for it would
 * lead the search out of the add-on directory.
 * @param szName  name of the protocol
 * @return        the number (0 when the file name holds no number), -1 on failure
 * Errors, Threads: as ZEVOBandwidthEnumToNameAddon().
 */
ZEVO_BW_API int ZEVOBandwidthEnumToValueAddon(const char *szName) ZEVO_BW_NOEXCEPT;

/**
 * Gives the path of an add-on's file. Built-in protocols have none.
 * @param szPath  out, cut to cbPath bytes; must not be NULL
 * @return        0, or -1 on failure
 * Errors, Threads: as ZEVOBandwidthEnumToNameAddon().
 */
ZEVO_BW_API int ZEVOBandwidthGetAddonConfigPath(int32_t iProtocol, char *szPath,
                                                size_t cbPath) ZEVO_BW_NOEXCEPT;

/**
 * Gives the path of a protocol's rule file, or of the global file for ZEVO_BW_PROTOCOL_ALL.
 * @param protocol_type  one protocol, an add-on's number, or ZEVO_BW_PROTOCOL_ALL
 * @param szConfPath     out, cut to cbConfPath bytes; 4096 hold every path
 * @return               0, or -1 on failure
 * Errors:  0x0D00; otherwise as ZEVOBandwidthEnumToName().
 * Threads: any.
 */
ZEVO_BW_API int ZEVOBandwidthConfPath(int32_t protocol_type, char *szConfPath,
                                      size_t cbConfPath) ZEVO_BW_NOEXCEPT;

/* ---- rules and policies ---- */

/**
 * Turns a rule into a string hash. The hash is emptied first; a state, owner or protocol without a
 * name is logged and its key left out.
 * @param ppHash  address of a hash that the caller allocated and frees; may be replaced by a larger
 * @param pConf   the record
 * @return        0, or -1 on failure with the hash partly filled
 * Errors:  0x0D00, or as the hash recorded.
 * Threads: any.
 */
ZEVO_BW_API int ZEVOBandwidthInitHashFromConf(struct VLIB_SZ_HASH **ppHash,
                                              const ZEVO_BANDWIDTH_CONF *pConf) ZEVO_BW_NOEXCEPT;

/**
 * Fills a rule from a string hash. Only keys that the hash holds change the record; an unknown name
 * is logged and leaves its field; a plan is cut to 255 characters.
 * @param pConf  the record, in and out
 * @param pHash  string hash, by the keys of the files
 * @return       0, or -1 on a malformed number, the fields before it filled and its own holding
 *               what was read of it
 * Errors:  0x0D00, 0x4000.
 * Threads: any.
 */
ZEVO_BW_API int ZEVOBandwidthInitConfFromHash(ZEVO_BANDWIDTH_CONF *pConf,
                                              const struct VLIB_SZ_HASH *pHash) ZEVO_BW_NOEXCEPT;

/** ZEVOBandwidthInitHashFromConf() for a policy. */
ZEVO_BW_API int
ZEVOBandwidthInitHashFromGlobalConf(struct VLIB_SZ_HASH **ppHash,
                                    const ZEVO_BANDWIDTH_GLOBAL_CONF *pConf) ZEVO_BW_NOEXCEPT;

/** ZEVOBandwidthInitConfFromHash() for a policy; it has no numbers, so that only arguments fail. */
ZEVO_BW_API int
ZEVOBandwidthInitGlobalConfFromHash(ZEVO_BANDWIDTH_GLOBAL_CONF *pConf,
                                    const struct VLIB_SZ_HASH *pHash) ZEVO_BW_NOEXCEPT;

/**
 * Reads an owner's rule. One that is not stored reads as ZEVO_BW_STATE_NOT_EXISTED with rates 0.
 * @param owner_type     ZEVO_BW_OWNER_USER or ZEVO_BW_OWNER_GROUP
 * @param id             uid or gid
 * @param protocol_type  one protocol; ZEVO_BW_PROTOCOL_ALL is refused
 * @param pConf          out; after a failure not to be used
 * @return               0, or -1 on failure
 * Errors:  0x0D00, 0x4000 a malformed number in the file; otherwise as the file left them.
 * Threads: any. Reads a file anew at each call.
 */
ZEVO_BW_API int ZEVOBandwidthConfGetByID(int32_t owner_type, uint32_t id, int32_t protocol_type,
                                         ZEVO_BANDWIDTH_CONF *pConf) ZEVO_BW_NOEXCEPT;

/**
 * Stores a rule under its protocolType, ownerType and id, making the file at need. The record is
 * not validated. Notifies nobody: see ZEVOBandwidthHupDocuhall() and its kin.
 * @param pConf  the rule
 * @return       0, or -1 on failure, the stored rule as it was
 * Errors:  0x0D00; otherwise as the platform left them.
 * Threads: any. The file is replaced whole; writers of one file wait for each other.
 */
ZEVO_BW_API int ZEVOBandwidthConfSetByID(const ZEVO_BANDWIDTH_CONF *pConf) ZEVO_BW_NOEXCEPT;

/**
 * Reads a protocol's policy. One that is not stored reads as ZEVO_BW_STATE_NOT_EXISTED, user-first,
 * max, max: nothing is limited then.
 * @param protocol_type  one protocol; ZEVO_BW_PROTOCOL_ALL is refused
 * @param pConf          out; after a failure not to be used
 * @return               0, or -1 on failure
 * Errors, Threads: as ZEVOBandwidthConfGetByID().
 */
ZEVO_BW_API int ZEVOBandwidthGlobalConfGet(int32_t protocol_type,
                                           ZEVO_BANDWIDTH_GLOBAL_CONF *pConf) ZEVO_BW_NOEXCEPT;

/**
 * Stores a policy under its protocolType and sends SIGHUP to every process named "zevobandwidth",
 * the caller included if it bears that name.
 * @param pConf  ZEVO_BW_PROTOCOL_ALL is refused; a state of NotExisted is turned into disabled,
 *               here and in the file: a policy that was read without being stored and is written
 *               back switches the limits off
 * @return       0, or -1 on failure, the stored policy as it was
 * Errors:  as ZEVOBandwidthConfSetByID().
 * Threads: any; writers of the file wait for each other. Runs and awaits a program.
 */
ZEVO_BW_API int ZEVOBandwidthGlobalConfSet(ZEVO_BANDWIDTH_GLOBAL_CONF *pConf) ZEVO_BW_NOEXCEPT;

/* ---- rules and policies as tables ----
 *
 * A value without a name prints as "-".
 * @param pConf  the record
 * @return       0, or -1 with nothing written; whether the stream took it, ferror() and fflush()
 *               tell
 * Errors:  0x0D00, 0x0200, or as the user database left them.
 * Threads: any; the stream's own lock keeps lines whole.
 */

/** Prints the header of a table of rules. */
ZEVO_BW_API int ZEVOBandwidthConfDumpHeader(FILE *fp) ZEVO_BW_NOEXCEPT;

/**
 * Prints a rule as a line: state, protocol, owner type, owner's name, and the rates in force (KB/s)
 * as it was last evaluated: 0 in a record that comes straight from ZEVOBandwidthConfGetByID().
 * Errors:  0x0D00, 0x0200; 0xD900 an owner who is neither user nor group; otherwise as the user
 *          database left them: an owner whom it does not know fails.
 */
ZEVO_BW_API int ZEVOBandwidthConfDump(FILE *fp, const ZEVO_BANDWIDTH_CONF *pConf) ZEVO_BW_NOEXCEPT;

/** Prints the header of a table of policies. */
ZEVO_BW_API int ZEVOBandwidthGlobalConfDumpHeader(FILE *fp) ZEVO_BW_NOEXCEPT;

/**
 * Prints a policy as a line: state, protocol, the three policies and the plan.
 * Errors:  0x0D00, 0x0200; for a protocol without a name those of ZEVOBandwidthEnumToName().
 */
ZEVO_BW_API int
ZEVOBandwidthGlobalConfDump(FILE *fp, const ZEVO_BANDWIDTH_GLOBAL_CONF *pConf) ZEVO_BW_NOEXCEPT;

/* ---- effective configuration ---- */

/**
 * Works out which rules bear on a user for one protocol, as of now.
 * @param uid            user; (uid_t)-1 is refused
 * @param protocol_type  one protocol; ZEVO_BW_PROTOCOL_ALL is refused
 * @param pConfig        out, handed in zero-filled
 * @return               0, or -1 on failure; ZEVOBandwidthConfigFree() may be called either way
 * Errors:    0x0D00, 0x0200; otherwise as the rule files or the user database left them.
 * Ownership: release with ZEVOBandwidthConfigFree().
 * Threads:   any. Reads files and the user database, takes no lock.
 */
ZEVO_BW_API int ZEVOBandwidthConfigGet(uint32_t uid, int32_t protocol_type,
                                       ZEVO_BANDWIDTH_CONFIG *pConfig) ZEVO_BW_NOEXCEPT;

/**
 * Releases pLimit and zeroes the record.
 * @param pConfig  NULL does nothing
 */
ZEVO_BW_API void ZEVOBandwidthConfigFree(ZEVO_BANDWIDTH_CONFIG *pConfig) ZEVO_BW_NOEXCEPT;

/**
 * Builds the list of rules that bear on a user: his own first, then those of his groups in the
 * order of the user database; only rules that are enabled or on a schedule.
 * @param pGlobalConf       its protocolType and userGroupPolicy count
 * @param ppLimit           out: a new array, NULL when there is no rule; untouched on failure
 * @param pblUserConfExist  out: 1 when the user's own rule is in, else 0
 * @param pblGroupConfExist out: 1 when a group's rule is in, else 0
 * @return                  number of entries, or -1 on failure
 * Errors:    0x0D00, 0x0200, 0x4000; otherwise as the rule files or the user database left them.
 * Ownership: release *ppLimit with free(), or through ZEVOBandwidthConfigFree().
 * Threads:   any.
 */
ZEVO_BW_API int ZEVOBandwidthLimitInit(uint32_t uid, const ZEVO_BANDWIDTH_GLOBAL_CONF *pGlobalConf,
                                       ZEVO_BANDWIDTH_LIMIT **ppLimit, uint32_t *pblUserConfExist,
                                       uint32_t *pblGroupConfExist) ZEVO_BW_NOEXCEPT;

/**
 * Evaluates states and plans at a moment of local time, filling currentState and the current rates.
 * @param pConfig  must not be NULL
 * @param timeUs   microseconds since the epoch, 0 for now
 * @return         1 when anything in it is on a schedule, else 0
 * Threads: any.
 */
ZEVO_BW_API int ZEVOBandwidthInitConfig(ZEVO_BANDWIDTH_CONFIG *pConfig,
                                        int64_t timeUs) ZEVO_BW_NOEXCEPT;

/**
 * Says whether some rule of the configuration is in force as last evaluated.
 * @return  1 when one is, else 0 (NULL included)
 */
ZEVO_BW_API int
ZEVOBandwidthIsUserGroupLimitEnable(const ZEVO_BANDWIDTH_CONFIG *pConfig) ZEVO_BW_NOEXCEPT;

/**
 * Says whether the protocol's limits are not switched off as last evaluated, and there is any
 * entry.
 * @return  1 when that is so, else 0 (NULL included)
 */
ZEVO_BW_API int
ZEVOBandwidthConfCheckEnabled(const ZEVO_BANDWIDTH_CONFIG *pConfig) ZEVO_BW_NOEXCEPT;

/**
 * Lists the groups that the transfer is charged to: those of weight other than 0.
 * @param pOccGroups   out, room for 1024 ids; must not be NULL
 * @param piOccGroups  out: number of ids, at most 1024: further groups are left out
 * @return             0, or -1 on failure
 * Errors:  0x0D00.
 * Threads: any.
 */
ZEVO_BW_API int ZEVOBandwidthOccGroupsGet(uint32_t *pOccGroups, int32_t *piOccGroups,
                                          const ZEVO_BANDWIDTH_CONFIG *pConfig) ZEVO_BW_NOEXCEPT;

/** Most ids that ZEVOBandwidthOccGroupsGet() hands out. */
#define ZEVO_BW_MOST_OCC_GROUPS 1024

/* ---- expected speed ---- */

/**
 * Works out what one rule leaves a transfer beside the others that run under it: what they leave of
 * its rate, and never less than an equal share (the rate split among the users, then among the
 * user's transfers).
 * @param uid            transferring user
 * @param pConf          the rule, evaluated
 * @param transfer_type  upload or download; ZEVO_BW_TRANSFER_ALL is refused
 * @param pMaxSpeedBps   out: bytes/s, 0 unlimited
 * @param pid            calling process; its own transfers do not count against it
 * @return               0, or -1 on failure
 * Errors:  0x0D00; otherwise as ZEVOBandwidthStatusGetAll().
 * Threads: any. Reads the owner's status file and purges stale sections from it.
 */
ZEVO_BW_API int ZEVOBandwidthExpectSpeedEstimate(uint32_t uid, const ZEVO_BANDWIDTH_CONF *pConf,
                                                 int32_t transfer_type, uint64_t *pMaxSpeedBps,
                                                 pid_t pid) ZEVO_BW_NOEXCEPT;

/**
 * Works out the speed of a transfer under all rules and the policies, and writes maxSpeedBps and
 * occupyWeight of the configuration's entries.
 * @param transfer_type     upload or download; ZEVO_BW_TRANSFER_ALL is refused
 * @param pSpeedBps         out: bytes/s, 0 unlimited
 * @param blCountTransfers  1 to share with the running transfers, anything else for the bare rates
 * @return                  0, or -1 on failure, entries visited before it already rewritten
 * Errors:  0x0D00; otherwise as ZEVOBandwidthExpectSpeedEstimate(), or none for an unknown policy.
 * Threads: any; pConfig must not be used by two at once. With blCountTransfers 1 reads files.
 */
ZEVO_BW_API int ZEVOBandwidthExpectSpeedEstimateByPolicy(int32_t transfer_type,
                                                         ZEVO_BANDWIDTH_CONFIG *pConfig,
                                                         uint64_t *pSpeedBps,
                                                         int32_t blCountTransfers) ZEVO_BW_NOEXCEPT;

/* ---- status records and files ---- */

/**
 * ZEVOBandwidthInitHashFromConf() for a status.
 * @param pStatus  the record
 */
ZEVO_BW_API int
ZEVOBandwidthInitHashFromStatus(struct VLIB_SZ_HASH **ppHash,
                                const ZEVO_BANDWIDTH_STATUS *pStatus) ZEVO_BW_NOEXCEPT;

/**
 * ZEVOBandwidthInitConfFromHash() for a status. "pid" and "timestamp" ignore trailing text, the
 * unsigned numbers fail on it.
 * @param pStatus  the record, in and out
 */
ZEVO_BW_API int ZEVOBandwidthInitStatusFromHash(ZEVO_BANDWIDTH_STATUS *pStatus,
                                                const struct VLIB_SZ_HASH *pHash) ZEVO_BW_NOEXCEPT;

/**
 * Saves a transfer into its user's status file and the files of the groups it is charged to, making
 * "/tmp/bandwidth/" (0777) and the files (0666) at need.
 * @param uid      transferring user; (uid_t)-1 is refused
 * @param pConfig  may be NULL: then only the user's file is written
 * @param pStatus  changed for the group copies and restored before the return
 * @return         0, or -1 on failure; the user's copy may be written already
 * Errors:  0x0D00, 0x0200, 0x0900, 0x0A00, 0x0B00, 0x2700, 0x2800, or the platform's.
 * Threads: any. While the directory or a file is being made the process's creation mask is cleared,
 *          one thread at a time; nothing else in the process should create files in that moment.
 *          No lock: of two processes that rewrite a file at once one may have to save again.
 */
ZEVO_BW_API int ZEVOBandwidthStatusSave(uint32_t uid, const ZEVO_BANDWIDTH_CONFIG *pConfig,
                                        ZEVO_BANDWIDTH_STATUS *pStatus) ZEVO_BW_NOEXCEPT;

/**
 * Replaces a section of a status file; its comments stay, after the new lines. The file keeps its
 * permission bits (0777 of them) and is replaced whole.
 * @return  1 replaced; 0 not present, which records 0x2000 and leaves the file; -1 on failure, the
 *          file as it was
 * Errors:  0x0D00; 0x0900 cannot be opened: missing, a link, not a regular file, above 64 MiB, or
 *          no temporary file can be made; 0x0200, 0x0A00, 0x0B00, 0x2700, 0x2800.
 * Threads: any. Waits for another process that is replacing the file, some 25 ms at most in all, and
 *          starts over, at most five times, when one was faster.
 */
ZEVO_BW_API int ZEVOBandwidthStatusSetSection(const char *szFile, const char *szSection,
                                              const struct VLIB_SZ_HASH *pHash) ZEVO_BW_NOEXCEPT;

/**
 * Drops a section of a status file but for its comments; otherwise as
 * ZEVOBandwidthStatusSetSection().
 * @return  1 removed; 0 not present, which records 0x2000 and leaves the file; -1 on failure, the
 *          file as it was
 */
ZEVO_BW_API int ZEVOBandwidthStatusRemoveSection(const char *szFile,
                                                 const char *szSection) ZEVO_BW_NOEXCEPT;

/**
 * Appends a section to a status file in one write, on a line of its own; makes the file at need. A
 * process that dies meanwhile may leave a part of it. The hash of ZEVOBandwidthInitHashFromStatus()
 * ends with the time stamp, so that such a part counts as stale; one that lacks nothing but its
 * last line end is whole.
 * @return  1 written, 0 already present, -1 on failure: a failed write may leave a part of it
 * Errors:  0x0D00 (not logged), 0x0900, 0x0B00, 0x0200; none when reading fails.
 * Threads: any. Waits and starts over as ZEVOBandwidthStatusSetSection().
 */
ZEVO_BW_API int ZEVOBandwidthStatusAddSection(const char *szFile, const char *szSection,
                                              const struct VLIB_SZ_HASH *pHash) ZEVO_BW_NOEXCEPT;

/**
 * Lists the running transfers in one status file, the file's last section first. Sections more than
 * 30 seconds old are removed from the file, whatever the masks, in one rewrite; one that has been
 * saved again meanwhile stays.
 *
 * DANGER: a path with a "." anywhere in it is taken for a leftover temporary file: it is deleted
 * when it was last modified more than 10 seconds ago, and 0 is returned.
 * @param szStatusFile   path of a status file
 * @param protocol_mask  a record passes when its protocol number has a bit in common; add-on
 *                       numbers are no bits but are compared the same way; -1 passes all but 0
 * @param transfer_mask  likewise; 3 for both directions
 * @param pStatusList    in: address of a NULL head; out: the list, untouched when nothing is found
 * @param blMerge        1 gives one record for each protocol and direction with the sums of the
 *                       speeds (0, unlimited, as soon as one is)
 * @return               number of records, or -1 on failure
 * Errors:    0x0D00, 0x0200, or the platform's; a section that cannot be read is logged, no more.
 *            After 64 log lines about a file it is said once that the rest is left out, and after
 *            64 searches for add-ons a name that was not found before counts as unknown.
 * Ownership: release with ZEVOBandwidthStatusListFree().
 * Threads:   any.
 */
ZEVO_BW_API int ZEVOBandwidthIStatusGetAll(const char *szStatusFile, int32_t protocol_mask,
                                           uint32_t transfer_mask,
                                           ZEVO_BANDWIDTH_STATUS **pStatusList,
                                           int32_t blMerge) ZEVO_BW_NOEXCEPT;

/** ZEVOBandwidthIStatusGetAll() on an owner's status file, unmerged. */
ZEVO_BW_API int ZEVOBandwidthStatusGetAll(int32_t owner_type, uint32_t id, int32_t protocol_mask,
                                          uint32_t transfer_mask,
                                          ZEVO_BANDWIDTH_STATUS **pStatusList) ZEVO_BW_NOEXCEPT;

/**
 * Releases a list and sets its head to NULL.
 * @param pStatusList  must not be NULL, the head may
 */
ZEVO_BW_API void ZEVOBandwidthStatusListFree(ZEVO_BANDWIDTH_STATUS **pStatusList) ZEVO_BW_NOEXCEPT;

/**
 * Reads the section of one process and direction from an owner's status file, however old it is.
 * @param pid            (pid_t)-1 is refused
 * @param transfer_type  upload or download; ZEVO_BW_TRANSFER_ALL is refused
 * @param pStatus        out; fields whose keys the section lacks stay as they are
 * @return               0, or -1 when there is none or on failure
 * Errors:  0x0D00, 0x4000, or the platform's; none of its own when the file or section is missing.
 * Threads: any.
 */
ZEVO_BW_API int ZEVOBandwidthIStatusGet(int32_t owner_type, uint32_t id, pid_t pid,
                                        int32_t transfer_type,
                                        ZEVO_BANDWIDTH_STATUS *pStatus) ZEVO_BW_NOEXCEPT;

/** ZEVOBandwidthIStatusGet() for the calling process. */
ZEVO_BW_API int ZEVOBandwidthStatusGet(int32_t owner_type, uint32_t id, int32_t transfer_type,
                                       ZEVO_BANDWIDTH_STATUS *pStatus) ZEVO_BW_NOEXCEPT;

/**
 * Prints one transfer as a line of a table without a header: owner of the copy, protocol,
 * direction, process, time of the last save, allowed and measured speed in KB/s, progress in
 * percent, file name. The file name is printed as it is: it may hold anything but NUL. A protocol
 * or direction without a name prints as "-"; whoever is no user is looked up among the groups. The
 * decimal point is a point in every locale.
 * @param fp  byte-oriented
 * @return    0, or -1 with nothing written; whether the stream took it, ferror() tells
 * Errors:  0x0D00, 0x0200; an owner whom the user database does not know fails, too.
 * Threads: any.
 */
ZEVO_BW_API int ZEVOBandwidthStatusDump(FILE *fp,
                                        const ZEVO_BANDWIDTH_STATUS *pStatus) ZEVO_BW_NOEXCEPT;

/* ---- the end of transfers, stopping them ----
 *
 * Each stops at its first failure; what was removed stays removed. A file or a section that is not
 * there is no failure.
 * @return  0, or -1 on failure
 * Errors:  0x0D00, 0x4000 a malformed group id, or as the files and the user database left them.
 * Threads: any.
 */

/** Removes the calling process's sections from the user's file and those of the groups charged, as
 *  the configuration was last estimated: where a size estimate, which goes by the bare rates, came
 *  after the last save, another group may keep its copy until it is stale.
 *  ZEVOBandwidthStatusForceRemoveAllByUID() finds that one, unless the user has left the group. */
ZEVO_BW_API int ZEVOBandwidthStatusRemove(const ZEVO_BANDWIDTH_CONFIG *pConfig,
                                          uint32_t transfer_mask) ZEVO_BW_NOEXCEPT;

/**
 * Removes the calling process's sections from the files of some groups.
 * @param pOccGroups  their ids
 * @param iOccGroups  number of ids
 */
ZEVO_BW_API int ZEVOBandwidthStatusRemoveByOccGroups(const uint32_t *pOccGroups, int32_t iOccGroups,
                                                     uint32_t transfer_mask) ZEVO_BW_NOEXCEPT;

/** Removes a process's sections from the user's file and those of all groups he belongs to, without
 *  asking the rules. */
ZEVO_BW_API int ZEVOBandwidthStatusForceRemoveAllByUserName(const char *szUserName,
                                                            uint32_t transfer_mask,
                                                            pid_t pid) ZEVO_BW_NOEXCEPT;

/** ZEVOBandwidthStatusForceRemoveAllByUserName() for the calling process, the user given by id. */
ZEVO_BW_API int ZEVOBandwidthStatusForceRemoveAllByUID(uint32_t uid,
                                                       uint32_t transfer_mask) ZEVO_BW_NOEXCEPT;

/**
 * Sets a transfer's active flag in its user's file; 0 makes its next throttle call fail with
 * 0x0300. A save of another transfer that races with this one may undo it: read it back.
 * @param active  0 stops it, 1 lets it go on
 * @return        0, or -1 on failure, also when the process has no such transfer
 */
ZEVO_BW_API int ZEVOBandwidthStatusSetActiveByUserName(const char *szUserName,
                                                       int32_t transfer_type, pid_t pid,
                                                       int32_t active) ZEVO_BW_NOEXCEPT;

/* ---- the life of a transfer ---- */

/**
 * Registers a transfer of the calling process before its first block. Uploads of one process and
 * user share one section, and so do its downloads; in the file of a group even those for several of
 * its members.
 * @param pConfig        the user's configuration; its entries are rewritten
 * @param transfer_type  upload or download
 * @param szFileName     cut to 4095 characters
 * @param pTime          out: start of the first block; untouched when nothing limits the transfer
 * @param pStatus        out: filled, also when nothing is saved because nothing is limited
 * @return               0, or -1 on failure
 * Errors:  0x0D00 (a NULL configuration is refused first); otherwise as the estimate or the save.
 * Threads: any.
 */
ZEVO_BW_API int ZEVOBandwidthStatusInit(ZEVO_BANDWIDTH_CONFIG *pConfig, int32_t transfer_type,
                                        const char *szFileName, uint64_t *pTime,
                                        ZEVO_BANDWIDTH_STATUS *pStatus) ZEVO_BW_NOEXCEPT;

/**
 * Says how large the next block may be: at most five seconds' worth of the configured speed.
 * @param requestBytes    size the service would like
 * @param pTransferBytes  out: size it may use
 * @return                0, or -1 on failure
 * Errors:  0x0D00; none of its own when the policies are unknown.
 * Threads: any; writes into pConfig's entries. Reads no file.
 */
ZEVO_BW_API int ZEVOBandwidthTransferSizeEstimate(ZEVO_BANDWIDTH_CONFIG *pConfig,
                                                  int32_t transfer_type, uint64_t requestBytes,
                                                  uint64_t *pTransferBytes) ZEVO_BW_NOEXCEPT;

/**
 * Sleeps off what a block was too fast, and saves the transfer; to be called after each block. A
 * signal cuts the sleep short. Without a stored policy, and where no limit falls to the transfer,
 * it returns at once and leaves *pTimeLast as it is.
 * @param bytes      moved since the previous call
 * @param progress   stored as it is, ten-thousandths by custom
 * @param pTimeLast  in: end of the previous block, microseconds; out: end of this one
 * @param pStatus    the transfer's record
 * @return           0 to go on; -1 to stop: 0x0300 means stopped from outside, all else an error
 * Errors:  0x0D00, 0x0300; otherwise as the estimate, the removal or the save.
 * Threads: any; sleeps. The hour of the last look at the plans is one for the whole process: only
 *          the configuration of the first call in another hour of the day is evaluated anew. A
 *          process with several calls ZEVOBandwidthInitConfig(&config, 0) on the others.
 */
ZEVO_BW_API int ZEVOBandwidthSleepInLoop(ZEVO_BANDWIDTH_CONFIG *pConfig, uint64_t bytes,
                                         uint32_t progress, uint64_t *pTimeLast,
                                         ZEVO_BANDWIDTH_STATUS *pStatus) ZEVO_BW_NOEXCEPT;

/* ---- clock, speed and sleep ----
 *
 * They have no state and cannot fail.
 * Threads: any.
 * Signals: may be called from a signal handler.
 */

/**
 * Reads the wall clock.
 * @return  microseconds since the epoch; 0 when it cannot be read
 */
ZEVO_BW_API uint64_t ZEVOBandwidthCurrTimeGet(void) ZEVO_BW_NOEXCEPT;

/**
 * Works out the speed of a block.
 * @param elapsedUs  microseconds since the block began; 0 or less counts as 1
 * @return           bytes per second
 */
ZEVO_BW_API uint64_t ZEVOBandwidthSpeedEstimate(int64_t elapsedUs, uint64_t bytes) ZEVO_BW_NOEXCEPT;

/**
 * Works out how long to sleep so that a block has taken its time.
 * @param elapsedUs  microseconds since the block began; 0 or less counts as 1
 * @return           microseconds; 0 when it took that long already, or speedBps is unlimited
 */
ZEVO_BW_API int64_t ZEVOBandwidthSleepEstimate(int64_t elapsedUs, uint64_t bytes,
                                               uint64_t speedBps) ZEVO_BW_NOEXCEPT;

/**
 * Compares two speeds, of which 0, unlimited, is above every other.
 * @param a  bytes/s
 * @param b  bytes/s
 * @return   1 when a is below b, else 0
 */
ZEVO_BW_API int ZEVOBandwidthIsLessThan(uint64_t a, uint64_t b) ZEVO_BW_NOEXCEPT;

/**
 * ZEVOBandwidthIsLessThan() for the other way round.
 * @return  1 when a is above b, else 0
 */
ZEVO_BW_API int ZEVOBandwidthIsLargerThan(uint64_t a, uint64_t b) ZEVO_BW_NOEXCEPT;

/**
 * Adds two speeds or rates.
 * @param a  0 unlimited
 * @param b  0 unlimited
 * @return   a + b, which may wrap; 0, unlimited, when one of them is 0
 */
ZEVO_BW_API uint64_t ZEVOBandwidthSum(uint64_t a, uint64_t b) ZEVO_BW_NOEXCEPT;

/* ---- notices that limits have changed ---- */

/**
 * Sends SIGHUP to the web file manager's workers, found by the first word of their command line.
 * Reports nothing.
 */
ZEVO_BW_API void ZEVOBandwidthHupDocuhall(void) ZEVO_BW_NOEXCEPT;

/**
 * Sends SIGUSR2 to the WebDAV server's process group.
 * @return  0; the pid file's 0 or less when there is no server; -1 with errno when the signal
 *          cannot be sent
 */
ZEVO_BW_API int ZEVOBandwidthHupWebDAV(void) ZEVO_BW_NOEXCEPT;

/**
 * Has "/usr/bin/killall" send SIGHUP to the processes named "zevobandwidth".
 * @return  the program's exit status, 0 when it found one; 128 + the signal that ended it; -1 when
 *          it could not be run
 * Errors:  0x0900 the program could not be run.
 * Threads: any; runs and awaits a program.
 */
ZEVO_BW_API int ZEVOBandwidthHupSimulator(void) ZEVO_BW_NOEXCEPT;

/**
 * Reads a transfer's limits anew after a notice. A service's SIGHUP handler only sets a flag; its
 * loop clears the flag before the next block and calls this. After a failure the service may go on:
 * the old limits hold. Without SA_RESTART the service's own reads and writes end with EINTR, too.
 * @param pConfig  in and out: replaced on success, kept on failure
 * @param pStatus  the transfer's record; its protocol_type and transfer_type count
 * @param pTime    out: now, also on failure after the argument check
 * @return         0, or -1 on failure
 * Errors:  0x0D00; otherwise as the removal or ZEVOBandwidthConfigGet().
 * Threads: any.
 */
ZEVO_BW_API int ZEVOBandwidthHupRecv(ZEVO_BANDWIDTH_CONFIG *pConfig,
                                     const ZEVO_BANDWIDTH_STATUS *pStatus,
                                     uint64_t *pTime) ZEVO_BW_NOEXCEPT;

/* ---- preview and simulation ---- */

/**
 * Works out the speeds at which a transfer of the user would be held if no other were running. A
 * protocol without a stored policy is not limited, yet the rates of its rules are given: ask
 * ZEVOBandwidthGlobalConfGet() for the difference.
 * @param uid            user; (uid_t)-1 is refused
 * @param protocol_type  one protocol; ZEVO_BW_PROTOCOL_ALL is refused
 * @param pSpeedBps      out: array of three, indexed by ZEVO_BW_TRANSFER_TYPE: [1] receives the
 *                       upload, [2] the download speed in bytes/s, 0 unlimited; [0] stays as it is
 * @return               0, or -1; when only the download fails, [1] is written
 * Errors:  as ZEVOBandwidthConfigGet() and ZEVOBandwidthExpectSpeedEstimateByPolicy(); 0x0D00 for a
 *          NULL array.
 * Threads: any.
 */
ZEVO_BW_API int ZEVOBandwidthPreview(uint32_t uid, int32_t protocol_type,
                                     uint64_t *pSpeedBps) ZEVO_BW_NOEXCEPT;

/**
 * Plays out a transfer without data, in blocks of 64 KB: it sleeps, is listed and shares the limits
 * as a real one would. Replaces the process's SIGHUP handler for good, so that the library must
 * stay loaded; a process named "zevobandwidth" is reached by ZEVOBandwidthHupSimulator().
 * @param szUserName     transferring user
 * @param protocol_type  one protocol; ZEVO_BW_PROTOCOL_ALL is refused
 * @param transfer_type  upload or download, nothing else
 * @param sizeKB         size in KB; 0 registers the transfer and removes it again
 * @return               0 when it was played out; -1 on failure, also when it was stopped: its
 *                       sections may be left then, and go stale
 * Errors:  as the functions of a transfer's life, or as the user database left them.
 * Threads: any, one at a time in a process; returns when the transfer is over. A notice that
 *          another thread receives is taken with the next block only.
 */
ZEVO_BW_API int ZEVOBandwidthSimulate(const char *szUserName, int32_t protocol_type,
                                      int32_t transfer_type, uint64_t sizeKB) ZEVO_BW_NOEXCEPT;

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* ZEVOBANDWIDTH_H */
