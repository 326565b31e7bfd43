/**
 * zevocore: the platform's core library, libzevocore.so.7.
 *
 * String hashes, string lists, section files, the error slot, running a program, pid files and the
 * groups of a user. It knows nothing of bandwidth. C99 and C++. Any thread may call any function; only
 * one thread at a time may use an object. No function throws or prints.
 *
 * Section files. A text file of named sections:
 *
 *     # a comment: ';' or '#' is the first character of the line
 *     [user-1026]
 *     state=enabled
 *     upload rate=500
 *     note=" blanks at the ends, \n, \", \\ and \x07 need quotes "
 *
 * A header is a line that begins with '[' and holds a name and its ']'; a section runs to the next
 * header or the end of the file. Names, keys and values are any bytes but NUL. Where a reader would
 * misread one (control bytes, bytes that are no UTF-8, blanks at the ends, and what looks like a
 * header, a comment, a quote or a separator) it stands in double quotes with the escapes \\ \" \n \r
 * \t \xHH. Blanks around an unquoted name, key or value do not count. Readers pass over any other
 * line, writers keep it. The last line of a file may lack its line end.
 */
#ifndef ZEVOCORE_H
#define ZEVOCORE_H

#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>

#if defined(__GNUC__)
#define ZEVOCORE_API __attribute__((visibility("default")))
#else
#define ZEVOCORE_API
#endif

