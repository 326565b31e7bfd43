/*
 * Lists the running transfers of users.
 *
 *     cc -std=c99 -o running_transfers running_transfers.c \
 *         $(pkg-config --cflags --libs zevobandwidth)
 *     ./running_transfers alice bob
 *
 * Only transfers that a limit applies to are listed. Every local user can write to the status files:
 * the program only shows their content, and a file name may hold any byte.
 */
#define _POSIX_C_SOURCE 200809L

#include <inttypes.h>
#include <pwd.h>
#include <stdio.h>

#include <zevobandwidth.h>

static const int32_t EVERY_PROTOCOL = -1; /* numbers of add-ons are no bits */

static const char *NameOf(const ZEVO_BW_ENUM_ENTRY *list, uint32_t value, char *szName, int cbName)
{
    return ZEVOBandwidthEnumToName(list, (int32_t)value, szName, cbName) == 1 ? szName : "-";
}

static void PrintLine(const char *szUser, const ZEVO_BANDWIDTH_STATUS *pStatus)
{
    char szProtocol[64], szDirection[16];
    const char *at = pStatus->filename;
    printf("%-12s %-10s %-9s %8d ", szUser,
           NameOf(ZEVO_BW_PROTOCOL_TYPE_LIST, pStatus->protocol_type, szProtocol, 64),
           NameOf(ZEVO_BW_TRANSFER_TYPE_LIST, pStatus->transfer_type, szDirection, 16),
           (int)pStatus->pid);
    printf("%10" PRIu64 " of %10" PRIu64 " KB/s %6.2f %%  ", pStatus->current_speed / 1024,
           pStatus->expect_speed / 1024, pStatus->progress / 100.0);
    for (; *at != '\0'; ++at) /* a terminal obeys control characters */
        putchar((unsigned char)*at < ' ' || *at == 127 ? '?' : *at);
    puts(pStatus->active ? "" : "  (stopped)");
}

static int List(const char *szUser)
{
    const struct passwd *const user = getpwnam(szUser);
    ZEVO_BANDWIDTH_STATUS *pList = NULL;
    const ZEVO_BANDWIDTH_STATUS *pStatus = NULL;
    if (user == NULL) {
        fprintf(stderr, "running_transfers: there is no user %s\n", szUser);
        return -1;
    }
    if (ZEVOBandwidthStatusGetAll(ZEVO_BW_OWNER_USER, user->pw_uid, EVERY_PROTOCOL,
                                  ZEVO_BW_TRANSFER_ALL, &pList) < 0) {
        fprintf(stderr, "running_transfers: those of %s cannot be read, see the system log\n",
                szUser);
        return -1;
    }
    for (pStatus = pList; pStatus != NULL; pStatus = pStatus->next)
        PrintLine(szUser, pStatus);
    ZEVOBandwidthStatusListFree(&pList);
    return 0;
}

int main(int argc, char *argv[])
{
    int status = 0;
    int i = 1;
    if (argc < 2) {
        fputs("usage: running_transfers USER...\n", stderr);
        return 2;
    }
    for (; i < argc; ++i)
        if (List(argv[i]) < 0) status = 1;
    return status;
}
