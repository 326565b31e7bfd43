// The guard of the creation mask. Two threads that cleared it at once would each save the other's
// cleared mask and leave it so for good; so one at a time, and in a lock that the child of a fork
// can take over: the id of the process whose thread holds it. A child that was forked while its
// parent held the lock inherits a cleared mask as well, and puts it right at once.

#include "bandwidth_mask.hpp"

#include "zevocore_file.hpp"

#include <atomic>

#include <pthread.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

namespace bandwidth {

namespace {

std::atomic<pid_t> maskHolder{0}; // process of the thread that holds the mask cleared, 0 nobody
std::atomic<mode_t> hostMask{0};  // the host's own mask meanwhile; written by the holder

void RestoreInChild() noexcept
{
    if (maskHolder.exchange(0) != 0) ::umask(hostMask.load());
}

// A child runs this before anything else; nothing is waited for in the parent.
const int childHandler = ::pthread_atfork(nullptr, nullptr, RestoreInChild);

} // namespace

OpenMaskScope::OpenMaskScope() noexcept
{
    (void)childHandler; // without memory at start-up there is none, and children keep the mask
    for (pid_t nobody = 0; !maskHolder.compare_exchange_weak(nobody, ::getpid()); nobody = 0)
        ::sched_yield();
    hostMask.store(::umask(0));
}

OpenMaskScope::~OpenMaskScope()
{
    const zevo::KeepErrno keep;
    ::umask(hostMask.load());
    maskHolder.store(0);
}

} // namespace bandwidth