#ifdef __cplusplus
#define ZEVOCORE_NOEXCEPT noexcept
extern "C" {
#else
#define ZEVOCORE_NOEXCEPT
#endif

/* ---- string hash: keys and values are NUL-terminated texts, both copied in ---- */

struct VLIB_SZ_HASH;
typedef struct VLIB_SZ_HASH VLIB_SZ_HASH;

/** A new, empty hash with room for about size keys (a hint, 0 or more); NULL without memory. */
ZEVOCORE_API VLIB_SZ_HASH *VLIBCSzHashAlloc(int size) ZEVOCORE_NOEXCEPT;

/** Releases a hash and everything in it; NULL does nothing. */
ZEVOCORE_API void VLIBCSzHashFree(VLIB_SZ_HASH *pHash) ZEVOCORE_NOEXCEPT;

/**
 * Sets a key, replacing the value it had; pairs keep the order in which their keys were first set.
 * May put a larger hash in place of *ppHash. Returns 0, or -1 (0x0D00 for a null argument, 0x0200
 * without memory) with the hash unchanged.
 */
ZEVOCORE_API int VLIBCSzHashSetValue(VLIB_SZ_HASH **ppHash, const char *szKey,
                                     const char *szValue) ZEVOCORE_NOEXCEPT;

/** The key's value, owned by the hash until the key is set again or the hash is emptied or freed;
 *  NULL when the key is absent. */
ZEVOCORE_API const char *VLIBCSzHashGetValue(const VLIB_SZ_HASH *pHash,
                                             const char *szKey) ZEVOCORE_NOEXCEPT;

/** Empties the hash, which stays usable. Returns 0, or -1 for NULL. */
ZEVOCORE_API int VLIBCHashRemoveAll(VLIB_SZ_HASH *pHash) ZEVOCORE_NOEXCEPT;

/* ---- string list: read nItem, then items 0 to nItem - 1 ---- */

typedef struct VLIB_SZ_LIST {
    int32_t nItem;     /**< number of items */
    int32_t nCapacity; /**< items there is room for */
    char **ppszItem;   /**< the items; use VLIBCSzListGet() */
} VLIB_SZ_LIST;

/** A new, empty list with room for capacity items (a hint, 0 or more); NULL without memory. */
ZEVOCORE_API VLIB_SZ_LIST *VLIBCSzListAlloc(int capacity) ZEVOCORE_NOEXCEPT;

/** The item at index, owned by the list; NULL outside 0 to nItem - 1. */
ZEVOCORE_API const char *VLIBCSzListGet(const VLIB_SZ_LIST *pList, int index) ZEVOCORE_NOEXCEPT;

/** Releases a list and its items; NULL does nothing. */
ZEVOCORE_API void VLIBCSzListFree(VLIB_SZ_LIST *pList) ZEVOCORE_NOEXCEPT;

/* ---- section files ----
 *
 * Every operation opens the parent directory, without following a link at its last component, and
 * works relative to it. It follows no link at the file's own name, takes only regular files of at most
 * 8 MiB (else 0x0900), and waits for nothing but the lock named below. The errors are 0x0D00 null
 * argument, 0x0200 no memory, 0x0900 cannot be opened or created, 0x2700 fstat fails, 0x0A00 reading
 * fails, 0x0B00 writing, syncing or setting the mode fails, 0x2800 rename fails.
 */

/** Reads the first section of that name into *ppHash; other keys that the hash holds stay.
 *  Returns 1, 0 when the file has no such section (hash untouched), -1 on failure. */
ZEVOCORE_API int VLIBCFileGetSection(const char *szPath, const char *szSection,
                                     VLIB_SZ_HASH **ppHash) ZEVOCORE_NOEXCEPT;

/**
 * Replaces the pairs of a section by those of pHash, in their order. The section's comments stay;
 * everything outside it stays byte for byte; further sections of the same name go. The file is
 * replaced whole (temporary file, fsync, rename, fsync of the directory). Writers of one file wait for
 * each other: each holds a write lock, which needs write permission and ends with its process.
 * szReserved is NULL, flags 0.
 * Returns 1, 0 when the file has no such section (nothing written), -1 on failure (old file stays).
 */
ZEVOCORE_API int VLIBCFileSetSection(const char *szPath, const char *szSection,
                                     const char *szReserved, const VLIB_SZ_HASH *pHash,
                                     int flags) ZEVOCORE_NOEXCEPT;

/** Adds a section at the end, in the same way as VLIBCFileSetSection(), or replaces it if another
 *  writer has added it meanwhile. The file must exist. flags is 0. Returns 0, or -1 on failure. */
ZEVOCORE_API int VLIBCFileAddSection(const char *szPath, const char *szSection,
                                     const VLIB_SZ_HASH *pHash, int flags) ZEVOCORE_NOEXCEPT;

/**
 * Removes a section, also of a file that many processes rewrite without locking. The file is replaced
 * whole; when another process has replaced it first, the removal starts over, at most five times.
 * Returns 1, 0 when there was none (file untouched), -1 on failure.
 */
ZEVOCORE_API int VLIBCFileRemoveSection(const char *szPath,
                                        const char *szSection) ZEVOCORE_NOEXCEPT;

/**
 * Appends the names of a file's sections to *ppList in file order, each once.
 * Until the list is freed, VLIBCFileGetSection() answers the thread that called this from memory, if
 * it asks for the same path and for these sections in the order of the list: they count as they were
 * when the names were listed. A change of the file before the first of these reads is seen. Any other
 * read, any write to a section file, another enumeration and VLIBCFileExist() end this: later reads
 * open the file. No descriptor is kept.
 * Returns their number, or -1 on failure.
 */
ZEVOCORE_API int VLIBCFileEnumSection(const char *szPath, VLIB_SZ_LIST **ppList) ZEVOCORE_NOEXCEPT;

/** Writes a section's header and one line per pair at the stream's position. flags is 0.
 *  Returns 0, or -1 on failure. */
ZEVOCORE_API int VLIBCFileHash2File(FILE *pFile, const char *szSection, const VLIB_SZ_HASH *pHash,
                                    int flags) ZEVOCORE_NOEXCEPT;

/** 1 when the line (cbLine bytes, with or without its "\n") is a section header, else 0. */
ZEVOCORE_API int VLIBCIFileIsSection(const char *szLine, int cbLine) ZEVOCORE_NOEXCEPT;

/** 1 when the line is the header of that section, else 0. A name of printable ASCII characters other
 *  than quotes and backslashes stands in its header as it is, on any platform: a caller that searches
 *  a long file need only ask about lines that hold the name. */
ZEVOCORE_API int VLIBCIFileMatchSection(const char *szLine, int cbLine,
                                        const char *szSection) ZEVOCORE_NOEXCEPT;

/* ---- files and processes ---- */

/** 1 when something stands at the path, be it a dangling link, or when lstat() fails for any other
 *  reason than its absence: the next operation on the path tells that reason. Else 0. */
ZEVOCORE_API int VLIBCFileExist(const char *szPath) ZEVOCORE_NOEXCEPT;

/** Creates an empty file with mode 0666 less the creation mask, unless something stands at the path.
 *  Returns 0, or -1 (0x0900). */
ZEVOCORE_API int VLIBCFileTouch(const char *szPath) ZEVOCORE_NOEXCEPT;

/**
 * Runs a program and waits for its end: no shell, no PATH, /dev/null as its three standard streams, no
 * other descriptor, all signals at their defaults and none blocked. The arguments after szProgram end
 * at the first NULL. To the host it is a child like any other, and SIGCHLD tells of its end.
 * Returns its exit status 0 to 255, 128 + the signal that ended it, or -1 (0x0900) when it could not be
 * run. In a host that ignores SIGCHLD, or another part of which reaps the child first, the exit status
 * is lost: 0 then says that the program has run and ended.
 */
ZEVOCORE_API int VLIBCExec(const char *szProgram, const char *szArg1, const char *szArg2,
                           const char *szArg3, const char *szArg4) ZEVOCORE_NOEXCEPT;

/** The process id in a pid file; 0 for a missing file and for anything that is not one id above 1
 *  (1 handed to kill would reach every process). */
ZEVOCORE_API pid_t VLIBCReadPidFile(const char *szPath) ZEVOCORE_NOEXCEPT;

/** The decimal ids of the groups a user belongs to, the primary one included, from the system's
 *  user database; the caller frees the list. flags is 0. NULL on failure (0x0D00; 0x0200 when the
 *  database lacks memory or descriptors or cannot read the disk; 0x2000 for an unknown user). */
ZEVOCORE_API VLIB_SZ_LIST *VLIBGroupInfoListGet(const char *szUserName,
                                                int flags) ZEVOCORE_NOEXCEPT;

/* ---- error slot: the calling thread's last recorded error ---- */

/** Records an error: its code, and the source file (copied, no directory) and line that found it.
 */
ZEVOCORE_API void VLIBCErrSetEx(unsigned int code, const char *szFile, int line) ZEVOCORE_NOEXCEPT;

/** The recorded code; 0 before the thread's first error. */
ZEVOCORE_API unsigned int VLIBCErrGet(void) ZEVOCORE_NOEXCEPT;

/** The recorded source file name, "" at first; valid until the thread's next VLIBCErrSetEx(). */
ZEVOCORE_API const char *VLIBCErrorGetFile(void) ZEVOCORE_NOEXCEPT;

/** The recorded line; 0 at first. */
ZEVOCORE_API int VLIBCErrorGetLine(void) ZEVOCORE_NOEXCEPT;

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* ZEVOCORE_H */
