// The guard of the creation mask. Two threads that cleared it at once would each save the other's
// cleared mask and leave it so for good; so one at a time, and no child is forked meanwhile, which
// would inherit the cleared mask. The wait is as long as one file or directory takes to be made. A
// signal handler that forks on the very thread that is making one would wait for itself.

#include "bandwidth_mask.hpp"

#include "zevocore_file.hpp"

#include <atomic>

#include <pthread.h>
#include <sched.h>

namespace bandwidth {

namespace {

std::atomic_flag maskTaken = ATOMIC_FLAG_INIT;

void Take() noexcept
{
    while (maskTaken.test_and_set(std::memory_order_acquire))
        ::sched_yield();
}

void Give() noexcept
{
    maskTaken.clear(std::memory_order_release);
}

// Without memory when the library is loaded there are none, and a child may inherit a cleared mask.
[[maybe_unused]] const int forkHandlers = ::pthread_atfork(Take, Give, Give);

} // namespace

OpenMaskScope::OpenMaskScope() noexcept
{
    Take();
    hostMask_ = ::umask(0);
}

OpenMaskScope::~OpenMaskScope()
{
    const zevo::KeepErrno keep;
    ::umask(hostMask_);
    Give();
}

} // namespace bandwidth
