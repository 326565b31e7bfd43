/* Shows the add-on that announces a protocol. */
#include <stdio.h>
#include <zevobandwidth.h>

int main(int argc, char **argv)
{
    const char *szName = argc > 1 ? argv[1] : "backup";
    char szPath[4096];
    const int number = ZEVOBandwidthEnumToValueAddon(szName);

    if (number < 0 || ZEVOBandwidthGetAddonConfigPath(
                          number, szPath, sizeof(szPath)) < 0) {
        fprintf(stderr, "%s: no such add-on, or several\n", szName);
        return 1;
    }
    printf("%s is number %d, by %s\n", szName, number, szPath);
    return 0;
}
