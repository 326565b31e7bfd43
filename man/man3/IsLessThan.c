/* The lower of two speeds, and their sum, of which 0 is unlimited. */
#include <inttypes.h>
#include <stdio.h>
#include <zevobandwidth.h>

int main(void)
{
    const uint64_t a = 4096;
    const uint64_t b = 0;

    printf("%" PRIu64 "\n", ZEVOBandwidthIsLessThan(a, b) ? a : b);
    printf("%" PRIu64 "\n", ZEVOBandwidthSum(a, b));
    return 0;
}
/* Prints:
4096
0
*/
