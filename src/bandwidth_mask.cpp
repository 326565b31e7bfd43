// The guard of the creation mask. Two threads that cleared it at once would each save the other's
// cleared mask and leave it so for good; so one at a time, as long as one file or directory takes
// to be made. A fork waits for that, too, since its child would inherit the cleared mask, but not
// for ever: whoever is making something may need a lock that another handler of the fork has taken,
// or stand below a signal handler that forks. Then the child puts the mask right itself.

#include "bandwidth_mask.hpp"

#include "zevocore_file.hpp"

#include <atomic>

#include <pthread.h>
#include <sched.h>
#include <sys/stat.h>

namespace bandwidth {

namespace {

constexpr int kMostYields = 1000; // a few milliseconds, many times what making a file takes
constexpr int kUntouched = -1;    // the mask is the host's still, or again

std::atomic_flag maskTaken = ATOMIC_FLAG_INIT;
std::atomic<int> hostMask{kUntouched}; // while it is cleared; written by the one that holds it
thread_local bool takenByFork = false; // by the fork that this thread is in

bool TryTake() noexcept
{
    return !maskTaken.test_and_set(std::memory_order_acquire);
}

void Give() noexcept
{
    maskTaken.clear(std::memory_order_release);
}

void BeforeFork() noexcept
{
    takenByFork = TryTake();
    for (int yields = 0; !takenByFork && yields < kMostYields; ++yields) {
        ::sched_yield();
        takenByFork = TryTake();
    }
}

void AfterForkInParent() noexcept
{
    if (takenByFork) Give();
}

void AfterForkInChild() noexcept
{
    const int mask = hostMask.exchange(kUntouched);
    if (mask != kUntouched) ::umask(static_cast<mode_t>(mask));
    Give(); // whoever held it is not in this process
}

// Without memory when the library is loaded there are none, and a child may inherit a cleared mask.
[[maybe_unused]] const int forkHandlers =
    ::pthread_atfork(BeforeFork, AfterForkInParent, AfterForkInChild);

} // namespace

OpenMaskScope::OpenMaskScope() noexcept
{
    while (!TryTake())
        ::sched_yield();
    hostMask.store(static_cast<int>(::umask(0)));
}

OpenMaskScope::~OpenMaskScope()
{
    const zevo::KeepErrno keep;
    ::umask(static_cast<mode_t>(hostMask.exchange(kUntouched)));
    Give();
}

} // namespace bandwidth
