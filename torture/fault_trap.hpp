// Makes single system calls and allocations of one function call fail, also those that libc makes for
// it, and those of the children that it clones until they have become another program.
//
// A filter of the kernel's hands every system call of the calling thread to a second thread of the
// same process, which lets it through, answers in its place, or makes it itself with a smaller count.
// Unlike a trap by signal this reaches calls that are made with all signals blocked. Allocations are
// counted, and refused, by the program's own definitions of malloc and its kin; they, the clock, the
// process id and the system log are the program's for its whole life. Sanitizers bring an allocator of
// their own: then there is nothing to count (kCountsAllocations).
#ifndef ZEVOBW_TORTURE_FAULT_TRAP_HPP
#define ZEVOBW_TORTURE_FAULT_TRAP_HPP

#include <cstddef>
#include <cstdint>
#include <functional>

namespace torture {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kCountsAllocations = false;
#else
constexpr bool kCountsAllocations = true;
#endif

constexpr int kOwnPid = 4711;                // what getpid() says in this program
constexpr std::int64_t kNow = 1'700'000'000; // what its clock shows, always

struct Fault {
    enum class Kind { kNone, kError, kShort, kAllocation };

    Kind kind = Kind::kNone;
    int at = 0;               // the call or allocation from now, 1 is the next
    bool isLasting = false;   // and all after it
    int error = 0;            // of kError
    bool isOfChanges = false; // of kError: calls that only look succeed
    bool isTiny = false;      // of kShort: one byte, else half of what was asked for
};

// What became of one function call; lies in shared memory, since the process may die of it.
struct Report {
    bool isDone;
    int result;
    unsigned code; // of the error slot
    int lines;     // logged
    int calls;
    int allocations;
    bool wasHit;          // the fault found its call
    bool hasFailedUnlink; // a removal was among what failed
    bool isSyncedAgain;   // a file whose fsync had failed was synced again
    bool isOurs;          // the call was made for a file that libc does not read for itself
    int number;           // of the system call that failed
    char szPath[256];     // that it concerned
    char szLog[4096];     // the lines, as far as there is room
    std::int64_t leakedBytes;
    std::uint64_t leakedFds; // bits of those below 64
    char szGiven[32768];
};

// Whether this machine permits the filter; why not, otherwise (nullptr when it does).
const char *WhyNoFilter();

// Runs call once, with the fault. For use in a process of its own: its thread stays filtered.
// beforeChange, if any, is called before each system call that may change a file.
int RunTrapped(Report &report, const Fault &fault, const std::function<int()> &call,
               const std::function<void()> &beforeChange);

// Memory that the calling thread holds, bytes; and its open descriptors below 64, as bits.
std::int64_t HeldBytes();
std::uint64_t OpenFds();

} // namespace torture

#endif // ZEVOBW_TORTURE_FAULT_TRAP_HPP
