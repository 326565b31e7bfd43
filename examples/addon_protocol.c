/*
 * Adds a protocol: announces it, switches limits on for it and gives a user a rate.
 *
 *     cc -std=c99 -o addon_protocol addon_protocol.c $(pkg-config --cflags --libs zevobandwidth)
 *     sudo ./addon_protocol backup 32 "$USER" 512
 *     zevobandwidth addon list
 *     tar c photos | zevobandwidth pipe -p backup -d upload >photos.tar
 *
 * A file NAME_NUMBER.json announces an add-on. Only its name counts; the add-on may store in it what
 * it likes. The program makes the file's directory inside that of the rules, which exists as soon as
 * an administrator has stored a rule or a policy. A service then uses NUMBER with
 * ZEVOBandwidthConfigGet() like a built-in protocol. The package of a real service installs the file
 * and leaves the policy and the rules to the administrator.
 */
#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <fcntl.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <zevobandwidth.h>

#define ADDON_DIRECTORY "/usr/zevo/etc/bandwidth/addon"

static int Fail(const char *szWhat, const char *szWhy)
{
    fprintf(stderr, "addon_protocol: %s: %s\n", szWhat, szWhy);
    return 1;
}

/* Running transfers are counted by the bits that their protocols' numbers have in common. A number
 * that is one bit above the built-in ones has no bit in common with any other. */
static int IsUsable(const char *szName, long number)
{
    const int isOneBit = (number & (number - 1)) == 0;
    return szName[0] != '\0' && strpbrk(szName, "/_*?[]\\.") == NULL &&
           strcmp(szName, "global") != 0 && number <= INT32_MAX && number > ZEVO_BW_PROTOCOL_ALL &&
           isOneBit;
}

/* Writes the file, unless it exists, and checks that the library finds the name by the number. If
 * not, removes the file that it wrote. */
static int Announce(const char *szName, int32_t number)
{
    char szPath[ZEVO_BW_FILENAME_SIZE], szFound[256] = "";
    int fd = -1;
    (void)snprintf(szPath, sizeof szPath, "%s/%s_%d.json", ADDON_DIRECTORY, szName, (int)number);
    if (mkdir(ADDON_DIRECTORY, 0755) != 0 && errno != EEXIST)
        return Fail(ADDON_DIRECTORY, strerror(errno));
    fd = open(szPath, O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0644);
    if (fd < 0 && errno != EEXIST) return Fail(szPath, strerror(errno));
    if (ZEVOBandwidthEnumToValue(ZEVO_BW_PROTOCOL_TYPE_LIST, szName) == number &&
        ZEVOBandwidthEnumToName(ZEVO_BW_PROTOCOL_TYPE_LIST, number, szFound, sizeof szFound) == 1 &&
        strcmp(szFound, szName) == 0)
        return 0; /* an open descriptor ends with us */
    if (fd >= 0) (void)remove(szPath);
    return Fail(szName, "the name or the number is taken already");
}

static int Enable(int32_t protocol)
{
    ZEVO_BANDWIDTH_GLOBAL_CONF policy = {0};
    if (ZEVOBandwidthGlobalConfGet(protocol, &policy) < 0) return -1;
    policy.state = ZEVO_BW_STATE_ENABLED;
    return ZEVOBandwidthGlobalConfSet(&policy);
}

static int Allow(int32_t protocol, uid_t uid, uint64_t rateKBps)
{
    ZEVO_BANDWIDTH_CONF rule = {0};
    if (ZEVOBandwidthConfGetByID(ZEVO_BW_OWNER_USER, uid, protocol, &rule) < 0) return -1;
    rule.state = ZEVO_BW_STATE_ENABLED;
    rule.uploadRate = rule.downloadRate = rateKBps;
    return ZEVOBandwidthConfSetByID(&rule);
}

int main(int argc, char *argv[])
{
    const struct passwd *const user = argc == 5 ? getpwnam(argv[3]) : NULL;
    const long number = argc == 5 ? strtol(argv[2], NULL, 10) : 0;
    const long long rateKBps = argc == 5 ? strtoll(argv[4], NULL, 10) : 0;
    if (user == NULL || rateKBps <= 0)
        return Fail("usage: addon_protocol NAME NUMBER USER KB/S",
                    argc == 5 ? "no such user, or no rate above 0" : "four words are needed");
    if (!IsUsable(argv[1], number))
        return Fail("not usable", "take a name of letters and a number such as 16, 32 or 64");
    if (Announce(argv[1], (int32_t)number) != 0) return 1;
    if (Enable((int32_t)number) < 0 || Allow((int32_t)number, user->pw_uid, (uint64_t)rateKBps) < 0)
        return Fail("the policy or the rule cannot be written", "see the system log");
    printf("%s is protocol %ld; %s may move %lld KB/s by it\n", argv[1], number, argv[3], rateKBps);
    return 0;
}
